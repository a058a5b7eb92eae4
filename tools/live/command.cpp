// command.cpp - tvusb live: the driver on the real clock, with its control socket, until a signal or a recording's end.
//
// SIGHUP takes the changed configuration over; a file with mistakes changes nothing. SIGINT, SIGTERM: everything is
// taken down in order, and what is left over is told. A real keyboard has a guardian, others need none.
#include "guard/guardian.h"
#include "panic.h"
#include "recorded.h"
#include "worker.h"

#include "emu/app/person.h"
#include "tools/common/failure.h"
#include "tools/replay/command.h"
#include "tools/verbs.h"

#include <fmt/format.h>

#include <csignal>
#include <pthread.h>
#include <unistd.h>

namespace
{

// Someone who presses these keys every half second.
class Typist
{
public:
    Typist(EmulatedKeyboard& keyboard, const std::string& words) : m_Keyboard(keyboard)
    {
        std::string bad;
        m_Keys = ReportsOfWords(words, &bad);
        if (!bad.empty())
            throw InputError("--person: nobody can press " + bad);
        m_hEnd = HostCreateEvent(true);
        m_Thread = HostStartThread([this] { Type(); });
    }

    // The event is set by nobody: the thread's wait is ended.
    ~Typist()
    {
        m_bEnd = true;
        HostEndThreadWaits(m_Thread);
        HostJoinThread(m_Thread);
        HostCloseHandle(m_hEnd);
    }

private:
    void Type()
    {
        while (!m_bEnd && HostWaitEvent(m_hEnd, 500000) == STATUS_TIMEOUT)
            for (const tvusb::KeyReport& report : m_Keys)
                m_Keyboard.Report({report.begin(), report.end()});
    }

    EmulatedKeyboard& m_Keyboard;
    std::vector<tvusb::KeyReport> m_Keys;
    HANDLE m_hEnd;
    std::atomic<bool> m_bEnd{false};
    HostThread m_Thread;
};

constexpr int Over = SIGUSR1; // the recording is

sigset_t BlockSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (int iSignal : {SIGINT, SIGTERM, SIGHUP, Over})
        sigaddset(&signals, iSignal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

void WaitForTheEnd(const sigset_t& signals, LiveService& service)
{
    fmt::print(stderr, "tvusb: live\n");
    for (int iSignal = 0; sigwait(&signals, &iSignal) == 0 && iSignal == SIGHUP;)
        service.Reload();
}

int LiveEmulated(const LiveArguments& arguments)
{
    const std::vector<const EmuDescriptors*> kinds = EmuMachine::FindInterfaces(arguments.emulated);
    if (kinds.empty())
        throw InputError(fmt::format("--emulate: '{}' is no keyboard; there are {}", arguments.emulated,
                                     fmt::join(EmuMachine::KindNames(), ", ")));
    const sigset_t signals = BlockSignals();
    LiveService service(arguments);
    {
        std::vector<std::unique_ptr<EmulatedKeyboard>> keyboards;
        for (const EmuDescriptors* pKind : kinds)
            keyboards.push_back(
                std::make_unique<EmulatedKeyboard>(service.Machine(), *pKind, WhoIs(*pKind, "emulated"),
                                                   EmulatedAbove{arguments.bUhid, service.Exports()}));
        std::unique_ptr<Typist> typist;
        if (!arguments.person.empty())
            typist = std::make_unique<Typist>(*keyboards[0], arguments.person);
        WaitForTheEnd(signals, service);
        typist.reset();
    }
    return service.End();
}

int LiveRecorded(const LiveArguments& arguments)
{
    ScriptChoice choice;
    if (!arguments.device.empty())
        choice.devices = {arguments.device};
    RecordedKeyboards recorded(arguments.recording, choice, KindsNamed(arguments.kinds));
    const sigset_t signals = BlockSignals();
    LiveService service(arguments);
    recorded.Play(service.Machine(), {arguments.bUhid, service.Exports()},
                  std::chrono::microseconds(static_cast<int64_t>(arguments.after * 1e6)),
                  [] { kill(getpid(), Over); });
    WaitForTheEnd(signals, service);
    recorded.End();
    return service.End();
}

int LiveReal(const LiveArguments& arguments)
{
    if (arguments.bGiveBack)
        return GiveBackOnly(arguments.device);
    PanicChord{arguments.panic}; // a mistake there, or in the configuration, is told before anything is taken
    if (!arguments.config.empty())
        ReadConfig(arguments.config);
    GuardOptions options{arguments.device,        arguments.user,  arguments.bYes,
                         arguments.usbip.empty(), arguments.bWait, arguments.panic};
    return Guard(options, [&](GuardChannel& guardian) { return LiveWork(arguments, guardian); });
}

void AddRealOptions(CLI::App& live, LiveArguments& arguments)
{
    live.add_option("--user", arguments.user, "the driver runs as this user, with no rights besides");
    live.add_option("--panic", arguments.panic, "held together on the keyboard, these keys end it")
        ->default_val("Backspace+Escape+Enter");
    live.add_flag("--yes", arguments.bYes, "take also the only keyboard of this machine's terminal");
    live.add_flag("--wait", arguments.bWait, "wait for the keyboard where it is not there yet");
    live.add_flag("--give-back", arguments.bGiveBack,
                  "nothing but this: the system's own driver gets a keyboard that nobody has any more");
    live.add_flag("--latency", arguments.bLatency,
                  "measure how long reports take from the bus to the HID device, and tell at the end");
}

void AddCommonOptions(CLI::App& live, LiveArguments& arguments)
{
    live.add_option("--device", arguments.device,
                    "the keyboard: VID:PID, its port or a part of its name; else the only one. Of a "
                    "recording's: VID:PID or a part of its name; else all");
    live.add_option("--config", arguments.config,
                    "settings and key definitions (TOML); SIGHUP reads it anew");
    live.add_option("--control", arguments.control, "serve the driver to other processes at this socket");
    live.add_option("--usbip", arguments.usbip,
                    "offer the filtered keyboard over USB/IP at this address, 127.0.0.1:3240 without one")
        ->expected(0, 1)
        ->default_str("127.0.0.1:3240");
    live.add_option("--pcapng", arguments.pcapng,
                    "write both sides of the driver as a capture while they happen; - for standard output");
    live.add_flag("--watch", arguments.bWatch,
                  "show every report as it happens: a key logger, passwords can be read there");
    live.add_flag("--json", arguments.bJson, "with --watch: JSON objects, one a line, instead of a table");
}

int Live(const LiveArguments& arguments)
{
    if (!arguments.emulated.empty())
        return LiveEmulated(arguments);
    return arguments.recording.empty() ? LiveReal(arguments) : LiveRecorded(arguments);
}

} // namespace

void AddLiveVerb(CLI::App& app, Verbs& verbs)
{
    auto arguments = std::make_shared<LiveArguments>();
    CLI::App* pLive =
        app.add_subcommand("live", "Run the driver in real time, at a real USB keyboard, an "
                                   "emulated or a recorded one, and serve it to other processes");
    AddRealOptions(*pLive, *arguments);
    const std::vector<CLI::Option*> real = pLive->get_options();
    AddCommonOptions(*pLive, *arguments);
    CLI::Option* pEmulate = pLive->add_option(
        "--emulate", arguments->emulated,
        "instead of a real keyboard: normal, or another kind; its interfaces with + between them");
    CLI::Option* pReplay =
        pLive->add_option("--replay", arguments->recording,
                          "instead of a real keyboard: the keyboards of this recording, at its "
                          "own pace, until it is over (captures and recordings as tvusb replay "
                          "reads them)");
    pEmulate->excludes(pReplay)->excludes("--device");
    for (CLI::Option* pOption : real)
        if (pOption->get_name() != "--help")
            pOption->excludes(pEmulate)->excludes(pReplay);
    pLive
        ->add_option(
            "--person", arguments->person,
            "someone presses these keys of the emulated keyboard every half second: \"ctrl+0x3A Hello\"")
        ->needs(pEmulate);
    pLive->add_option("--after", arguments->after, "the recording begins so many seconds later")
        ->check(FaultOfSecond)
        ->needs(pReplay);
    AddKeyboardOption(*pLive, arguments->kinds);
    pLive->get_option("--keyboard")->needs(pReplay);
    pLive->add_flag("--uhid", arguments->bUhid,
                    "of an emulated or a recorded keyboard: this system reads it filtered, by /dev/uhid");
    verbs.push_back({pLive, [arguments] {
                         if (arguments->bUhid && arguments->emulated.empty() && arguments->recording.empty())
                             throw InputError(
                                 "--uhid: a real keyboard has it, unless it is offered by --usbip");
                         if (arguments->bWatch && arguments->pcapng == "-")
                             throw InputError("--pcapng: --watch has the standard output already");
                         return Live(*arguments);
                     }});
}
