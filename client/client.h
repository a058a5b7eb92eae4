// client.h - the library for applications: include this, link libclient.
//
//   Driver ──► Keyboard: definitions, events, injection, LEDs and key repeat, memory
//     └──────► MacroMode, Reserved
//
// Every call of the driver has one routine here. Calls give a Status, or a Result that holds the answer; nothing
// throws. What each request does, and how it can fail, is listed in docs/requests.md.
#pragma once

#include "client/driver.h"
#include "client/typing.h"
