// recorded.h - a recording as the keyboards below: what they are, and what they send at the recording's own pace.
//
// It begins with the first report. What the recorded system asked its keyboards is left out: who is above now asks by
// himself. When all is played the keyboards stay for a moment, for what the driver still does by itself.
#pragma once

#include "emulated.h"
#include "usb/interface.h"

#include "tools/replay/script.h"

class RecordedKeyboards
{
public:
    // Reads which keyboards there are. Kinds: what they are where the recording does not tell, as a replay has it; none: what
    // their first report looks like. Fails (InputError).
    RecordedKeyboards(const std::string& file, ScriptChoice choice, std::vector<const EmuDescriptors*> kinds);
    ~RecordedKeyboards();
    RecordedKeyboards(const RecordedKeyboards&) = delete;
    RecordedKeyboards& operator=(const RecordedKeyboards&) = delete;

    // Plugs them in, and plays in a thread of its own; over is called from there at the end. Fails: as EmulatedKeyboard.
    void Play(LiveMachine& machine, const EmulatedAbove& above, std::chrono::microseconds after,
              std::function<void()> over);
    // Pulls them out, and tells what was played and what was left out. Fails (InputError): the recording broke off.
    void End();

private:
    using Clock = std::chrono::steady_clock;
    struct Kind {
        UsbInterface told; // what the recording tells
        EmuDescriptors descriptors;
    };

    void LearnKinds(bool bWhole);
    const EmuDescriptors& Kindless(const ScriptKeyboard& keyboard);
    void Plug(const EmuDescriptors& kind, const ScriptKeyboard& who);
    void Stop();
    void Run(std::chrono::microseconds after, const std::function<void()>& over);
    void PlaySteps(Clock::time_point begin);
    bool WaitUntil(Clock::time_point due);

    const std::vector<const EmuDescriptors*> m_kinds;
    size_t m_uKindless = 0; // keyboards so far of which the recording tells nothing
    Script m_script;
    std::vector<std::unique_ptr<Kind>> m_told; // by keyboard; null: nothing
    LiveMachine* m_pMachine = nullptr;
    EmulatedAbove m_above;
    // While the thread runs, its own.
    std::vector<std::unique_ptr<EmulatedKeyboard>> m_Keyboards;
    size_t m_cReports = 0, m_cLost = 0, m_cRequests = 0;
    std::string m_Fault;
    HANDLE m_hEnd = nullptr; // set by nobody: the thread's wait is ended
    std::atomic<bool> m_bEnd{false};
    HostThread m_Thread = nullptr;
};
