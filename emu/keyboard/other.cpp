// An interface that is no keyboard: class 3/0/1, a pointer's reports.
#include "keyboard.h"

// clang-format off
static const UCHAR ucDevice[18] = {
    18, 1, 0x10, 0x01,          // USB 1.1
    0, 0, 0, 8,                 // class told by the interface, 8-byte control packets
    0x3C, 0x7A, 0x03, 0x01,     // vendor, product
    0x00, 0x01, 1, 2, 0, 1,     // release, maker, product, no serial number, one configuration
};
// clang-format on

// Three buttons and two axes.
static const UCHAR ucReport[] = {
    0x05, 0x01, 0x09, 0x02, 0xA1, 0x01, 0x09, 0x01, 0xA1, 0x00, // mouse application, pointer
    0x05, 0x09, 0x19, 0x01, 0x29, 0x03, 0x15, 0x00, 0x25, 0x01, // three buttons
    0x95, 0x03, 0x75, 0x01, 0x81, 0x02,                         //
    0x95, 0x01, 0x75, 0x05, 0x81, 0x01,                         // padding to the byte
    0x05, 0x01, 0x09, 0x30, 0x09, 0x31, 0x15, 0x81, 0x25, 0x7F, // X and Y
    0x75, 0x08, 0x95, 0x02, 0x81, 0x06, 0xC0, 0xC0,             //
};

// clang-format off
static const UCHAR ucConfiguration[34] = {
    9, 2, 34, 0, 1, 1, 0, 0xA0, 50,                         // one interface, remote wake-up, 100 mA
    9, 4, 0, 0, 1, 3, 0, 1, 0,                              // HID, subclass 0, protocol 1
    9, 0x21, 0x10, 0x01, 0, 1, 0x22, sizeof ucReport, 0,    // HID 1.1, one report descriptor
    7, 5, 0x81, 3, 8, 0, 10,                                // interrupt IN, 8 bytes, every 10 ms
};
// clang-format on

const EmuDescriptors EmuOtherInterface = {
    ucDevice,        ucConfiguration,       sizeof ucConfiguration, ucReport,
    sizeof ucReport, L"Emulated keyboards", L"Other interface",     L"USB\\VID_7A3C&PID_0103",
};
