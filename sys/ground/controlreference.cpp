// controlreference.cpp - the control device for those who are not under its mutex.
//
// It comes and goes with the first and the last keyboard (driver/controldevice.cpp); a referenced one stays as an object.
#include "ground/ground.h"

// IRQL <= DISPATCH. Lock: takes KeyboardListLock. Owns: one reference, null when there is no control device.
PDEVICE_OBJECT ReferenceControlDevice()
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    LockScope lock(GlobalFrame.KeyboardListLock);
    PDEVICE_OBJECT pControlDevice = ReadShared(GlobalFrame.pControlDevice);
    if (pControlDevice != nullptr) {
        ObReferenceObject(pControlDevice);
    }
    return pControlDevice;
}
