// usermode.h - what this kernel's process needs of user mode, whose headers and the kernel's do not go
// together.
#pragma once

#include <map>
#include <string>
#include <variant>

void* KernelExport(const char* pszName); // the kernel's own, whatever the import tables say
void StartThread(void (*pRoutine)());
void SleepMs(unsigned uMs);

// Hands applications' requests to the drivers, in a thread that calls the routine first.
void StartRequests(void (*pFirst)());

// Opens the file or device, as an application does, and closes it. Fails: false, it does not open.
bool OpenAndClose(const char* pszPath);

// The driver's service, made anew, and the values of its parameters key: numbers and text.
using Settings32 = std::map<std::string, std::variant<unsigned long, std::string>>;
bool MakeService(const char* pszService, const std::string& imagePath);
void SetParameters(const char* pszService, const Settings32& settings);
std::string OwnFolder(); // of this program, with a backslash at its end

// The calling thread's interrupt request level, which drivers read and write in a privileged register.
unsigned char ThreadLevel();
void SetThreadLevel(unsigned char ucLevel);
void EmulateLevels();
