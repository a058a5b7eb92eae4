// modifiers.cpp - the modifier word for the mouse filters of the same family.
//
// In:  the modifier word of all keyboards, whenever it changed.
// Out: nothing is sent; whether a mouse filter is there is told.
#include "siblings/siblings.h"

// Readable at any time: without a control device no sibling is known.
// IRQL <= DISPATCH. Lock: takes KeyboardListLock.
bool IsMouseSiblingConnected()
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    PDEVICE_OBJECT pControlDevice = ReferenceControlDevice();
    if (pControlDevice == nullptr) {
        return false;
    }
    const ControlContext* pControl = ControlContextOf(pControlDevice);
    const bool bConnected =
        ReadShared(pControl->Ps2Mouse.ucConnected) != 0 || ReadShared(pControl->UsbMouse.ucConnected) != 0;
    ObDereferenceObject(pControlDevice);
    return bConnected;
}

// IRQL <= DISPATCH. Fails: never.
NTSTATUS NotifyMouseModifiers(const ULONG*)
{
    return STATUS_SUCCESS;
}
