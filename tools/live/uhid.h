// uhid.h - a HID device that the kernel's own HID stack reads: what stands above the driver.
//
//   Input(report) ──► /dev/uhid ──► hid-generic ──► evdev, console, desktop
//   LEDs and other requests of the system ──► UhidRequest, in a thread of this device
#pragma once

#include <host.h>

#include "emu/keyboard/keyboard.h"
#include "tools/replay/packet.h"

#include <functional>
#include <string>

struct UhidIdentity {
    std::string name, place;
    uint16_t usVendor = 0, usProduct = 0;
    uint16_t usVersion = 0; // of HID, as usbhid has it, not of the device
    uint8_t ucCountry = 0, ucInterface = 0;
    Bytes report; // the report descriptor
};

// The place tells where it is: "tvusb-1-1/input0".
UhidIdentity IdentityOf(const EmuDescriptors& kind, const std::string& name, const std::string& place);

// Sends a request to the keyboard and waits for its end. Data: what goes out, or room for what comes in and then that.
using UhidRequest = std::function<bool(const uint8_t* pSetup, Bytes& data)>;

class UhidDevice
{
public:
    // Makes the device; owns the open /dev/uhid. Fails (std::runtime_error): the kernel does not take it.
    UhidDevice(int iUhid, const UhidIdentity& identity, UhidRequest request);
    ~UhidDevice(); // keys that are held are released with it
    UhidDevice(const UhidDevice&) = delete;
    UhidDevice& operator=(const UhidDevice&) = delete;

    // The keyboard's next report, from any thread. False when the kernel does not take it.
    bool Input(const Bytes& report);

private:
    void Serve();
    void Answer();
    bool SetReport(uint8_t ucType, uint8_t ucId, const uint8_t* pData, size_t cBytes);

    int m_iUhid, m_iEnd;
    uint8_t m_ucInterface;
    bool m_bNumbered;
    UhidRequest m_Request;
    HostThread m_Thread;
};
