// A machine for one driver: the host, the emulated keyboards with their HID stacks, and the driver between
// them.
//
// Tools, tests and benchmarks build one, plug keyboards, let them report, unplug them and unload the driver.
// It owns every device it makes. In simulated mode everything that a call causes has happened when it
// returns; in threaded mode the observers run in whatever thread completes a read.
#pragma once

#include <kernel.h>
#include <host.h>

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "emu/app/neighbours.h"
#include "emu/hid/hid.h"
#include "emu/keyboard/keyboard.h"

using EmuBytes = std::vector<UCHAR>;
// A registry value of the driver's parameters key: a number (REG_DWORD) or text (REG_SZ, plain ASCII).
using EmuSetting = std::variant<ULONG, std::string>;

// What the HID stack received: one completed read.
struct EmuReceived {
    EmuBytes Bytes;
    NTSTATUS Status;
};

// One request of the control pipe, as the keyboard saw it.
struct EmuRequest {
    std::array<UCHAR, 8> Setup;
    EmuBytes Data; // what went out
};

// How a keyboard is plugged in.
struct EmuPlugOptions {
    ULONG Reads = 1;            // reads outstanding at once
    ULONG PacketBytes = 0;      // size of a read, 0 = the endpoint's
    bool Manual = false;        // reads go down only by EmuKeyboard::Read
    bool NoEnumeration = false; // START sends no descriptor requests
    bool Patient = false;       // the HID stack calls no read back when the keyboard goes
    bool LoopGuard = false;     // re-read by the outer loop instead of by recursion
    bool UsedBuffers = false;   // a read goes down with the bytes that the last one brought
    bool Passive = false;       // reads come back at PASSIVE_LEVEL, not at DISPATCH_LEVEL
    bool Record = true;         // keep what came for Received() and TakenRequests()
    bool Start = true;          // send START_DEVICE at once
    ULONG Port = 0;             // who comes back to a port has the same interface name; 0: a port of its own
    NTSTATUS StartStatus = 0;   // what the keyboard answers START with
    ULONG StartDelayMs = 0;     // above 0: START is left pending for so long
    // What the keyboard remembers; given again, a keyboard finds what was written before it was unplugged. Null:
    // a fresh one. EmuKeyboard::Memory() shows it.
    std::shared_ptr<EmuMemory> Memory;
    std::vector<EmuAnswerRule> Rules; // stalls, short, late and missing answers, from the start on
    // Answers control requests instead of the tables: setup packet, data (in: what goes out or the room for
    // the answer; out: what was moved). STATUS_NOT_SUPPORTED leaves the request to the tables.
    std::function<NTSTATUS(const UCHAR* pSetup, EmuBytes& Data)> Hook;
    // Carries control requests to a real keyboard instead, and tells that nobody waits for one any more: as
    // EmuSendHook, EmuGiveUpHook. EmuKeyboard::Answer brings what it answers.
    std::function<NTSTATUS(ULONG_PTR ulTicket, const UCHAR* pSetup, const EmuBytes& Data)> Send;
    std::function<void(ULONG_PTR ulTicket)> GiveUp;
    std::function<void(const EmuReceived&)> OnReceived; // every completed read
    std::function<void(const EmuBytes&)> OnLed;         // every output report that reached the keyboard
};

struct EmuMachineOptions {
    PDRIVER_INITIALIZE Entry = nullptr; // the driver's entry
    HostMode Mode = HostSimulated;
    std::string DroppedLock; // a lock of the driver that protects nothing in this run, by its field's name
    unsigned long long Seed = 0; // simulated: what chooses who runs next; 0: nobody comes between
    ULONG_PTR FirstHandle = 4;   // see HostOptions
    bool LateNotifications =
        false; // see HostOptions; neighbours do not settle, so that something can come late
    std::map<std::string, EmuSetting>
        Settings;                     // values of the parameters key, absent = absent in the registry
    std::string RegistryText;         // more registry content, as .reg text with its head line or ""
    std::string FileRoot;             // folder that NT paths map to
    std::function<void()> BeforeLoad; // called when the host runs and before the driver's entry, unless empty
};

// One plugged keyboard with its three device objects: the keyboard, the driver's filter, the HID stack.
class EmuKeyboard
{
public:
    // The keyboard sends a report. False when it could not take it (unplugged, full).
    bool Report(const EmuBytes& Bytes);
    // Manual mode: sends one read down.
    NTSTATUS Read();
    // Completes the oldest read at the keyboard with an error.
    NTSTATUS FailRead(NTSTATUS Status);
    // A control request from the HID stack; Data as in EmuPlugOptions::Hook.
    NTSTATUS Control(const UCHAR* pSetup, EmuBytes& Data, EmuHidRoute Route);
    NTSTATUS SendLed(UCHAR ucLeds, EmuHidRoute Route = EmuHidRouteClass);
    // The answer to a request that went out by EmuPlugOptions::Send.
    void Answer(ULONG_PTR ulTicket, NTSTATUS Status, const EmuBytes& Data);

    // How requests of the control pipe are answered from now on; at most EmuMaximumRules.
    NTSTATUS SetRules(const std::vector<EmuAnswerRule>& rules);
    ULONG HeldRequests() const; // left pending at the keyboard by a rule
    // Contents may be looked at and changed while no request is under way.
    EmuMemory& Memory() const { return *m_Options.Memory; }
    std::shared_ptr<EmuMemory> SharedMemory() const { return m_Options.Memory; } // for EmuPlugOptions
    // The control requests that reached the keyboard since the last call.
    std::vector<EmuRequest> TakenRequests();

    // The successful reads so far; Taken() returns them and starts over. Failed ones come to OnReceived only.
    std::vector<EmuReceived> Received() const;
    std::vector<EmuReceived> Taken();
    ULONG PendingReads() const; // at the keyboard
    ULONG KeptReports() const;  // at the keyboard

    // Plug and Play, one request each, to the top of the stack. After Remove the device objects are gone.
    NTSTATUS Start();
    NTSTATUS SendPnp(UCHAR ucMinor);
    NTSTATUS SurpriseRemove();
    NTSTATUS Remove();
    // Pulled out (surprise removal, then removal) or removed in order (query-remove, then removal).
    // Returns the status of the removal. Nothing happens to a keyboard that is gone already.
    NTSTATUS Unplug(bool bSurprise);
    bool Plugged() const { return m_bPlugged; }

    NTSTATUS AddStatus() const { return m_AddStatus; }     // of the driver's AddDevice
    NTSTATUS StartStatus() const { return m_StartStatus; } // of START_DEVICE
    ULONG Index() const { return m_ulIndex; } // the driver's device index: devices added before it
    PDEVICE_OBJECT Physical() const { return m_pPhysical; }
    PDEVICE_OBJECT Filter() const { return m_pFilter; } // null when AddDevice was refused
    PDEVICE_OBJECT Hid() const { return m_pHid; }

    explicit EmuKeyboard(const EmuPlugOptions& options);
    EmuKeyboard(const EmuKeyboard&) = delete;
    EmuKeyboard& operator=(const EmuKeyboard&) = delete;

private:
    friend class EmuMachine;
    static EmuRequestHook Hook;
    static EmuSendHook Send;
    static EmuGiveUpHook GiveUp;
    static EmuRequestObserver Request;
    static EmuLedObserver Led;
    static EmuHidObserver Observe;
    EmuKeyboardOptions KeyboardOptions();
    EmuHidOptions HidOptions();
    void Forget(); // drops the references

    EmuPlugOptions m_Options;
    bool m_bPlugged = false; // its device objects have not been removed
    // Physical and Hid are referenced until the machine unloads, the filter is not.
    PDEVICE_OBJECT m_pPhysical = nullptr, m_pFilter = nullptr, m_pHid = nullptr;
    NTSTATUS m_AddStatus = STATUS_UNSUCCESSFUL, m_StartStatus = STATUS_UNSUCCESSFUL;
    ULONG m_ulIndex = ~0u;
    mutable std::mutex m_Lock; // guards what follows; nothing of the host is called under it
    std::vector<EmuReceived> m_Received;
    std::vector<EmuRequest> m_Requests;
};

// A kind of keyboard to plug in.
struct EmuKind {
    const char* pName;
    const EmuDescriptors* pDescriptors;
    ULONG ulKbdType; // what the driver takes it for
};

class EmuMachine
{
public:
    // Starts the host and loads the driver; LoadStatus() tells whether its entry succeeded.
    explicit EmuMachine(const EmuMachineOptions& options);
    // Unloads when that has not been done; leaks are then told on stderr by the host only.
    ~EmuMachine();
    EmuMachine(const EmuMachine&) = delete;
    EmuMachine& operator=(const EmuMachine&) = delete;

    NTSTATUS LoadStatus() const { return m_LoadStatus; }
    PDRIVER_OBJECT Driver() const { return m_pDriver; }

    // Plugs a keyboard in: makes it, adds the driver's filter and the HID stack, starts them. The handle
    // stays valid until the machine ends; when AddDevice was refused the keyboard is gone again at once
    // (AddStatus tells).
    EmuKeyboard* Plug(const EmuDescriptors& descriptors = EmuBootKeyboard,
                      const EmuPlugOptions& options = {});
    // Drops the handle of a keyboard that is unplugged.
    void Forget(EmuKeyboard* pKeyboard);
    // The one list of them, by name for whoever asks people for one.
    static const std::vector<EmuKind>& Kinds();
    static std::vector<std::string> KindNames();
    // The kind of that name; null for another word.
    static const EmuDescriptors* FindKind(const std::string& name);
    // The interfaces of one keyboard, each of which the driver gets to filter: "normal+power"; none when a
    // word is unknown.
    static std::vector<const EmuDescriptors*> FindInterfaces(const std::string& names);

    // Another driver's devices, loaded with the first of their kind. The handles stay valid until Unload.
    EmuClassDevice* AddClassDevice(USHORT usNumber); // 0 to 4
    EmuSibling* AddSibling(EmuSiblingKind kind);     // not there before its Arrive

    // Unplugs what is still plugged and unloads every driver. Returns the number of things left over, each
    // told on stderr. Applications must be closed before.
    unsigned UnloadDrivers();
    // The same, and ends the host. Nothing happens when that has been done.
    unsigned Unload();

private:
    bool BuildStack(EmuKeyboard& keyboard);

    ULONG m_ulAdded = 0; // devices the driver accepted
    NTSTATUS m_LoadStatus = STATUS_UNSUCCESSFUL;
    PDRIVER_OBJECT m_pDriver = nullptr, m_pKeyboards = nullptr, m_pHid = nullptr;
    PDRIVER_OBJECT m_pClass = nullptr, m_pSiblings = nullptr;
    bool m_bSettles; // see neighbours.h
    bool m_bRunning = false;
    std::vector<std::unique_ptr<EmuKeyboard>> m_Keyboards;
    std::vector<std::unique_ptr<EmuClassDevice>> m_ClassDevices;
    std::vector<std::unique_ptr<EmuSibling>> m_Siblings;
};
