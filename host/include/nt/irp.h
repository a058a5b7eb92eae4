// irp.h - requests and their stack locations.
//
// A request travels down through IoCallDriver, one stack location a driver, and back up through
// IoCompleteRequest, which calls the completion routine that the driver above left in each location.
#pragma once

#include "io.h"

extern "C" {

typedef enum _DEVICE_POWER_STATE {
    PowerDeviceUnspecified,
    PowerDeviceD0,
    PowerDeviceD1,
    PowerDeviceD2,
    PowerDeviceD3
} DEVICE_POWER_STATE;
typedef enum _SYSTEM_POWER_STATE {
    PowerSystemUnspecified,
    PowerSystemWorking,
    PowerSystemSleeping1,
    PowerSystemSleeping2,
    PowerSystemSleeping3,
    PowerSystemHibernate,
    PowerSystemShutdown
} SYSTEM_POWER_STATE;
typedef enum _POWER_STATE_TYPE { SystemPowerState, DevicePowerState } POWER_STATE_TYPE;
typedef union _POWER_STATE {
    SYSTEM_POWER_STATE SystemState;
    DEVICE_POWER_STATE DeviceState;
} POWER_STATE, *PPOWER_STATE;
typedef enum _BUS_QUERY_ID_TYPE {
    BusQueryDeviceID,
    BusQueryHardwareIDs,
    BusQueryCompatibleIDs,
    BusQueryInstanceID
} BUS_QUERY_ID_TYPE;
typedef enum _DEVICE_TEXT_TYPE { DeviceTextDescription, DeviceTextLocationInformation } DEVICE_TEXT_TYPE;
typedef enum _DEVICE_RELATION_TYPE {
    BusRelations,
    EjectionRelations,
    PowerRelations,
    RemovalRelations,
    TargetDeviceRelation
} DEVICE_RELATION_TYPE;

typedef struct _IO_STACK_LOCATION {
    UCHAR MajorFunction;
    UCHAR MinorFunction;
    UCHAR Flags;
    UCHAR Control;
    union {
        struct {
            PVOID SecurityContext;
            ULONG Options;
            USHORT POINTER_ALIGNMENT FileAttributes;
            USHORT ShareAccess;
            ULONG POINTER_ALIGNMENT EaLength;
        } Create;
        struct {
            ULONG Length;
            ULONG POINTER_ALIGNMENT Key;
            LARGE_INTEGER ByteOffset;
        } Read, Write;
        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT IoControlCode;
            PVOID Type3InputBuffer;
        } DeviceIoControl;
        struct {
            DEVICE_RELATION_TYPE Type;
        } QueryDeviceRelations;
        struct {
            BUS_QUERY_ID_TYPE IdType;
        } QueryId;
        struct {
            DEVICE_TEXT_TYPE DeviceTextType;
            LCID POINTER_ALIGNMENT LocaleId;
        } QueryDeviceText;
        struct {
            PVOID AllocatedResources;
            PVOID AllocatedResourcesTranslated;
        } StartDevice;
        struct {
            ULONG SystemContext;
            POWER_STATE_TYPE POINTER_ALIGNMENT Type;
            POWER_STATE POINTER_ALIGNMENT State;
            ULONG POINTER_ALIGNMENT ShutdownType;
        } Power;
        struct {
            PVOID Argument1;
            PVOID Argument2;
            PVOID Argument3;
            PVOID Argument4;
        } Others;
    } Parameters;
    PDEVICE_OBJECT DeviceObject;
    PFILE_OBJECT FileObject;
    PIO_COMPLETION_ROUTINE CompletionRoutine;
    PVOID Context;
} IO_STACK_LOCATION, *PIO_STACK_LOCATION;

#define SL_PENDING_RETURNED 0x01
#define SL_INVOKE_ON_CANCEL 0x20
#define SL_INVOKE_ON_SUCCESS 0x40
#define SL_INVOKE_ON_ERROR 0x80

typedef struct _IRP {
    CSHORT Type;
    USHORT Size;
    PMDL MdlAddress;
    ULONG Flags;
    union {
        struct _IRP* MasterIrp;
        LONG IrpCount;
        PVOID SystemBuffer;
    } AssociatedIrp;
    LIST_ENTRY ThreadListEntry;
    IO_STATUS_BLOCK IoStatus;
    KPROCESSOR_MODE RequestorMode;
    BOOLEAN PendingReturned;
    CHAR StackCount;
    CHAR CurrentLocation;
    BOOLEAN Cancel;
    KIRQL CancelIrql;
    CCHAR ApcEnvironment;
    UCHAR AllocationFlags;
    PIO_STATUS_BLOCK UserIosb;
    PKEVENT UserEvent;
    union {
        struct {
            PIO_APC_ROUTINE UserApcRoutine;
            PVOID UserApcContext;
        } AsynchronousParameters;
        LARGE_INTEGER AllocationSize;
    } Overlay;
    PDRIVER_CANCEL CancelRoutine;
    PVOID UserBuffer;
    union {
        struct {
            PVOID DriverContext[4];
            PETHREAD Thread;
            PCHAR AuxiliaryBuffer;
            LIST_ENTRY ListEntry;
            union {
                struct _IO_STACK_LOCATION* CurrentStackLocation;
                ULONG PacketType;
            };
            PFILE_OBJECT OriginalFileObject;
        } Overlay;
        PVOID Apc[11];
        PVOID CompletionKey;
    } Tail;
} IRP, *PIRP;

static_assert(sizeof(IO_STACK_LOCATION) == 72 && sizeof(IRP) == 208 && sizeof(IO_STATUS_BLOCK) == 16, "");

#define IO_NO_INCREMENT 0
#define IO_KEYBOARD_INCREMENT 6

#define METHOD_BUFFERED 0
#define METHOD_NEITHER 3
#define FILE_ANY_ACCESS 0x0000
#define CTL_CODE(DeviceType, Function, Method, Access)                                                       \
    (((ULONG)(DeviceType) << 16) | ((ULONG)(Access) << 14) | ((ULONG)(Function) << 2) | (ULONG)(Method))
#define METHOD_FROM_CTL_CODE(ctrlCode) ((ULONG)((ctrlCode)&3))

#define IoSizeOfIrp(StackSize) ((USHORT)(sizeof(IRP) + (StackSize) * sizeof(IO_STACK_LOCATION)))

PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota);
void IoFreeIrp(PIRP Irp);
void IoReuseIrp(PIRP Irp, NTSTATUS Iostatus);
PIRP IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject, PVOID InputBuffer,
                                   ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                                   BOOLEAN InternalDeviceIoControl, PKEVENT Event,
                                   PIO_STATUS_BLOCK IoStatusBlock);
NTSTATUS IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
void IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost);
#define IoCallDriver(DeviceObject, Irp) IofCallDriver((DeviceObject), (Irp))
#define IoCompleteRequest(Irp, PriorityBoost) IofCompleteRequest((Irp), (PriorityBoost))
NTSTATUS PoCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
void PoStartNextPowerIrp(PIRP Irp);
BOOLEAN IoCancelIrp(PIRP Irp);
PDRIVER_CANCEL IoSetCancelRoutine(PIRP Irp, PDRIVER_CANCEL CancelRoutine);
void IoAcquireCancelSpinLock(PKIRQL Irql);
void IoReleaseCancelSpinLock(KIRQL Irql);
BOOLEAN IoIs32bitProcess(PIRP Irp);

FORCEINLINE PIO_STACK_LOCATION IoGetCurrentIrpStackLocation(PIRP pIrp)
{
    return pIrp->Tail.Overlay.CurrentStackLocation;
}

FORCEINLINE PIO_STACK_LOCATION IoGetNextIrpStackLocation(PIRP pIrp)
{
    return pIrp->Tail.Overlay.CurrentStackLocation - 1;
}

FORCEINLINE void IoSetNextIrpStackLocation(PIRP pIrp)
{
    pIrp->CurrentLocation--;
    pIrp->Tail.Overlay.CurrentStackLocation--;
}

FORCEINLINE void IoSkipCurrentIrpStackLocation(PIRP pIrp)
{
    pIrp->CurrentLocation++;
    pIrp->Tail.Overlay.CurrentStackLocation++;
}

FORCEINLINE void IoCopyCurrentIrpStackLocationToNext(PIRP pIrp)
{
    PIO_STACK_LOCATION pCurrent = IoGetCurrentIrpStackLocation(pIrp);
    PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(pIrp);
    memcpy((void*)pNext, pCurrent, offsetof(IO_STACK_LOCATION, CompletionRoutine));
    pNext->Control = 0;
}

void HostNotePending(PIRP pIrp);

FORCEINLINE void IoMarkIrpPending(PIRP pIrp)
{
    HostNotePending(pIrp);
    IoGetCurrentIrpStackLocation(pIrp)->Control |= SL_PENDING_RETURNED;
}

FORCEINLINE void IoSetCompletionRoutine(PIRP pIrp, PIO_COMPLETION_ROUTINE pRoutine, PVOID pContext,
                                        BOOLEAN bOnSuccess, BOOLEAN bOnError, BOOLEAN bOnCancel)
{
    PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(pIrp);
    pNext->CompletionRoutine = pRoutine;
    pNext->Context = pContext;
    pNext->Control = (UCHAR)((bOnSuccess ? SL_INVOKE_ON_SUCCESS : 0) | (bOnError ? SL_INVOKE_ON_ERROR : 0) |
                             (bOnCancel ? SL_INVOKE_ON_CANCEL : 0));
}
}
