// process32.h - a 32-bit process that stands for a 32-bit application: application32.exe, whose path the
// environment tells (TV64USB_APPLICATION32). Started with the first transport; all share it.
#pragma once

#include "client/transport.h"

std::unique_ptr<tvusb::Transport> Transport32();
