// requests.h - what an application shares with the driver: control codes and records.
//
// Every record is a little-endian byte layout of fixed-width fields; each size and offset is asserted.
// The records are the same for 32-bit and 64-bit processes, but for ControlRequest, whose payload lies
// at offset 4 for a 32-bit caller and at offset 8 for a 64-bit one.
//
// This header needs the language only, so applications, tools and tests include it as it stands.
#pragma once

#include <stddef.h>
#include <stdint.h>

// A key definition as the application gives it; scan codes are PS/2 set 1 make codes with their prefixes.
struct KeyDefinition {
    uint32_t ulId;           // chosen by the application, reported back in events
    uint32_t ulSwallow;      // low byte: 1 = the keys of the complete hotkey leave the report
    uint32_t ulType;         // 1 hotkey, 5 point of sale, 11 discard mode
    uint32_t ulModifiers;    // mask in the encoding of the modifier word
    uint16_t usScanCount;    // valid bytes in ucScans, at most 32
    uint16_t usReserved;     // not read
    uint8_t ucScans[32];     // the key sequence
};
static_assert(sizeof(KeyDefinition) == 52, "KeyDefinition is 52 bytes");
static_assert(offsetof(KeyDefinition, usScanCount) == 16, "usScanCount at 16");
static_assert(offsetof(KeyDefinition, ucScans) == 20, "ucScans at 20");

// One event of one keyboard.
struct NotifyRecord {
    uint32_t ulValue;        // hotkeys: 1 down, 0 up; keys: the key value of the producer
    uint32_t ulEscAbort;     // 1 = Esc was pressed while the hotkey was complete
    uint8_t ucSource;        // NOTIFY_SOURCE_HOTKEY or NOTIFY_SOURCE_REPORT
    uint8_t ucValid;         // always 1
    uint16_t usReserved;     // 0
    uint32_t ulTime;         // system time (100 ns since 1601) / 1000, low 32 bits: units of 100 us
    uint32_t ulId;           // the definition that caused the event
};
static_assert(sizeof(NotifyRecord) == 20, "NotifyRecord is 20 bytes");
static_assert(offsetof(NotifyRecord, ulTime) == 12, "ulTime at 12");

enum : uint8_t {
    NOTIFY_SOURCE_HOTKEY = 0x00,  // the hotkey machinery
    NOTIFY_SOURCE_REPORT = 0x60,  // discard mode and point of sale
};

// A change of the macro mode, or a captured report.
struct MacroRecord {
    uint16_t usType;         // MACRO_RECORD_MODE or MACRO_RECORD_REPORT
    uint16_t usReserved;     // 0
    uint8_t ucMode;          // MODE: the new macro mode, 0 or 1
    uint8_t ucLength;        // REPORT: bytes used in ucReport, at most 10
    uint8_t ucReport[10];    // REPORT: as the keyboard sent it, the rest 0
};
static_assert(sizeof(MacroRecord) == 16, "MacroRecord is 16 bytes");

enum : uint16_t {
    MACRO_RECORD_MODE = 1,
    MACRO_RECORD_REPORT = 2,
};

// One whole report to insert into a keyboard's stream.
struct FifoEntry {
    uint32_t ulFlags;        // in a request, 1 on the last entry: wait until it was delivered
    uint16_t usLength;       // bytes of ucData that are delivered, at most 10
    uint8_t ucData[10];      // the report
};
static_assert(sizeof(FifoEntry) == 16, "FifoEntry is 16 bytes");
