// service.cpp - brings the driver up for live, and reads its configuration anew.
#include "service.h"

#include "usbip/offer.h"

#include "tools/common/failure.h"
#include "tools/verbs.h"

#include <fmt/format.h>

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

LiveService::LiveService(const LiveArguments& arguments, const std::vector<const EmuDescriptors*>& keyboards)
    : m_config(arguments.config)
{
    LiveOptions options;
    options.pEntry = DriverEntry;
    options.keyboards = keyboards;
    const bool bOffered = !arguments.usbip.empty() && !keyboards.empty();
    if (bOffered)
        options.OnSeen = [this, keyboards](unsigned uKeyboard, const Bytes& report) {
            if (m_Usbip)
                m_Usbip->Input(uKeyboard, usbip::EndpointOf(*keyboards[uKeyboard]), report);
        };
    if (!m_config.empty())
        options.config = ReadConfig(m_config);
    m_Printer = arguments.bJson
                    ? MakeJsonPrinter(stdout)
                    : MakeTablePrinter(stdout, TerminalOf(stdout), EventKinds(options.config.definitions));
    if (arguments.bWatch) {
        setvbuf(stdout, nullptr, _IOLBF, 0);
        options.pWatch = m_Printer.get();
        fmt::print(stderr,
                   "tvusb: --watch is a key logger: it shows every key that is typed, passwords too\n");
    }
    m_Machine = std::make_unique<LiveMachine>(options);
    if (bOffered)
        OfferOverUsbip(arguments.usbip, keyboards);
    if (!arguments.control.empty())
        m_Server = std::make_unique<ControlServer>(arguments.control, PeerPatienceMs,
                                                   [this](std::string* pWords) { return Reload(pWords); });
}

// Nobody types at an emulated keyboard before this returns.
void LiveService::OfferOverUsbip(const std::string& address,
                                 const std::vector<const EmuDescriptors*>& keyboards)
{
    std::vector<std::unique_ptr<usbip::Export>> exports;
    for (unsigned i = 0; i < keyboards.size(); i++)
        exports.push_back(usbip::Offer(fmt::format("1-{}", i + 1), *keyboards[i], *m_Machine->At(i)));
    m_Usbip = std::make_unique<usbip::Server>(address, std::move(exports));
    fmt::print(stderr, "tvusb: {}\n", m_Usbip->Words());
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

int LiveService::End()
{
    m_Usbip.reset();
    m_Server.reset();
    return m_Machine->End() == 0 ? ExitGood : ExitFailed;
}
