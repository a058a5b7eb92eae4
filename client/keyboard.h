// keyboard.h - one keyboard: its hotkeys and other definitions, its events, what is injected into it, its LEDs
// and key repeat, its memory.
//
// A Keyboard is a small value: the driver's index and the name of the keyboard's device interface, by which the
// system tells it from its like. When the keyboard is plugged in again it has a new index, no definitions and no
// event: FindAgain, then set it up anew. Every call fails with Unsuccessful while no keyboard has the index, with
// NotOpen when the driver is not open, with OpenedAnew when it was since the keyboard was found. Calls may come
// from several threads; one that waits holds off no other.
#pragma once

#include <string>

#include "client/events.h"

namespace tvusb
{
// A hotkey to add: ulId comes back in its events; modifiers are MODIFIER bits; scans are PS/2 set 1 make codes
// with their prefixes, at most 32 (with more, AddDefinition fails). bSwallow: the system does not see its keys.
KeyDefinition MakeHotkey(uint32_t ulId, uint32_t ulModifiers, const std::vector<uint8_t>& scans,
                         bool bSwallow);

// A report to insert, of at most 10 bytes (with more, InsertPackets fails).
FifoEntry MakeReport(const std::vector<uint8_t>& bytes);

// The system's key repeat.
struct Typematic {
    uint16_t usRate;    // characters per second
    uint16_t usDelayMs; // milliseconds before the first repeat
};

// What a USB device tells of itself; the names are those of the bus.
struct DeviceDescriptor {
    uint8_t bLength, bDescriptorType;
    uint16_t bcdUSB;
    uint8_t bDeviceClass, bDeviceSubClass, bDeviceProtocol, bMaxPacketSize0;
    uint16_t idVendor, idProduct, bcdDevice;
    uint8_t iManufacturer, iProduct, iSerialNumber, bNumConfigurations;
};
static_assert(sizeof(DeviceDescriptor) == 18, "the bus's 18 bytes");

class Keyboard
{
public:
    Keyboard() = default; // of no driver
    Keyboard(const Channel& channel, uint32_t ulIndex, std::u16string Name)
        : m_Channel(channel.Bound()), m_ulIndex(ulIndex), m_Name(std::move(Name))
    {
    }

    // The driver's index; never given twice while the driver is loaded.
    uint32_t Index() const { return m_ulIndex; }
    // Its interface's name, which stays the same when the computer is started anew; to be kept for FindByName.
    // Empty when the system does not tell.
    const std::u16string& Name() const { return m_Name; }
    // Looks this very keyboard up by its name; its index may change. Plugged into another socket it has another name,
    // unless it has a serial number. Fails: NoSuchKeyboard, it is not plugged in, or it went and had no name.
    Status FindAgain();

    // Hotkeys and definitions. They stay until they are removed or the driver's last handle is closed.

    // Fails: Unsuccessful, the same one is there, 511 are, or its scan codes are more than 32 bytes or unknown.
    Status AddDefinition(const KeyDefinition& definition) const;
    // The first with this id. Fails: Unsuccessful, there is none.
    Status RemoveDefinition(uint32_t ulId) const;

    // Events.

    // Hotkeys and the other definitions work while processing is on. Fails: Unsuccessful, it is on (off) already.
    Status StartProcessing() const;
    Status StopProcessing() const;
    // The queue of this keyboard's events.
    NotifyQueue Events() const;

    // Injection.

    // The system sees the modifier keys of these PS/2 set 1 scans go down and up. At most 510 bytes.
    // bWait: returns when the system has seen them. Fails: InvalidParameter above 510 bytes; Unsuccessful for a
    // keyboard without ordinary reports, or one that went meanwhile.
    Status InsertScans(const std::vector<uint8_t>& scans, bool bWait) const;
    // The system sees these reports as if the keyboard had sent them: 1 to 32, of which the driver's queue takes 16
    // at once and drops the rest. bWait: returns when the queue has run empty. Fails: InvalidParameter for
    // none or more; Unsuccessful for a report of more than 10 bytes.
    Status InsertPackets(const std::vector<FifoEntry>& reports, bool bWait) const;

    // The system sees this text typed, each character by a press and a release of the US layout (typing.h), and the
    // call returns when it has seen it. With Caps Lock on, letters come in the other case. Fails: InvalidParameter and
    // nothing is typed, no key types one of the characters; as InsertPackets, and the rest is not typed.
    Status TypeText(const std::string& text) const;

    // LEDs, key repeat, firmware.

    // LED_FLAG bits.
    Result<uint16_t> GetLeds() const;
    // Fails besides: the status of the transfer.
    Status SetLeds(uint16_t usLedFlags) const;
    // The repeat belongs to the system, not to this keyboard. Fails besides: the status of the system's keyboard.
    Result<Typematic> GetTypematic() const;
    // usRate: 2 to 30 characters per second (less becomes 2, more becomes 20). usDelayIndex: 0 to 3 for 250, 500,
    // 750 and 1000 ms, more is as 3.
    Status SetTypematic(uint16_t usRate, uint16_t usDelayIndex) const;
    // A command to the firmware; usScanCode is PS/2 set 1 or 0. Fails: Unsuccessful, the scan code is unknown.
    Status SendKeyCommand(uint32_t ulCommand, uint16_t usScanCode) const;

    // Memory. Which of the three kinds a keyboard has depends on its firmware. Addresses and lengths are bytes.
    // Every call fails with the status of the transfer when the keyboard refuses it.

    Result<DeviceDescriptor> ReadDeviceDescriptor() const;
    // A string descriptor; usLanguage 0x0409 is English. Index 0 gives the languages there are, one a character.
    // Fails: Unsuccessful, the keyboard has no such string.
    Result<std::u16string> ReadString(uint8_t ucIndex, uint16_t usLanguage) const;
    // The EEPROM's size in bytes, 0 to 8128.
    Result<uint32_t> GetEepromSize() const;
    // usLength: 1 to 65535. A read can begin in the first 256 bytes only; beyond, InvalidParameter.
    Result<std::vector<uint8_t>> ReadEeprom(uint16_t usAddress, uint16_t usLength) const;
    // 1 to 65533 bytes. Fails: InvalidParameter for none or more.
    Status WriteEeprom(uint16_t usAddress, const std::vector<uint8_t>& data) const;
    Result<std::vector<uint8_t>> ReadDescriptorMemory(uint16_t usAddress, uint16_t usLength) const;
    Status WriteDescriptorMemory(uint16_t usAddress, const std::vector<uint8_t>& data) const;
    Result<std::vector<uint8_t>> ReadVendorMemory(uint16_t usAddress, uint16_t usLength) const;
    Status WriteVendorMemory(uint16_t usAddress, const std::vector<uint8_t>& data) const;

    // Rarely of use.

    // Always 0.
    Result<uint8_t> GetReservedStatus() const;
    // The low 32 bits of the control pipe's handle seen last, 0 for none.
    Result<uint32_t> GetControlPipe() const;

private:
    // For a request that was not sent, or whose answer is none.
    Status Refused(uint32_t ulStatus, uint32_t ulCode) const
    {
        return Status::OfRequest(ulStatus, ulCode, m_ulIndex);
    }
    Result<std::vector<uint8_t>> Read(uint32_t ulCode, uint16_t usAddress, uint16_t usLength) const;
    Status Write(uint32_t ulCode, uint16_t usAddress, const std::vector<uint8_t>& data) const;

    Channel m_Channel;
    uint32_t m_ulIndex = 0xFFFFFFFF;
    std::u16string m_Name;
};
} // namespace tvusb
