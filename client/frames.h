// frames.h - what goes over the control socket, between the socket transport and whoever serves the driver there.
//
//   process ── Open, Control, NewEvent, WaitEvent, FreeEvent, Interfaces ──► server
//           ◄───────────────────────── Answer ─────────────────────────────
//
// A connection stands for one handle of the control device, and its end for that handle's close. Each frame is this
// head and its body. Requests begin with Open, but for Reload, which needs no handle and is its connection's only
// one; an answer has its request's tag, and those of waits come when they come. Both ends run on one machine: numbers
// are as it has them.
#pragma once

#include <stdint.h>

namespace tvusb
{
enum class FrameKind : uint32_t { Answer, Open, Control, NewEvent, WaitEvent, FreeEvent, Interfaces, Reload };

constexpr uint32_t FRAME_VERSION = 0x54560001;
constexpr uint32_t FRAME_MOST = 0x200000; // bytes of a body, and of the room for an answer

struct Frame {
    uint32_t ulBytes; // of the body
    FrameKind Kind;
    uint32_t ulTag;
    // Open, Reload: the version. Control: the code. WaitEvent, FreeEvent: the event. Answer: the status.
    uint32_t ulValue;
    // Open: 1 for a 32-bit process. Control: the room for the answer. WaitEvent: milliseconds. Answer: how many bytes
    // were reported, or the new event.
    uint32_t ulMore;
};
static_assert(sizeof(Frame) == 20, "the head of a frame is 20 bytes");
} // namespace tvusb
