// kernel.h - what the key table's records are made of, for a program of Windows: the names of user mode.
#pragma once

#ifndef NOMINMAX
#define NOMINMAX
#endif
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <winternl.h>
