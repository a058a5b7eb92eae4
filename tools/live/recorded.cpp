// recorded.cpp - learns what the recorded keyboards are, and plays what they sent.
#include "recorded.h"

#include "tools/common/failure.h"
#include "tools/replay/devices.h"
#include "tools/replay/input.h"
#include "tools/replay/inputfile.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

namespace
{

constexpr auto RunOn = std::chrono::seconds(2);

// The answers to what a system asks a keyboard that it finds.
struct Answers {
    Bytes device, configuration, report;
    std::map<uint8_t, std::u16string> strings;

    void Take(const ScriptStep& step)
    {
        constexpr uint8_t Report = 0x22;
        if (step.outcome != Outcome::Ok)
            return;
        if (IsGetDescriptor(step.setup, DescriptorDevice))
            Longest(device, step.data);
        else if (IsGetDescriptor(step.setup, DescriptorConfiguration))
            Longest(configuration, step.data);
        else if (step.setup[0] == 0x81 && step.setup[1] == 6 && step.setup[3] == Report)
            Longest(report, step.data);
        else if (IsGetDescriptor(step.setup, DescriptorString) && step.setup[2] != 0)
            for (size_t i = 2; i + 1 < step.data.size() && strings[step.setup[2]].size() < 127; i += 2)
                strings[step.setup[2]] += static_cast<char16_t>(step.data[i] | step.data[i + 1] << 8);
    }

    static void Longest(Bytes& known, const Bytes& answer)
    {
        if (answer.size() > known.size())
            known = answer;
    }

    bool IsWhole() const { return !device.empty() && !configuration.empty() && !report.empty(); }

    // Fails (std::runtime_error): they do not tell enough.
    UsbInterface Interface()
    {
        const std::vector<InterfaceEndpoint> endpoints = EndpointsOf(configuration);
        if (endpoints.empty() || !IsWhole())
            throw std::runtime_error("no keyboard");
        UsbInterface interface = InterfaceOf(device, configuration, endpoints[0].ucInterface);
        interface.report = report;
        interface.maker = strings[device[14]];
        interface.product = strings[device[15]];
        return interface;
    }
};

} // namespace

RecordedKeyboards::RecordedKeyboards(const std::string& file, ScriptChoice choice,
                                     std::vector<const EmuDescriptors*> kinds)
    : m_kinds(std::move(kinds))
{
    choice.bLive = true;
    m_script = ReadInput(file, choice);
    for (const ScriptNote& note : m_script.notes)
        if (note.iKeyboard < 0)
            fmt::print(stderr, "tvusb: {}\n", note.text);
    LearnKinds(std::filesystem::is_regular_file(file));
}

RecordedKeyboards::~RecordedKeyboards()
{
    Stop();
}

// Of a recording that comes through a pipe there is no more yet than what comes before each keyboard has reported.
void RecordedKeyboards::LearnKinds(bool bWhole)
{
    std::vector<Answers> answers(m_script.keyboards.size());
    std::vector<bool> known(m_script.keyboards.size());
    StepReader read = m_script.Open();
    for (ScriptStep step; std::count(known.begin(), known.end(), false) != 0 && read(step);) {
        if (step.uKeyboard >= answers.size())
            continue;
        Answers& answer = answers[step.uKeyboard];
        if (step.kind == StepKind::Control)
            answer.Take(step);
        known[step.uKeyboard] =
            known[step.uKeyboard] || (step.kind == StepKind::Report && (!bWhole || answer.IsWhole()));
    }
    for (Answers& answer : answers) {
        auto kind = std::make_unique<Kind>();
        try {
            kind->told = answer.Interface();
            kind->descriptors = kind->told.Descriptors();
        } catch (const std::runtime_error&) {
            kind.reset();
        }
        m_told.push_back(std::move(kind));
    }
}

const EmuDescriptors& RecordedKeyboards::Kindless(const ScriptKeyboard& keyboard)
{
    const EmuDescriptors* pKind =
        m_kinds.empty() ? nullptr : m_kinds[std::min(m_uKindless++, m_kinds.size() - 1)];
    if (pKind)
        return *pKind;
    if (m_script.bEnumerates)
        fmt::print(stderr, "tvusb: keyboard {}: the recording does not tell what it is; taken for {}\n",
                   m_Keyboards.size(), keyboard.pGuess);
    return *EmuMachine::FindKind(keyboard.pGuess);
}

void RecordedKeyboards::Plug(const EmuDescriptors& kind, const ScriptKeyboard& who)
{
    m_Keyboards.push_back(std::make_unique<EmulatedKeyboard>(*m_pMachine, kind, who, m_above));
}

void RecordedKeyboards::Play(LiveMachine& machine, const EmulatedAbove& above,
                             std::chrono::microseconds after, std::function<void()> over)
{
    m_pMachine = &machine;
    m_above = above;
    try {
        for (size_t k = 0; k < m_told.size(); k++)
            Plug(m_told[k] ? m_told[k]->descriptors : Kindless(m_script.keyboards[k]), m_script.keyboards[k]);
    } catch (...) {
        m_Keyboards.clear(); // before the machine goes
        throw;
    }
    m_hEnd = HostCreateEvent(true);
    m_Thread = HostStartThread([this, after, over = std::move(over)] { Run(after, over); });
}

void RecordedKeyboards::Stop()
{
    m_bEnd = true;
    if (HostThread thread = std::exchange(m_Thread, nullptr)) {
        StopFollowing(); // no more of a pipe is waited for
        HostEndThreadWaits(thread);
        HostJoinThread(thread);
        HostCloseHandle(m_hEnd);
    }
    m_Keyboards.clear();
}

void RecordedKeyboards::End()
{
    Stop();
    fmt::print(stderr, "tvusb: {} reports were played; left out: {} requests of the recorded system{}\n",
               m_cReports, m_cRequests,
               m_cLost != 0 ? fmt::format(", {} reports that nobody read", m_cLost) : "");
    if (!m_Fault.empty())
        throw InputError(m_Fault);
}

bool RecordedKeyboards::WaitUntil(Clock::time_point due)
{
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(due - Clock::now()).count();
    if (left > 0)
        HostWaitEvent(m_hEnd, left);
    return !m_bEnd;
}

void RecordedKeyboards::Run(std::chrono::microseconds after, const std::function<void()>& over)
{
    try {
        PlaySteps(Clock::now() + after);
        WaitUntil(Clock::now() + RunOn);
    } catch (const std::exception& error) {
        m_Fault = error.what();
    }
    over();
}

void RecordedKeyboards::PlaySteps(Clock::time_point begin)
{
    StepReader read = m_script.Open();
    bool bBegun = false;
    for (ScriptStep step; !m_bEnd && read(step);) {
        if (step.kind == StepKind::Control) {
            ++m_cRequests;
            continue;
        }
        if (step.kind == StepKind::Keyboard) {
            Plug(Kindless(*step.pKeyboard), *step.pKeyboard);
            continue;
        }
        const std::chrono::microseconds at(step.ullUs);
        if (!std::exchange(bBegun, true))
            begin -= at;
        if (!WaitUntil(begin + at))
            return;
        ++(m_Keyboards[step.uKeyboard]->Report(step.data) ? m_cReports : m_cLost);
    }
}
