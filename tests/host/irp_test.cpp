// lost_test.cpp - rules about requests, each broken once.
#include "rules.h"

static void Dispatching(SmallSystem& system, std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)> dispatch)
{
    hooks.Dispatch = dispatch;
    UCHAR out[8];
    system.Control("in", 2, out, sizeof(out));
}

static NTSTATUS Keep(PDEVICE_OBJECT, PIRP, PVOID)
{
    return STATUS_MORE_PROCESSING_REQUIRED;
}

static void LeaveCancelRoutine(PIRP pIrp)
{
    IoSetCancelRoutine(pIrp, [](PDEVICE_OBJECT, PIRP) {});
}

static const Rule REQUESTS[] = {
    {"CompletedTwice", "MULTIPLE_IRP_COMPLETE_REQUESTS",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) {
             CompleteWith(pIrp, STATUS_SUCCESS);
             IofCompleteRequest(pIrp, 0);
             return STATUS_SUCCESS;
         });
     }},
    {"CompletedTwiceAndKept", "MULTIPLE_IRP_COMPLETE_REQUESTS",
     [](SmallSystem& system) {
         PIRP pIrp = OwnRequest(system);
         IoSetCompletionRoutine(pIrp, Keep, nullptr, TRUE, TRUE, TRUE);
         IoCallDriver(system.pDevice, pIrp);
         IoSkipCurrentIrpStackLocation(pIrp);
         IoCompleteRequest(pIrp, 0);
     }},
    {"Lost", "IRP_LOST",
     [](SmallSystem& system) { Dispatching(system, [](PDEVICE_OBJECT, PIRP) { return STATUS_SUCCESS; }); }},
    {"HeldByADeletedDevice", "IRP_LOST",
     [](SmallSystem& system) {
         PDEVICE_OBJECT pDevice;
         IoCreateDevice(system.pDriver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &pDevice);
         hooks.Dispatch = Hold;
         IoCallDriver(pDevice, OwnRequest(system));
         IoDeleteDevice(pDevice);
     }},
    {"EventOnAStackThatIsGone", "IRP_OUTLIVES_STACK",
     [](SmallSystem& system) {
         PDEVICE_OBJECT pBelow;
         IoCreateDevice(system.pDriver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &pBelow);
         static PDEVICE_OBJECT pTarget;
         pTarget = pBelow;
         Dispatching(system, [](PDEVICE_OBJECT pDevice, PIRP pIrp) {
             if (pDevice == pTarget) {
                 return Hold(pDevice, pIrp);
             }
             KEVENT done;
             IO_STATUS_BLOCK status;
             KeInitializeEvent(&done, NotificationEvent, FALSE);
             IoCallDriver(pTarget, IoBuildDeviceIoControlRequest(IOCTL_SMALL, pTarget, nullptr, 0, nullptr, 0,
                                                                 FALSE, &done, &status));
             return CompleteWith(pIrp, STATUS_SUCCESS);
         });
     }},
    {"PendingButNotMarked", "IRP_PENDING_MISMATCH",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) {
             CompleteWith(pIrp, STATUS_SUCCESS);
             return STATUS_PENDING;
         });
     }},
    {"PendingLaterButNotMarked", "IRP_PENDING_MISMATCH",
     [](SmallSystem& system) {
         static PIRP pKept;
         hooks.Dispatch = [](PDEVICE_OBJECT, PIRP pIrp) {
             pKept = pIrp;
             return STATUS_PENDING;
         };
         HostStartThread([] { CompleteWith(pKept, STATUS_SUCCESS); });
         system.Control();
     }},
    {"MarkedButNotPending", "IRP_PENDING_MISMATCH",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) {
             IoMarkIrpPending(pIrp);
             return CompleteWith(pIrp, STATUS_SUCCESS);
         });
     }},
    {"ReturnedAnotherStatus", "IRP_RETURNED_STATUS_MISMATCH",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) {
             CompleteWith(pIrp, STATUS_UNSUCCESSFUL);
             return STATUS_SUCCESS;
         });
     }},
    {"CompletedAsPending", "IRP_COMPLETED_PENDING",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) { return CompleteWith(pIrp, STATUS_PENDING); });
     }},
    {"CompletedUnderALock", "IRP_UNDER_SPIN_LOCK",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) {
             TakeFirst();
             return CompleteWith(pIrp, STATUS_SUCCESS);
         });
     }},
    {"SentUnderALock", "IRP_UNDER_SPIN_LOCK",
     [](SmallSystem& system) {
         PIRP pIrp = OwnRequest(system);
         TakeFirst();
         IoCallDriver(system.pDevice, pIrp);
     }},
    {"NoLocationLeft", "NO_MORE_IRP_STACK_LOCATIONS",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT pDevice, PIRP pIrp) { return IoCallDriver(pDevice, pIrp); });
     }},
    {"CancelRoutineLeft", "DRIVER_LEFT_CANCEL_ROUTINE",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) {
             LeaveCancelRoutine(pIrp);
             return CompleteWith(pIrp, STATUS_SUCCESS);
         });
     }},
    {"CancelLockKept", "CANCEL_LOCK_HELD_ON_RETURN",
     [](SmallSystem& system) {
         PIRP pIrp = OwnRequest(system);
         hooks.Dispatch = [](PDEVICE_OBJECT, PIRP pIrp) {
             IoMarkIrpPending(pIrp);
             LeaveCancelRoutine(pIrp);
             return STATUS_PENDING;
         };
         IoCallDriver(system.pDevice, pIrp);
         IoCancelIrp(pIrp);
     }},
    {"CompletionRoutineChangesTheLevel", "IRQL_UNEXPECTED_VALUE",
     [](SmallSystem& system) {
         PIRP pIrp = OwnRequest(system);
         IoSetCompletionRoutine(
             pIrp,
             [](PDEVICE_OBJECT, PIRP, PVOID) {
                 Raise();
                 return STATUS_MORE_PROCESSING_REQUIRED;
             },
             nullptr, TRUE, TRUE, TRUE);
         IoCallDriver(system.pDevice, pIrp);
     }},
    {"InformationBeyondTheOutput", "IRP_INFORMATION_BEYOND_OUTPUT",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) { return CompleteWith(pIrp, STATUS_SUCCESS, 9); });
     }},
    {"OutputNeverWritten", "UNINITIALISED_OUTPUT",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) { return CompleteWith(pIrp, STATUS_SUCCESS, 8); });
     }},
    {"OneByteNeverWritten", "UNINITIALISED_OUTPUT",
     [](SmallSystem& system) {
         hooks.Dispatch = [](PDEVICE_OBJECT, PIRP pIrp) {
             UCHAR* p = static_cast<UCHAR*>(pIrp->AssociatedIrp.SystemBuffer);
             for (int i = 0; i < 8; i++) {
                 p[i] = i == 5 ? p[i] : 0xC5; // looks unwritten and is not
             }
             return CompleteWith(pIrp, STATUS_SUCCESS, 8);
         };
         UCHAR out[8];
         for (int i = 0; i < 5; i++) {
             system.Control(nullptr, 0, out, sizeof(out));
         }
     }},
    {"OutputFromFreshPool", "UNINITIALISED_OUTPUT",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) {
             UCHAR* p = static_cast<UCHAR*>(Pool());
             memcpy(pIrp->AssociatedIrp.SystemBuffer, p + 3, 8);
             ExFreePool(p);
             return CompleteWith(pIrp, STATUS_SUCCESS, 8);
         });
     }},
    {"NoSuchFunction", "INVALID_MAJOR_FUNCTION",
     [](SmallSystem& system) {
         PIRP pIrp = OwnRequest(system);
         IoGetNextIrpStackLocation(pIrp)->MajorFunction = IRP_MJ_MAXIMUM_FUNCTION + 1;
         IoCallDriver(system.pDevice, pIrp);
     }},
    {"FreedButNotAllocated", "IRP_FREED_BY_OTHER",
     [](SmallSystem& system) {
         Dispatching(system, [](PDEVICE_OBJECT, PIRP pIrp) {
             IoFreeIrp(pIrp);
             return STATUS_SUCCESS;
         });
     }},
    {"RecursionWithoutEnd", "KERNEL_STACK_OVERFLOW",
     [](SmallSystem& system) {
         static SmallSystem* pSystem;
         pSystem = &system;
         Dispatching(system, [](PDEVICE_OBJECT, PIRP) {
             PIRP pIrp = OwnRequest(*pSystem);
             IoSetCompletionRoutine(pIrp, Keep, nullptr, TRUE, TRUE, TRUE);
             return IoCallDriver(pSystem->pDevice, pIrp);
         });
     }},
    {"FreedInUse", "IRP_FREED_IN_USE",
     [](SmallSystem& system) {
         hooks.Dispatch = [](PDEVICE_OBJECT, PIRP pIrp) {
             IoMarkIrpPending(pIrp);
             return STATUS_PENDING;
         };
         PIRP pIrp = OwnRequest(system);
         IoCallDriver(system.pDevice, pIrp);
         IoFreeIrp(pIrp);
     }},
    {"NobodyTakesItBack", "IRP_NOT_RECLAIMED",
     [](SmallSystem& system) { IoCallDriver(system.pDevice, OwnRequest(system)); }},
    {"CreateAtDispatch", "IRQL_NOT_LESS_OR_EQUAL",
     [](SmallSystem& system) {
         PIRP pIrp = OwnRequest(system);
         IoGetNextIrpStackLocation(pIrp)->MajorFunction = IRP_MJ_CREATE;
         Raise();
         IoCallDriver(system.pDevice, pIrp);
     }},
};
RULES(Requests, REQUESTS);

// --- what a driver in the middle of a stack owes a request

static PDEVICE_OBJECT pLower;

// A device of the small driver on top of the first; what it does with requests is the hook's.
static void Filtering(SmallSystem& system, NTSTATUS (*pPass)(PIRP pIrp), UCHAR ucMajor, UCHAR ucMinor)
{
    PDEVICE_OBJECT pUpper;
    IoCreateDevice(system.pDriver, 0, nullptr, FILE_DEVICE_UNKNOWN, FILE_DEVICE_SECURE_OPEN, FALSE, &pUpper);
    pLower = IoAttachDeviceToDeviceStack(pUpper, system.pDevice);
    hooks.Dispatch = [=](PDEVICE_OBJECT pDevice, PIRP pIrp) {
        if (pDevice == pUpper) {
            return pPass(pIrp);
        }
        PoStartNextPowerIrp(pIrp);
        return CompleteWith(pIrp, STATUS_SUCCESS);
    };
    ucMajor == IRP_MJ_POWER ? HostSendPower(system.pDevice, ucMinor) : HostSendPnp(system.pDevice, ucMinor);
}

static const Rule FILTERS[] = {
    {"CompletesPnpItself", "PNP_IRP_NOT_FORWARDED",
     [](SmallSystem& system) {
         Filtering(
             system, [](PIRP pIrp) { return CompleteWith(pIrp, STATUS_SUCCESS); }, IRP_MJ_PNP,
             IRP_MN_QUERY_REMOVE_DEVICE);
     }},
    {"FailsTheRemoval", "PNP_IRP_NOT_FORWARDED",
     [](SmallSystem& system) {
         Filtering(
             system, [](PIRP pIrp) { return CompleteWith(pIrp, STATUS_UNSUCCESSFUL); }, IRP_MJ_PNP,
             IRP_MN_REMOVE_DEVICE);
     }},
    {"SetsUpNoLocation", "IRP_NEXT_LOCATION_NOT_SET_UP",
     [](SmallSystem& system) {
         Filtering(
             system, [](PIRP pIrp) { return IoCallDriver(pLower, pIrp); }, IRP_MJ_PNP, IRP_MN_STOP_DEVICE);
     }},
    {"SetsARoutineAndSkips", "IRP_COMPLETION_ROUTINE_SKIPPED",
     [](SmallSystem& system) {
         Filtering(
             system,
             [](PIRP pIrp) {
                 IoSetCompletionRoutine(pIrp, Keep, nullptr, TRUE, TRUE, TRUE);
                 IoSkipCurrentIrpStackLocation(pIrp);
                 return IoCallDriver(pLower, pIrp);
             },
             IRP_MJ_PNP, IRP_MN_STOP_DEVICE);
     }},
    {"SkipsAndSetsARoutine", "IRP_COMPLETION_ROUTINE_SKIPPED",
     [](SmallSystem& system) {
         Filtering(
             system,
             [](PIRP pIrp) {
                 IoSkipCurrentIrpStackLocation(pIrp);
                 IoSetCompletionRoutine(pIrp, Keep, nullptr, TRUE, TRUE, TRUE);
                 return IoCallDriver(pLower, pIrp);
             },
             IRP_MJ_PNP, IRP_MN_STOP_DEVICE);
     }},
    {"PowerByIoCallDriver", "DRIVER_POWER_STATE_FAILURE",
     [](SmallSystem& system) {
         Filtering(
             system,
             [](PIRP pIrp) {
                 PoStartNextPowerIrp(pIrp);
                 IoSkipCurrentIrpStackLocation(pIrp);
                 return IoCallDriver(pLower, pIrp);
             },
             IRP_MJ_POWER, IRP_MN_SET_POWER);
     }},
    {"NextPowerNotStarted", "DRIVER_POWER_STATE_FAILURE",
     [](SmallSystem& system) {
         Filtering(
             system,
             [](PIRP pIrp) {
                 IoSkipCurrentIrpStackLocation(pIrp);
                 return PoCallDriver(pLower, pIrp);
             },
             IRP_MJ_POWER, IRP_MN_SET_POWER);
     }},
    {"PowerCompletedAndNextNotStarted", "DRIVER_POWER_STATE_FAILURE",
     [](SmallSystem& system) {
         Filtering(
             system, [](PIRP pIrp) { return CompleteWith(pIrp, STATUS_UNSUCCESSFUL); }, IRP_MJ_POWER,
             IRP_MN_QUERY_POWER);
     }},
};
RULES(Filters, FILTERS);

// --- what a stop tells of a request

TEST(LostRequest, IsToldWithItsWay)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            SmallSystem system;
            PDEVICE_OBJECT pDevice;
            IoCreateDevice(system.pDriver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &pDevice);
            hooks.Dispatch = Hold;
            PIRP pIrp = OwnRequest(system);
            IoCallDriver(pDevice, pIrp);
            IoCancelIrp(pIrp);
            IoDeleteDevice(pDevice);
        },
        "made the system .*\n  passed to Small \\(0x3\\)\n  marked pending Small .*\n"
        "  kept pending by Small .*\n  cancel asked the system");
}
