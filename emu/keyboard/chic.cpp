// A keyboard with the Chic controller: class 3/1/2, its own vendor and product number.
#include "keyboard.h"

// clang-format off
static const UCHAR ucDevice[18] = {
    18, 1, 0x10, 0x01,          // USB 1.1
    0, 0, 0, 8,                 // class told by the interface, 8-byte control packets
    0x3C, 0x7A, 0x65, 0x00,     // vendor, product
    0x00, 0x01, 1, 2, 0, 1,     // release, maker, product, no serial number, one configuration
};
// clang-format on

// Three reports: power bits, consumer and power keys as bits, and keys in the layout of a boot report.
static const UCHAR ucReport[] = {
    0x05, 0x01, 0x09, 0x80, 0xA1, 0x01, 0x85, 0x02,             // system control application, power report
    0x19, 0x81, 0x29, 0x83, 0x15, 0x00, 0x25, 0x01,             // three bits
    0x75, 0x01, 0x95, 0x03, 0x81, 0x02,                         //
    0x95, 0x05, 0x81, 0x01, 0xC0,                               // padding to the byte
    0x06, 0x00, 0xFF, 0x09, 0x01, 0xA1, 0x01, 0x85, 0x03,       // vendor application, key bits
    0x15, 0x00, 0x26, 0xFF, 0x00, 0x75, 0x08, 0x95, 0x03,       //
    0x09, 0x01, 0x81, 0x02, 0xC0,                               //
    0x05, 0x01, 0x09, 0x06, 0xA1, 0x01, 0x85, 0x01,             // keyboard application, keys
    0x05, 0x07, 0x19, 0xE0, 0x29, 0xE7, 0x15, 0x00, 0x25, 0x01, // eight modifier bits
    0x75, 0x01, 0x95, 0x08, 0x81, 0x02,                         //
    0x19, 0x00, 0x29, 0x65, 0x25, 0x65, 0x75, 0x08, 0x95, 0x06, // six keys
    0x81, 0x00, 0xC0,                                           //
};

// clang-format off
static const UCHAR ucConfiguration[34] = {
    9, 2, 34, 0, 1, 1, 0, 0xA0, 50,                         // one interface, remote wake-up, 100 mA
    9, 4, 0, 0, 1, 3, 1, 2, 0,                              // HID, subclass 1, protocol 2
    9, 0x21, 0x10, 0x01, 0, 1, 0x22, sizeof ucReport, 0,    // HID 1.1, one report descriptor
    7, 5, 0x81, 3, 8, 0, 10,                                // interrupt IN, 8 bytes, every 10 ms
};
// clang-format on

const EmuDescriptors EmuChicKeyboard = {
    ucDevice,        ucConfiguration,       sizeof ucConfiguration, ucReport,
    sizeof ucReport, L"Emulated keyboards", L"Chic keyboard",       L"USB\\VID_7A3C&PID_0065",
};
