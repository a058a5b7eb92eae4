// gaps.cpp - the tables of replaced routines. See gaps.h.
#include "gaps.h"

#include "timers.h"
#include "wine/attached.h"
#include "wine/dpc.h"
#include "wine/memory.h"
#include "wine/modules.h"
#include "wine/userhandle.h"

static ULONG ulReplaced;

// Every name is a device to this kernel, and a dummy is given for it; there is no keyboard class device here.
static NTSTATUS NTAPI OwnIoGetDeviceObjectPointer(PUNICODE_STRING, ACCESS_MASK, PFILE_OBJECT*,
                                                  PDEVICE_OBJECT*)
{
    return STATUS_OBJECT_NAME_NOT_FOUND;
}

#define OWN_FOR_ALL                                                                                          \
    OWN(KeInitializeDpc), OWN(KeInsertQueueDpc), OWN(KeRemoveQueueDpc), OWN(KeFlushQueuedDpcs),              \
        OWN(KeInitializeTimer), OWN(KeSetTimer), OWN(KeCancelTimer), OWN(IoAttachDeviceToDeviceStack),       \
        OWN(IoDetachDevice)

const Replacement TestDriverGaps[] = {OWN_FOR_ALL, END_OF_OWN};

static const Replacement FilterGaps[] = {OWN_FOR_ALL,
                                         OWN(ObReferenceObjectByHandle),
                                         OWN(IoGetDeviceObjectPointer),
                                         OWN(MmMapLockedPagesSpecifyCache),
                                         OWN(ExAllocatePoolWithTag),
                                         OWN(ExFreePoolWithTag),
                                         END_OF_OWN};

static void FilterLoaded(void* pBase, unsigned long)
{
    TakePoolBlocks();
    ulReplaced = ReplaceImports(pBase, FilterGaps);
}

void FillFilterGaps()
{
    CallAtLoad(L"Tv64USB.sys", FilterLoaded);
}

bool AreFilterGapsFilled()
{
    return ulReplaced == sizeof(FilterGaps) / sizeof(FilterGaps[0]) - 1;
}
