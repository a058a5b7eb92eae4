// The power keys of a boot keyboard, its second interface: class 3/0/0, 2-byte reports.
#include "keyboard.h"

// clang-format off
static const UCHAR ucDevice[18] = {
    18, 1, 0x10, 0x01,          // USB 1.1
    0, 0, 0, 8,                 // class told by the interface, 8-byte control packets
    0x3C, 0x7A, 0x01, 0x01,     // vendor, product: those of the boot keyboard
    0x00, 0x01, 1, 2, 0, 1,     // release, maker, product, no serial number, one configuration
};
// clang-format on

// Power and media keys: two bytes, one usage.
static const UCHAR ucReport[] = {
    0x05, 0x0C, 0x09, 0x01, 0xA1, 0x01,                         // consumer control application
    0x15, 0x00, 0x26, 0xFF, 0x03, 0x19, 0x00, 0x2A, 0xFF, 0x03, // usages 0 to 0x3FF
    0x75, 0x10, 0x95, 0x01, 0x81, 0x00, 0xC0,                   // one 16-bit usage
};

// clang-format off
static const UCHAR ucConfiguration[34] = {
    9, 2, 34, 0, 1, 1, 0, 0xA0, 50,                         // one interface, remote wake-up, 100 mA
    9, 4, 0, 0, 1, 3, 0, 0, 0,                              // HID, subclass 0, protocol 0
    9, 0x21, 0x10, 0x01, 0, 1, 0x22, sizeof ucReport, 0,    // HID 1.1, one report descriptor
    7, 5, 0x81, 3, 2, 0, 10,                                // interrupt IN, 2 bytes, every 10 ms
};
// clang-format on

const EmuDescriptors EmuPowerKeyboard = {
    ucDevice,        ucConfiguration,       sizeof ucConfiguration, ucReport,
    sizeof ucReport, L"Emulated keyboards", L"Power keys",          L"USB\\VID_7A3C&PID_0101&MI_01",
};
