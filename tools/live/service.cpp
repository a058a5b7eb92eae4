// service.cpp - brings the driver up for live, and reads its configuration anew.
#include "service.h"

#include "tools/common/failure.h"
#include "tools/verbs.h"

#include <fmt/format.h>

#include <unistd.h>

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

LiveService::LiveService(const LiveArguments& arguments) : m_config(arguments.config)
{
    LiveOptions options;
    options.pEntry = DriverEntry;
    if (!m_config.empty())
        options.config = ReadConfig(m_config);
    if (LiveTold::Printers printers = Printers(arguments, options.config); !printers.empty())
        m_Told = std::make_unique<LiveTold>(std::move(printers));
    options.pWatch = m_Told.get();
    m_Machine = std::make_unique<LiveMachine>(options);
    if (!arguments.usbip.empty()) {
        m_Usbip = std::make_unique<usbip::Server>(arguments.usbip);
        fmt::print(stderr, "tvusb: {}\n", m_Usbip->Words());
    }
    if (!arguments.control.empty())
        m_Server = std::make_unique<ControlServer>(arguments.control, PeerPatienceMs,
                                                   [this](std::string* pWords) { return Reload(pWords); });
}

LiveTold::Printers LiveService::Printers(const LiveArguments& arguments, const ReplayConfig& config) const
{
    LiveTold::Printers printers;
    if (arguments.bWatch) {
        setvbuf(stdout, nullptr, _IOLBF, 0);
        printers.push_back(
            arguments.bJson ? MakeJsonPrinter(stdout)
                            : MakeTablePrinter(stdout, TerminalOf(stdout), EventKinds(config.definitions)));
    }
    if (!arguments.pcapng.empty())
        printers.push_back(OpenLiveCapture(arguments.pcapng));
    for (const auto& [bIs, pWhat] :
         {std::pair(arguments.bWatch, "--watch is a key logger: it shows"),
          std::pair(!arguments.pcapng.empty(), "--pcapng is a key logger: it keeps")})
        if (bIs)
            fmt::print(stderr, "tvusb: {} every key that is typed, passwords too\n", pWhat);
    return printers;
}

bool LiveService::Reload(std::string* pWords)
{
    std::string words;
    bool bAll = false;
    try {
        if (m_config.empty())
            throw InputError("no --config was given");
        Taken taken = m_Machine->TakeOver(ReadConfig(m_config).definitions);
        for (const std::string& line : taken.refused)
            words += line + "\n";
        words += fmt::format("{}: {} added, {} removed, {} kept", m_config, taken.uAdded, taken.uRemoved,
                             taken.uKept);
        bAll = taken.refused.empty();
    } catch (const InputError& error) {
        words = fmt::format("{}; nothing was changed", error.what());
    }
    fmt::print(stderr, "tvusb: {}\n", words);
    if (pWords)
        *pWords = words;
    return bAll;
}

// Whoever takes nothing of what is told does not keep the program from its end.
int LiveService::End()
{
    m_Usbip.reset();
    m_Server.reset();
    const int iStatus = m_Machine->End() == 0 ? ExitGood : ExitFailed;
    if (m_Told && !m_Told->Finish())
        _exit(ExitFailed);
    return iStatus;
}
