// app.cpp - the application's side, and the system's requests to a device stack.
#include "core.h"

struct HostOpenFile {
    PFILE_OBJECT pFile;
};

static const char FileNameKind[] = "file name";

static void DestroyFile(void* pBody)
{
    PFILE_OBJECT pFile = static_cast<PFILE_OBJECT>(pBody);
    if (pFile->DeviceObject == nullptr || g->bStopping) {
        return;
    }
    PDEVICE_OBJECT pDevice = pFile->DeviceObject;
    if (pFile->Flags & 0x4000) { // opened and cleaned up
        IO_STACK_LOCATION location = {};
        location.MajorFunction = IRP_MJ_CLOSE;
        location.FileObject = pFile;
        HostSendRequest(IoGetAttachedDevice(pDevice), location, STATUS_SUCCESS, KernelMode, nullptr);
    }
    if (pFile->FileName.Buffer != nullptr) {
        HostRelease(pFile->FileName.Buffer, FileNameKind);
    }
    __atomic_sub_fetch(&pDevice->ReferenceCount, 1, __ATOMIC_SEQ_CST);
    HostDereference(pDevice);
}

static void NameFile(PFILE_OBJECT pFile, const HostText& rest)
{
    if (rest.empty()) {
        return;
    }
    USHORT usBytes = static_cast<USHORT>(rest.size() * sizeof(WCHAR));
    pFile->FileName = {usBytes, usBytes, static_cast<PWCH>(HostAllocate(usBytes, FileNameKind, 0, nullptr))};
    memcpy(pFile->FileName.Buffer, rest.data(), usBytes);
}

// Opens a device by name: a file object whose create request succeeded.
// IRQL: PASSIVE_LEVEL. Owns: the caller gets the reference. Fails: no such name, the driver refuses.
NTSTATUS HostOpenDevice(const HostText& name, KPROCESSOR_MODE mode, PFILE_OBJECT* ppFile)
{
    PDEVICE_OBJECT pDevice;
    HostText rest;
    NTSTATUS status = HostLookUpDevice(name, &pDevice, &rest);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (__atomic_load_n(&pDevice->Flags, __ATOMIC_ACQUIRE) & DO_DEVICE_INITIALIZING) {
        HostDereference(pDevice);
        return STATUS_NO_SUCH_DEVICE;
    }
    PFILE_OBJECT pFile =
        static_cast<PFILE_OBJECT>(HostNewObject(HostKindFile, sizeof(FILE_OBJECT), DestroyFile));
    pFile->Type = 5;
    pFile->Size = sizeof(FILE_OBJECT);
    pFile->DeviceObject = pDevice;
    __atomic_add_fetch(&pDevice->ReferenceCount, 1, __ATOMIC_SEQ_CST);
    NameFile(pFile, rest);
    IO_STACK_LOCATION location = {};
    location.MajorFunction = IRP_MJ_CREATE;
    location.Parameters.Create.Options = FILE_OPEN << 24;
    location.Parameters.Create.ShareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE;
    location.FileObject = pFile;
    status = HostSendRequest(IoGetAttachedDevice(pDevice), location, STATUS_SUCCESS, mode, nullptr);
    if (!NT_SUCCESS(status)) {
        HostDereference(pFile);
        return status;
    }
    *ppFile = pFile;
    return status;
}

// The last handle is gone: the driver cleans up; close follows with the last reference.
void HostCleanupFile(PFILE_OBJECT pFile)
{
    IO_STACK_LOCATION location = {};
    location.MajorFunction = IRP_MJ_CLEANUP;
    location.FileObject = pFile;
    HostSendRequest(IoGetAttachedDevice(pFile->DeviceObject), location, STATUS_SUCCESS, KernelMode, nullptr);
    pFile->Flags |= 0x4000;
}

NTSTATUS IoGetDeviceObjectPointer(PUNICODE_STRING pName, ACCESS_MASK, PFILE_OBJECT* ppFile,
                                  PDEVICE_OBJECT* ppDevice)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    if (HostShouldFail("open")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PFILE_OBJECT pFile;
    NTSTATUS status = HostOpenDevice(HostTextOf(pName), KernelMode, &pFile);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    HostCleanupFile(pFile);
    ObfReferenceObject(pFile); // booked on the driver
    HostDereference(pFile);
    *ppFile = pFile;
    *ppDevice = IoGetAttachedDevice(pFile->DeviceObject);
    return STATUS_SUCCESS;
}

NTSTATUS HostOpen(const WCHAR* pName, HostFile* pFile)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    PFILE_OBJECT pObject;
    NTSTATUS status = HostOpenDevice(HostTextOf(pName), UserMode, &pObject);
    *pFile = NT_SUCCESS(status) ? new HostOpenFile{pObject} : nullptr;
    return status;
}

void HostClose(HostFile file)
{
    HostCleanupFile(file->pFile);
    HostDereference(file->pFile);
    delete file;
}

NTSTATUS HostDeviceControl(HostFile file, ULONG ulCode, const void* pIn, ULONG ulIn, void* pOut, ULONG ulOut,
                           ULONG* pulInformation)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    ULONG_PTR ulInformation = 0;
    NTSTATUS status = HostSendControl(file->pFile, ulCode, pIn, ulIn, pOut, ulOut, &ulInformation);
    if (pulInformation != nullptr) {
        *pulInformation = static_cast<ULONG>(ulInformation);
    }
    return status;
}

static NTSTATUS SendToStack(PDEVICE_OBJECT pInStack, const IO_STACK_LOCATION& location)
{
    HostEnter("a request of the system", PASSIVE_LEVEL);
    PDEVICE_OBJECT pTop = IoGetAttachedDeviceReference(pInStack);
    NTSTATUS status = HostSendRequest(pTop, location, STATUS_NOT_SUPPORTED, KernelMode, nullptr);
    ObfDereferenceObject(pTop);
    return status;
}

NTSTATUS HostSendPnp(PDEVICE_OBJECT pInStack, UCHAR ucMinor)
{
    IO_STACK_LOCATION location = {};
    location.MajorFunction = IRP_MJ_PNP;
    location.MinorFunction = ucMinor;
    if (ucMinor == IRP_MN_QUERY_REMOVE_DEVICE) {
        HostTargetEvent(pInStack, GUID_TARGET_DEVICE_QUERY_REMOVE);
    } else if (ucMinor == IRP_MN_REMOVE_DEVICE || ucMinor == IRP_MN_SURPRISE_REMOVAL) {
        HostTargetEvent(pInStack, GUID_TARGET_DEVICE_REMOVE_COMPLETE);
    }
    NTSTATUS status = SendToStack(pInStack, location);
    if (ucMinor == IRP_MN_CANCEL_REMOVE_DEVICE) {
        HostTargetEvent(pInStack, GUID_TARGET_DEVICE_REMOVE_CANCELLED);
    }
    return status;
}

NTSTATUS HostSendPower(PDEVICE_OBJECT pInStack, UCHAR ucMinor)
{
    IO_STACK_LOCATION location = {};
    location.MajorFunction = IRP_MJ_POWER;
    location.MinorFunction = ucMinor;
    location.Parameters.Power.Type = DevicePowerState;
    location.Parameters.Power.State.DeviceState = PowerDeviceD0;
    return SendToStack(pInStack, location);
}

HANDLE HostCreateEvent(bool bManualReset, ACCESS_MASK rights)
{
    PKEVENT pEvent = static_cast<PKEVENT>(HostNewObject(HostKindEvent, sizeof(KEVENT), nullptr));
    KeInitializeEvent(pEvent, bManualReset ? NotificationEvent : SynchronizationEvent, FALSE);
    return HostNewHandle(pEvent, 0, rights);
}

static PKEVENT EventOf(HANDLE h)
{
    NTSTATUS status;
    PKEVENT pEvent = static_cast<PKEVENT>(HostFromHandle(h, HostKindEvent, 0, &status));
    if (pEvent == nullptr) {
        HostBug("BAD_EVENT_HANDLE", "handle %p is no open event", h);
    }
    return pEvent;
}

bool HostTakeEvent(HANDLE h)
{
    LARGE_INTEGER now = {};
    return KeWaitForSingleObject(EventOf(h), UserRequest, UserMode, FALSE, &now) == STATUS_SUCCESS;
}

NTSTATUS HostWaitEvent(HANDLE h, LONGLONG llTimeoutUs)
{
    LARGE_INTEGER timeout;
    timeout.QuadPart = llTimeoutUs * -10;
    PKEVENT pEvent = EventOf(h);
    if (llTimeoutUs == 0 && HostTakesTurns() && pEvent->Header.SignalState == 0 &&
        !HostSelf()->bTerminating) {
        return STATUS_TIMEOUT; // as the wait would say
    }
    return KeWaitForSingleObject(pEvent, UserRequest, UserMode, FALSE, llTimeoutUs < 0 ? nullptr : &timeout);
}

void HostCloseHandle(HANDLE h)
{
    ZwClose(h);
}
