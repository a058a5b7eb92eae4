// keyboard.h - a keyboard plugged into the test bus, and what the system reads from it.
//
// What a scene asks goes to the two test drivers (control.h). A wait that is not fulfilled in time, or a driver that
// is not there, throws std::runtime_error, which fails the scene with one line.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "control.h"

class TestKeyboard
{
public:
    // Plugs one in and waits until the system has started it.
    explicit TestKeyboard(KeyboardKind kind = BOOT_KEYBOARD);

    // The keyboard sends a report ("01 00 3A", the rest of `uBytes` zero).
    void Send(const std::string& report, unsigned uBytes = 8) const;
    // The next report that the system read; "nothing" when none comes for half a second.
    std::string Read() const;
    // Sends one, reads one.
    std::string Type(const std::string& report, unsigned uBytes = 8) const;
    // Whether the stack agrees to be removed.
    bool AskRemove() const;
    // Tells the system that it is not there any more.
    void Pull();
    bool IsPulled() const { return m_bPulled; }
    // Whether the system has still a device of it.
    bool IsThere() const;
    HidState State() const;

private:
    uint64_t m_Number = 0; // may come again when the system has removed the keyboard
    bool m_bPulled = false;
};

// The milliseconds until the condition holds. Fails: it does not within the time.
unsigned WaitUntil(const std::string& what, unsigned uLimitMs, const std::function<bool()>& condition);

// How many devices the bus has that were not removed, plugged in or pulled.
unsigned CountDevices();
UnloadAnswer UnloadDriver();
