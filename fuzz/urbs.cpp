// Requests with URBs as any driver above may send them to the filter: every function, headers whose length is
// wrong, buffers by address, by MDL or missing, cancelled or waited for, at both levels.
#include "scene.h"

namespace
{
// One request on its way. The URB's memory is exactly as long as its header says, the buffer as long as the
// URB says.
struct Sent {
    std::unique_ptr<UCHAR[]> Urb, Buffer;
    PMDL pMdl = nullptr;
    PIRP pIrp = nullptr; // null when it is gone or about to be
    bool bCancelling = false;
    bool bCompleted = false; // one that completes while it is cancelled is the canceller's to free
};

// From the first line on nobody cancels it any more.
void Free(Sent& sent)
{
    PIRP pIrp = sent.pIrp;
    sent.pIrp = nullptr;
    IoFreeIrp(pIrp);
}

NTSTATUS NTAPI Completed(PDEVICE_OBJECT, PIRP, PVOID pContext)
{
    auto pSent = static_cast<Sent*>(pContext);
    if (pSent->pMdl) {
        IoFreeMdl(pSent->pMdl);
        pSent->pMdl = nullptr;
    }
    pSent->bCompleted = true;
    if (!pSent->bCancelling) {
        Free(*pSent);
    }
    return STATUS_MORE_PROCESSING_REQUIRED;
}

void Cancel(Sent& sent)
{
    if (sent.pIrp) {
        sent.bCancelling = true;
        IoCancelIrp(sent.pIrp);
        sent.bCancelling = false;
        if (sent.bCompleted) {
            Free(sent);
        }
    }
}

// Header, then flags, length, buffer and MDL where all transfers have them, then the rest of the input's bytes.
void Build(Sent& sent, FuzzInput& input)
{
    USHORT usFunction = input.Flag() ? static_cast<USHORT>(input.Below(64)) : input.Word();
    USHORT usLength = input.Flag() ? input.Word() % 256 : sizeof(struct _URB_CONTROL_TRANSFER);
    usLength = std::max<USHORT>(usLength, sizeof(struct _URB_HEADER));
    sent.Urb.reset(new UCHAR[usLength]());
    auto pUrb = reinterpret_cast<PURB>(sent.Urb.get());
    pUrb->UrbHeader.Function = usFunction;
    pUrb->UrbHeader.Length = usLength;
    bool bTransfer = usFunction != URB_FUNCTION_SELECT_CONFIGURATION && usFunction > 7;
    if (!bTransfer || usLength < sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER)) {
        return;
    }
    auto& transfer = pUrb->UrbControlTransfer;
    transfer.TransferFlags = input.Byte();
    ULONG ulBytes = input.Flag() ? input.Byte() : 8;
    std::vector<uint8_t> data = input.Short();
    sent.Buffer.reset(new UCHAR[ulBytes]());
    std::copy_n(data.begin(), std::min<size_t>(data.size(), ulBytes), sent.Buffer.get());
    transfer.TransferBufferLength = ulBytes;
    switch (input.Below(4)) {
    case 0:
        break;
    case 1:
        if (ulBytes != 0) {
            sent.pMdl = IoAllocateMdl(sent.Buffer.get(), ulBytes, FALSE, FALSE, nullptr);
            MmBuildMdlForNonPagedPool(sent.pMdl);
            transfer.TransferBufferMDL = sent.pMdl;
        }
        break;
    default:
        transfer.TransferBuffer = sent.Buffer.get();
    }
    if (usLength >= sizeof(struct _URB_CONTROL_TRANSFER)) {
        std::vector<uint8_t> setup = input.Take(8);
        std::copy(setup.begin(), setup.end(), transfer.SetupPacket);
    }
}

void Send(Sent& sent, PDEVICE_OBJECT pFilter, FuzzInput& input)
{
    PIRP pIrp = sent.pIrp = IoAllocateIrp(pFilter->StackSize, FALSE);
    PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(pIrp);
    pNext->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    pNext->Parameters.DeviceIoControl.IoControlCode =
        input.Below(16) ? IOCTL_INTERNAL_USB_SUBMIT_URB : input.Long();
    pNext->Parameters.Others.Argument1 = input.Below(16) ? sent.Urb.get() : nullptr;
    IoSetCompletionRoutine(pIrp, Completed, &sent, TRUE, TRUE, TRUE);
    KIRQL irql;
    KeRaiseIrql(input.Flag() ? DISPATCH_LEVEL : PASSIVE_LEVEL, &irql);
    IoCallDriver(pFilter, pIrp);
    KeLowerIrql(irql);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pBytes, size_t cBytes)
{
    FuzzInput input(pBytes, cBytes);
    FuzzScene scene(input);
    EmuPlugOptions options;
    options.Manual = true;
    scene.Plug(input.Byte(), options);
    std::vector<std::unique_ptr<Sent>> all;
    for (unsigned uDeeds = 0; input.More() && uDeeds < 120; uDeeds++) {
        unsigned uDeed = input.Below(32);
        if (uDeed < DeedCount && uDeed != DeedUnplug && uDeed != DeedPlug && uDeed != DeedOn) {
            scene.Do(static_cast<FuzzDeed>(uDeed), input);
        } else if (uDeed == 31 && !all.empty()) {
            Cancel(*all[input.Byte() % all.size()]);
        } else {
            all.push_back(std::make_unique<Sent>());
            Build(*all.back(), input);
            Send(*all.back(), scene.Keyboard()->Filter(), input);
        }
    }
    scene.End(); // what still waits ends with the keyboard
    return 0;
}
