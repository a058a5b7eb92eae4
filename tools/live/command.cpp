// command.cpp - tvusb live: the driver on the real clock, with its control socket, until a signal ends it.
//
// SIGHUP takes the changed configuration over; a file with mistakes changes nothing. SIGINT, SIGTERM: everything is
// taken down in order, and what is left over is told.
#include "machine.h"
#include "server.h"

#include "emu/app/person.h"
#include "tools/common/failure.h"
#include "tools/verbs.h"

#include <fmt/format.h>

#include <csignal>
#include <pthread.h>

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

namespace
{

struct Arguments {
    std::string emulated, config, control, person;
    bool bWatch = false, bJson = false;
};

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

void Reload(LiveMachine& machine, const std::string& file)
{
    try {
        if (file.empty())
            throw InputError("no --config was given");
        Taken taken = machine.TakeOver(ReadConfig(file).definitions);
        for (const std::string& line : taken.refused)
            fmt::print(stderr, "tvusb: {}\n", line);
        fmt::print(stderr, "tvusb: {}: {} added, {} removed, {} kept\n", file, taken.uAdded, taken.uRemoved,
                   taken.uKept);
    } catch (const InputError& error) {
        fmt::print(stderr, "tvusb: {}; nothing was changed\n", error.what());
    }
}

int Live(const Arguments& arguments)
{
    LiveOptions options{DriverEntry, EmuMachine::FindInterfaces(arguments.emulated), {}, nullptr};
    if (options.keyboards.empty())
        throw InputError(fmt::format("--emulate: '{}' is no keyboard; there are {}", arguments.emulated,
                                     fmt::join(EmuMachine::KindNames(), ", ")));
    if (!arguments.config.empty())
        options.config = ReadConfig(arguments.config);
    auto printer = arguments.bJson
                       ? MakeJsonPrinter(stdout)
                       : MakeTablePrinter(stdout, TerminalOf(stdout), EventKinds(options.config.definitions));
    if (arguments.bWatch) {
        setvbuf(stdout, nullptr, _IOLBF, 0);
        options.pWatch = printer.get();
        fmt::print(stderr, "tvusb: --watch shows every key that is typed\n");
    }
    const sigset_t signals = BlockSignals();
    LiveMachine machine(options);
    {
        std::unique_ptr<ControlServer> server;
        if (!arguments.control.empty())
            server = std::make_unique<ControlServer>(arguments.control);
        std::unique_ptr<Typist> typist;
        if (!arguments.person.empty())
            typist = std::make_unique<Typist>(machine, arguments.person);
        fmt::print(stderr, "tvusb: live\n");
        for (int iSignal = 0; sigwait(&signals, &iSignal) == 0 && iSignal == SIGHUP;)
            Reload(machine, arguments.config);
    }
    return machine.End() == 0 ? ExitGood : ExitFailed;
}

} // namespace

void AddLiveVerb(CLI::App& app, Verbs& verbs)
{
    auto arguments = std::make_shared<Arguments>();
    CLI::App* pLive =
        app.add_subcommand("live", "Run the driver in real time and serve it to other processes");
    pLive
        ->add_option("--emulate", arguments->emulated,
                     "the keyboard: normal, or another kind; its interfaces with + between them")
        ->required();
    pLive->add_option("--config", arguments->config,
                      "settings and key definitions (TOML); SIGHUP reads it anew");
    pLive->add_option("--control", arguments->control, "serve the driver to other processes at this socket");
    pLive->add_option("--person", arguments->person,
                      "someone presses these keys every half second: \"ctrl+0x3A Hello\"");
    pLive->add_flag("--watch", arguments->bWatch,
                    "show every report as it happens: what is typed can be read there");
    pLive->add_flag("--json", arguments->bJson, "with --watch: JSON objects, one a line, instead of a table");
    verbs.push_back({pLive, [arguments] { return Live(*arguments); }});
}
