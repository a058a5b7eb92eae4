// The emulated sibling drivers: a PS/2 keyboard filter, a PS/2 mouse filter, a USB mouse filter.
//
// A sibling is one device object, with its kind's name and with an interface of its kind's class. The mice take
// the modifier word by an internal request and tell an observer; how and when they answer can be set. The
// interface is enabled and disabled apart from the device, as siblings that come late or go early do.
#pragma once

#include "emu/held/answering.h"

enum EmuSiblingKind { EmuPs2KeyboardSibling, EmuPs2MouseSibling, EmuUsbMouseSibling };

// Sees every modifier word that a mouse got, before it is answered. IRQL PASSIVE. Lock: none held.
typedef VOID EmuModifierObserver(PVOID pContext, ULONG ulModifiers);

struct EmuSiblingOptions {
    EmuSiblingKind Kind;
    BOOLEAN bUnnamed; // another device of its kind has the name, or nobody: the interface alone
    EmuModifierObserver* pObserver;
    PVOID pObserverContext;
};

// The driver's entry.
NTSTATUS NTAPI EmuSiblingEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);
// Makes the device; its interface is not enabled. IRQL PASSIVE. Fails: the status of the creation or of the
// interface's registration.
NTSTATUS EmuCreateSibling(PDRIVER_OBJECT pDriver, const EmuSiblingOptions* pOptions,
                          PDEVICE_OBJECT* ppDevice);
// Enables or disables the interface. IRQL PASSIVE. Fails: it is so already.
NTSTATUS EmuPublishSibling(PDEVICE_OBJECT pDevice, BOOLEAN bPresent);
// Disables the interface, fails what is held, takes the device away. IRQL PASSIVE.
VOID EmuRemoveSibling(PDEVICE_OBJECT pDevice);
// So long it takes to cancel what it holds. IRQL <= DISPATCH.
VOID EmuSetSiblingCancelDelay(PDEVICE_OBJECT pDevice, ULONG ulMs);
