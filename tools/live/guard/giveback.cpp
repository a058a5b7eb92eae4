// giveback.cpp - releases a claim, which belongs to the open node, not to the process that made it; then lets the kernel
// look for its own driver again. Neither needs a right beyond the node's being open for writing.
#include "giveback.h"

#include <cerrno>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

bool GiveBack(int iNode, const uint8_t* pInterfaces, size_t cInterfaces)
{
    bool bBack = true;
    for (size_t i = 0; i < cInterfaces; i++) {
        unsigned uInterface = pInterfaces[i];
        ioctl(iNode, USBDEVFS_RELEASEINTERFACE, &uInterface); // fails after an end in order: it is released
        usbdevfs_ioctl connect = {pInterfaces[i], USBDEVFS_CONNECT, nullptr};
        bBack &=
            ioctl(iNode, USBDEVFS_IOCTL, &connect) >= 0 || errno == EBUSY; // busy: a driver has it already
    }
    return bBack;
}
