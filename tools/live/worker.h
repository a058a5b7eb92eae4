// worker.h - the guarded process: the driver with the keyboards that the guardian hands it.
#pragma once

#include "guard/channel.h"
#include "service.h"

// Runs until SIGINT or SIGTERM, or until what it needs fails. SIGHUP takes the configuration over. Returns the exit
// status. Fails (std::runtime_error): the driver, or a keyboard.
int LiveWork(const LiveArguments& arguments, GuardChannel& guardian);
