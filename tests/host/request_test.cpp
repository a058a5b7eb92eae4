// request_test.cpp - requests through stacks: order, synchronous and pending ends, cancelling, applications.
#include "driver.h"

#include <atomic>
#include <vector>

static std::vector<int> order;

// A second device of the small driver on top of the first.
static PDEVICE_OBJECT AttachUpper(SmallSystem& system)
{
    PDEVICE_OBJECT pUpper;
    EXPECT_EQ(STATUS_SUCCESS, IoCreateDevice(system.pDriver, 0, nullptr, FILE_DEVICE_UNKNOWN,
                                             FILE_DEVICE_SECURE_OPEN, FALSE, &pUpper));
    EXPECT_EQ(system.pDevice, IoAttachDeviceToDeviceStack(pUpper, system.pDevice));
    EXPECT_EQ(2, pUpper->StackSize);
    pUpper->Flags &= ~DO_DEVICE_INITIALIZING;
    return pUpper;
}

static void DetachUpper(SmallSystem& system, PDEVICE_OBJECT pUpper)
{
    IoDetachDevice(system.pDevice);
    IoDeleteDevice(pUpper);
}

static NTSTATUS Note(PDEVICE_OBJECT, PIRP pIrp, PVOID pContext)
{
    order.push_back(static_cast<int>(reinterpret_cast<ULONG_PTR>(pContext)));
    if (pIrp->PendingReturned && pIrp->CurrentLocation <= pIrp->StackCount) {
        IoMarkIrpPending(pIrp);
    }
    return STATUS_SUCCESS;
}

static NTSTATUS NoteAndKeep(PDEVICE_OBJECT, PIRP, PVOID pContext)
{
    order.push_back(static_cast<int>(reinterpret_cast<ULONG_PTR>(pContext)));
    return STATUS_MORE_PROCESSING_REQUIRED;
}

static PIRP Request(PDEVICE_OBJECT pTop)
{
    PIRP pIrp = IoAllocateIrp(pTop->StackSize, FALSE);
    IoGetNextIrpStackLocation(pIrp)->MajorFunction = IRP_MJ_READ;
    IoSetCompletionRoutine(pIrp, NoteAndKeep, reinterpret_cast<PVOID>(9), TRUE, TRUE, TRUE);
    return pIrp;
}

TEST(Requests, CompletionRoutinesRunFromTheLowestUpwards)
{
    SmallSystem system;
    PDEVICE_OBJECT pUpper = AttachUpper(system);
    for (bool bPending : {false, true}) {
        order.clear();
        static PIRP pKept;
        pKept = nullptr;
        hooks.Dispatch = [&](PDEVICE_OBJECT pDevice, PIRP pIrp) {
            if (pDevice == pUpper) {
                IoCopyCurrentIrpStackLocationToNext(pIrp);
                IoSetCompletionRoutine(pIrp, Note, reinterpret_cast<PVOID>(2), TRUE, TRUE, TRUE);
                return IoCallDriver(system.pDevice, pIrp);
            }
            order.push_back(1);
            if (!bPending) {
                return CompleteWith(pIrp, STATUS_SUCCESS, 7);
            }
            IoMarkIrpPending(pIrp);
            pKept = pIrp;
            return STATUS_PENDING;
        };
        PIRP pIrp = Request(pUpper);
        EXPECT_EQ(bPending ? STATUS_PENDING : STATUS_SUCCESS, IoCallDriver(pUpper, pIrp));
        if (pKept != nullptr) {
            EXPECT_EQ(1u, order.size());
            CompleteWith(pKept, STATUS_SUCCESS, 7);
            EXPECT_TRUE(pIrp->PendingReturned);
        }
        EXPECT_EQ((std::vector<int>{1, 2, 9}), order);
        EXPECT_EQ(7u, pIrp->IoStatus.Information);
        IoFreeIrp(pIrp);
    }
    DetachUpper(system, pUpper);
}

TEST(Requests, CompletionRoutinesAreCalledForTheEndsTheyAskedFor)
{
    SmallSystem system;
    NTSTATUS status = STATUS_SUCCESS;
    hooks.Dispatch = [&](PDEVICE_OBJECT, PIRP pIrp) { return CompleteWith(pIrp, status); };
    struct {
        NTSTATUS Status;
        BOOLEAN bCancelled, bOnSuccess, bOnError, bOnCancel;
        bool bCalled;
    } const CASES[] = {
        {STATUS_SUCCESS, FALSE, TRUE, FALSE, FALSE, true},
        {STATUS_SUCCESS, FALSE, FALSE, TRUE, TRUE, false},
        {STATUS_CANCELLED, FALSE, FALSE, TRUE, FALSE, true},
        {STATUS_CANCELLED, FALSE, TRUE, FALSE, TRUE, false},
        {STATUS_CANCELLED, TRUE, FALSE, FALSE, TRUE, true},
    };
    PDEVICE_OBJECT pUpper = AttachUpper(system);
    for (const auto& test : CASES) {
        order.clear();
        status = test.Status;
        PIRP pIrp = Request(pUpper);
        // The upper location is taken by hand, so the routine under test stands in the lower one.
        IoSetNextIrpStackLocation(pIrp);
        IoCopyCurrentIrpStackLocationToNext(pIrp);
        IoSetCompletionRoutine(pIrp, NoteAndKeep, reinterpret_cast<PVOID>(5), test.bOnSuccess, test.bOnError,
                               test.bOnCancel);
        pIrp->Cancel = test.bCancelled;
        IoCallDriver(system.pDevice, pIrp);
        EXPECT_EQ((std::vector<int>{test.bCalled ? 5 : 9}), order);
        IoFreeIrp(pIrp);
    }
    DetachUpper(system, pUpper);
}

TEST(Requests, ASkippedLocationIsUsedByTheDriverBelow)
{
    SmallSystem system;
    PDEVICE_OBJECT pUpper = AttachUpper(system);
    hooks.Dispatch = [&](PDEVICE_OBJECT pDevice, PIRP pIrp) {
        if (pDevice == pUpper) {
            IoSkipCurrentIrpStackLocation(pIrp);
            return IoCallDriver(system.pDevice, pIrp);
        }
        IoMarkIrpPending(pIrp);
        CompleteWith(pIrp, STATUS_SUCCESS, 0);
        return STATUS_PENDING;
    };
    EXPECT_EQ(STATUS_SUCCESS, system.Control());
    DetachUpper(system, pUpper);
}

TEST(Requests, TheSystemsRequestTellsItsEndLikeThePlatform)
{
    SmallSystem system;
    struct {
        NTSTATUS Status;
        bool bPending, bTold;
    } const CASES[] = {
        {STATUS_SUCCESS, false, true},
        {STATUS_UNSUCCESSFUL, false, false}, // an error at once is only returned
        {STATUS_UNSUCCESSFUL, true, true},
    };
    for (const auto& test : CASES) {
        hooks.Dispatch = [&](PDEVICE_OBJECT, PIRP pIrp) {
            EXPECT_EQ(IRP_MJ_INTERNAL_DEVICE_CONTROL, IoGetCurrentIrpStackLocation(pIrp)->MajorFunction);
            if (test.bPending) {
                IoMarkIrpPending(pIrp);
            }
            memcpy(pIrp->AssociatedIrp.SystemBuffer, "abc", 3);
            CompleteWith(pIrp, test.Status, 3);
            return test.bPending ? STATUS_PENDING : test.Status;
        };
        KEVENT event;
        IO_STATUS_BLOCK result;
        result.Status = 12345;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        char out[4] = "xyz";
        PIRP pIrp = IoBuildDeviceIoControlRequest(IOCTL_SMALL, system.pDevice, nullptr, 0, out, 3, TRUE,
                                                  &event, &result);
        IoCallDriver(system.pDevice, pIrp);
        EXPECT_EQ(test.bTold ? 1 : 0, KeReadStateEvent(&event));
        EXPECT_EQ(test.bTold ? test.Status : 12345, result.Status);
        EXPECT_STREQ(test.Status == STATUS_SUCCESS ? "abc" : "xyz", out);
    }
}

TEST(Requests, BufferedControlCopiesInAndOut)
{
    SmallSystem system;
    hooks.Dispatch = [](PDEVICE_OBJECT, PIRP pIrp) {
        PIO_STACK_LOCATION pLocation = IoGetCurrentIrpStackLocation(pIrp);
        EXPECT_EQ(2u, pLocation->Parameters.DeviceIoControl.InputBufferLength);
        EXPECT_EQ(4u, pLocation->Parameters.DeviceIoControl.OutputBufferLength);
        EXPECT_EQ(UserMode, pIrp->RequestorMode);
        char* p = static_cast<char*>(pIrp->AssociatedIrp.SystemBuffer);
        p[2] = static_cast<char>(p[0] + p[1]);
        return CompleteWith(pIrp, STATUS_BUFFER_OVERFLOW, 3); // a warning copies
    };
    char in[2] = {3, 4};
    char out[4] = {9, 9, 9, 9};
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, system.Control(in, 2, out, 4));
    EXPECT_EQ(3u, system.ulInformation);
    EXPECT_EQ(7, out[2]);
    EXPECT_EQ(9, out[3]);
}

static PIRP pWaiting;

static void CancelWaiting(PDEVICE_OBJECT, PIRP pIrp)
{
    IoReleaseCancelSpinLock(pIrp->CancelIrql);
    CompleteWith(pIrp, STATUS_CANCELLED);
}

static NTSTATUS WaitForCancel(PDEVICE_OBJECT, PIRP pIrp)
{
    IoMarkIrpPending(pIrp);
    pWaiting = pIrp;
    IoSetCancelRoutine(pIrp, CancelWaiting);
    return STATUS_PENDING;
}

TEST(Requests, CancelCallsTheRoutineOnce)
{
    SmallSystem system;
    hooks.Dispatch = WaitForCancel;
    order.clear();
    PIRP pIrp = Request(system.pDevice);
    IoCallDriver(system.pDevice, pIrp);
    EXPECT_TRUE(IoCancelIrp(pIrp));
    EXPECT_EQ((std::vector<int>{9}), order);
    EXPECT_EQ(STATUS_CANCELLED, pIrp->IoStatus.Status);
    EXPECT_FALSE(IoCancelIrp(pIrp)) << "no routine is left";
    IoReuseIrp(pIrp, STATUS_SUCCESS);
    EXPECT_FALSE(pIrp->Cancel);
    IoFreeIrp(pIrp);
}

class EndingProcess : public testing::TestWithParam<HostMode>
{
};
INSTANTIATE_TEST_SUITE_P(Host, EndingProcess, testing::Values(HostSimulated, HostThreaded));

TEST_P(EndingProcess, CancelsTheRequestItWaitsFor)
{
    SmallSystem system(GetParam());
    KEVENT started;
    KeInitializeEvent(&started, NotificationEvent, FALSE);
    hooks.Dispatch = [&](PDEVICE_OBJECT pDevice, PIRP pIrp) {
        NTSTATUS kept = WaitForCancel(pDevice, pIrp);
        KeSetEvent(&started, 0, FALSE);
        return kept;
    };
    std::atomic<NTSTATUS> status{STATUS_SUCCESS};
    HostThread thread = HostStartThread([&] { status = system.Control(); });
    KeWaitForSingleObject(&started, Executive, KernelMode, FALSE, nullptr);
    HostEndThreadWaits(thread);
    HostJoinThread(thread);
    EXPECT_EQ(STATUS_CANCELLED, status);
}

TEST(Requests, TheRequestKnowsItsProcess)
{
    SmallSystem system;
    BOOLEAN b32 = FALSE;
    hooks.Dispatch = [&](PDEVICE_OBJECT, PIRP pIrp) {
        b32 = IoIs32bitProcess(pIrp);
        return CompleteWith(pIrp, STATUS_SUCCESS);
    };
    HostSetCaller32(true);
    system.Control();
    EXPECT_TRUE(b32);
    HostSetCaller32(false);
    system.Control();
    EXPECT_FALSE(b32);
}

// The driver re-reads from its completion routine: hundreds of nested calls on a small stack.
TEST(Requests, DeepNestingFitsASmallStack)
{
    SmallSystem system;
    static int iDepth;
    static SmallSystem* pSystem;
    iDepth = 0;
    pSystem = &system;
    hooks.Dispatch = [](PDEVICE_OBJECT, PIRP pIrp) { return CompleteWith(pIrp, STATUS_SUCCESS); };
    static PIO_COMPLETION_ROUTINE pAgain = [](PDEVICE_OBJECT, PIRP pIrp, PVOID) -> NTSTATUS {
        if (++iDepth < 200) {
            IoReuseIrp(pIrp, STATUS_SUCCESS);
            IoGetNextIrpStackLocation(pIrp)->MajorFunction = IRP_MJ_READ;
            IoSetCompletionRoutine(pIrp, pAgain, nullptr, TRUE, TRUE, TRUE);
            IoCallDriver(pSystem->pDevice, pIrp);
        }
        return STATUS_MORE_PROCESSING_REQUIRED;
    };
    HostJoinThread(HostStartThread(
        [] {
            PIRP pIrp = Request(pSystem->pDevice);
            IoSetCompletionRoutine(pIrp, pAgain, nullptr, TRUE, TRUE, TRUE);
            IoCallDriver(pSystem->pDevice, pIrp);
            IoFreeIrp(pIrp);
        },
        1024 * 1024));
    EXPECT_EQ(200, iDepth);
}
