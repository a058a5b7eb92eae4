// trial.h - what may go wrong in the middle of a replay: the drill's hand in it.
//
// While there is one, a read that failed is sent again, as a system does; without one its keyboard falls silent. The
// system calls no read back when a keyboard goes: the driver has to let go of those that it holds.
#pragma once

#include "emu/app/machine.h"

#include <vector>

enum class Mishap { None, KeyboardPulled, KeyboardRemoved, ApplicationGone };

class ReplayTrial
{
public:
    virtual ~ReplayTrial() = default;
    // Asked twice at each report line: when it has been told, and when the keyboard's next read is on its way; and once
    // at each event. The keyboard of that line is pulled.
    virtual Mishap AtReport(unsigned uKeyboard) = 0;
    // It was told that the keyboard is gone, not yet that it shall leave.
    virtual void AfterPull(unsigned uKeyboard, EmuKeyboard& keyboard) = 0;
    virtual Mishap AtEvent(unsigned uKeyboard) = 0;
    // The session is over; nothing has been taken down yet. The keyboards are those of the script, gone ones among them.
    virtual void BeforeEnd(EmuMachine& machine, const std::vector<EmuKeyboard*>& keyboards) = 0;
};
