// modules.h - the modules of this process: drivers are modules of their kernel's process here.
//
// A module that imports the user-mode loader is no driver to this kernel, so its services are looked up at
// run time. Usable in a program and in a .sys alike: no C runtime.
#pragma once

// An export of a loaded module by both names, or null.
void* FindExport(const wchar_t* pszModule, const char* pszName);

unsigned long ModuleBytes(void* pModule); // its size in memory

// Calls the routine each time a module of that file name ("Tv64USB.sys") is loaded, before its entry runs.
// One at a time.
typedef void ModuleLoaded(void* pBase, unsigned long ulBytes);
void CallAtLoad(const wchar_t* pszModule, ModuleLoaded* pRoutine);

// Writes where a module may only read or execute.
void WriteModule(void* pTo, const void* pFrom, unsigned long ulBytes);
