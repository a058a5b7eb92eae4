// table.cpp - the macros that are in force.
//
//   file ── built aside ──► PublishMacroTable ──► GlobalMacro.pMacroTable (1 user)
//                                                   ▲ walks of the report road (+ 1 each)
//
// A table never changes once it is published. The next one takes its place at once; who gives the old one
// back last frees it, so a walk reads the macros it began with to its end.
#include "macro/macro.h"

#include "macro/fields.h"

// The macros in force, which stay until they are given back.
// IRQL <= DISPATCH. Lock: takes MacroTableLock. Owns: one use of the table, if there is one.
MacroTable* AcquireMacroTable()
{
    LockScope lock(GlobalMacro.MacroTableLock);
    if (GlobalMacro.pMacroTable != nullptr) {
        GlobalMacro.pMacroTable->lUsers++;
    }
    return GlobalMacro.pMacroTable;
}

namespace
{
bool DropUse(MacroTable* pTable)
{
    LockScope lock(GlobalMacro.MacroTableLock);
    return --pTable->lUsers == 0;
}
} // namespace

// Gives one use back; nothing happens to null.
// IRQL <= DISPATCH. Lock: takes MacroTableLock. Owns: the last use frees the macros.
void ReleaseMacroTable(MacroTable* pTable)
{
    if (pTable == nullptr || !DropUse(pTable)) {
        return;
    }
    for (MacroTableRecord* pRecord : pTable->Records) {
        if (pRecord != nullptr) {
            ExFreePoolWithTag(pRecord, MACRO_POOL_TAG);
        }
    }
    ExFreePoolWithTag(pTable, MACRO_POOL_TAG);
}

namespace
{
MacroTable* ExchangeTable(MacroTable* pTable)
{
    LockScope lock(GlobalMacro.MacroTableLock);
    MacroTable* pOld = GlobalMacro.pMacroTable;
    GlobalMacro.pMacroTable = pTable;
    return pOld;
}
} // namespace

// Puts a table in force, or none; its one use is the publication's.
// IRQL <= DISPATCH. Lock: takes MacroTableLock. Owns: the table from now on.
void PublishMacroTable(MacroTable* pTable)
{
    ReleaseMacroTable(ExchangeTable(pTable));
}

// IRQL <= DISPATCH. Lock: takes MacroTableLock.
void FreeMacroTable()
{
    PublishMacroTable(nullptr);
}
