// command.cpp - tvusb live: the driver on the real clock, with its control socket, until a signal ends it.
//
// SIGHUP takes the changed configuration over; a file with mistakes changes nothing. SIGINT, SIGTERM: everything is
// taken down in order, and what is left over is told. A real keyboard has a guardian, an emulated one needs none.
#include "guard/guardian.h"
#include "panic.h"
#include "worker.h"

#include "emu/app/person.h"
#include "tools/common/failure.h"
#include "tools/verbs.h"

#include <fmt/format.h>

#include <csignal>
#include <pthread.h>

namespace
{

// Someone who presses these keys every half second.
class Typist
{
public:
    Typist(LiveMachine& machine, const std::string& words) : m_Machine(machine)
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
                m_Machine.Report(0, {report.begin(), report.end()});
    }

    LiveMachine& m_Machine;
    std::vector<tvusb::KeyReport> m_Keys;
    HANDLE m_hEnd;
    std::atomic<bool> m_bEnd{false};
    HostThread m_Thread;
};

sigset_t BlockSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (int iSignal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&signals, iSignal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

int LiveEmulated(const LiveArguments& arguments)
{
    const std::vector<const EmuDescriptors*> keyboards = EmuMachine::FindInterfaces(arguments.emulated);
    if (keyboards.empty())
        throw InputError(fmt::format("--emulate: '{}' is no keyboard; there are {}", arguments.emulated,
                                     fmt::join(EmuMachine::KindNames(), ", ")));
    const sigset_t signals = BlockSignals();
    LiveService service(arguments, keyboards);
    {
        std::unique_ptr<Typist> typist;
        if (!arguments.person.empty())
            typist = std::make_unique<Typist>(service.Machine(), arguments.person);
        fmt::print(stderr, "tvusb: live\n");
        for (int iSignal = 0; sigwait(&signals, &iSignal) == 0 && iSignal == SIGHUP;)
            service.Reload();
    }
    return service.End();
}

int LiveReal(const LiveArguments& arguments)
{
    if (arguments.bGiveBack)
        return GiveBackOnly(arguments.device);
    PanicChord{arguments.panic}; // a mistake there, or in the configuration, is told before anything is taken
    if (!arguments.config.empty())
        ReadConfig(arguments.config);
    GuardOptions options{arguments.device, arguments.user, arguments.bYes, arguments.bWait, arguments.panic};
    return Guard(options, [&](GuardChannel& guardian) { return LiveWork(arguments, guardian); });
}

} // namespace

void AddLiveVerb(CLI::App& app, Verbs& verbs)
{
    auto arguments = std::make_shared<LiveArguments>();
    CLI::App* pLive = app.add_subcommand("live", "Run the driver in real time, at a real USB keyboard or an "
                                                 "emulated one, and serve it to other processes");
    CLI::Option* pEmulate = pLive->add_option(
        "--emulate", arguments->emulated,
        "instead of a real keyboard: normal, or another kind; its interfaces with + between them");
    auto add = [&](const char* pName, auto& value, const char* pHelp, bool bReal) {
        CLI::Option* pOption = pLive->add_option(pName, value, pHelp);
        return bReal ? pOption->excludes(pEmulate) : pOption;
    };
    add("--device", arguments->device,
        "the keyboard: VID:PID, its port or a part of its name; else the only one", true);
    add("--user", arguments->user, "the driver runs as this user, with no rights besides", true);
    add("--panic", arguments->panic, "held together on the keyboard, these keys end it", true)
        ->default_val("Backspace+Escape+Enter");
    pLive->add_flag("--yes", arguments->bYes, "take also the only keyboard of this machine's terminal")
        ->excludes(pEmulate);
    pLive->add_flag("--wait", arguments->bWait, "wait for the keyboard where it is not there yet")
        ->excludes(pEmulate);
    pLive
        ->add_flag("--give-back", arguments->bGiveBack,
                   "nothing but this: the system's own driver gets a keyboard that nobody has any more")
        ->excludes(pEmulate);
    pLive
        ->add_flag("--latency", arguments->bLatency,
                   "measure how long reports take from the bus to the HID device, and tell at the end")
        ->excludes(pEmulate);
    add("--config", arguments->config, "settings and key definitions (TOML); SIGHUP reads it anew", false);
    add("--control", arguments->control, "serve the driver to other processes at this socket", false);
    add("--usbip", arguments->usbip,
        "offer the filtered keyboard over USB/IP at this address, 127.0.0.1:3240 without one", false)
        ->expected(0, 1)
        ->default_str("127.0.0.1:3240");
    add("--person", arguments->person,
        "someone presses these keys of the emulated keyboard every half second: \"ctrl+0x3A Hello\"", false)
        ->needs(pEmulate);
    pLive->add_flag("--watch", arguments->bWatch,
                    "show every report as it happens: a key logger, passwords can be read there");
    pLive->add_flag("--json", arguments->bJson, "with --watch: JSON objects, one a line, instead of a table");
    verbs.push_back({pLive, [arguments] {
                         return arguments->emulated.empty() ? LiveReal(*arguments) : LiveEmulated(*arguments);
                     }});
}
