// player.h - one keyboard of a replay: what is known of it so far, and how it answers.
#pragma once

#include "script.h"

#include "emu/app/machine.h"

#include <deque>
#include <optional>

// One keyboard of the replay with what is known of it so far.
struct Player {
    ScriptKeyboard script;
    EmuKeyboard* pKeyboard = nullptr;
    bool bEmulated = false;               // its descriptors come from a kind, not from the input
    bool bPlain = false;                  // it was told that the driver does not look at its reports
    bool bAnnounced = false;              // its line is printed, the application knows it
    bool bReading = false;                // a read is on its way
    bool bSilent = false;                 // its reads fail, none is sent any more
    bool bGone = false;                   // it was pulled
    std::deque<Bytes> sent;               // by the keyboard, and not received above yet
    const ScriptStep* pControl = nullptr; // the control request that is being replayed
};

// The LEDs of an output report: one byte, or a report id and one byte when the request names that id.
std::optional<uint8_t> LedsOf(const ScriptStep* pControl, const EmuBytes& report);

// True for the requests that travel as descriptor requests, not as plain control transfers.
bool IsDescriptorRequest(const std::array<uint8_t, 8>& setup);

// The packet size of a kind's endpoint.
ULONG PacketBytesOf(const EmuDescriptors& kind);

// The keyboard's side of a control request: the captured answer, when it is the captured request. What
// the driver sends by itself is left to the emulated keyboard.
NTSTATUS AnswerControl(const Player& player, const UCHAR* pSetup, EmuBytes& data);
