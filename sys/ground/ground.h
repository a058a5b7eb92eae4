// ground.h - what every room stands on: the records, references on keyboards, memory, requests passed on.
//
// A table of contents; each file's head tells more. Locks and scopes are in lock.h, single fields in shared.h.
#pragma once

#include "ground/controlcontext.h"
#include "ground/frame.h"
#include "ground/shared.h"

// Every IRP_MJ entry of the dispatch table. IRQL <= DISPATCH unless the routine says less. Fails: with the
// status that the request was completed with.
using DispatchRoutine = NTSTATUS(PDEVICE_OBJECT device, PIRP pIrp);

// A timer whose deferred call gets the device. IRQL = PASSIVE.
inline void InitializeTimer(TimerWithDpc* pTimer, PKDEFERRED_ROUTINE pRoutine, PDEVICE_OBJECT device)
{
    KeInitializeTimer(&pTimer->Timer);
    KeInitializeDpc(&pTimer->Dpc, pRoutine, device);
}

// memory.cpp
PVOID AllocateZeroed(POOL_TYPE poolType, SIZE_T ulBytes); // POOL_TAG; null when there is none

// keyboards.cpp: which filter devices there are, and that none goes away while it is used
bool AcquireDevice(
    PDEVICE_OBJECT device); // false: being removed. By hand only where another routine gives it back,
void ReleaseDevice(
    PDEVICE_OBJECT device);     // as a request's completion does; else KeyboardReference, AllKeyboards
PDEVICE_OBJECT FirstKeyboard(); // newest first; referenced; null at the end
PDEVICE_OBJECT NextKeyboard(PDEVICE_OBJECT device); // releases device, references the next
void InitializeKeyboardList();                      // at entry
void InitializeFrame(DeviceContext* pContext, PDEVICE_OBJECT pPhysicalDevice,
                     ULONG ulDeviceIndex); // at add-device
void PublishKeyboard(PDEVICE_OBJECT device);
void RefuseNewReferences(PDEVICE_OBJECT device);
void WaitForReferences(PDEVICE_OBJECT device);
void UnlinkKeyboard(PDEVICE_OBJECT device);

// find.cpp: the device comes referenced; the caller gives it back with ReleaseDevice.
NTSTATUS FindDeviceByIndex(ULONG ulDeviceIndex, PDEVICE_OBJECT* ppDevice);
NTSTATUS FindDeviceByInterfaceName(PCWSTR pszName, PULONG pulDeviceIndex);

// A walk over the keyboards, newest first: for (PDEVICE_OBJECT device : AllKeyboards()). The one at hand is referenced,
// and given back when the walk goes on or ends, however it ends. IRQL <= DISPATCH. Lock: takes KeyboardListLock.
class AllKeyboards
{
public:
    AllKeyboards() : device(FirstKeyboard()) {}
    ~AllKeyboards()
    {
        if (device != nullptr) {
            ReleaseDevice(device);
        }
    }
    AllKeyboards(const AllKeyboards&) = delete;
    AllKeyboards& operator=(const AllKeyboards&) = delete;

    struct End {
    };
    class Iterator
    {
    public:
        explicit Iterator(PDEVICE_OBJECT& atHand) : device(atHand) {}
        PDEVICE_OBJECT operator*() const { return device; }
        void operator++() { device = NextKeyboard(device); }
        bool operator!=(End) const { return device != nullptr; }

    private:
        PDEVICE_OBJECT& device; // the walk's
    };
    Iterator begin() { return Iterator(device); }
    End end() const { return {}; }

    // Ends the walk; the reference on the one at hand is the caller's.
    PDEVICE_OBJECT Keep()
    {
        PDEVICE_OBJECT kept = device;
        device = nullptr;
        return kept;
    }

private:
    PDEVICE_OBJECT device;
};

// A reference on a keyboard for as long as this lives. Not held: the status says why.
class KeyboardReference
{
public:
    explicit KeyboardReference(ULONG ulDeviceIndex)
        : device(nullptr), HeldStatus(FindDeviceByIndex(ulDeviceIndex, &device))
    {
    }
    explicit KeyboardReference(PDEVICE_OBJECT asked)
        : device(AcquireDevice(asked) ? asked : nullptr),
          HeldStatus(device != nullptr ? STATUS_SUCCESS : STATUS_DELETE_PENDING)
    {
    }
    ~KeyboardReference()
    {
        if (device != nullptr) {
            ReleaseDevice(device);
        }
    }
    KeyboardReference(const KeyboardReference&) = delete;
    KeyboardReference& operator=(const KeyboardReference&) = delete;

    bool IsHeld() const { return device != nullptr; }
    NTSTATUS Status() const { return HeldStatus; }
    PDEVICE_OBJECT Device() const { return device; }
    DeviceContext* Context() const { return FilterContextOf(device); }

private:
    PDEVICE_OBJECT device;
    NTSTATUS HeldStatus;
};

// controlreference.cpp
PDEVICE_OBJECT ReferenceControlDevice(); // referenced object, or null when there is none

// passthrough.cpp
DispatchRoutine DispatchPassThrough;
DispatchRoutine DispatchRead;
DispatchRoutine DispatchPower;
NTSTATUS CompleteRequest(PIRP pIrp, NTSTATUS status, ULONG_PTR ulInformation);
NTSTATUS ForwardRequest(DeviceContext* pContext, PIRP pIrp); // the caller holds the device
NTSTATUS ForwardAndWait(DeviceContext* pContext, PIRP pIrp); // PASSIVE; the request comes back to the caller
