// script.h - what a replay plays: the keyboards of an input and, in order of time, what happens to them.
//
// Both kinds of input become a Script: a capture through keyboards.cpp, a recording through recording.cpp.
// A control transfer is one step, at the time at which its data reaches the other side: data going out when
// it was submitted, data coming in when it was completed.
#pragma once

#include "packet.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

struct ScriptKeyboard {
    std::string name;
    uint16_t usVendor = 0;
    uint16_t usProduct = 0;
    uint32_t ulReadBytes = 8;      // what the stack above asks for with each read: the endpoint's packet size
    uint8_t ucEndpoint = 0x81;     // of a capture: where it reports
    bool bMouse = false;           // by its interface's protocol
    bool bTold = false;            // its kind comes from the control transfers of the script
    bool bCut = false;             // of a capture: a snap length cut what its descriptors tell
    const char* pGuess = "normal"; // else: the kind that its first report looks like
};

// Something to tell of the input besides what it plays.
struct ScriptNote {
    int iKeyboard; // -1: of the whole
    std::string text;
};

enum class StepKind { Report, Control, Keyboard };

struct ScriptStep {
    StepKind kind = StepKind::Report;
    uint64_t ullUs = 0;
    unsigned uKeyboard = 0;
    Bytes data;                     // Report: what the keyboard sent; Control: what went out or came in
    std::array<uint8_t, 8> setup{}; // Control
    Outcome outcome = Outcome::Ok;  // Control
    // Keyboard: one more, with the next number; of an input that is played while it comes.
    std::shared_ptr<const ScriptKeyboard> pKeyboard{};
};

// Hands out the next step. False at the end. Fails (InputError).
using StepReader = std::function<bool(ScriptStep&)>;

struct Script {
    bool bEnumerates = false; // true: a capture, whose control transfers tell what its keyboards are
    std::vector<ScriptKeyboard> keyboards; // of an input that still comes, those that have reported so far
    std::vector<ScriptNote> notes;
    std::function<StepReader()> Open; // from the start, each time
    std::string cut;                  // where and why the input broke off, of one that is played in part

    std::vector<ScriptStep> AllSteps() const
    {
        std::vector<ScriptStep> steps;
        StepReader read = Open();
        for (ScriptStep step; read(step);)
            steps.push_back(std::move(step));
        return steps;
    }
};

// Which part of an input is played, and how.
struct ScriptChoice {
    std::vector<std::string> devices; // VID:PID or part of a name; none: all
    uint64_t ullFromUs = 0, ullToUs = UINT64_MAX;
    bool bPartial = false; // what is whole before a fault is played
    bool bFollow = false;  // the file still grows
    bool bLive = false;    // what comes through a pipe is played as it comes
};

// True when there may be more of the input than there is now.
bool MayCome(const class InputFile& input, const ScriptChoice& choice);

// True when the keyboard is one of those, or when there are none.
bool IsChosen(const ScriptKeyboard& keyboard, const std::vector<std::string>& devices);
