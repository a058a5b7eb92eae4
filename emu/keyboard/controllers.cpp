// The keyboards with the controllers Jaalaa and Chic: class 3/1/2, reports with identifiers. They differ in their numbers,
// in the identifiers, and in how many bytes of key bits there are.
#include "keyboard.h"

enum { CONTROLLER_REPORT = 87, CONTROLLER_CONFIGURATION = 34 };

struct Controller {
    UCHAR ucDevice[18];
    UCHAR ucReport[CONTROLLER_REPORT];
    UCHAR ucConfiguration[CONTROLLER_CONFIGURATION];
};

// clang-format off
static constexpr Controller ControllerOf(USHORT usVendor, USHORT usProduct, UCHAR ucPowerId, UCHAR ucKeysId,
                                         UCHAR ucKeyBytes, UCHAR ucBootId)
{
    return {
        {18, 1, 0x10, 0x01,         // USB 1.1
         0, 0, 0, 8,                // class told by the interface, 8-byte control packets
         static_cast<UCHAR>(usVendor), static_cast<UCHAR>(usVendor >> 8),
         static_cast<UCHAR>(usProduct), static_cast<UCHAR>(usProduct >> 8),
         0x00, 0x01, 1, 2, 0, 1},   // release, maker, product, no serial number, one configuration

        // Three reports: power bits, consumer and power keys as bits, and keys in the layout of a boot report.
        {0x05, 0x01, 0x09, 0x80, 0xA1, 0x01, 0x85, ucPowerId,        // system control application, power report
         0x19, 0x81, 0x29, 0x83, 0x15, 0x00, 0x25, 0x01,             // three bits
         0x75, 0x01, 0x95, 0x03, 0x81, 0x02,                         //
         0x95, 0x05, 0x81, 0x01, 0xC0,                               // padding to the byte
         0x06, 0x00, 0xFF, 0x09, 0x01, 0xA1, 0x01, 0x85, ucKeysId,   // vendor application, key bits
         0x15, 0x00, 0x26, 0xFF, 0x00, 0x75, 0x08, 0x95, ucKeyBytes, //
         0x09, 0x01, 0x81, 0x02, 0xC0,                               //
         0x05, 0x01, 0x09, 0x06, 0xA1, 0x01, 0x85, ucBootId,         // keyboard application, keys
         0x05, 0x07, 0x19, 0xE0, 0x29, 0xE7, 0x15, 0x00, 0x25, 0x01, // eight modifier bits
         0x75, 0x01, 0x95, 0x08, 0x81, 0x02,                         //
         0x19, 0x00, 0x29, 0x65, 0x25, 0x65, 0x75, 0x08, 0x95, 0x06, // six keys
         0x81, 0x00, 0xC0},                                          //

        {9, 2, CONTROLLER_CONFIGURATION, 0, 1, 1, 0, 0xA0, 50,       // one interface, remote wake-up, 100 mA
         9, 4, 0, 0, 1, 3, 1, 2, 0,                                  // HID, subclass 1, protocol 2
         9, 0x21, 0x10, 0x01, 0, 1, 0x22, CONTROLLER_REPORT, 0,      // HID 1.1, one report descriptor
         7, 5, 0x81, 3, 8, 0, 10},                                   // interrupt IN, 8 bytes, every 10 ms
    };
}
// clang-format on

static constexpr Controller Jaalaa = ControllerOf(0x0C1E, 0x0030, 1, 2, 4, 3);
static constexpr Controller Chic = ControllerOf(0x7A3C, 0x0065, 2, 3, 3, 1);

const EmuDescriptors EmuJaalaaKeyboard = {
    Jaalaa.ucDevice,    Jaalaa.ucConfiguration,    sizeof Jaalaa.ucConfiguration,
    Jaalaa.ucReport,    sizeof Jaalaa.ucReport,    L"Emulated keyboards",
    L"Jaalaa keyboard", L"USB\\VID_0C1E&PID_0030",
};

const EmuDescriptors EmuChicKeyboard = {
    Chic.ucDevice,    Chic.ucConfiguration,      sizeof Chic.ucConfiguration,
    Chic.ucReport,    sizeof Chic.ucReport,      L"Emulated keyboards",
    L"Chic keyboard", L"USB\\VID_7A3C&PID_0065",
};
