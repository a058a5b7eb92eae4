// interrupt.h - a verb that waits hears when it is to end: Ctrl+C, the end of its terminal or of the session.
//
// Whoever waits does it in short turns and asks between them, so that what it set up at the driver is taken back.
#pragma once

#include <cstdint>

constexpr uint32_t WAIT_TURN_MS = 200;

// From now on such an end is only noted.
void NoteInterrupts();
bool IsInterrupted();
