// The keyboard's own record, and what its source files share. Nobody outside this folder includes this.
//
// A read waits in `Waiting`, a report in the ring of kept reports; Deliver pairs the oldest of both. Only one
// thread delivers at a time, so reports reach the stack above in the order in which they were sent:
//
//     EmuKeyboardReport --> [kept reports]--+
//                                           +--> Deliver --> IoCompleteRequest
//     interrupt-IN read --> [Waiting]-------+
#pragma once

#include "keyboard.h"

enum : ULONG { MaximumReport = 1024, KeptBytes = 0x10000 };
enum : ULONG { KeyboardTag = 0x64624B45 };

// (i) set at creation, then constant; the rest as told.
struct KeyboardDevice {
    ULONG ulTag;                        // (i) KeyboardTag
    PDEVICE_OBJECT pSelf;               // (i)
    const EmuDescriptors* pDescriptors; // (i)
    EmuKeyboardOptions Options;         // (i)
    KSPIN_LOCK Lock;                    // guards what follows up to the first DPC, and the memory
    LIST_ENTRY Waiting;                 // reads, oldest first, linked by their ListEntry
    PUCHAR pKept; // ring of KeptBytes: each report is its length in two bytes and its data; null when removed
    ULONG ulKeptRead, ulKeptUsed; // bytes
    ULONG ulKept;                 // reports
    BOOLEAN bDelivering;          // a thread is inside Deliver and looks again before it leaves
    BOOLEAN bGone;                // surprise-removed or removed: no request waits any more
    LIST_ENTRY Held;              // control requests that are answered late or never, linked as reads
    ULONG_PTR ulTicket;           // of the held request that came last
    EmuAnswerRule Rules[EmuMaximumRules];
    ULONG ulNamed[EmuMaximumRules]; // how often each named a request
    ULONG ulRules;
    KDPC DeliverDpc;    // pairs kept reports with a read that came later
    KTIMER AnswerTimer; // due when the first of the held requests is; set under Lock
    KDPC AnswerDpc;
    KTIMER StartTimer; // Plug and Play only: a delayed start
    KDPC StartDpc;
    PIRP pStart;
};

// keyboard.cpp
KeyboardDevice* KeyboardOf(PDEVICE_OBJECT pDevice);
// Completes a request with no information; returns the status. IRQL <= DISPATCH. Lock: none held.
NTSTATUS CompleteIrp(PIRP pIrp, NTSTATUS Status);

// reads.cpp
// Completes the request of a URB: sets both statuses. IRQL <= DISPATCH. Lock: none held.
VOID CompleteUrb(PIRP pIrp, PURB pUrb, NTSTATUS Status);
// IRQL any. Lock: the list's.
ULONG CountEntries(const LIST_ENTRY* pHead);
// Lets a read wait. IRQL <= DISPATCH. Lock: takes Lock.
NTSTATUS WaitForReport(KeyboardDevice* pKeyboard, PIRP pIrp, PURB pUrb);
// Completes every waiting read with the status. IRQL <= DISPATCH. Lock: takes Lock.
VOID PurgeReads(KeyboardDevice* pKeyboard, NTSTATUS Status);
// The keyboard is not there any more: later reads fail. IRQL <= DISPATCH. Lock: takes Lock.
VOID MarkGone(KeyboardDevice* pKeyboard);
KDEFERRED_ROUTINE DeliverDpc;

// urb.cpp
// A control request on its way through the keyboard, whatever the form of its URB.
struct PipeRequest {
    UCHAR ucSetup[8]; // as it would be on the wire
    PUCHAR pBuffer;
    PULONG pulLength; // the URB's TransferBufferLength
};
// Brings a control URB, whose layout has been checked, to its setup packet. IRQL <= DISPATCH.
PipeRequest PipeRequestOf(PURB pUrb);
// Serves one URB and completes its request. IRQL <= DISPATCH.
NTSTATUS SubmitUrb(KeyboardDevice* pKeyboard, PIRP pIrp);
// The transfer buffer, be it named by address or by MDL; null for none. IRQL <= DISPATCH.
PUCHAR TransferBufferOf(PVOID pBuffer, PMDL pMdl);

// behaviour.cpp
// Answers a control request as the first rule that names it says, or at once by hook and tables, and
// completes it. IRQL <= DISPATCH. Lock: takes Lock.
NTSTATUS ServeByRules(KeyboardDevice* pKeyboard, PIRP pIrp, PURB pUrb);
// Completes every held control request: the keyboard is gone. IRQL <= DISPATCH. Lock: takes Lock.
VOID PurgeHeld(KeyboardDevice* pKeyboard);
KDEFERRED_ROUTINE AnswerDpc;

// answers.cpp
// Answers one request of the control pipe; `*pulLength` as in EmuRequestHook. IRQL <= DISPATCH.
NTSTATUS AnswerControl(KeyboardDevice* pKeyboard, const UCHAR* pSetup, PUCHAR pBuffer, PULONG pulLength);
// Copies an answer, cut to the length asked for. IRQL any.
NTSTATUS Answer(const UCHAR* pAnswer, ULONG ulAnswer, PUCHAR pBuffer, PULONG pulLength);
NTSTATUS Stall(PULONG pulLength);
// The endpoint descriptor of the first interrupt-IN endpoint; null when the tables have none.
const UCHAR* FindEndpoint(const EmuDescriptors* pDescriptors);

// strings.cpp
// A string descriptor in a language; without languages (index 0) their list. IRQL any. Fails: stalls.
NTSTATUS AnswerString(const EmuDescriptors* pDescriptors, UCHAR ucIndex, USHORT usLanguage, PUCHAR pBuffer,
                      PULONG pulLength);

// memory.cpp
// Answers a request to one of the three memories or for interface 1's report descriptor;
// STATUS_NOT_SUPPORTED when it is none of these. IRQL <= DISPATCH. Lock: takes Lock.
NTSTATUS AnswerMemory(KeyboardDevice* pKeyboard, const UCHAR* pSetup, PUCHAR pBuffer, PULONG pulLength);
