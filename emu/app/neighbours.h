// The handles of the other drivers' devices around the keyboards: keyboard class devices and sibling drivers.
//
// A test makes them through EmuMachine (AddClassDevice, AddSibling) and keeps them to the machine's end. One that
// settles returns from a call when everything that the call causes has happened. With real threads none does, for
// a worker may be waiting for this very device, nor with a seed, where others shall come between.
#pragma once

#include <kernel.h>
#include <host.h>

#include <mutex>
#include <utility>
#include <vector>

#include "emu/class/class.h"
#include "emu/sibling/sibling.h"

// One "\Device\KeyboardClassN".
class EmuClassDevice
{
public:
    EmuClassDevice(PDRIVER_OBJECT pDriver, USHORT usNumber, bool bSettles);
    ~EmuClassDevice() { Remove(); }
    EmuClassDevice(const EmuClassDevice&) = delete;
    EmuClassDevice& operator=(const EmuClassDevice&) = delete;

    void Answer(const EmuReply& answer);
    void SetTypematic(USHORT usRate, USHORT usDelayMs);
    EmuClassState State() const; // all zero when the device could not be made or is gone
    void Release();              // answers what it holds
    void Remove();

private:
    bool m_bSettles;
    PDEVICE_OBJECT m_pDevice = nullptr;
};

// One sibling driver's device, which comes and goes.
class EmuSibling
{
public:
    EmuSibling(PDRIVER_OBJECT pDriver, EmuSiblingKind kind, bool bSettles)
        : m_pDriver(pDriver), m_Kind(kind), m_bSettles(bSettles)
    {
    }
    ~EmuSibling() { Leave(); }
    EmuSibling(const EmuSibling&) = delete;
    EmuSibling& operator=(const EmuSibling&) = delete;

    // The device comes (with its kind's name, or as an interface alone) and publishes its interface; it goes.
    NTSTATUS Arrive(const EmuReply& answer = {}, bool bUnnamed = false);
    void Leave();
    // The interface alone, while the device is there.
    NTSTATUS Publish(bool bPresent);
    void Answer(const EmuReply& answer);
    void CancelSlowly(ULONG ulMs);
    void Release();     // answers what it holds
    ULONG Held() const; // requests
    // The modifier words since the last call, in order.
    std::vector<ULONG> TakeWords();

private:
    static EmuModifierObserver Observe;

    PDRIVER_OBJECT m_pDriver;
    EmuSiblingKind m_Kind;
    bool m_bSettles;
    PDEVICE_OBJECT m_pDevice = nullptr;
    std::mutex m_Lock; // guards m_Words; nothing of the host is called under it
    std::vector<ULONG> m_Words;
};
