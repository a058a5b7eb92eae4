// emulated.h - an emulated keyboard at the driver, and who gets to see it filtered.
#pragma once

#include "machine.h"
#include "uhid.h"
#include "usbip/export.h"

#include <atomic>

// Besides the watch and the processes at the control socket.
struct EmulatedAbove {
    bool bUhid = false;                 // this system, by /dev/uhid
    usbip::Exports* pExports = nullptr; // another machine
};

class EmulatedKeyboard
{
public:
    // The descriptors must outlive it. Fails (InputError): /dev/uhid may not be opened; (std::runtime_error): the driver or
    // the kernel refuses it.
    EmulatedKeyboard(LiveMachine& machine, const EmuDescriptors& kind, const ScriptKeyboard& who,
                     const EmulatedAbove& above = {});
    ~EmulatedKeyboard(); // pulled out
    EmulatedKeyboard(const EmulatedKeyboard&) = delete;
    EmulatedKeyboard& operator=(const EmulatedKeyboard&) = delete;

    // See LiveMachine::Report.
    bool Report(const Bytes& report) { return m_Machine.Report(m_uNumber, report); }
    unsigned Number() const { return m_uNumber; }

private:
    void Build(const EmuDescriptors& kind, const EmulatedAbove& above);
    void TakeDown();
    void Seen(const EmuReceived& received);

    LiveMachine& m_Machine;
    usbip::Exports* const m_pExports;
    const uint8_t m_ucEndpoint;
    unsigned m_uNumber = 0;
    std::unique_ptr<UhidDevice> m_Uhid;
    std::shared_ptr<usbip::Export> m_Offered;
    std::atomic<UhidDevice*> m_pUhid{nullptr}; // both once they take reports
    std::atomic<usbip::Export*> m_pOffered{nullptr};
};

// An emulated keyboard's name and ids.
ScriptKeyboard WhoIs(const EmuDescriptors& kind, const std::string& name);
