// How a keyboard answers when it is told to: not at all, short, late, or with a failure.
//
//     request --> rule? --none--> observer, hook, tables --> completed
//                  |  '--with pSend--> observer, [Held] --answer, cancel, removal--> completed
//                  |--status, short--------------------> completed at once
//                  '--late, never, deaf--> [Held] --timer, cancel, removal--> completed
//
// A held request lies in `Held` with its due time and its ticket in DriverContext. One timer serves all of them: it is set
// for the earliest. A cancel routine takes its request off the list; a deaf request has none. Whoever takes a
// request off the list completes it.
#include "device.h"

enum : LONGLONG { NeverDue = 0x7FFFFFFFFFFFFFFF };

// When a held request is answered, in units of the interrupt time. IRQL any. Lock: Lock held.
static LONGLONG DueOf(PIRP pIrp)
{
    return (LONGLONG)(LONG_PTR)pIrp->Tail.Overlay.DriverContext[0];
}

static ULONG_PTR TicketOf(PIRP pIrp)
{
    return (ULONG_PTR)pIrp->Tail.Overlay.DriverContext[2];
}

static PURB UrbOf(PIRP pIrp)
{
    return static_cast<PURB>(IoGetCurrentIrpStackLocation(pIrp)->Parameters.Others.Argument1);
}

// Shows a request to whoever watches. IRQL <= DISPATCH. Lock: none held.
static VOID Observe(const EmuKeyboardOptions& options, const PipeRequest& request)
{
    const UCHAR* pSetup = request.ucSetup;
    if (options.pRequest) {
        ULONG ulLength = pSetup[0] & 0x80 ? 0 : *request.pulLength;
        options.pRequest(options.pRequestContext, pSetup, request.pBuffer, ulLength);
    }
    bool bOutputReport = (pSetup[0] & 0xE0) == 0x20 && pSetup[1] == 9 && pSetup[3] == 2;
    bool bEeprom = pSetup[2] == 3 && pSetup[4] == 1;
    if (options.pLed && bOutputReport && !bEeprom) {
        options.pLed(options.pLedContext, request.pBuffer, *request.pulLength);
    }
}

// Answers by hook or tables, moving at most `ulMost` bytes, and completes. IRQL <= DISPATCH. Lock: none held.
static NTSTATUS AnswerNow(KeyboardDevice* pKeyboard, PIRP pIrp, PURB pUrb, ULONG ulMost)
{
    const EmuKeyboardOptions& options = pKeyboard->Options;
    PipeRequest request = PipeRequestOf(pUrb);
    if (*request.pulLength > ulMost) {
        *request.pulLength = ulMost;
    }
    NTSTATUS status = STATUS_NOT_SUPPORTED;
    if (options.pHook) {
        ULONG ulLength = *request.pulLength;
        status = options.pHook(options.pHookContext, request.ucSetup, request.pBuffer, &ulLength);
        if (status != STATUS_NOT_SUPPORTED) {
            *request.pulLength = ulLength < *request.pulLength ? ulLength : *request.pulLength;
        }
    }
    if (status == STATUS_NOT_SUPPORTED) {
        status = AnswerControl(pKeyboard, request.ucSetup, request.pBuffer, request.pulLength);
    }
    CompleteUrb(pIrp, pUrb, status);
    return status;
}

// Completes a request without data. IRQL <= DISPATCH. Lock: none held.
static NTSTATUS Fail(PIRP pIrp, PURB pUrb, NTSTATUS Status)
{
    *PipeRequestOf(pUrb).pulLength = 0;
    CompleteUrb(pIrp, pUrb, Status);
    return Status;
}

// The sender gave up on a held request. IRQL DISPATCH, with the cancel spin lock. Lock: takes Lock.
static VOID NTAPI CancelHeld(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    KeyboardDevice* pKeyboard = KeyboardOf(pDevice);
    IoReleaseCancelSpinLock(pIrp->CancelIrql);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
    RemoveEntryList(&pIrp->Tail.Overlay.ListEntry);
    KeReleaseSpinLock(&pKeyboard->Lock, irql);
    if (pKeyboard->Options.pGiveUp) {
        pKeyboard->Options.pGiveUp(pKeyboard->Options.pSendContext, TicketOf(pIrp));
    }
    Fail(pIrp, UrbOf(pIrp), STATUS_CANCELLED);
}

// Sets the timer for the earliest due time. IRQL DISPATCH. Lock: Lock held.
static VOID SetAnswerTimer(KeyboardDevice* pKeyboard)
{
    LONGLONG llFirst = NeverDue;
    for (PLIST_ENTRY p = pKeyboard->Held.Flink; p != &pKeyboard->Held; p = p->Flink) {
        LONGLONG llDue = DueOf(CONTAINING_RECORD(p, IRP, Tail.Overlay.ListEntry));
        llFirst = llDue < llFirst ? llDue : llFirst;
    }
    if (llFirst == NeverDue || pKeyboard->bGone) {
        return;
    }
    LONGLONG llNow = (LONGLONG)KeQueryInterruptTime();
    LARGE_INTEGER due;
    due.QuadPart = llFirst > llNow ? llNow - llFirst : -1;
    KeSetTimer(&pKeyboard->AnswerTimer, due, &pKeyboard->AnswerDpc);
}

// Takes the first request off the list that is due by then and not being cancelled; null when there is none.
// IRQL DISPATCH. Lock: Lock held.
static PIRP TakeHeld(KeyboardDevice* pKeyboard, LONGLONG llBy)
{
    PLIST_ENTRY pNext;
    for (PLIST_ENTRY p = pKeyboard->Held.Flink; p != &pKeyboard->Held; p = pNext) {
        pNext = p->Flink;
        PIRP pIrp = CONTAINING_RECORD(p, IRP, Tail.Overlay.ListEntry);
        bool bDeaf = pIrp->Tail.Overlay.DriverContext[1] != nullptr;
        if (DueOf(pIrp) > llBy) {
            continue;
        }
        RemoveEntryList(p);
        if (bDeaf || IoSetCancelRoutine(pIrp, nullptr)) {
            return pIrp;
        }
        InitializeListHead(p); // left to its cancel routine
    }
    return nullptr;
}

// Takes the request of this ticket off the list, unless it is being cancelled; null when it is not there.
// IRQL DISPATCH. Lock: Lock held.
static PIRP TakeTicket(KeyboardDevice* pKeyboard, ULONG_PTR ulTicket)
{
    for (PLIST_ENTRY p = pKeyboard->Held.Flink; p != &pKeyboard->Held; p = p->Flink) {
        PIRP pIrp = CONTAINING_RECORD(p, IRP, Tail.Overlay.ListEntry);
        if (TicketOf(pIrp) == ulTicket) {
            RemoveEntryList(p);
            if (IoSetCancelRoutine(pIrp, nullptr)) {
                return pIrp;
            }
            InitializeListHead(p); // left to its cancel routine
            return nullptr;
        }
    }
    return nullptr;
}

// Sends a request that is held to where it is answered. IRQL DISPATCH. Lock: Lock held, so the answer finds it held.
static NTSTATUS SendHeld(KeyboardDevice* pKeyboard, PIRP pIrp, PURB pUrb)
{
    PipeRequest request = PipeRequestOf(pUrb);
    ULONG ulLength = request.ucSetup[0] & 0x80 ? 0 : *request.pulLength;
    return pKeyboard->Options.pSend(pKeyboard->Options.pSendContext, TicketOf(pIrp), request.ucSetup,
                                    request.pBuffer, ulLength);
}

// Leaves a request pending: as the rule says, or without one until it is answered from outside.
// IRQL <= DISPATCH. Lock: takes Lock. Fails: the keyboard is gone, the request cannot be sent.
static NTSTATUS Hold(KeyboardDevice* pKeyboard, PIRP pIrp, PURB pUrb, const EmuAnswerRule* pRule)
{
    bool bDeaf = pRule && pRule->How == EmuAnswerDeaf;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
    if (pKeyboard->bGone) {
        KeReleaseSpinLock(&pKeyboard->Lock, irql);
        return Fail(pIrp, pUrb, STATUS_DELETE_PENDING);
    }
    LONGLONG llDue = NeverDue;
    if (pRule && pRule->How == EmuAnswerLate) {
        llDue = (LONGLONG)KeQueryInterruptTime() + (LONGLONG)pRule->ulAmount * 10000;
    }
    pIrp->Tail.Overlay.DriverContext[0] = (PVOID)(LONG_PTR)llDue;
    pIrp->Tail.Overlay.DriverContext[1] = bDeaf ? pKeyboard : nullptr;
    pIrp->Tail.Overlay.DriverContext[2] = (PVOID)++pKeyboard->ulTicket;
    IoMarkIrpPending(pIrp);
    InsertTailList(&pKeyboard->Held, &pIrp->Tail.Overlay.ListEntry);
    bool bEnds = false; // before it was held
    if (!bDeaf) {       // as a read: the routine is set first, then the mark is looked for
        IoSetCancelRoutine(pIrp, CancelHeld);
        bEnds = __atomic_load_n(&pIrp->Cancel, __ATOMIC_SEQ_CST) && IoSetCancelRoutine(pIrp, nullptr);
    }
    NTSTATUS status = bEnds ? STATUS_CANCELLED : STATUS_SUCCESS;
    if (!bEnds && !pRule) {
        status = SendHeld(pKeyboard, pIrp, pUrb);
        bEnds = !NT_SUCCESS(status) && IoSetCancelRoutine(pIrp, nullptr); // else its cancel routine fails it
    }
    if (bEnds) {
        RemoveEntryList(&pIrp->Tail.Overlay.ListEntry);
    } else {
        SetAnswerTimer(pKeyboard);
    }
    KeReleaseSpinLock(&pKeyboard->Lock, irql);
    if (bEnds) {
        Fail(pIrp, pUrb, status);
    }
    return STATUS_PENDING;
}

VOID NTAPI AnswerDpc(PKDPC, PVOID pContext, PVOID, PVOID)
{
    auto pKeyboard = static_cast<KeyboardDevice*>(pContext);
    for (;;) {
        KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
        PIRP pIrp = TakeHeld(pKeyboard, (LONGLONG)KeQueryInterruptTime());
        if (!pIrp) {
            SetAnswerTimer(pKeyboard);
        }
        KeReleaseSpinLock(&pKeyboard->Lock, irql);
        if (!pIrp) {
            return;
        }
        AnswerNow(pKeyboard, pIrp, UrbOf(pIrp), ~0u);
    }
}

VOID PurgeHeld(KeyboardDevice* pKeyboard)
{
    for (;;) {
        KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
        PIRP pIrp = TakeHeld(pKeyboard, NeverDue);
        KeReleaseSpinLock(&pKeyboard->Lock, irql);
        if (!pIrp) {
            return;
        }
        Fail(pIrp, UrbOf(pIrp), STATUS_DELETE_PENDING);
    }
}

VOID EmuKeyboardAnswer(PDEVICE_OBJECT pPhysical, ULONG_PTR ulTicket, NTSTATUS Status, const UCHAR* pData,
                       ULONG ulLength)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    KeyboardDevice* pKeyboard = KeyboardOf(pPhysical);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
    PIRP pIrp = TakeTicket(pKeyboard, ulTicket);
    KeReleaseSpinLockFromDpcLevel(&pKeyboard->Lock);
    if (pIrp) {
        PipeRequest request = PipeRequestOf(UrbOf(pIrp));
        ULONG ulMost = NT_SUCCESS(Status) ? *request.pulLength : 0;
        *request.pulLength = ulLength < ulMost ? ulLength : ulMost;
        if (request.ucSetup[0] & 0x80 && *request.pulLength != 0) {
            RtlCopyMemory(request.pBuffer, pData, *request.pulLength);
        }
        CompleteUrb(pIrp, UrbOf(pIrp), Status);
    }
    KeLowerIrql(irql);
}

static bool Names(const EmuAnswerRule& rule, const UCHAR* pSetup)
{
    auto is = [](LONG lWanted, LONG lFound) { return lWanted == EmuAny || lWanted == lFound; };
    return is(rule.lType, pSetup[0]) && is(rule.lRequest, pSetup[1]) &&
           is(rule.lValue, pSetup[2] | pSetup[3] << 8) && is(rule.lIndex, pSetup[4] | pSetup[5] << 8);
}

// Finds the first rule that names the request and whose turn it is, and counts it. False when none does.
// IRQL <= DISPATCH. Lock: takes Lock. Fails: the keyboard is gone.
static NTSTATUS FindRule(KeyboardDevice* pKeyboard, const UCHAR* pSetup, EmuAnswerRule* pRule, bool* pbFound)
{
    *pbFound = false;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
    for (ULONG i = 0; i < pKeyboard->ulRules && !*pbFound; i++) {
        const EmuAnswerRule& rule = pKeyboard->Rules[i];
        if (Names(rule, pSetup)) {
            ULONG ulSeen = pKeyboard->ulNamed[i]++;
            *pbFound = ulSeen >= rule.ulSkip && (rule.ulTimes == 0 || ulSeen - rule.ulSkip < rule.ulTimes);
            *pRule = rule;
        }
    }
    bool bGone = pKeyboard->bGone != FALSE;
    KeReleaseSpinLock(&pKeyboard->Lock, irql);
    return bGone ? STATUS_DELETE_PENDING : STATUS_SUCCESS;
}

NTSTATUS ServeByRules(KeyboardDevice* pKeyboard, PIRP pIrp, PURB pUrb)
{
    PipeRequest request = PipeRequestOf(pUrb);
    EmuAnswerRule rule;
    bool bRule;
    NTSTATUS status = FindRule(pKeyboard, request.ucSetup, &rule, &bRule);
    if (!NT_SUCCESS(status)) {
        return Fail(pIrp, pUrb, status);
    }
    Observe(pKeyboard->Options, request);
    bool bConfiguration = request.ucSetup[0] == 0x80 && request.ucSetup[1] == 6 &&
                          request.ucSetup[3] == USB_CONFIGURATION_DESCRIPTOR_TYPE;
    if (!bRule && pKeyboard->Options.pSend && !bConfiguration) {
        return Hold(pKeyboard, pIrp, pUrb, nullptr);
    }
    if (!bRule) {
        return AnswerNow(pKeyboard, pIrp, pUrb, ~0u);
    }
    switch (rule.How) {
    case EmuAnswerStatus:
        return Fail(pIrp, pUrb, rule.Status);
    case EmuAnswerUrbStatus:
        *request.pulLength = rule.ulAmount;
        pUrb->UrbHeader.Status = USBD_STATUS_STALL_PID;
        return CompleteIrp(pIrp, STATUS_SUCCESS);
    case EmuAnswerShort:
        return AnswerNow(pKeyboard, pIrp, pUrb, rule.ulAmount);
    default:
        return Hold(pKeyboard, pIrp, pUrb, &rule);
    }
}

NTSTATUS EmuKeyboardSetRules(PDEVICE_OBJECT pPhysical, const EmuAnswerRule* pRules, ULONG ulRules)
{
    KeyboardDevice* pKeyboard = KeyboardOf(pPhysical);
    if (ulRules > EmuMaximumRules) {
        return STATUS_INVALID_PARAMETER;
    }
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
    for (ULONG i = 0; i < ulRules; i++) {
        pKeyboard->Rules[i] = pRules[i];
        pKeyboard->ulNamed[i] = 0;
    }
    pKeyboard->ulRules = ulRules;
    KeReleaseSpinLock(&pKeyboard->Lock, irql);
    return STATUS_SUCCESS;
}

ULONG EmuKeyboardHeldRequests(PDEVICE_OBJECT pPhysical)
{
    KeyboardDevice* pKeyboard = KeyboardOf(pPhysical);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
    ULONG ulHeld = CountEntries(&pKeyboard->Held);
    KeReleaseSpinLock(&pKeyboard->Lock, irql);
    return ulHeld;
}
