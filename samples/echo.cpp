// echo.cpp - a driver of one's own on the host, and what asks it: the request's bytes come back.
//
// Needs host/ alone: its headers and its library, and wide characters of 16 bits (-fshort-wchar). docs/host.md tells how
// it is built and what else can be asked of the host.
#include <cstdio>
#include <cstring>

#include <host.h>

// #define ECHO_FAULT // uncomment: the request is completed under the lock, and the host stops the run

static const ULONG IOCTL_ECHO = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS);
static KSPIN_LOCK Lock;
static ULONG ulRequests; // guarded by Lock

static NTSTATUS Complete(PIRP pIrp, NTSTATUS status, ULONG ulBytes)
{
    pIrp->IoStatus.Status = status;
    pIrp->IoStatus.Information = ulBytes;
    IoCompleteRequest(pIrp, IO_NO_INCREMENT);
    return status;
}

static NTSTATUS OpenOrClose(PDEVICE_OBJECT, PIRP pIrp)
{
    return Complete(pIrp, STATUS_SUCCESS, 0);
}

// Input and output share the system's buffer: what came in goes out.
static NTSTATUS Echo(PDEVICE_OBJECT, PIRP pIrp)
{
    const auto& request = IoGetCurrentIrpStackLocation(pIrp)->Parameters.DeviceIoControl;
    if (request.IoControlCode != IOCTL_ECHO || request.OutputBufferLength < request.InputBufferLength) {
        return Complete(pIrp, STATUS_INVALID_DEVICE_REQUEST, 0);
    }
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Lock);
    ulRequests++;
#ifdef ECHO_FAULT
    const NTSTATUS status = Complete(pIrp, STATUS_SUCCESS, request.InputBufferLength);
    KeReleaseSpinLock(&Lock, irql);
    return status;
#else
    KeReleaseSpinLock(&Lock, irql);
    return Complete(pIrp, STATUS_SUCCESS, request.InputBufferLength);
#endif
}

static NTSTATUS Entry(PDRIVER_OBJECT pDriver, PUNICODE_STRING)
{
    UNICODE_STRING name;
    PDEVICE_OBJECT pDevice;
    RtlInitUnicodeString(&name, L"\\Device\\Echo");
    KeInitializeSpinLock(&Lock);
    pDriver->MajorFunction[IRP_MJ_CREATE] = OpenOrClose;
    pDriver->MajorFunction[IRP_MJ_CLEANUP] = OpenOrClose;
    pDriver->MajorFunction[IRP_MJ_CLOSE] = OpenOrClose;
    pDriver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = Echo;
    pDriver->DriverUnload = [](PDRIVER_OBJECT pGone) { IoDeleteDevice(pGone->DeviceObject); };
    return IoCreateDevice(pDriver, 0, &name, FILE_DEVICE_UNKNOWN, FILE_DEVICE_SECURE_OPEN, FALSE, &pDevice);
}

int main(int argc, char** argv)
{
    const char* pszText = argc > 1 ? argv[1] : "hello";
    char answer[256] = {};
    PDRIVER_OBJECT pDriver;
    HostFile file;
    HostStart({});
    NTSTATUS status = HostLoadDriver(Entry, L"Echo", &pDriver);
    if (NT_SUCCESS(status) && NT_SUCCESS(status = HostOpen(L"\\Device\\Echo", &file))) {
        status = HostDeviceControl(file, IOCTL_ECHO, pszText, static_cast<ULONG>(strlen(pszText)), answer,
                                   sizeof(answer) - 1, nullptr);
        HostClose(file);
    }
    printf("0x%08x %s\n", static_cast<unsigned>(status), answer);
    const unsigned uLeft = NT_SUCCESS(status) ? HostUnloadDriver(pDriver) : 0;
    return NT_SUCCESS(status) && uLeft + HostStop() == 0 ? 0 : 1;
}
