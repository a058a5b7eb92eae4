// world.cpp - host.h on this kernel: brings the world up, loads the driver's file and the emulations'
// drivers, takes the driver down and audits what it left.
//
// The driver's file lies beside this program. An emulation's driver object is made once and stays: this
// kernel cannot take it down, as it has no file.
#include <host.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <thread>

#include "clock.h"
#include "dpc.h"
#include "driver/context.h"
#include "driver/driver.h"
#include "faults.h"
#include "fence.h"
#include "gaps.h"
#include "interfaces.h"
#include "memory.h"
#include "modules.h"
#include "parameters.h"
#include "properties.h"
#include "send.h"
#include "text.h"
#include "turns.h"

extern "C" char __ImageBase[]; // of this program

DriverGlobals Globals; // the path of the parameters alone, for those who change them

// Stands for the file's.
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT, PUNICODE_STRING)
{
    return STATUS_NOT_IMPLEMENTED;
}

namespace
{
const char SERVICE[] = "Tv64USB";
const std::u16string SERVICE_KEY = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Tv64USB";
const std::u16string PARAMETERS = SERVICE_KEY + u"\\TolvenParams";
const std::u16string DRIVER_NAME = u"\\Driver\\Tv64USB";
PDRIVER_OBJECT g_pDriver; // the file's, while it is loaded

void PrepareDriver(void* pModule, unsigned long ulBytes)
{
    FillDriversGaps(pModule);
    GiveClock(pModule, ulBytes);
}

void BringUp()
{
    FillProgramsGaps();
    GiveClock(__ImageBase, ModuleBytes(__ImageBase));
    EmulateLevels();
    pSetDpcLevel = [](KIRQL level) { SetThreadLevel(level); };
    TakeTurn(Turn::Request);
    StartTurns();
    CallAtLoad(L"Tv64USB.sys", PrepareDriver);
    if (!MakeService(SERVICE, OwnFolder() + "Tv64USB.sys")) {
        fprintf(stderr, "the driver's service cannot be made\n");
        exit(1);
    }
    StartRequests([] { TakeTurn(Turn::Request); });
}

NTSTATUS LoadFile(PDRIVER_OBJECT* ppDriver)
{
    UNICODE_STRING key = CountedText(SERVICE_KEY), name = CountedText(DRIVER_NAME);
    NTSTATUS status = ZwLoadDriver(&key);
    PVOID pDriver = nullptr;
    if (NT_SUCCESS(status)) {
        status = ObReferenceObjectByName(&name, OBJ_CASE_INSENSITIVE, nullptr, 0, nullptr, KernelMode,
                                         nullptr, &pDriver);
    }
    if (NT_SUCCESS(status)) {
        ObDereferenceObject(pDriver);
        *ppDriver = g_pDriver = static_cast<PDRIVER_OBJECT>(pDriver);
    }
    return status;
}

PDRIVER_INITIALIZE g_pEntry;
PDRIVER_OBJECT g_pMade;

NTSTATUS NTAPI EnterEmulation(PDRIVER_OBJECT pDriver, PUNICODE_STRING pPath)
{
    g_pMade = pDriver;
    return g_pEntry(pDriver, pPath);
}

NTSTATUS MakeDriver(PDRIVER_INITIALIZE pEntry, const WCHAR* pszService, PDRIVER_OBJECT* ppDriver)
{
    static std::map<PDRIVER_INITIALIZE, PDRIVER_OBJECT> made;
    if (!made[pEntry]) {
        typedef NTSTATUS(NTAPI CreateDriver)(PUNICODE_STRING pName, PDRIVER_INITIALIZE pEntry);
        std::u16string text = u"\\Driver\\" + std::u16string(reinterpret_cast<const char16_t*>(pszService));
        UNICODE_STRING name = CountedText(text);
        g_pEntry = pEntry;
        NTSTATUS status =
            reinterpret_cast<CreateDriver*>(KernelExport("IoCreateDriver"))(&name, EnterEmulation);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        made[pEntry] = g_pMade;
    }
    *ppDriver = made[pEntry];
    return STATUS_SUCCESS;
}

unsigned UnloadFile()
{
    unsigned uLeft = 0;
    const auto pBase = static_cast<const char*>(g_pDriver->DriverStart);
    const ULONG ulBytes = g_pDriver->DriverSize;
    UNICODE_STRING key = CountedText(SERVICE_KEY);
    if (!PassFence()) {
        fprintf(stderr, "left: requests of applications, perhaps\n");
        uLeft++;
    }
    g_pDriver = nullptr;
    NTSTATUS status = ZwUnloadDriver(&key);
    if (!NT_SUCCESS(status)) {
        fprintf(stderr, "left: the driver itself, %08x\n", static_cast<unsigned>(status));
        uLeft++;
    }
    if (unsigned uBlocks = TakePoolBlocks()) {
        fprintf(stderr, "left: %u blocks of pool\n", uBlocks);
        uLeft++;
    }
    if (unsigned uTimers = CountTimersOf(pBase, ulBytes)) {
        fprintf(stderr, "left: %u timers\n", uTimers);
        uLeft++;
    }
    return uLeft + AuditInterfaces() + TakeFaults();
}
} // namespace

void HostStart(const HostOptions& options)
{
    static bool bUp = false;
    if (!bUp) {
        bUp = true;
        BringUp();
        Globals.ParametersPath = CountedText(PARAMETERS);
    }
    SetParameters(SERVICE, ReadParameters(options.RegistryText));
    RestartClock();
    ForgetProperties();
    ForgetInterfaces();
}

unsigned HostStop()
{
    return 0;
}

NTSTATUS HostLoadDriver(PDRIVER_INITIALIZE pEntry, const WCHAR* pServiceName, PDRIVER_OBJECT* ppDriver)
{
    return pEntry == DriverEntry ? LoadFile(ppDriver) : MakeDriver(pEntry, pServiceName, ppDriver);
}

unsigned HostUnloadDriver(PDRIVER_OBJECT pDriver)
{
    unsigned uLeft = 0;
    HostSettle();
    for (PDEVICE_OBJECT pDevice = pDriver->DeviceObject; pDevice; pDevice = pDevice->NextDevice) {
        fprintf(stderr, "left: a device\n");
        uLeft++;
    }
    return pDriver == g_pDriver ? uLeft + UnloadFile() : uLeft;
}

NTSTATUS HostSendPnp(PDEVICE_OBJECT pInStack, UCHAR ucMinor)
{
    Asking asking;
    PDEVICE_OBJECT pTop = IoGetAttachedDeviceReference(pInStack);
    NTSTATUS status = SendToTop(pTop, IRP_MJ_PNP, ucMinor, nullptr, STATUS_NOT_SUPPORTED);
    ObDereferenceObject(pTop);
    return status;
}

NTSTATUS HostAddDevice(PDRIVER_OBJECT pDriver, PDEVICE_OBJECT pPhysical)
{
    return pDriver->DriverExtension->AddDevice(pDriver, pPhysical);
}

struct HostThreadObject {
    std::thread Thread;
};

HostThread HostStartThread(std::function<void()> body, size_t)
{
    return new HostThreadObject{std::thread(body)};
}

void HostJoinThread(HostThread thread)
{
    thread->Thread.join();
    delete thread;
}

// Runs that could be compared byte by byte are the host's.
void HostTellOutput(const char*, const void*, size_t) {}
