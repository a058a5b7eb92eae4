// script.h - what a replay plays: the keyboards of an input and, in order of time, what happens to them.
//
// Both kinds of input become a Script: a capture through keyboards.cpp, a recording through recording.cpp.
// A control transfer is one step, at the time at which its data reaches the other side: data going out when
// it was submitted, data coming in when it was completed.
#pragma once

#include "packet.h"

#include <string>
#include <vector>

struct ScriptKeyboard {
    std::string name;
    uint16_t usVendor = 0;
    uint16_t usProduct = 0;
    uint32_t ulReadBytes = 8; // what the stack above asks for with each read: the endpoint's packet size
};

enum class StepKind { Report, Control };

struct ScriptStep {
    StepKind kind = StepKind::Report;
    uint64_t ullUs = 0;
    unsigned uKeyboard = 0;
    Bytes data;                     // Report: what the keyboard sent; Control: what went out or came in
    std::array<uint8_t, 8> setup{}; // Control
    Outcome outcome = Outcome::Ok;  // Control
};

struct Script {
    bool bEnumerates = false; // true: the keyboards' types come from the control transfers of the script
    std::vector<ScriptKeyboard> keyboards;
    std::vector<ScriptStep> steps;
};
