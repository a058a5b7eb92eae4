// capture.cpp - opens pcap and pcapng files and walks their records.
//
// libpcap knows the file formats; usbmon.cpp and wincapture.cpp know what the records hold. A clock that
// steps back inside the capture is held still: time never runs backwards in a replay.
#include "capture.h"
#include "tools/common/failure.h"

#include <fmt/format.h>
#include <pcap/pcap.h>

#include <algorithm>
#include <memory>

namespace
{

constexpr int LinkUsbmonShort = 189;
constexpr int LinkUsbmonLong = 220;
constexpr int LinkWindows = 249;

using CaptureFile = std::unique_ptr<pcap_t, decltype(&pcap_close)>;

// Opens the file and checks its link type.
// Fails (InputError): unreadable, no capture, a link type that is not told above.
CaptureFile OpenCapture(const std::string& file)
{
    char error[PCAP_ERRBUF_SIZE] = "";
    CaptureFile capture(pcap_open_offline(file.c_str(), error), &pcap_close);
    if (!capture)
        FailAtPacket(file, 0, error);

    int iLink = pcap_datalink(capture.get());
    if (iLink != LinkUsbmonShort && iLink != LinkUsbmonLong && iLink != LinkWindows) {
        const char* pName = pcap_datalink_val_to_name(iLink);
        FailAtPacket(file, 1,
                     fmt::format("link type {}{} is no USB capture that is understood (189, 220, 249 are)",
                                 iLink, pName ? fmt::format(" ({})", pName) : ""));
    }
    return capture;
}

// Microseconds of a record's time stamp.
uint64_t MicrosecondsOf(const pcap_pkthdr& header)
{
    return static_cast<uint64_t>(header.ts.tv_sec) * 1000000u + static_cast<uint64_t>(header.ts.tv_usec);
}

} // namespace

void FailAtPacket(const std::string& file, unsigned uNumber, const std::string& what)
{
    throw InputError(fmt::format("{}: packet {}: {}", file, uNumber, what));
}

bool LooksLikeCapture(const Bytes& start)
{
    static const uint8_t magics[][4] = {{0xD4, 0xC3, 0xB2, 0xA1}, {0xA1, 0xB2, 0xC3, 0xD4},
                                        {0x4D, 0x3C, 0xB2, 0xA1}, {0xA1, 0xB2, 0x3C, 0x4D},
                                        {0x34, 0xCD, 0xB2, 0xA1}, {0xA1, 0xB2, 0xCD, 0x34},
                                        {0x0A, 0x0D, 0x0D, 0x0A}};
    return start.size() >= 4 &&
           std::any_of(std::begin(magics), std::end(magics), [&](const uint8_t(&magic)[4]) {
               return std::equal(std::begin(magic), std::end(magic), start.begin());
           });
}

std::vector<Packet> ReadCapture(const std::string& file)
{
    CaptureFile capture = OpenCapture(file);
    int iLink = pcap_datalink(capture.get());

    std::vector<Packet> packets;
    uint64_t ullFirst = 0, ullLatest = 0;
    for (unsigned uNumber = 1;; ++uNumber) {
        pcap_pkthdr* pHeader = nullptr;
        const u_char* pBytes = nullptr;
        int iResult = pcap_next_ex(capture.get(), &pHeader, &pBytes);
        if (iResult == PCAP_ERROR_BREAK)
            return packets;
        if (iResult != 1)
            FailAtPacket(file, uNumber, pcap_geterr(capture.get()));

        uint64_t ullTime = MicrosecondsOf(*pHeader);
        if (uNumber == 1)
            ullFirst = ullTime;
        ullLatest = std::max(ullLatest, ullTime > ullFirst ? ullTime - ullFirst : 0);

        RawRecord record{pBytes, pHeader->caplen, ullLatest, uNumber, file};
        if (iLink == LinkWindows)
            DecodeWindows(record, packets);
        else
            DecodeUsbmon(record, iLink == LinkUsbmonLong ? 64 : 48, packets);
    }
}
