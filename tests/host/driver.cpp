// driver.cpp - the small driver of the host's tests.
#include "driver.h"

SmallHooks hooks;

UNICODE_STRING Str(const WCHAR* pText)
{
    UNICODE_STRING string;
    RtlInitUnicodeString(&string, pText);
    return string;
}

std::string Narrow(PCUNICODE_STRING pString)
{
    std::string text;
    for (int i = 0; i < pString->Length / 2; i++) {
        text.push_back(static_cast<char>(pString->Buffer[i]));
    }
    return text;
}

OBJECT_ATTRIBUTES Named(UNICODE_STRING& name)
{
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr,
                               nullptr);
    return attributes;
}

NTSTATUS CompleteWith(PIRP pIrp, NTSTATUS status, ULONG_PTR ulInformation)
{
    pIrp->IoStatus.Status = status;
    pIrp->IoStatus.Information = ulInformation;
    IoCompleteRequest(pIrp, IO_NO_INCREMENT);
    return status;
}

static NTSTATUS SmallDispatch(PDEVICE_OBJECT pDevice, PIRP pIrp)
{
    UCHAR ucMajor = IoGetCurrentIrpStackLocation(pIrp)->MajorFunction;
    bool bOwn = ucMajor == IRP_MJ_CREATE || ucMajor == IRP_MJ_CLEANUP || ucMajor == IRP_MJ_CLOSE;
    return hooks.Dispatch && !bOwn ? hooks.Dispatch(pDevice, pIrp) : CompleteWith(pIrp, STATUS_SUCCESS);
}

static void SmallUnload(PDRIVER_OBJECT pDriver)
{
    if (hooks.Unload) {
        hooks.Unload(pDriver);
    }
    UNICODE_STRING link = Str(L"\\DosDevices\\Small");
    IoDeleteSymbolicLink(&link);
    while (pDriver->DeviceObject != nullptr) {
        IoDeleteDevice(pDriver->DeviceObject);
    }
}

NTSTATUS SmallEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING)
{
    for (PDRIVER_DISPATCH& pDispatch : pDriver->MajorFunction) {
        pDispatch = SmallDispatch;
    }
    pDriver->DriverUnload = SmallUnload;
    UNICODE_STRING name = Str(L"\\Device\\Small");
    UNICODE_STRING link = Str(L"\\DosDevices\\Small");
    PDEVICE_OBJECT pDevice;
    NTSTATUS status =
        IoCreateDevice(pDriver, sizeof(SmallExtension), &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &pDevice);
    if (NT_SUCCESS(status)) {
        status = IoCreateSymbolicLink(&link, &name);
        if (!NT_SUCCESS(status)) {
            IoDeleteDevice(pDevice);
        }
    }
    return NT_SUCCESS(status) && hooks.Entry ? hooks.Entry(pDriver) : status;
}

static HostOptions OptionsOf(HostMode mode, const std::string& registry, const std::string& root,
                             unsigned long long ullSeed)
{
    HostOptions options;
    options.Mode = mode;
    options.RegistryText = registry;
    options.FileRoot = root;
    options.Seed = ullSeed;
    return options;
}

SmallSystem::SmallSystem(HostMode mode, const std::string& registry, const std::string& root,
                         unsigned long long ullSeed)
    : SmallSystem(OptionsOf(mode, registry, root, ullSeed))
{
}

SmallSystem::SmallSystem(const HostOptions& options)
{
    hooks = {};
    HostStart(options);
    EXPECT_EQ(STATUS_SUCCESS, HostLoadDriver(SmallEntry, L"Small", &pDriver));
    pDevice = pDriver->DeviceObject;
    EXPECT_EQ(STATUS_SUCCESS, HostOpen(L"\\\\.\\Small", &File));
}

unsigned SmallSystem::End()
{
    bEnded = true;
    hooks.Dispatch = nullptr;
    HostClose(File);
    unsigned uLeaks = HostUnloadDriver(pDriver);
    return uLeaks + Stop();
}

unsigned SmallSystem::Stop()
{
    bEnded = true;
    unsigned uLeaks = HostStop();
    hooks = {};
    return uLeaks;
}

SmallSystem::~SmallSystem()
{
    if (!bEnded) {
        EXPECT_EQ(0u, End());
    }
}

NTSTATUS SmallSystem::Control(const void* pIn, ULONG ulIn, void* pOut, ULONG ulOut)
{
    return HostDeviceControl(File, IOCTL_SMALL, pIn, ulIn, pOut, ulOut, &ulInformation);
}

void InDriver(SmallSystem& system, std::function<void(PDEVICE_OBJECT)> code)
{
    auto before = hooks.Dispatch;
    hooks.Dispatch = [&](PDEVICE_OBJECT pDevice, PIRP pIrp) {
        code(pDevice);
        return CompleteWith(pIrp, STATUS_SUCCESS);
    };
    system.Control();
    hooks.Dispatch = before;
}
