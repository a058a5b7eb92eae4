// settings.cpp - the macro mode's settings, the keyboards that take part in it, and its table of macros.
//
// No settings are read: ulKorvexHotkey stays 0, which means that the macro feature is off, and MacroTable
// stays empty. A keyboard's own mark is kept all the same.
#include "macro/macro.h"

enum : ULONG { MACRO_POOL_TAG = 0x76726F4B }; // "Korv" in memory order

// Leaves every macro setting as it is.
// IRQL = PASSIVE. Fails: never.
NTSTATUS ReadKorvexParameters(PUNICODE_STRING)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    return STATUS_SUCCESS;
}

// Says whether a keyboard takes part in the macro mode; 1 says that it does. The other bits of the word may
// be recomputed meanwhile.
// IRQL <= DISPATCH. Fails: never.
NTSTATUS SetKorvexKeyboard(PDEVICE_OBJECT device, UCHAR ucOn)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    auto plTypes = reinterpret_cast<LONG volatile*>(&FilterContextOf(device)->ulKeyDefTypes);
    if (ucOn == 1) {
        InterlockedOr(plTypes, static_cast<LONG>(KEYDEF_MACRO_MODE));
    } else {
        InterlockedAnd(plTypes, ~static_cast<LONG>(KEYDEF_MACRO_MODE));
    }
    return STATUS_SUCCESS;
}

// Frees every macro and leaves the table empty.
// IRQL = PASSIVE.
void FreeMacroTable()
{
    for (MacroTableRecord*& pEntry : Globals.MacroTable) {
        MacroTableRecord* pRecord = ExchangeShared(pEntry, static_cast<MacroTableRecord*>(nullptr));
        if (pRecord != nullptr) {
            ExFreePoolWithTag(pRecord, MACRO_POOL_TAG);
        }
    }
}
