// export.cpp - who has which keyboard.
#include "export.h"
#include "session.h"

#include <algorithm>

namespace usbip
{

void Export::Input(uint8_t ucEndpoint, const Bytes& report)
{
    std::lock_guard<std::mutex> lock(m_Lock);
    if (m_pImporter)
        m_pImporter->Input(ucEndpoint, report);
}

bool Export::Take(Session* pImporter)
{
    std::lock_guard<std::mutex> lock(m_Lock);
    if (m_bGone || m_pImporter)
        return false;
    m_pImporter = pImporter;
    return true;
}

void Export::GiveBack()
{
    std::lock_guard<std::mutex> lock(m_Lock);
    m_pImporter = nullptr;
    m_Back.notify_all();
}

void Export::Withdraw()
{
    std::unique_lock<std::mutex> lock(m_Lock);
    m_bGone = true;
    if (m_pImporter)
        m_pImporter->End();
    m_Back.wait(lock, [this] { return !m_pImporter; });
}

void Exports::Add(std::shared_ptr<Export> exported)
{
    std::lock_guard<std::mutex> lock(m_Lock);
    m_All.push_back(std::move(exported));
}

void Exports::Remove(const std::shared_ptr<Export>& exported)
{
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        m_All.erase(std::remove(m_All.begin(), m_All.end(), exported), m_All.end());
    }
    exported->Withdraw();
}

std::vector<std::shared_ptr<Export>> Exports::All() const
{
    std::lock_guard<std::mutex> lock(m_Lock);
    return m_All;
}

} // namespace usbip
