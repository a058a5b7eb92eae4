// guest-events - reads and writes the input devices of the guest.
//
//   guest-events list                 ids and names of all
//   guest-events watch                prints every key and LED event of every device, those that come later too:
//                                     '12.345678 "NAME" key CODE VALUE', by the monotonic clock
//   guest-events led NAME CODE VALUE  lights an LED of the devices whose name contains NAME
//   guest-events kill SIGNAL PID...   sends the signal and tells when
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
#include <sched.h>
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

// A device holds 64 events for who reads it, so this goes before all else that runs.
[[noreturn]] void Watch()
{
    sched_param first = {1};
    sched_setscheduler(0, SCHED_FIFO, &first);
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
    fprintf(stderr, "guest-events: list, watch, led NAME CODE VALUE, kill SIGNAL PID...\n");
    return 2;
}
