// guest-load - keeps the guest's bus and the control socket busy, and measures.
//
//   guest-load send HIDG COUNT REPORT...   writes COUNT reports to a gadget as fast as they are taken: the given ones, in
//                                          hexadecimal digits, again and again
//   guest-load delay BUS HIDG NAME COUNT   one report at a time: from its end on the bus, as usbmon has it, to the event of
//                                          the input device whose name ends so; both times are the kernel's
//   guest-load capture BUS FILE            writes what passes on the bus as a capture (pcap, link type 220), until it is
//                                          killed
//   guest-load connect PATH SECONDS        connects again and again; every fourth connection says half a word
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <linux/input.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{
using Report = std::vector<unsigned char>;

double Now()
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec + time.tv_nsec / 1e9;
}

int Open(const std::string& path, int iMode)
{
    int iFile = open(path.c_str(), iMode);
    if (iFile < 0) {
        throw std::runtime_error(path + ": " + strerror(errno));
    }
    return iFile;
}

void Write(int iGadget, const Report& report)
{
    if (write(iGadget, report.data(), report.size()) != static_cast<ssize_t>(report.size())) {
        throw std::runtime_error(std::string("the gadget: ") + strerror(errno));
    }
}

void Send(const char* pGadget, int iCount, char** ppReports)
{
    std::vector<Report> reports;
    for (; *ppReports; ppReports++) {
        reports.emplace_back();
        for (const char* p = *ppReports; p[0] && p[1]; p += 2) {
            reports.back().push_back(static_cast<unsigned char>(std::stoul(std::string(p, 2), nullptr, 16)));
        }
    }
    int iGadget = Open(pGadget, O_WRONLY);
    double start = Now();
    for (int i = 0; i < iCount; i++) {
        Write(iGadget, reports[static_cast<size_t>(i) % reports.size()]);
    }
    printf("%d reports in %.3f seconds\n", iCount, Now() - start);
}

// The kernel's binary interface to usbmon (its Documentation/usb/usbmon.rst), which a capture has as it stands.
struct UsbmonHead {
    uint64_t ullId;
    unsigned char ucType, ucTransfer, ucEndpoint, ucDevice;
    uint16_t usBus;
    char cSetup, cData;
    int64_t llSeconds;
    int32_t lMicroseconds, lStatus;
    uint32_t ulLength, ulCaptured;
    unsigned char ucMore[24];
};
static_assert(sizeof(UsbmonHead) == 64, "the head is 64 bytes");
struct UsbmonGet {
    UsbmonHead* pHead;
    unsigned char* pData;
    size_t uRoom;
};
enum : unsigned long { UsbmonTake = _IOW(0x92, 10, UsbmonGet) };

class Monitor
{
public:
    explicit Monitor(const std::string& bus) : m_iFile(Open("/dev/usbmon" + bus, O_RDONLY)) {}
    UsbmonHead Head;
    unsigned char Data[4096];
    void Next()
    {
        UsbmonGet get = {&Head, Data, sizeof Data};
        if (ioctl(m_iFile, UsbmonTake, &get) != 0) {
            throw std::runtime_error(std::string("usbmon: ") + strerror(errno));
        }
    }

private:
    int m_iFile;
};

[[noreturn]] void Capture(const std::string& bus, const char* pPath)
{
    Monitor monitor(bus);
    FILE* pOut = fopen(pPath, "wb");
    const unsigned fileHead[] = {0xA1B2C3D4, 4 << 16 | 2, 0, 0, 65535, 220};
    fwrite(fileHead, sizeof fileHead, 1, pOut);
    for (;;) {
        fflush(pOut);
        monitor.Next();
        const UsbmonHead& head = monitor.Head;
        size_t bytes = std::min<size_t>(head.ulCaptured, sizeof monitor.Data);
        const unsigned recordHead[] = {
            static_cast<unsigned>(head.llSeconds), static_cast<unsigned>(head.lMicroseconds),
            static_cast<unsigned>(sizeof head + bytes), static_cast<unsigned>(sizeof head + head.ulCaptured)};
        fwrite(recordHead, sizeof recordHead, 1, pOut);
        fwrite(&head, sizeof head, 1, pOut);
        fwrite(monitor.Data, bytes, 1, pOut);
    }
}

// When this report came over the bus, in microseconds of the real-time clock.
int64_t TimeOnBus(Monitor& monitor, const Report& report)
{
    for (;;) {
        monitor.Next();
        const UsbmonHead& head = monitor.Head;
        if (head.ucType == 'C' && head.ucTransfer == 1 && head.ulCaptured == report.size() &&
            memcmp(monitor.Data, report.data(), report.size()) == 0) {
            return head.llSeconds * 1000000 + head.lMicroseconds;
        }
    }
}

int64_t TimeOfKey(int iInput)
{
    input_event event;
    while (read(iInput, &event, sizeof event) == sizeof event) {
        if (event.type == EV_KEY) {
            return event.input_event_sec * 1000000LL + event.input_event_usec;
        }
    }
    throw std::runtime_error("the input device is gone");
}

// The first one, which types.
int OpenInput(const std::string& end)
{
    for (int i = 0; i < 32; i++) {
        char name[256] = "";
        int iFile = open(("/dev/input/event" + std::to_string(i)).c_str(), O_RDONLY);
        std::string text = iFile >= 0 && ioctl(iFile, EVIOCGNAME(sizeof name), name) > 0 ? name : "";
        if (text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0) {
            return iFile;
        }
        close(iFile);
    }
    throw std::runtime_error("no input device " + end);
}

void Delay(const std::string& bus, const char* pGadget, const char* pName, int iCount)
{
    Monitor monitor(bus);
    int iGadget = Open(pGadget, O_WRONLY), iInput = OpenInput(pName);
    std::vector<int64_t> times;
    for (int i = 0; i < iCount; i++) {
        Report report = {0, 0, static_cast<unsigned char>(i % 2 == 0 ? 4 : 0), 0, 0, 0, 0, 0};
        Write(iGadget, report);
        int64_t llBus = TimeOnBus(monitor, report);
        times.push_back(TimeOfKey(iInput) - llBus);
    }
    std::sort(times.begin(), times.end());
    printf("%zu reports: median %lld us, 90 %% %lld us, most %lld us\n", times.size(),
           (long long)times[times.size() / 2], (long long)times[times.size() * 9 / 10],
           (long long)times.back());
}

void Connect(const char* pPath, double seconds)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, pPath, sizeof address.sun_path - 1);
    int iDone = 0, iFailed = 0;
    double start = Now();
    for (; Now() < start + seconds; iDone++) {
        int iSocket = socket(AF_UNIX, SOCK_STREAM, 0);
        iFailed += connect(iSocket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0;
        if (iDone % 4 == 0) {
            send(iSocket, "half", 4, MSG_NOSIGNAL);
        }
        close(iSocket);
    }
    printf("%d connections, %.0f a second, %d failed\n", iDone, iDone / (Now() - start), iFailed);
}
} // namespace

int main(int argc, char** argv)
{
    std::string verb = argc > 1 ? argv[1] : "";
    alarm(verb == "capture" ? 0 : 60); // what never comes is not waited for
    try {
        if (verb == "capture" && argc == 4) {
            Capture(argv[2], argv[3]);
        } else if (verb == "send" && argc >= 5) {
            Send(argv[2], atoi(argv[3]), argv + 4);
        } else if (verb == "delay" && argc == 6) {
            Delay(argv[2], argv[3], argv[4], atoi(argv[5]));
        } else if (verb == "connect" && argc == 4) {
            Connect(argv[2], atof(argv[3]));
        } else {
            fprintf(stderr, "guest-load: send HIDG COUNT REPORT..., delay BUS HIDG NAME COUNT, "
                            "capture BUS FILE, connect PATH SECONDS\n");
            return 2;
        }
    } catch (const std::exception& error) {
        printf("guest-load: %s\n", error.what());
        return 1;
    }
    return 0;
}
