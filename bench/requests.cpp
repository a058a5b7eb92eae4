// requests.cpp - what an application's request costs on the host, beside a call of this machine's own kernel.
//
//   request-whole     a request of four bytes, there and back
//   request-driver    the driver's part of it: what it takes longer than at a driver that answers at once
//   request-getppid   the system call that does least
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "control/requests.h"
#include "machine.h"
#include "scenes.h"

namespace
{
NTSTATUS Answer(PDEVICE_OBJECT, PIRP pIrp)
{
    const bool bControl = IoGetCurrentIrpStackLocation(pIrp)->MajorFunction == IRP_MJ_DEVICE_CONTROL;
    if (bControl) {
        *static_cast<ULONG*>(pIrp->AssociatedIrp.SystemBuffer) = 1;
    }
    pIrp->IoStatus.Status = STATUS_SUCCESS;
    pIrp->IoStatus.Information = bControl ? sizeof(ULONG) : 0;
    IoCompleteRequest(pIrp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}

// "\Device\Answers", whose driver does nothing else.
NTSTATUS AnswersEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING)
{
    std::fill(std::begin(pDriver->MajorFunction), std::end(pDriver->MajorFunction), Answer);
    pDriver->DriverUnload = [](PDRIVER_OBJECT pGone) { IoDeleteDevice(pGone->DeviceObject); };
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Device\\Answers");
    PDEVICE_OBJECT pDevice;
    return IoCreateDevice(pDriver, 0, &name, FILE_DEVICE_UNKNOWN, FILE_DEVICE_SECURE_OPEN, FALSE, &pDevice);
}

HostFile Open(const WCHAR* pszName)
{
    HostFile file;
    Require(HostOpen(pszName, &file) == STATUS_SUCCESS, "a device does not open");
    return file;
}

// The least of some rounds.
template <typename Deed> double Least(Deed deed)
{
    enum { ROUNDS = 20, EACH = 200 };
    double least = 1e300;
    for (int round = 0; round < ROUNDS; round++) {
        const auto begin = std::chrono::steady_clock::now();
        for (int i = 0; i < EACH; i++) {
            deed();
        }
        const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - begin;
        least = std::min(least, time.count() / EACH);
    }
    return least;
}

void Ask(HostFile file)
{
    ULONG ulVersion, ulBytes;
    NTSTATUS status =
        HostDeviceControl(file, IOCTL_TVUSB_GET_VERSION, nullptr, 0, &ulVersion, sizeof(ulVersion), &ulBytes);
    Require(status == STATUS_SUCCESS && ulBytes == sizeof(ulVersion), "a request is not answered");
}
} // namespace

Block MakeRequestScene(const std::string& part)
{
    if (part == "getppid") {
        return [] { return Least([] { syscall(SYS_getppid); }); };
    }
    auto stage = std::make_shared<Stage>(Hotkeys{&EmuBootKeyboard, 0, 1, 0, {}});
    PDRIVER_OBJECT pAnswers;
    Require(HostLoadDriver(AnswersEntry, L"Answers", &pAnswers) == STATUS_SUCCESS,
            "no driver to compare with");
    const HostFile driver = Open(L"\\\\.\\TvUSB"), answers = Open(L"\\Device\\Answers");
    const bool bPart = part == "driver";
    return [=, stage = stage] {
        const double whole = Least([=] { Ask(driver); });
        return bPart ? whole - Least([=] { Ask(answers); }) : whole;
    };
}
