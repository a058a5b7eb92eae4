// guardian.h - the process that sees to it that the keyboard types, whatever becomes of the driver.
//
//   guardian: finds the keyboard, opens its node and /dev/uhid ── fork ──► worker: everything else
//             hears the worker's heart, its end, the panic chord       ◄──
//             ends a worker that hangs, gives the interfaces back
//
// It does nothing but this, so that there is nothing in it that could fail. When the guardian itself is ended, the worker
// is told to end in order, and the kernel's driver gets the keyboard from there.
#pragma once

#include "channel.h"

#include <functional>

struct GuardOptions {
    std::string device; // which keyboard, as ChooseKeyboard has it
    std::string user;   // the worker's, or "" for the guardian's own
    bool bYes = false;  // also the only keyboard of a terminal
    bool bUhid = true;  // the worker gets /dev/uhid
    bool bWait = false; // for the keyboard, where it is not there yet
    std::string panic;  // the panic chord, to be told
};

// What the worker does, in a process of its own that has given up its rights; returns its exit status.
using GuardedWork = std::function<int(GuardChannel& guardian)>;

// Runs until a signal, the panic chord or the worker's own end. Returns the exit status.
// Fails (InputError): there is no such keyboard, it is the only one, it may not be opened.
int Guard(const GuardOptions& options, const GuardedWork& work);

// For a keyboard that is left over: its guardian and its worker were killed at once. Returns the exit status.
// Fails (InputError): there is no such keyboard, it may not be opened.
int GiveBackOnly(const std::string& device);
