// levels_test.cpp - rules about interrupt levels and locks, each broken once.
#include "rules.h"

static const Rule LEVELS[] = {
    {"WaitAtDispatch", "IRQL_NOT_LESS_OR_EQUAL",
     [](SmallSystem& system) {
         Raise();
         KeWaitForSingleObject(system.Extension(), Executive, KernelMode, FALSE, nullptr);
     }},
    {"RegistryAtDispatch", "IRQL_NOT_LESS_OR_EQUAL",
     [](SmallSystem&) {
         Raise();
         RtlQueryRegistryValues(0, L"\\Registry\\Machine", nullptr, nullptr, nullptr);
     }},
    {"PagedPoolAtDispatch", "IRQL_NOT_LESS_OR_EQUAL",
     [](SmallSystem&) {
         Raise();
         ExAllocatePoolWithTag(PagedPool, 8, 1);
     }},
    {"PagedFreeAtDispatch", "IRQL_NOT_LESS_OR_EQUAL",
     [](SmallSystem&) {
         PVOID p = ExAllocatePoolWithTag(PagedPool, 8, 1);
         Raise();
         ExFreePool(p);
     }},
    {"ContractOfARoutine", "IRQL_NOT_LESS_OR_EQUAL",
     [](SmallSystem&) {
         Raise();
         IRQL_AT_MOST(APC_LEVEL);
     }},
    {"ContractOfADispatchRoutine", "IRQL_NOT_GREATER_OR_EQUAL",
     [](SmallSystem&) { IRQL_IS(DISPATCH_LEVEL); }},
    {"ClaimThatDoesNotHold", "ASSERTION_FAILURE",
     [](SmallSystem&) { NT_ASSERT(KeGetCurrentIrql() > APC_LEVEL); }},
    {"RaiseDownwards", "IRQL_NOT_GREATER_OR_EQUAL",
     [](SmallSystem&) {
         Raise();
         KIRQL irql;
         KeRaiseIrql(PASSIVE_LEVEL, &irql);
     }},
    {"LowerUpwards", "IRQL_NOT_LESS_OR_EQUAL", [](SmallSystem&) { KeLowerIrql(DISPATCH_LEVEL); }},
    {"LowerUnderALock", "IRQL_NOT_GREATER_OR_EQUAL",
     [](SmallSystem&) {
         TakeFirst();
         KeLowerIrql(PASSIVE_LEVEL);
     }},
    {"AtDpcLevelTooLow", "IRQL_NOT_GREATER_OR_EQUAL",
     [](SmallSystem&) { KeAcquireSpinLockAtDpcLevel(&first); }},
    {"WaitUnderALock", "WAIT_UNDER_SPIN_LOCK",
     [](SmallSystem&) {
         TakeFirst();
         LARGE_INTEGER time = Ms(1);
         KeDelayExecutionThread(KernelMode, FALSE, &time);
     }},
    {"SameLockTwice", "SPIN_LOCK_ALREADY_OWNED",
     [](SmallSystem&) {
         TakeFirst();
         TakeFirst();
     }},
    {"SecondLock", "SPIN_LOCK_SECOND_LOCK",
     [](SmallSystem&) {
         TakeFirst();
         KeAcquireSpinLockRaiseToDpc(&second);
     }},
    {"LockUnderALeaf", "SPIN_LOCK_SECOND_LOCK",
     [](SmallSystem&) {
         Raise();
         KeAcquireSpinLockAtDpcLevel(&first);
         KeAcquireSpinLockAtDpcLevel(&second);
     }},
    {"ReleaseOfALockNotHeld", "SPIN_LOCK_NOT_OWNED",
     [](SmallSystem&) {
         Raise();
         KeReleaseSpinLock(&first, PASSIVE_LEVEL);
     }},
    {"ReleaseOutOfOrder", "SPIN_LOCK_NOT_OWNED",
     [](SmallSystem&) {
         TakeFirst();
         KeAcquireSpinLockAtDpcLevel(&second);
         KeReleaseSpinLock(&first, PASSIVE_LEVEL);
     }},
    {"LeavesInBothOrders", "LOCK_ORDER",
     [](SmallSystem&) {
         TakeFirst();
         KeAcquireSpinLockAtDpcLevel(&second);
         KeReleaseSpinLockFromDpcLevel(&second);
         KeReleaseSpinLock(&first, PASSIVE_LEVEL);
         KeAcquireSpinLockRaiseToDpc(&second);
         KeAcquireSpinLockAtDpcLevel(&first);
     }},
    {"MutexesInBothOrders", "LOCK_ORDER",
     [](SmallSystem&) {
         static KMUTEX mutexes[2];
         for (int turn = 0; turn < 2; turn++) {
             KeInitializeMutex(&mutexes[turn], 0);
         }
         for (int turn = 0; turn < 2; turn++) {
             KeWaitForSingleObject(&mutexes[turn], Executive, KernelMode, FALSE, nullptr);
             KeWaitForSingleObject(&mutexes[1 - turn], Executive, KernelMode, FALSE, nullptr);
             KeReleaseMutex(&mutexes[1 - turn], FALSE);
             KeReleaseMutex(&mutexes[turn], FALSE);
         }
     }},
    {"LockHeldForThousandsOfCalls", "SPIN_LOCK_HELD_TOO_LONG",
     [](SmallSystem& system) {
         KeInitializeEvent(&system.Extension()->Event, NotificationEvent, FALSE);
         TakeFirst();
         for (int i = 0; i < 2000; i++) {
             KeSetEvent(&system.Extension()->Event, 0, FALSE);
         }
     }},
    {"UpcaseAtDispatch", "IRQL_NOT_LESS_OR_EQUAL",
     [](SmallSystem&) {
         Raise();
         RtlUpcaseUnicodeChar(L'a');
     }},
    {"CompareAtApc", "IRQL_NOT_LESS_OR_EQUAL",
     [](SmallSystem&) {
         UNICODE_STRING text = Str(L"a");
         KfRaiseIrql(APC_LEVEL);
         RtlCompareUnicodeString(&text, &text, TRUE);
     }},
    {"LockThatNobodyGivesBack", "SPIN_LOCK_DEADLOCK",
     [](SmallSystem& system) {
         system.End();
         SmallSystem seeded(HostSimulated, "", "", 1);
         first = 1; // never initialised
         TakeFirst();
     }},
    {"MutexKeptByDispatch", "APC_INDEX_MISMATCH",
     [](SmallSystem& system) {
         static KMUTEX mutex;
         KeInitializeMutex(&mutex, 0);
         InDriver(system, [](PDEVICE_OBJECT) {
             KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr);
         });
     }},
    {"MutexKeptByAThreadThatEnds", "THREAD_TERMINATE_HELD_MUTEX",
     [](SmallSystem&) {
         static KMUTEX mutex;
         KeInitializeMutex(&mutex, 0);
         HostJoinThread(
             HostStartThread([] { KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr); }));
     }},
    {"CriticalRegionLeftOpen", "APC_INDEX_MISMATCH",
     [](SmallSystem& system) { InDriver(system, [](PDEVICE_OBJECT) { KeEnterCriticalRegion(); }); }},
    {"CriticalRegionLeftTwice", "APC_INDEX_MISMATCH", [](SmallSystem&) { KeLeaveCriticalRegion(); }},
    {"DispatchKeepsALock", "SPIN_LOCK_HELD_ON_RETURN",
     [](SmallSystem& system) {
         hooks.Dispatch = [](PDEVICE_OBJECT, PIRP pIrp) {
             CompleteWith(pIrp, STATUS_SUCCESS);
             TakeFirst();
             return STATUS_SUCCESS;
         };
         system.Control();
     }},
    {"DpcChangesTheLevel", "IRQL_UNEXPECTED_VALUE",
     [](SmallSystem& system) {
         KDPC* pDpc = &system.Extension()->Dpc;
         KeInitializeDpc(
             pDpc, [](PKDPC, PVOID, PVOID, PVOID) { KeLowerIrql(PASSIVE_LEVEL); }, nullptr);
         KeInsertQueueDpc(pDpc, nullptr, nullptr);
     }},
    {"WorkRoutineChangesTheLevel", "IRQL_UNEXPECTED_VALUE",
     [](SmallSystem& system) {
         WORK_QUEUE_ITEM* pItem = &system.Extension()->Item;
         ExInitializeWorkItem(
             pItem, [](PVOID) { Raise(); }, nullptr);
         ExQueueWorkItem(pItem, DelayedWorkQueue);
         HostSettle();
     }},
};
RULES(Levels, LEVELS);
