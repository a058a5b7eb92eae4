// unload.cpp - the end of the driver: what driver entry took is given back.
//
// Runs at PASSIVE_LEVEL after the last device object is gone.
#include "driver/driver.h"

#include "log/events.h"
#include "log/fields.h"
#include "log/log.h"
#include "macro/macro.h"

namespace
{
// IRQL = PASSIVE.
void FreeString(PUNICODE_STRING pString)
{
    if (pString->Buffer != nullptr) {
        ExFreePoolWithTag(pString->Buffer, POOL_TAG);
    }
    RtlZeroMemory(pString, sizeof(*pString));
}
} // namespace

// IRQL = PASSIVE, nobody else runs in the driver.
void FreeDriverResources()
{
    FreeString(&SettingsOfLog.LogFileName);
    FreeString(&GlobalFrame.RegistryPathCopy);
    FreeString(&GlobalFrame.ParametersPath);
    FreeMacroTable();
    StopTracing();
}

// The log goes first: its last lines still need the file's name.
// IRQL = PASSIVE.
void UnloadDriver(PDRIVER_OBJECT)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    Trace(DriverUnloads, &GlobalFrame.RegistryPathCopy);
    StopLog();
    FreeDriverResources();
}
