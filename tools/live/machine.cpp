// machine.cpp - brings the driver to life in real time, and takes it down again.
#include "machine.h"

#include "tools/replay/kbdtype.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace
{

bool IsSame(const KeyDefinition& a, const KeyDefinition& b)
{
    return memcmp(&a, &b, sizeof(a)) == 0;
}

bool Has(const std::vector<KeyDefinition>& definitions, const KeyDefinition& wanted)
{
    return std::any_of(definitions.begin(), definitions.end(),
                       [&](const KeyDefinition& definition) { return IsSame(definition, wanted); });
}

// What the driver takes for the same definition: it refuses the second of two such.
bool IsTwin(const KeyDefinition& a, const KeyDefinition& b)
{
    KeyDefinition other = b;
    other.ulSwallow = a.ulSwallow;
    return IsSame(a, other);
}

std::string Hex(NTSTATUS status)
{
    return fmt::format("0x{:08X}", static_cast<uint32_t>(status));
}

} // namespace

LiveMachine::LiveMachine(const LiveOptions& options)
    : m_Options(options), m_Definitions(options.config.definitions)
{
    EmuMachineOptions machine;
    machine.Entry = options.pEntry;
    machine.Mode = HostThreaded;
    machine.FileRoot = options.config.fileRoot;
    for (const auto& [name, value] : options.config.settings)
        std::visit([&, &key = name](const auto& content) { machine.Settings[key] = content; }, value);
    m_Machine = std::make_unique<EmuMachine>(machine);
    if (!NT_SUCCESS(m_Machine->LoadStatus()))
        throw std::runtime_error("the driver does not load: status " + Hex(m_Machine->LoadStatus()));
}

LiveMachine::~LiveMachine()
{
    End();
}

unsigned LiveMachine::Add(const EmuDescriptors& kind, EmuPlugOptions plug, const ScriptKeyboard& who)
{
    const unsigned uKeyboard = m_uNext++;
    plug.Record = false;
    plug.Start = false;
    plug.OnReceived = [this, uKeyboard, first = plug.OnReceived](const EmuReceived& received) {
        if (first)
            first(received);
        Received(uKeyboard, received);
    };
    plug.OnLed = [this, uKeyboard](const EmuBytes& report) {
        std::lock_guard<std::mutex> lock(m_Lock);
        if (m_Options.pWatch && !report.empty())
            m_Options.pWatch->Led(NowUs(), uKeyboard, report[0]);
    };
    EmuKeyboard* pKeyboard = m_Machine->Plug(kind, plug);
    if (!NT_SUCCESS(pKeyboard->AddStatus()) || !pKeyboard->Plugged())
        throw std::runtime_error(fmt::format("the driver does not take keyboard {}: status {}", uKeyboard,
                                             Hex(pKeyboard->AddStatus())));
    std::lock_guard<std::mutex> lock(m_Lock);
    Slot& slot = m_Keyboards[uKeyboard];
    slot.pKeyboard = pKeyboard;
    slot.who = who;
    if (m_Options.pWatch)
        m_Options.pWatch->Descriptors(NowUs(), uKeyboard, Bytes(kind.pDevice, kind.pDevice + kind.pDevice[0]),
                                      Bytes(kind.pConfiguration, kind.pConfiguration + kind.ulConfiguration));
    return uKeyboard;
}

void LiveMachine::Start(unsigned uKeyboard)
{
    EmuKeyboard& keyboard = *At(uKeyboard);
    NTSTATUS status = keyboard.Start();
    if (!NT_SUCCESS(status))
        throw std::runtime_error(
            fmt::format("the driver does not start keyboard {}: status {}", uKeyboard, Hex(status)));
    std::lock_guard<std::mutex> definitions(m_DefinitionLock);
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        Slot& slot = m_Keyboards[uKeyboard];
        slot.bStarted = true;
        if (m_Options.pWatch && keyboard.Filter())
            m_Options.pWatch->Keyboard(NowUs(), uKeyboard, keyboard.Index(), KbdTypeOf(keyboard.Filter()),
                                       slot.who);
    }
    if (m_Definitions.empty() && !m_Application)
        return; // whoever comes to the control socket defines
    Taken taken;
    if (OpenApplication(taken))
        GiveDefinitions(keyboard, taken);
    if (!taken.refused.empty())
        throw std::runtime_error("the driver takes not all definitions: " + taken.refused[0]);
}

// The control device goes with the last keyboard, so the application's handle does.
void LiveMachine::Unplug(unsigned uKeyboard, bool bPulled)
{
    std::lock_guard<std::mutex> definitions(m_DefinitionLock);
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        m_Keyboards[uKeyboard].bStarted = false;
    }
    if (Started().empty())
        m_Application.reset();
    At(uKeyboard)->Unplug(bPulled);
}

void LiveMachine::Forget(unsigned uKeyboard)
{
    m_Machine->Forget(At(uKeyboard));
    std::lock_guard<std::mutex> lock(m_Lock);
    m_Keyboards.erase(uKeyboard);
}

EmuKeyboard* LiveMachine::At(unsigned uKeyboard)
{
    std::lock_guard<std::mutex> lock(m_Lock);
    return m_Keyboards.at(uKeyboard).pKeyboard;
}

std::vector<EmuKeyboard*> LiveMachine::Started()
{
    std::lock_guard<std::mutex> lock(m_Lock);
    std::vector<EmuKeyboard*> started;
    for (auto& [uKeyboard, slot] : m_Keyboards)
        if (slot.bStarted)
            started.push_back(slot.pKeyboard);
    return started;
}

uint64_t LiveMachine::NowUs() const
{
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<microseconds>(steady_clock::now() - m_Begin).count());
}

bool LiveMachine::Report(unsigned uKeyboard, const EmuBytes& report)
{
    EmuKeyboard* pKeyboard = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        Slot& slot = m_Keyboards.at(uKeyboard);
        pKeyboard = slot.pKeyboard;
        if (m_Options.pWatch) {
            slot.sent.push_back(report);
            slot.sender = std::this_thread::get_id();
        }
    }
    const bool bTaken = pKeyboard->Report(report);
    if (m_Options.pWatch) {
        std::lock_guard<std::mutex> lock(m_Lock);
        Slot& slot = m_Keyboards.at(uKeyboard);
        slot.sender = {};
        if (!bTaken)
            slot.sent.pop_back();
    }
    return bTaken;
}

// Reads end with failures when the keyboard goes: nothing to tell. What the keyboard still keeps, or is being sent by
// another thread, has not been received: then the driver answered by itself.
void LiveMachine::Received(unsigned uKeyboard, const EmuReceived& received)
{
    std::lock_guard<std::mutex> lock(m_Lock);
    if (!m_Options.pWatch || !NT_SUCCESS(received.Status))
        return;
    Slot& slot = m_Keyboards.at(uKeyboard);
    size_t cBelow = slot.pKeyboard->KeptReports();
    if (slot.sender != std::thread::id() && slot.sender != std::this_thread::get_id())
        ++cBelow;
    std::optional<Bytes> sent;
    if (slot.sent.size() > cBelow) {
        sent = std::move(slot.sent.front());
        slot.sent.pop_front();
    }
    m_Options.pWatch->Report(NowUs(), uKeyboard, sent, received.Bytes);
}

// Lock: the definitions'.
bool LiveMachine::OpenApplication(Taken& taken)
{
    if (m_Application)
        return true;
    m_Application = std::make_unique<EmuApplication>();
    if (NT_SUCCESS(m_Application->OpenStatus()))
        return true;
    taken.refused.push_back("the control device does not open: status " + Hex(m_Application->OpenStatus()));
    m_Application.reset();
    return false;
}

// A keyboard that has come gets what the others have. Lock: the definitions'.
void LiveMachine::GiveDefinitions(EmuKeyboard& keyboard, Taken& taken)
{
    if (m_Options.config.bReportProcessing)
        m_Application->StartReportProcessing(keyboard.Index());
    for (const KeyDefinition& definition : m_Definitions)
        if (NTSTATUS status = m_Application->AddDefinition(keyboard.Index(), definition); !NT_SUCCESS(status))
            taken.refused.push_back(fmt::format("adding definition {} at keyboard {}: status {}",
                                                definition.ulId, keyboard.Index(), Hex(status)));
}

Taken LiveMachine::TakeOver(const std::vector<KeyDefinition>& definitions)
{
    Taken taken;
    std::lock_guard<std::mutex> lock(m_DefinitionLock);
    const std::vector<EmuKeyboard*> keyboards = Started();
    const bool bFirst = !m_Application;
    if (!keyboards.empty() && !OpenApplication(taken))
        return taken;
    if (bFirst && m_Options.config.bReportProcessing)
        for (EmuKeyboard* pKeyboard : keyboards)
            m_Application->StartReportProcessing(pKeyboard->Index());
    auto forAll = [&](const KeyDefinition& definition, const char* pDeed, auto deed) {
        for (EmuKeyboard* pKeyboard : keyboards)
            if (NTSTATUS status = deed(pKeyboard->Index()); !NT_SUCCESS(status))
                taken.refused.push_back(fmt::format("{} definition {} at keyboard {}: status {}", pDeed,
                                                    definition.ulId, pKeyboard->Index(), Hex(status)));
    };
    auto add = [&](const KeyDefinition& definition) {
        forAll(definition, "adding",
               [&](ULONG ulIndex) { return m_Application->AddDefinition(ulIndex, definition); });
        ++taken.uAdded;
    };
    auto remove = [&](const KeyDefinition& definition) {
        forAll(definition, "removing",
               [&](ULONG ulIndex) { return m_Application->RemoveDefinition(ulIndex, definition.ulId); });
        ++taken.uRemoved;
    };
    auto isTwinOfNew = [&](const KeyDefinition& old) {
        return std::any_of(definitions.begin(), definitions.end(),
                           [&](const KeyDefinition& definition) { return IsTwin(old, definition); });
    };
    // The driver removes the oldest with an id: of a changed definition, the old one.
    for (const KeyDefinition& old : m_Definitions)
        if (!Has(definitions, old) && isTwinOfNew(old))
            remove(old);
    for (const KeyDefinition& definition : definitions)
        if (Has(m_Definitions, definition))
            ++taken.uKept;
        else
            add(definition);
    for (const KeyDefinition& old : m_Definitions)
        if (!Has(definitions, old) && !isTwinOfNew(old))
            remove(old);
    m_Definitions = definitions;
    return taken;
}

unsigned LiveMachine::End()
{
    m_Application.reset();
    unsigned uLeft = m_Machine ? m_Machine->Unload() : 0;
    m_Machine.reset();
    return uLeft;
}
