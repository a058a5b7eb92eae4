// drill.h - a session, played again and again while something goes wrong in it.
//
//   undisturbed run ──► how many reports, events, calls of the driver that can fail; which presses the system saw
//   one walk more   ──► at each moment that was chosen a copy of the program goes apart: there the keyboard is pulled or
//                       removed in order, the application goes, or the call fails; it plays on for a while, ends the session and says what
//                       was lost, left behind or hung
//
// So a drill's time grows with the number of copies, not with its square, and nothing that happens in a copy, not even
// its end, stops the drill.
#pragma once

#include "tools/replay/replay.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

enum class Trouble { Pulled, Removed, Gone, Failed };
constexpr Trouble Troubles[] = {Trouble::Pulled, Trouble::Removed, Trouble::Gone, Trouble::Failed};

// What came of it; the first two alone need not be wrong.
enum class Result { Lost, Refused, Stuck, LeftBehind, Hung, Stopped, NoKeyboard };

struct Harm {
    Trouble trouble;
    unsigned uNumber; // of the report, event or call, from 1
    uint64_t ullUs;
    unsigned uKeyboard;
    Result result;
    std::string text;
    unsigned uReport;      // that was told last; of a call, the one on its way (0: none has come yet)
    std::string call = {}; // that failed: its service and what it was about
};

struct Drill {
    unsigned uReports = 0, uEvents = 0;
    struct Kind {
        unsigned uMoments = 0; // in the session
        unsigned uEvery = 1;   // of them one in so many
        unsigned uTried = 0, uLost = 0, uWrong = 0;
    };
    std::array<Kind, std::size(Troubles)> kinds; // by Trouble
    std::vector<Harm> harms;
};

struct DrillPlan {
    unsigned uEvery = 0;      // 0: so that no kind has more than MostCopies
    unsigned uMostMs = 30000; // for a copy
};
constexpr unsigned MostCopies = 500;
constexpr unsigned StepsAfter = 200; // that a copy plays on

// Losses are wrong only where nothing but the application is gone.
bool IsWrong(const Harm& harm);
const char* NameOf(Trouble trouble); // as docs/json.md tells them
const char* NameOf(Result result);

// Fails: as RunReplay, at the undisturbed run.
Drill RunDrill(const Script& script, const ReplaySetup& setup, const DrillPlan& plan);
