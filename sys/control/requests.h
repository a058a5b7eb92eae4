// requests.h - what an application shares with the driver: control codes and records.
//
// Every record is a little-endian byte layout of fixed-width fields; each size and offset is asserted.
// The records are the same for 32-bit and 64-bit processes, but for ControlRequest, whose payload lies
// at offset 4 for a 32-bit caller and at offset 8 for a 64-bit one.
//
//   codes  ─►  records  ─►  ControlRequest  ─►  answers larger than a word
//
// This header needs the language only, so applications, tools and tests include it as it stands.
#pragma once

#include <stddef.h>
#include <stdint.h>

// Buffered, any access, function numbers of an unknown device type.
constexpr uint32_t TvUsbControlCode(uint32_t ulFunction)
{
    return 0x00220000 + ulFunction * 4;
}

// What each request takes and gives stands in control/table.cpp. "Record": ControlRequest is the input.
enum : uint32_t {
    IOCTL_TVUSB_GET_VERSION = TvUsbControlCode(0x803), // -> u32
    IOCTL_TVUSB_GET_TIME = TvUsbControlCode(0x805),    // -> u32, as NotifyRecord's ulTime
    IOCTL_TVUSB_REFUSED_806 = TvUsbControlCode(0x806), // always refused, as the next three
    IOCTL_TVUSB_REFUSED_807 = TvUsbControlCode(0x807),
    IOCTL_TVUSB_REFUSED_808 = TvUsbControlCode(0x808),
    IOCTL_TVUSB_REFUSED_809 = TvUsbControlCode(0x809),
    IOCTL_TVUSB_GET_ZERO = TvUsbControlCode(0x80A),              // -> u32 0
    IOCTL_TVUSB_CHECK_ZERO = TvUsbControlCode(0x80B),            // Record -> u32 0, refused for some
    IOCTL_TVUSB_REGISTER_NOTIFY_EVENT = TvUsbControlCode(0x80C), // Record: handle
    IOCTL_TVUSB_RELEASE_NOTIFY_EVENT = TvUsbControlCode(0x80D),
    IOCTL_TVUSB_START_PROCESSING = TvUsbControlCode(0x80E),
    IOCTL_TVUSB_STOP_PROCESSING = TvUsbControlCode(0x80F),
    IOCTL_TVUSB_GET_KEYBOARD_COUNT = TvUsbControlCode(0x810), // -> u16
    IOCTL_TVUSB_GET_KEYBOARD_INFO = TvUsbControlCode(0x811),  // Record: position -> KeyboardInfo
    IOCTL_TVUSB_REFUSED_812 = TvUsbControlCode(0x812),        // always refused
    IOCTL_TVUSB_ADD_DEFINITION = TvUsbControlCode(0x813),     // Record: KeyDefinition
    IOCTL_TVUSB_REMOVE_DEFINITION = TvUsbControlCode(0x814),  // Record: id
    IOCTL_TVUSB_GET_NOTIFY_COUNT = TvUsbControlCode(0x815),   // -> u32
    IOCTL_TVUSB_CLEAR_NOTIFY = TvUsbControlCode(0x816),
    IOCTL_TVUSB_PEEK_NOTIFY = TvUsbControlCode(0x817),                // -> NotifyRecord, stays queued
    IOCTL_TVUSB_TAKE_NOTIFY = TvUsbControlCode(0x818),                // -> NotifyRecord
    IOCTL_TVUSB_GET_LEDS = TvUsbControlCode(0x819),                   // -> u16, LED flags
    IOCTL_TVUSB_SET_LEDS = TvUsbControlCode(0x81A),                   // Record: LED flags
    IOCTL_TVUSB_GET_TYPEMATIC = TvUsbControlCode(0x81B),              // -> u16 rate, u16 delay in ms
    IOCTL_TVUSB_SET_TYPEMATIC = TvUsbControlCode(0x81C),              // Record: rate, delay index
    IOCTL_TVUSB_TAKE_MANY_NOTIFY = TvUsbControlCode(0x81D),           // Record: n -> n NotifyRecord, 0 = none
    IOCTL_TVUSB_FIND_KEYBOARD = TvUsbControlCode(0x81E),              // Record: interface name -> u32 index
    IOCTL_TVUSB_REGISTER_APPLICATION_EVENT = TvUsbControlCode(0x81F), // Record: handle
    IOCTL_TVUSB_GET_MODIFIERS = TvUsbControlCode(0x820),              // -> u32
    IOCTL_TVUSB_INSERT_SCANS = TvUsbControlCode(0x821),               // Record: InsertScansPayload
    IOCTL_TVUSB_READ_DEVICE_DESCRIPTOR = TvUsbControlCode(0x822),     // -> 18 bytes
    IOCTL_TVUSB_READ_STRING_DESCRIPTOR = TvUsbControlCode(0x823),     // Record: DescriptorIndex -> text
    IOCTL_TVUSB_READ_DESCRIPTOR_MEMORY = TvUsbControlCode(0x824),     // Record: MemoryAccess -> bytes
    IOCTL_TVUSB_WRITE_DESCRIPTOR_MEMORY = TvUsbControlCode(0x825),    // Record: MemoryAccess
    IOCTL_TVUSB_FAIL = TvUsbControlCode(0x826),                       // always STATUS_UNSUCCESSFUL
    IOCTL_TVUSB_SEND_KEY_COMMAND = TvUsbControlCode(0x828),           // Record: KeyCommand
    IOCTL_TVUSB_READ_EEPROM = TvUsbControlCode(0x829),                // Record: MemoryAccess -> bytes
    IOCTL_TVUSB_WRITE_EEPROM = TvUsbControlCode(0x82A),               // Record: MemoryAccess
    IOCTL_TVUSB_GET_RESERVED_STATUS = TvUsbControlCode(0x832),        // -> u8
    IOCTL_TVUSB_INSERT_PACKETS = TvUsbControlCode(0x833),             // Record: InsertPacketsPayload
    IOCTL_TVUSB_READ_VENDOR_MEMORY = TvUsbControlCode(0x834),         // Record: MemoryAccess -> bytes
    IOCTL_TVUSB_WRITE_VENDOR_MEMORY = TvUsbControlCode(0x835),        // Record: MemoryAccess
    IOCTL_TVUSB_GET_CONTROL_PIPE = TvUsbControlCode(0x836),           // -> u32
    IOCTL_TVUSB_LIST_KEYBOARDS = TvUsbControlCode(0x837),             // -> KeyboardList
    IOCTL_TVUSB_REGISTER_MACRO_EVENT = TvUsbControlCode(0x838),       // Record: handle
    IOCTL_TVUSB_RELEASE_MACRO_EVENT = TvUsbControlCode(0x839),
    IOCTL_TVUSB_GET_MACRO_COUNT = TvUsbControlCode(0x83A), // -> u32
    IOCTL_TVUSB_CLEAR_MACRO = TvUsbControlCode(0x83B),
    IOCTL_TVUSB_PEEK_MACRO = TvUsbControlCode(0x83C),      // -> MacroRecord, stays queued
    IOCTL_TVUSB_TAKE_MACRO = TvUsbControlCode(0x83D),      // -> MacroRecord
    IOCTL_TVUSB_TAKE_MANY_MACRO = TvUsbControlCode(0x83E), // Record: n -> n MacroRecord, 0 = none
    IOCTL_TVUSB_GET_MACRO_MODE = TvUsbControlCode(0x83F),  // -> u32
    IOCTL_TVUSB_RELOAD_MACROS = TvUsbControlCode(0x840),   // Record
    IOCTL_TVUSB_GET_CAPTURE = TvUsbControlCode(0x841),     // -> u32
    IOCTL_TVUSB_SET_CAPTURE = TvUsbControlCode(0x842),     // u32 at 0, not a record
};
static_assert(IOCTL_TVUSB_GET_VERSION == 0x0022200C && IOCTL_TVUSB_SET_CAPTURE == 0x00222108,
              "the codes' range");

// A key definition as the application gives it; scan codes are PS/2 set 1 make codes with their prefixes.
struct KeyDefinition {
    uint32_t ulId;        // chosen by the application, reported back in events
    uint32_t ulSwallow;   // low byte: 1 = the keys of the complete hotkey leave the report
    uint32_t ulType;      // 1 hotkey, 5 point of sale, 11 discard mode
    uint32_t ulModifiers; // mask in the encoding of the modifier word
    uint16_t usScanCount; // valid bytes in ucScans, at most 32
    uint16_t usReserved;  // not read
    uint8_t ucScans[32];  // the key sequence
};
static_assert(sizeof(KeyDefinition) == 52, "KeyDefinition is 52 bytes");
static_assert(offsetof(KeyDefinition, usScanCount) == 16, "usScanCount at 16");
static_assert(offsetof(KeyDefinition, ucScans) == 20, "ucScans at 20");

// One event of one keyboard.
struct NotifyRecord {
    uint32_t ulValue;    // hotkeys: 1 down, 0 up; keys: the key value of the producer
    uint32_t ulEscAbort; // 1 = Esc was pressed while the hotkey was complete
    uint8_t ucSource;    // NOTIFY_SOURCE_HOTKEY or NOTIFY_SOURCE_REPORT
    uint8_t ucValid;     // always 1
    uint16_t usReserved; // 0
    uint32_t ulTime;     // system time (100 ns since 1601) / 1000, low 32 bits: units of 100 us
    uint32_t ulId;       // the definition that caused the event
};
static_assert(sizeof(NotifyRecord) == 20, "NotifyRecord is 20 bytes");
static_assert(offsetof(NotifyRecord, ulTime) == 12, "ulTime at 12");

enum : uint8_t {
    NOTIFY_SOURCE_HOTKEY = 0x00, // the hotkey machinery
    NOTIFY_SOURCE_REPORT = 0x60, // discard mode and point of sale
};

// A change of the macro mode, or a captured report.
struct MacroRecord {
    uint16_t usType;      // MACRO_RECORD_MODE or MACRO_RECORD_REPORT
    uint16_t usReserved;  // 0
    uint8_t ucMode;       // MODE: the new macro mode, 0 or 1
    uint8_t ucLength;     // REPORT: bytes used in ucReport, at most 10
    uint8_t ucReport[10]; // REPORT: as the keyboard sent it, the rest 0
};
static_assert(sizeof(MacroRecord) == 16, "MacroRecord is 16 bytes");

enum : uint16_t {
    MACRO_RECORD_MODE = 1,
    MACRO_RECORD_REPORT = 2,
};

// One whole report to insert into a keyboard's stream.
struct FifoEntry {
    uint32_t ulFlags;   // in a request, 1 on the last entry: wait until it was delivered
    uint16_t usLength;  // bytes of ucData that are delivered, at most 10
    uint8_t ucData[10]; // the report
};
static_assert(sizeof(FifoEntry) == 16, "FifoEntry is 16 bytes");

// Bytes of the keyboard's memory. A read takes address and length, a write the bytes too.
struct MemoryAccess {
    uint16_t usAddress;
    uint16_t usLength;
    uint8_t ucData[512]; // usLength bytes; they may go on behind the record when the input does
};
static_assert(sizeof(MemoryAccess) == 516, "MemoryAccess fills the payload");

// Which string descriptor.
struct DescriptorIndex {
    uint32_t ulIndex;    // its low byte counts
    uint32_t ulLanguage; // its low 16 bits count
};
static_assert(sizeof(DescriptorIndex) == 8, "DescriptorIndex is 8 bytes");

// Scan codes of modifier keys that the system shall see.
struct InsertScansPayload {
    uint32_t ulWait;      // 1 = wait until each report was delivered
    uint16_t usCount;     // valid bytes in ucScans
    uint8_t ucScans[510]; // PS/2 set 1
};
static_assert(sizeof(InsertScansPayload) == 516, "InsertScansPayload fills the payload");
static_assert(offsetof(InsertScansPayload, ucScans) == 6, "ucScans at 6");

// Whole reports that the system shall see, oldest first.
struct InsertPacketsPayload {
    uint16_t usCount;    // 1 to 32
    uint16_t usReserved; // not read
    FifoEntry Entries[32];
};
static_assert(sizeof(InsertPacketsPayload) == 516, "InsertPacketsPayload fills the payload");

// A command to the keyboard's firmware.
struct KeyCommand {
    uint32_t ulCommand;
    uint16_t usReserved; // not read
    uint16_t usScanCode; // PS/2 set 1, or 0
};
static_assert(sizeof(KeyCommand) == 8, "KeyCommand is 8 bytes");
static_assert(offsetof(KeyCommand, usScanCode) == 6, "usScanCode at 6");

// What a request takes besides the keyboard's index. The code says which form.
union RequestPayload {
    uint8_t ucBytes[516];
    int32_t lEvent;      // an event handle of a 32-bit process, widened with its sign
    uint32_t ulId;       // of a key definition
    uint16_t usCount;    // records to take, or a list position
    uint16_t usLedFlags; // LED_FLAG bits: 1 Scroll Lock, 2 Num Lock, 4 Caps Lock
    uint16_t usWords[2]; // repeat rate, delay index
    char16_t Name[258];  // of a device interface, ends with 0
    MemoryAccess Memory;
    DescriptorIndex Descriptor;
    KeyDefinition Definition;
    InsertScansPayload Scans;
    InsertPacketsPayload Packets;
    KeyCommand Command;
};
static_assert(sizeof(RequestPayload) == 516 && alignof(RequestPayload) == 4, "the payload is 516 bytes");

// The input of a 32-bit process.
struct ControlRequest32 {
    uint32_t ulDeviceIndex;
    RequestPayload Payload;
};
static_assert(sizeof(ControlRequest32) == 520, "ControlRequest32 is 520 bytes");
static_assert(offsetof(ControlRequest32, Payload) == 4, "32-bit payload at 4");

// The input of a 64-bit process.
struct ControlRequest64 {
    uint32_t ulDeviceIndex;
    uint32_t ulReserved; // not read
    union {
        RequestPayload Payload;
        uint64_t hEvent; // an event handle
    };
};
static_assert(sizeof(ControlRequest64) == 528, "ControlRequest64 is 528 bytes");
static_assert(offsetof(ControlRequest64, Payload) == 8, "64-bit payload at 8");

// What a keyboard is. Each text ends with 0, the rest of its field is 0.
struct KeyboardInfo {
    uint32_t ulDeviceIndex;
    char16_t HardwareId[256]; // its first string
    char16_t DeviceObjectName[256];
    char16_t Description[256];
    char16_t Reserved[256]; // empty
};
static_assert(sizeof(KeyboardInfo) == 2052, "KeyboardInfo is 2052 bytes");
static_assert(offsetof(KeyboardInfo, DeviceObjectName) == 516, "DeviceObjectName at 516");
static_assert(offsetof(KeyboardInfo, Description) == 1028, "Description at 1028");
static_assert(offsetof(KeyboardInfo, Reserved) == 1540, "Reserved at 1540");

// All keyboards.
struct KeyboardListEntry {
    uint32_t ulDeviceIndex;
    uint32_t ulControlPipe; // low 32 bits of the pipe handle seen last, 0 = none
};

struct KeyboardList {
    uint16_t usCount;
    uint16_t usReserved; // 0
    KeyboardListEntry Entries[127];
};
static_assert(sizeof(KeyboardList) == 1020, "KeyboardList is 1020 bytes");
static_assert(offsetof(KeyboardList, Entries) == 4, "Entries at 4");
