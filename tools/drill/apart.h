// apart.h - a copy of the program that goes on by itself, and may stop or hang there.
#pragma once

#include <optional>
#include <string>
#include <vector>

// How a copy ended.
struct Apart {
    std::vector<std::string> said;   // by SayApart and EndApart, line by line
    std::vector<std::string> errors; // what it printed on standard error
    bool bHung = false;              // it did not end in time, and was ended
    int iSignal = 0;                 // 0: it ended by itself
};

// Forks. In the copy: nothing; it goes on from here and ends with EndApart. In the caller: how the copy ended, at the
// latest after that many milliseconds.
// The emulated machine lives in one thread, so a copy has it whole. Fails (std::runtime_error): no copy can be made.
std::optional<Apart> GoApart(unsigned uMostMs);
// Says something at once, whatever becomes of the copy then.
void SayApart(const std::string& line);
[[noreturn]] void EndApart(const std::vector<std::string>& says);
