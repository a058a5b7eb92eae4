// guest-events - reads and writes the input devices of the guest.
//
//   guest-events list                 ids and names of all
//   guest-events watch                prints every key and LED event of every device, those that come later too:
//                                     '12.345678 "NAME" key CODE VALUE', by the monotonic clock
//   guest-events led NAME CODE VALUE  lights an LED of the devices whose name contains NAME
//   guest-events kill SIGNAL PID...   sends the signal and tells when
//   guest-events burst HIDG COUNT     writes COUNT reports of a boot keyboard to a gadget, as fast as they are taken
//   guest-events capture BUS FILE     writes what passes on the bus as a capture (pcap, link type 220), until it is killed
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <linux/input.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{
struct Device {
    int iFile;
    std::string Name;
};

std::map<std::string, Device> devices; // by path; one that is gone has left before another has its path

double Now()
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec + time.tv_nsec / 1e9;
}

// Opens what is new.
void Scan(int iMode)
{
    for (int i = 0; i < 32; i++) {
        std::string path = "/dev/input/event" + std::to_string(i);
        int iFile = devices.count(path) ? -1 : open(path.c_str(), iMode | O_NONBLOCK);
        char name[256] = "";
        if (iFile >= 0 && ioctl(iFile, EVIOCGNAME(sizeof name), name) > 0) {
            int iClock = CLOCK_MONOTONIC;
            ioctl(iFile, EVIOCSCLOCKID, &iClock);
            devices[path] = {iFile, name};
        }
    }
}

void PrintEvents(const Device& device)
{
    input_event event;
    while (read(device.iFile, &event, sizeof event) == sizeof event) {
        if (event.type == EV_SYN && event.code == SYN_DROPPED) {
            printf("dropped\n");
        }
        if (event.type == EV_KEY || event.type == EV_LED) {
            printf("%ld.%06ld \"%s\" %s %d %d\n", (long)event.input_event_sec, (long)event.input_event_usec,
                   device.Name.c_str(), event.type == EV_KEY ? "key" : "led", event.code, event.value);
        }
    }
}

[[noreturn]] void Watch()
{
    double scanned = 0;
    for (bool bFirst = true;; bFirst = false) {
        if (Now() > scanned + 0.02) { // not after every event: a device holds 64 of them
            Scan(O_RDONLY);
            scanned = Now();
        }
        if (bFirst) {
            printf("watching\n");
        }
        std::vector<pollfd> files;
        std::vector<std::string> paths;
        for (auto& [path, device] : devices) {
            files.push_back({device.iFile, POLLIN, 0});
            paths.push_back(path);
        }
        poll(files.data(), files.size(), 10);
        for (size_t i = 0; i < files.size(); i++) {
            if (files[i].revents) {
                PrintEvents(devices[paths[i]]);
            }
            if (files[i].revents & (POLLHUP | POLLERR)) {
                close(files[i].fd);
                devices.erase(paths[i]);
            }
        }
        fflush(stdout);
    }
}

int List()
{
    Scan(O_RDONLY);
    for (auto& [path, device] : devices) {
        input_id id = {};
        ioctl(device.iFile, EVIOCGID, &id);
        printf("bus %02x %04x:%04x version %04x %s\n", id.bustype, id.vendor, id.product, id.version,
               device.Name.c_str());
    }
    return 0;
}

int SetLed(const std::string& name, int iCode, int iValue)
{
    int iLit = 0;
    Scan(O_RDWR);
    for (auto& [path, device] : devices) {
        input_event events[2] = {};
        events[0].type = EV_LED;
        events[0].code = static_cast<unsigned short>(iCode);
        events[0].value = iValue;
        if (device.Name.find(name) != std::string::npos &&
            write(device.iFile, events, sizeof events) == sizeof events) {
            iLit++;
        }
    }
    return iLit > 0 ? 0 : 1;
}

int Kill(int iSignal, char** ppPids)
{
    printf("%.6f", Now());
    int iStatus = 0;
    for (; *ppPids; ppPids++) {
        iStatus |= kill(atoi(*ppPids), iSignal);
    }
    printf(" killed\n");
    return iStatus ? 1 : 0;
}

int Burst(const char* pPath, int iCount)
{
    int iFile = open(pPath, O_WRONLY);
    double start = Now();
    for (int i = 0; i < iCount; i++) {
        unsigned char report[8] = {0, 0, static_cast<unsigned char>(i & 1 ? 0 : 4 + i / 2 % 26)};
        if (write(iFile, report, sizeof report) != sizeof report) {
            perror("guest-events: burst");
            return 1;
        }
    }
    printf("%.3f seconds\n", Now() - start);
    return 0;
}
// The kernel's binary interface to usbmon (its Documentation/usb/usbmon.rst): a head of 64 bytes, as link type 220 has
// it, and the data behind it.
struct UsbmonGet {
    unsigned char* pHead;
    unsigned char* pData;
    size_t uRoom;
};
enum : unsigned long { UsbmonTake = _IOW(0x92, 10, UsbmonGet) };

int Capture(const char* pBus, const char* pPath)
{
    int iFile = open((std::string("/dev/usbmon") + pBus).c_str(), O_RDONLY);
    FILE* pOut = fopen(pPath, "wb");
    if (iFile < 0 || !pOut) {
        perror("guest-events: capture");
        return 1;
    }
    const unsigned fileHead[] = {0xA1B2C3D4, 4 << 16 | 2, 0, 0, 65535, 220};
    fwrite(fileHead, sizeof fileHead, 1, pOut);
    fflush(pOut);
    unsigned char head[64], data[4096];
    UsbmonGet get = {head, data, sizeof data};
    while (ioctl(iFile, UsbmonTake, &get) == 0) {
        unsigned time[4], length; // at 16: seconds (8 bytes), microseconds; at 36: captured bytes
        memcpy(time, head + 16, sizeof time);
        memcpy(&length, head + 36, sizeof length);
        unsigned bytes = 64 + (length < sizeof data ? length : sizeof data);
        const unsigned recordHead[] = {time[0], time[2], bytes, 64 + length};
        fwrite(recordHead, sizeof recordHead, 1, pOut);
        fwrite(head, sizeof head, 1, pOut);
        fwrite(data, bytes - 64, 1, pOut);
        fflush(pOut);
    }
    perror("guest-events: capture");
    return 1;
}
} // namespace

int main(int argc, char** argv)
{
    std::string verb = argc > 1 ? argv[1] : "";
    if (verb == "watch" && argc == 2) {
        Watch();
    }
    if (verb == "list" && argc == 2) {
        return List();
    }
    if (verb == "led" && argc == 5) {
        return SetLed(argv[2], atoi(argv[3]), atoi(argv[4]));
    }
    if (verb == "kill" && argc >= 4) {
        return Kill(atoi(argv[2]), argv + 3);
    }
    if (verb == "burst" && argc == 4) {
        return Burst(argv[2], atoi(argv[3]));
    }
    if (verb == "capture" && argc == 4) {
        return Capture(argv[2], argv[3]);
    }
    fprintf(stderr, "guest-events: list, watch, led NAME CODE VALUE, kill SIGNAL PID..., burst HIDG COUNT, "
                    "capture BUS FILE\n");
    return 2;
}
