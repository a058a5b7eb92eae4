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

// The requests. Above each: its group, what it does, when it fails with UNSUCCESSFUL, which other statuses it
// gives, what it does without the keyboard if that is nothing the table tells. Behind it: input -> output.
// "index" is a record (ControlRequest) whose ulDeviceIndex names a keyboard, "record" one whose index is not
// looked at; behind it stands what its payload holds.
// What is checked in which order stands in table.cpp. docs/requests.md and client/requesttexts.h are
// made from all three by scripts/make-requests.
enum : uint32_t {
    // [driver] The driver's version: 0x00010300 is 1.3.0.
    IOCTL_TVUSB_GET_VERSION = TvUsbControlCode(0x803), // -> u32

    // [driver] The driver's clock, in the units of NotifyRecord's ulTime.
    IOCTL_TVUSB_GET_TIME = TvUsbControlCode(0x805), // -> u32

    // [reserved] Always refused with INVALID_DEVICE_REQUEST.
    IOCTL_TVUSB_REFUSED_806 = TvUsbControlCode(0x806),

    // [reserved] Always refused with INVALID_DEVICE_REQUEST.
    IOCTL_TVUSB_REFUSED_807 = TvUsbControlCode(0x807),

    // [reserved] Always refused with INVALID_DEVICE_REQUEST.
    IOCTL_TVUSB_REFUSED_808 = TvUsbControlCode(0x808),

    // [reserved] Always refused with INVALID_DEVICE_REQUEST.
    IOCTL_TVUSB_REFUSED_809 = TvUsbControlCode(0x809),

    // [reserved] Answers 0.
    IOCTL_TVUSB_GET_ZERO = TvUsbControlCode(0x80A), // -> u32

    // [reserved] Answers 0. Refused with INVALID_DEVICE_REQUEST when byte 8 of an input of at least 528
    // bytes has bit 1 or 2 set, whatever the size of the process.
    IOCTL_TVUSB_CHECK_ZERO = TvUsbControlCode(0x80B), // record -> u32

    // [events] From now on each event of the keyboard sets this event object. Unsuccessful: no keyboard
    // has this index, or it has an event already. Also: INVALID_HANDLE, OBJECT_TYPE_MISMATCH or
    // ACCESS_DENIED for a handle that is no event which may be set.
    IOCTL_TVUSB_REGISTER_NOTIFY_EVENT = TvUsbControlCode(0x80C), // index, event handle

    // [events] Ends the registration; queued events stay. Unsuccessful: no keyboard has this index, or it
    // has no event.
    IOCTL_TVUSB_RELEASE_NOTIFY_EVENT = TvUsbControlCode(0x80D), // index

    // [events] Hands the keyboard's reports to the hotkey machinery, until it is stopped or the last
    // handle is closed. Unsuccessful: no keyboard has this index, or processing is on already.
    IOCTL_TVUSB_START_PROCESSING = TvUsbControlCode(0x80E), // index

    // [events] Leaves the keyboard's reports alone. Unsuccessful: no keyboard has this index, or
    // processing is off already.
    IOCTL_TVUSB_STOP_PROCESSING = TvUsbControlCode(0x80F), // index

    // [keyboards] How many keyboards are started.
    IOCTL_TVUSB_GET_KEYBOARD_COUNT = TvUsbControlCode(0x810), // -> u16

    // [keyboards] Which keyboard stands at this position of the list, 0 being the newest. All zero when
    // the list became shorter meanwhile. Unsuccessful: there is no such position.
    IOCTL_TVUSB_GET_KEYBOARD_INFO = TvUsbControlCode(0x811), // record: list position -> KeyboardInfo

    // [reserved] Always refused with INVALID_DEVICE_REQUEST.
    IOCTL_TVUSB_REFUSED_812 = TvUsbControlCode(0x812),

    // [definitions] Adds a hotkey or another key definition, until it is removed or the last handle of the
    // driver is closed. A definition that is the same in type, modifiers and keys, but not in id, is another
    // one; a hotkey whose keys cannot be converted is kept all the same and fires never, so remove it.
    // Unsuccessful: no keyboard has this index, it has the same definition or 511 already, usScanCount is
    // above 32, memory is short, or the last hotkey of its list cannot be converted: a scan code that no key
    // (of this controller) has, a sequence that ends behind E0 or E1, or keys that take more than 32 bytes.
    IOCTL_TVUSB_ADD_DEFINITION = TvUsbControlCode(0x813), // index, KeyDefinition

    // [definitions] Removes the first definition with this id, in the order in which they were added; others
    // with the same id stay. With the last one of discard mode what was held back is given to the system.
    // Unsuccessful: no keyboard has this index,
    // or it has no definition with this id.
    IOCTL_TVUSB_REMOVE_DEFINITION = TvUsbControlCode(0x814), // index, definition id

    // [events] How many events are queued, at most 1024. Unsuccessful: no keyboard has this index.
    IOCTL_TVUSB_GET_NOTIFY_COUNT = TvUsbControlCode(0x815), // index -> u32

    // [events] Drops what is queued. Unsuccessful: no keyboard has this index.
    IOCTL_TVUSB_CLEAR_NOTIFY = TvUsbControlCode(0x816), // index

    // [events] The oldest event, which stays queued. Unsuccessful: no keyboard has this index, or nothing
    // is queued.
    IOCTL_TVUSB_PEEK_NOTIFY = TvUsbControlCode(0x817), // index -> NotifyRecord

    // [events] Takes the oldest event. Unsuccessful: no keyboard has this index, or nothing is queued.
    IOCTL_TVUSB_TAKE_NOTIFY = TvUsbControlCode(0x818), // index -> NotifyRecord

    // [settings] Which LEDs are on. Unsuccessful: no keyboard has this index.
    IOCTL_TVUSB_GET_LEDS = TvUsbControlCode(0x819), // index -> LED flags

    // [settings] Switches the keyboard's LEDs; other bits are dropped. Unsuccessful: no keyboard has this
    // index. Also: the status of the transfer.
    IOCTL_TVUSB_SET_LEDS = TvUsbControlCode(0x81A), // index, LED flags

    // [settings] The system's key repeat: characters per second, and milliseconds before the first.
    // Unsuccessful: no keyboard has this index. Also: the status of the last keyboard class device that
    // was asked.
    IOCTL_TVUSB_GET_TYPEMATIC = TvUsbControlCode(0x81B), // index -> repeat rate, delay

    // [settings] Sets the system's key repeat: 2 to 30 characters per second (less becomes 2, more becomes
    // 20), and 250 ms before the first for delay index 0, 500, 750, 1000 ms for 3 and above. Unsuccessful:
    // no keyboard has this index. Also: the status of the last keyboard class device that was asked.
    IOCTL_TVUSB_SET_TYPEMATIC = TvUsbControlCode(0x81C), // index, repeat rate, delay index

    // [events] Takes up to count events; records without an event are zero. The output has at least 20
    // bytes, even for count 0. Unsuccessful: the output is shorter than count records. No keyboard:
    // succeeds, and every record is zero.
    IOCTL_TVUSB_TAKE_MANY_NOTIFY = TvUsbControlCode(0x81D), // index, count -> count NotifyRecord

    // [keyboards] The index of the keyboard whose device interface has this name, in upper or lower case,
    // without the leading four characters. Unsuccessful: no keyboard has this name.
    IOCTL_TVUSB_FIND_KEYBOARD = TvUsbControlCode(0x81E), // record: interface name -> u32

    // [events] This event object is set when the last keyboard was pulled out and the driver waits for all
    // handles to be closed. It is released by the last close. Unsuccessful: an event is registered
    // already. Also: INVALID_HANDLE, OBJECT_TYPE_MISMATCH or ACCESS_DENIED for a handle that is no event
    // which may be set.
    IOCTL_TVUSB_REGISTER_APPLICATION_EVENT = TvUsbControlCode(0x81F), // record: event handle

    // [driver] The modifier and prefix keys that are down, on all keyboards together.
    IOCTL_TVUSB_GET_MODIFIERS = TvUsbControlCode(0x820), // -> u32

    // [injection] The system sees modifier keys go down and up: for each code one report without keys, which
    // carries what the keyboard itself holds and, after a make code, this one modifier. The codes do not add
    // up, and nothing is released but by its break code or by the keyboard's next report; a code of another
    // key sends what the keyboard holds. Unsuccessful: no keyboard has this index,
    // it is no keyboard with ordinary reports, usCount is above 510, or the keyboard went while it waited.
    IOCTL_TVUSB_INSERT_SCANS = TvUsbControlCode(0x821), // index, InsertScansPayload

    // [memory] The USB device descriptor, nothing when the output is shorter. Unsuccessful: no keyboard has
    // this index, or it gave no descriptor.
    IOCTL_TVUSB_READ_DEVICE_DESCRIPTOR = TvUsbControlCode(0x822), // index -> 18 bytes

    // [memory] A USB string as UTF-16 that ends with 0; index 0 holds the languages. It needs as many bytes as
    // its descriptor has, 255 at most: 126 characters and their 0 are 254. With less room nothing is copied, and
    // what is told is the room, not the length: ask with 256 bytes. Unsuccessful: no keyboard has this index,
    // or it gave no such string.
    IOCTL_TVUSB_READ_STRING_DESCRIPTOR = TvUsbControlCode(0x823), // index, DescriptorIndex -> text

    // [memory] Reads the keyboard's memory through descriptor 0xFD; a length of 0 does nothing.
    // Unsuccessful: no keyboard has this index. Also: BUFFER_TOO_SMALL when the output is shorter than
    // usLength, INSUFFICIENT_RESOURCES, the status of the transfer.
    IOCTL_TVUSB_READ_DESCRIPTOR_MEMORY = TvUsbControlCode(0x824), // index, MemoryAccess -> usLength bytes

    // [memory] Writes the keyboard's memory through descriptor 0xFD; a length of 0 does nothing.
    // Unsuccessful: no keyboard has this index. Also: BUFFER_TOO_SMALL when the input ends before usLength
    // bytes, INSUFFICIENT_RESOURCES, the status of the transfer.
    IOCTL_TVUSB_WRITE_DESCRIPTOR_MEMORY = TvUsbControlCode(0x825), // index, MemoryAccess

    // [reserved] Never succeeds. Unsuccessful: always.
    IOCTL_TVUSB_FAIL = TvUsbControlCode(0x826), // record -> 2 bytes

    // [settings] Sends a command to the keyboard's firmware: vendor request 3 with the key's HID usage for
    // ulCommand 1, vendor request 1 for any other. Unsuccessful: no keyboard has this index, or the scan
    // code is unknown. Also: the status of the transfer.
    IOCTL_TVUSB_SEND_KEY_COMMAND = TvUsbControlCode(0x828), // index, KeyCommand

    // [memory] Reads the EEPROM by HID reports; of usAddress the low byte counts. A length of 0 asks for
    // the size: that many bytes are reported, all zero. Unsuccessful: no keyboard has this index. Also:
    // BUFFER_TOO_SMALL when the output is shorter than usLength or the size, INSUFFICIENT_RESOURCES, the
    // status of the transfer.
    IOCTL_TVUSB_READ_EEPROM = TvUsbControlCode(0x829), // index, MemoryAccess -> usLength bytes

    // [memory] Writes the EEPROM by HID reports. A length of 0 asks for the size as a read does.
    // Unsuccessful: no keyboard has this index. Also: BUFFER_TOO_SMALL when the input ends before usLength
    // bytes or the output before the size, INSUFFICIENT_RESOURCES, the status of the transfer.
    IOCTL_TVUSB_WRITE_EEPROM = TvUsbControlCode(0x82A), // index, MemoryAccess

    // [reserved] Answers 0. Unsuccessful: no keyboard has this index.
    IOCTL_TVUSB_GET_RESERVED_STATUS = TvUsbControlCode(0x832), // index -> u8

    // [injection] The system sees these reports as if the keyboard had sent them. The keyboard's queue
    // holds 16; what does not fit is dropped. Unsuccessful: no keyboard has this index, usCount is not 1
    // to 32, an entry is longer than 10 bytes, or the wait was ended.
    IOCTL_TVUSB_INSERT_PACKETS = TvUsbControlCode(0x833), // index, InsertPacketsPayload

    // [memory] Reads the keyboard's memory by vendor requests. Unsuccessful: no keyboard has this index.
    // Also: BUFFER_TOO_SMALL when the output is shorter than usLength, INSUFFICIENT_RESOURCES, the status
    // of the transfer.
    IOCTL_TVUSB_READ_VENDOR_MEMORY = TvUsbControlCode(0x834), // index, MemoryAccess -> usLength bytes

    // [memory] Writes the keyboard's memory by vendor requests. Unsuccessful: no keyboard has this index.
    // Also: BUFFER_TOO_SMALL when the input ends before usLength bytes, INSUFFICIENT_RESOURCES, the status
    // of the transfer.
    IOCTL_TVUSB_WRITE_VENDOR_MEMORY = TvUsbControlCode(0x835), // index, MemoryAccess

    // [reserved] The low 32 bits of the handle of the control pipe that was used last; 0 = none yet.
    // Unsuccessful: no keyboard has this index.
    IOCTL_TVUSB_GET_CONTROL_PIPE = TvUsbControlCode(0x836), // index -> u32

    // [keyboards] The indexes of all keyboards, newest first, at most 127.
    IOCTL_TVUSB_LIST_KEYBOARDS = TvUsbControlCode(0x837), // record -> KeyboardList

    // [macros] From now on each macro record sets this event object. Unsuccessful: an event is registered
    // already. Also: INVALID_HANDLE, OBJECT_TYPE_MISMATCH or ACCESS_DENIED for a handle that is no event
    // which may be set.
    IOCTL_TVUSB_REGISTER_MACRO_EVENT = TvUsbControlCode(0x838), // record: event handle

    // [macros] Ends the registration; queued records stay. Unsuccessful: no event is registered.
    IOCTL_TVUSB_RELEASE_MACRO_EVENT = TvUsbControlCode(0x839), // record

    // [macros] How many records are queued, at most 1024.
    IOCTL_TVUSB_GET_MACRO_COUNT = TvUsbControlCode(0x83A), // record -> u32

    // [macros] Drops what is queued.
    IOCTL_TVUSB_CLEAR_MACRO = TvUsbControlCode(0x83B), // record

    // [macros] The oldest record, which stays queued. Unsuccessful: nothing is queued.
    IOCTL_TVUSB_PEEK_MACRO = TvUsbControlCode(0x83C), // record -> MacroRecord

    // [macros] Takes the oldest record. Unsuccessful: nothing is queued.
    IOCTL_TVUSB_TAKE_MACRO = TvUsbControlCode(0x83D), // record -> MacroRecord

    // [macros] Takes up to count records; those without content are zero. The output has at least 16
    // bytes, even for count 0. Unsuccessful: the output is shorter than count records.
    IOCTL_TVUSB_TAKE_MANY_MACRO = TvUsbControlCode(0x83E), // record: count -> count MacroRecord

    // [macros] 1 while the macro mode is on.
    IOCTL_TVUSB_GET_MACRO_MODE = TvUsbControlCode(0x83F), // record -> u32

    // [macros] Reads the macro settings and the macro file again: KorvexHotkey, KorvexLEDDisabled,
    // KorvexDelay, KorvexConfigFile, in this order. The first that is absent ends the reading; it is reset to
    // its default (KorvexLEDDisabled and KorvexDelay to 0; KorvexHotkey and the macros stay), and those behind
    // it stay as they are. A value of another type, or a file that cannot be read, changes nothing.
    IOCTL_TVUSB_RELOAD_MACROS = TvUsbControlCode(0x840), // record

    // [macros] 1 while ordinary keyboards' reports come as macro records instead of reaching the system;
    // they do so only when a mode key is set.
    IOCTL_TVUSB_GET_CAPTURE = TvUsbControlCode(0x841), // -> u32

    // [macros] Switches that capture on with 1; the low byte counts. It stays when the last handle is
    // closed.
    IOCTL_TVUSB_SET_CAPTURE = TvUsbControlCode(0x842), // u32
};
static_assert(IOCTL_TVUSB_GET_VERSION == 0x0022200C && IOCTL_TVUSB_SET_CAPTURE == 0x00222108,
              "the codes' range");

// The modifier word: the modifier keys that are down and the prefix keys that are latched, on all keyboards
// together. A definition asks for them by the same bits.
enum : uint32_t {
    MODIFIER_LEFT_CONTROL = 0x00000002,  // this key
    MODIFIER_RIGHT_CONTROL = 0x00000004, // this key
    MODIFIER_LEFT_SHIFT = 0x00000008,    // this key
    MODIFIER_RIGHT_SHIFT = 0x00000010,   // this key
    MODIFIER_LEFT_ALT = 0x00000020,      // this key
    MODIFIER_RIGHT_ALT = 0x00000040,     // this key
    MODIFIER_LEFT_GUI = 0x00000080,      // this key
    MODIFIER_RIGHT_GUI = 0x00000100,     // this key
    MODIFIER_CONTEXT_KEY = 0x00000200,   // the key that opens a context menu
    MODIFIER_ANY_CONTROL = 0x00000400,   // either Control key
    MODIFIER_ANY_SHIFT = 0x00000800,     // either Shift key
    MODIFIER_ANY_ALT = 0x00001000,       // either Alt key
    MODIFIER_ANY_GUI = 0x00002000,       // either Windows key
    MODIFIER_POSKEY_PREFIX = 0x08000000, // a prefix key; it holds until the next key is released
    MODIFIER_PREFIX1 = 0x10000000,       // likewise
    MODIFIER_PREFIX2 = 0x20000000,       // likewise
    MODIFIER_PREFIXES = 0x38000000,      // the three prefix bits together
    MODIFIER_FN = 0x80000000,            // the Fn key of the maker's keyboards
};

// A key definition as the application gives it; scan codes are PS/2 set 1 make codes with their prefixes.
struct KeyDefinition {
    uint32_t ulId;        // chosen by the application, reported back in events
    uint32_t ulSwallow;   // low byte: 1 = the keys of the complete hotkey leave the report
    uint32_t ulType;      // DEFINITION_HOTKEY, DEFINITION_POINT_OF_SALE, DEFINITION_DISCARD; others are kept
    uint32_t ulModifiers; // MODIFIER bits
    uint16_t usScanCount; // valid bytes in ucScans, at most 32
    uint16_t usReserved;  // not read
    uint8_t ucScans[32];  // the key sequence
};
static_assert(sizeof(KeyDefinition) == 52, "KeyDefinition is 52 bytes");
static_assert(offsetof(KeyDefinition, usScanCount) == 16, "usScanCount at 16");
static_assert(offsetof(KeyDefinition, ucScans) == 20, "ucScans at 20");

// What a definition is for, its ulType.
enum : uint32_t {
    DEFINITION_HOTKEY = 1,        // its keys, with its modifiers, are told and may be kept from the system
    DEFINITION_POINT_OF_SALE = 5, // all keys of the keyboard are told as scan codes
    DEFINITION_DISCARD = 11,      // the system gets no keys of the keyboard
};

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

// Who tells an event, its ucSource.
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

// What a macro record is, its usType.
enum : uint16_t {
    MACRO_RECORD_MODE = 1,   // the macro mode was switched
    MACRO_RECORD_REPORT = 2, // a captured report
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
    uint32_t ulCommand;  // 1: vendor request 3 with the key's usage; any other: vendor request 1
    uint16_t usReserved; // not read
    uint16_t usScanCode; // PS/2 set 1: a key with the prefix E0 as 0xE0nn, any other as 0x00nn; or 0, no key
};
static_assert(sizeof(KeyCommand) == 8, "KeyCommand is 8 bytes");
static_assert(offsetof(KeyCommand, usScanCode) == 6, "usScanCode at 6");

// The LEDs of a keyboard.
enum : uint16_t {
    LED_FLAG_SCROLL = 1, // Scroll Lock
    LED_FLAG_NUM = 2,    // Num Lock
    LED_FLAG_CAPS = 4,   // Caps Lock
};

// What a request takes besides the keyboard's index. The code says which form.
union RequestPayload {
    uint8_t ucBytes[516];
    int32_t lEvent;      // an event handle of a 32-bit process, widened with its sign
    uint32_t ulId;       // of a key definition
    uint16_t usCount;    // records to take, or a list position
    uint16_t usLedFlags; // LED_FLAG bits
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

// One of the keyboards.
struct KeyboardListEntry {
    uint32_t ulDeviceIndex;
    uint32_t ulControlPipe; // low 32 bits of the pipe handle seen last, 0 = none
};

// All keyboards, newest first.
struct KeyboardList {
    uint16_t usCount;
    uint16_t usReserved; // 0
    KeyboardListEntry Entries[127];
};
static_assert(sizeof(KeyboardList) == 1020, "KeyboardList is 1020 bytes");
static_assert(offsetof(KeyboardList, Entries) == 4, "Entries at 4");
