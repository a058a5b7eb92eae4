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

// A word of a descriptor.
uint16_t WordOf(const UCHAR* pBytes)
{
    return static_cast<uint16_t>(pBytes[0] | pBytes[1] << 8);
}

std::string Hex(NTSTATUS status)
{
    return fmt::format("0x{:08X}", static_cast<uint32_t>(status));
}

} // namespace

LiveMachine::LiveMachine(const LiveOptions& options) : m_Options(options), m_Sent(options.keyboards.size())
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
    for (unsigned k = 0; k < options.keyboards.size(); ++k)
        Plug(k, *options.keyboards[k]);
    if (options.config.definitions.empty())
        return; // whoever comes to the control socket defines
    Taken taken = TakeOver(options.config.definitions);
    if (!taken.refused.empty())
        throw std::runtime_error("the driver takes not all definitions: " + taken.refused[0]);
}

LiveMachine::~LiveMachine()
{
    End();
}

void LiveMachine::Plug(unsigned uKeyboard, const EmuDescriptors& kind)
{
    EmuPlugOptions plug;
    plug.Record = false;
    plug.OnReceived = [this, uKeyboard](const EmuReceived& received) { Received(uKeyboard, received); };
    plug.OnLed = [this, uKeyboard](const EmuBytes& report) {
        std::lock_guard<std::mutex> lock(m_Lock);
        if (m_Options.pWatch && !report.empty())
            m_Options.pWatch->Led(NowUs(), uKeyboard, report[0]);
    };
    EmuKeyboard* pKeyboard = m_Machine->Plug(kind, plug);
    m_Keyboards.push_back(pKeyboard);
    NTSTATUS status = NT_SUCCESS(pKeyboard->AddStatus()) ? pKeyboard->StartStatus() : pKeyboard->AddStatus();
    if (!NT_SUCCESS(status))
        throw std::runtime_error(
            fmt::format("the driver does not start keyboard {}: status {}", uKeyboard, Hex(status)));
    std::lock_guard<std::mutex> lock(m_Lock);
    if (m_Options.pWatch && pKeyboard->Filter())
        m_Options.pWatch->Keyboard(NowUs(), uKeyboard, pKeyboard->Index(), KbdTypeOf(pKeyboard->Filter()),
                                   {"emulated", WordOf(kind.pDevice + 8), WordOf(kind.pDevice + 10)});
}

uint64_t LiveMachine::NowUs() const
{
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<microseconds>(steady_clock::now() - m_Begin).count());
}

bool LiveMachine::Report(unsigned uKeyboard, const EmuBytes& report)
{
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        if (m_Options.pWatch)
            m_Sent[uKeyboard].push_back(report);
    }
    return m_Keyboards[uKeyboard]->Report(report);
}

// Reads end with failures when the keyboard goes: nothing to tell.
void LiveMachine::Received(unsigned uKeyboard, const EmuReceived& received)
{
    std::lock_guard<std::mutex> lock(m_Lock);
    if (!m_Options.pWatch || !NT_SUCCESS(received.Status))
        return;
    std::optional<Bytes> sent;
    if (!m_Sent[uKeyboard].empty()) {
        sent = m_Sent[uKeyboard].front();
        m_Sent[uKeyboard].pop_front();
    }
    m_Options.pWatch->Report(NowUs(), uKeyboard, sent, received.Bytes);
}

Taken LiveMachine::TakeOver(const std::vector<KeyDefinition>& definitions)
{
    Taken taken;
    if (!m_Application) {
        m_Application = std::make_unique<EmuApplication>();
        if (!NT_SUCCESS(m_Application->OpenStatus())) {
            taken.refused.push_back("the control device does not open: status " +
                                    Hex(m_Application->OpenStatus()));
            m_Application.reset();
            return taken;
        }
        if (m_Options.config.bReportProcessing)
            for (EmuKeyboard* pKeyboard : m_Keyboards)
                m_Application->StartReportProcessing(pKeyboard->Index());
    }
    auto forAll = [&](const KeyDefinition& definition, const char* pDeed, auto deed) {
        for (EmuKeyboard* pKeyboard : m_Keyboards)
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
