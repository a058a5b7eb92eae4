// rules.cpp - the one test behind all tables of rules, and what the tables share.
#include "rules.h"

KSPIN_LOCK first;
KSPIN_LOCK second;

TEST_P(Rules, StopsTheRun)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::string pattern = std::string("HOST STOP ") + GetParam().pCode + ":";
    EXPECT_DEATH(
        {
            SmallSystem system;
            GetParam().pBreak(system);
            system.End();
        },
        pattern);
}

LARGE_INTEGER Ms(LONGLONG llMs)
{
    LARGE_INTEGER time;
    time.QuadPart = llMs * -10000;
    return time;
}

void Raise()
{
    KeRaiseIrqlToDpcLevel();
}

void TakeFirst()
{
    KeAcquireSpinLockRaiseToDpc(&first);
}

void Nothing(PKDPC, PVOID, PVOID, PVOID) {}

PVOID Pool(size_t bytes)
{
    return ExAllocatePoolWithTag(NonPagedPoolNx, bytes, 0x31676154);
}

PIRP OwnRequest(SmallSystem& system)
{
    PIRP pIrp = IoAllocateIrp(system.pDevice->StackSize, FALSE);
    IoGetNextIrpStackLocation(pIrp)->MajorFunction = IRP_MJ_READ;
    return pIrp;
}

NTSTATUS Hold(PDEVICE_OBJECT, PIRP pIrp)
{
    IoMarkIrpPending(pIrp);
    return STATUS_PENDING;
}
