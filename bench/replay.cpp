// replay.cpp - what a report of a capture costs when it is replayed as JSON: all from the file to the line.
//
//   replay-json       `tvusb replay FILE --json` into nothing: how much longer it takes for 100,000 reports more
//
// The program is the one that was built beside this one; its processor time counts.
#include <sys/resource.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "machine.h"
#include "scenes.h"

namespace
{
enum : unsigned { FEW = 20000, MANY = FEW + 100000, EVERY_US = 20000, LINK_USBMON = 220, HEADER = 64 };

void Put(std::vector<unsigned char>& bytes, size_t at, unsigned long long value, size_t width)
{
    memcpy(&bytes[at], &value, width);
}

// A read goes down, or comes back with a key, or without one.
void WriteRecord(FILE* file, unsigned report, bool bSubmit)
{
    const unsigned long long us = (report + 1ull) * EVERY_US - (bSubmit ? EVERY_US / 2 : 0);
    const size_t data = bSubmit ? 0 : 8;
    std::vector<unsigned char> bytes(16 + HEADER + data);
    Put(bytes, 0, us / 1000000, 4);
    Put(bytes, 4, us % 1000000, 4);
    Put(bytes, 8, HEADER + data, 4);
    Put(bytes, 12, HEADER + data, 4);
    Put(bytes, 16, report + 1, 8); // which transfer
    const unsigned char kind[] = {static_cast<unsigned char>(bSubmit ? 'S' : 'C'), 1, 0x81, 3, 1, 0, '-', 0};
    memcpy(&bytes[16 + 8], kind, sizeof(kind));
    Put(bytes, 16 + 32, 8, 4);
    Put(bytes, 16 + 36, data, 4);
    if (!bSubmit && report % 2 == 0) {
        bytes[16 + HEADER + 2] = static_cast<unsigned char>(0x04 + report / 2 % 26);
    }
    fwrite(bytes.data(), 1, bytes.size(), file);
}

// A file without a name, which stays open as long as this process; its copies find it by this path.
std::string WriteCapture(unsigned reports)
{
    FILE* file = tmpfile();
    Require(file != nullptr, "there is no room for a capture");
    const unsigned head[] = {0xA1B2C3D4, 0x00040002, 0, 0, 65535, LINK_USBMON};
    fwrite(head, sizeof(head), 1, file);
    for (unsigned i = 0; i < reports; i++) {
        WriteRecord(file, i, true);
        WriteRecord(file, i, false);
    }
    Require(fflush(file) == 0, "there is no room for a capture");
    return "/proc/self/fd/" + std::to_string(fileno(file));
}

std::string ProgramBeside()
{
    char self[4096] = {};
    Require(readlink("/proc/self/exe", self, sizeof(self) - 1) > 0, "this program has no path");
    const std::string folder(self, strrchr(self, '/'));
    return folder + "/../tvusb";
}

double Replay(const std::string& program, const std::string& capture)
{
    const pid_t process = fork();
    Require(process >= 0, "no process");
    if (process == 0) {
        dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
        execl(program.c_str(), program.c_str(), "replay", capture.c_str(), "--json", nullptr);
        _exit(2);
    }
    int status = 0;
    rusage used = {};
    Require(wait4(process, &status, 0, &used) == process && status == 0, "the replay fails");
    const auto ns = [](const timeval& time) { return time.tv_sec * 1e9 + time.tv_usec * 1e3; };
    return ns(used.ru_utime) + ns(used.ru_stime);
}
} // namespace

Block MakeReplayScene()
{
    return [few = WriteCapture(FEW), many = WriteCapture(MANY), program = ProgramBeside()] {
        double least[2] = {1e300, 1e300};
        for (int i = 0; i < 3; i++) {
            least[0] = std::min(least[0], Replay(program, few));
            least[1] = std::min(least[1], Replay(program, many));
        }
        return (least[1] - least[0]) / (MANY - FEW);
    };
}
