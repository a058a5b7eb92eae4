// urbs.h - requests with URBs as they stand at a filter device, and the log that their dumps go to.
#pragma once

#include <kernel.h>

#include <memory>
#include <string>
#include <vector>

#include "driver/context.h"
#include "log/log.h"

// A request with a URB that stands at the filter device, as its dispatch routine finds it.
class FilterIrp
{
public:
    explicit FilterIrp(PDEVICE_OBJECT device, PVOID pUrb, ULONG ulCode = IOCTL_INTERNAL_USB_SUBMIT_URB)
        : pIrp(IoAllocateIrp(static_cast<CCHAR>(device->StackSize + 1), FALSE))
    {
        IoSetNextIrpStackLocation(pIrp);
        PIO_STACK_LOCATION pStack = IoGetCurrentIrpStackLocation(pIrp);
        pStack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        pStack->Parameters.DeviceIoControl.IoControlCode = ulCode;
        pStack->Parameters.Others.Argument1 = pUrb;
    }
    ~FilterIrp() { IoFreeIrp(pIrp); }
    FilterIrp(const FilterIrp&) = delete;
    FilterIrp& operator=(const FilterIrp&) = delete;

    PIRP pIrp;
};

// An interrupt transfer whose buffer lies on the heap, so that a byte too many is caught.
struct InterruptUrb {
    explicit InterruptUrb(ULONG ulBytes, ULONG ulFlags = USBD_TRANSFER_DIRECTION_IN)
        : Buffer(new UCHAR[ulBytes]())
    {
        Urb.UrbHeader.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
        Urb.UrbHeader.Length = sizeof(Urb.UrbBulkOrInterruptTransfer);
        Urb.UrbBulkOrInterruptTransfer.TransferFlags = ulFlags;
        Urb.UrbBulkOrInterruptTransfer.TransferBuffer = Buffer.get();
        Urb.UrbBulkOrInterruptTransfer.TransferBufferLength = ulBytes;
    }
    std::unique_ptr<UCHAR[]> Buffer;
    URB Urb = {};
};

// A read of the test's own, sent to the filter as the stack above sends one.
class SentRead
{
public:
    SentRead(PDEVICE_OBJECT device, URB& urb, bool bCancelled = false)
        : pIrp(IoAllocateIrp(static_cast<CCHAR>(device->StackSize), FALSE))
    {
        PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(pIrp);
        pNext->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        pNext->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
        pNext->Parameters.Others.Argument1 = &urb;
        pIrp->IoStatus.Information = 77;
        pIrp->Cancel = bCancelled ? TRUE : FALSE;
        IO_COMPLETION_ROUTINE* pKeep = [](PDEVICE_OBJECT, PIRP pCompleted, PVOID pSelf) -> NTSTATUS {
            static_cast<SentRead*>(pSelf)->Result = pCompleted->IoStatus;
            return STATUS_MORE_PROCESSING_REQUIRED;
        };
        IoSetCompletionRoutine(pIrp, pKeep, this, TRUE, TRUE, TRUE);
        Result.Status = STATUS_PENDING;
        (void)IoCallDriver(device, pIrp);
    }
    ~SentRead()
    {
        if (Result.Status == STATUS_PENDING) { // a test that failed
            IoCancelIrp(pIrp);
        }
        IoFreeIrp(pIrp);
    }
    SentRead(const SentRead&) = delete;
    SentRead& operator=(const SentRead&) = delete;

    IO_STATUS_BLOCK Result = {};

private:
    PIRP pIrp;
};

// The driver's log, kept in memory while this lives: nothing drains it.
class KeptLog
{
public:
    explicit KeptLog(UCHAR ucLevel) : Text(LOG_BUFFER_BYTES), KeptName(Settings.LogFileName)
    {
        Settings.LogFileName = {2, 4, Name};
        Settings.ulLogLevel = ucLevel;
        Globals.pLogBuffer = Text.data();
        Globals.ulLogLength = 0;
        Globals.ucLogCut = 0;
    }
    ~KeptLog()
    {
        Globals.pLogBuffer = nullptr;
        Settings.ulLogLevel = 0;
        Settings.LogFileName = KeptName; // its buffer is the driver's
    }
    KeptLog(const KeptLog&) = delete;
    KeptLog& operator=(const KeptLog&) = delete;

    // What was written since the last call.
    std::string Take()
    {
        std::string text = Text.data();
        Text[0] = 0;
        Globals.ulLogLength = 0;
        Globals.ucLogCut = 0;
        return text;
    }
    static size_t Count(const std::string& text, const std::string& what)
    {
        size_t count = 0;
        for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
            count++;
        }
        return count;
    }

private:
    WCHAR Name[2] = L"f";
    std::vector<char> Text;
    UNICODE_STRING KeptName;
};
