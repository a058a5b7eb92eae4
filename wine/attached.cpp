// attached.cpp - see attached.h. A module whose imports are replaced reaches the kernel's own by its export.
#include "attached.h"

#include "modules.h"

PDEVICE_OBJECT NTAPI OwnIoAttachDeviceToDeviceStack(PDEVICE_OBJECT pSource, PDEVICE_OBJECT pTarget)
{
    static auto pAttach = reinterpret_cast<decltype(&IoAttachDeviceToDeviceStack)>(
        FindExport(L"ntoskrnl.exe", "IoAttachDeviceToDeviceStack"));
    PDEVICE_OBJECT pLower = pAttach(pSource, pTarget);
    if (pLower) {
        ObReferenceObject(pLower);
    }
    return pLower;
}

VOID NTAPI OwnIoDetachDevice(PDEVICE_OBJECT pLower)
{
    static auto pDetach =
        reinterpret_cast<decltype(&IoDetachDevice)>(FindExport(L"ntoskrnl.exe", "IoDetachDevice"));
    pDetach(pLower);
    ObDereferenceObject(pLower);
}
