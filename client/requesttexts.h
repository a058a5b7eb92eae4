// requesttexts.h - made by scripts/make-requests: each request's name, whether it is about one keyboard, and
// what UNSUCCESSFUL means for it.
#pragma once

#include "sys/control/requests.h"

namespace tvusb
{
struct RequestText {
    uint32_t ulCode;
    const char* pName;
    bool bKeyboard;            // it is about the keyboard with the index in the record
    const char* pUnsuccessful; // "" when it cannot fail so
};

const RequestText RequestTexts[] = {
    {IOCTL_TVUSB_GET_VERSION, "GET_VERSION", false, ""},
    {IOCTL_TVUSB_GET_TIME, "GET_TIME", false, ""},
    {IOCTL_TVUSB_REFUSED_806, "REFUSED_806", false, ""},
    {IOCTL_TVUSB_REFUSED_807, "REFUSED_807", false, ""},
    {IOCTL_TVUSB_REFUSED_808, "REFUSED_808", false, ""},
    {IOCTL_TVUSB_REFUSED_809, "REFUSED_809", false, ""},
    {IOCTL_TVUSB_GET_ZERO, "GET_ZERO", false, ""},
    {IOCTL_TVUSB_CHECK_ZERO, "CHECK_ZERO", false, ""},
    {IOCTL_TVUSB_REGISTER_NOTIFY_EVENT, "REGISTER_NOTIFY_EVENT", true,
     "no keyboard has this index, or it has an event already"},
    {IOCTL_TVUSB_RELEASE_NOTIFY_EVENT, "RELEASE_NOTIFY_EVENT", true,
     "no keyboard has this index, or it has no event"},
    {IOCTL_TVUSB_START_PROCESSING, "START_PROCESSING", true,
     "no keyboard has this index, or processing is on already"},
    {IOCTL_TVUSB_STOP_PROCESSING, "STOP_PROCESSING", true,
     "no keyboard has this index, or processing is off already"},
    {IOCTL_TVUSB_GET_KEYBOARD_COUNT, "GET_KEYBOARD_COUNT", false, ""},
    {IOCTL_TVUSB_GET_KEYBOARD_INFO, "GET_KEYBOARD_INFO", false, "there is no such position"},
    {IOCTL_TVUSB_REFUSED_812, "REFUSED_812", false, ""},
    {IOCTL_TVUSB_ADD_DEFINITION, "ADD_DEFINITION", true,
     "no keyboard has this index, it has the same definition or 511 already, usScanCount is above 32, memory "
     "is short, or the last hotkey of its list cannot be converted: a scan code that no key (of this "
     "controller) has, a sequence that ends behind E0 or E1, or keys that take more than 32 bytes"},
    {IOCTL_TVUSB_REMOVE_DEFINITION, "REMOVE_DEFINITION", true,
     "no keyboard has this index, or it has no definition with this id"},
    {IOCTL_TVUSB_GET_NOTIFY_COUNT, "GET_NOTIFY_COUNT", true, "no keyboard has this index"},
    {IOCTL_TVUSB_CLEAR_NOTIFY, "CLEAR_NOTIFY", true, "no keyboard has this index"},
    {IOCTL_TVUSB_PEEK_NOTIFY, "PEEK_NOTIFY", true, "no keyboard has this index, or nothing is queued"},
    {IOCTL_TVUSB_TAKE_NOTIFY, "TAKE_NOTIFY", true, "no keyboard has this index, or nothing is queued"},
    {IOCTL_TVUSB_GET_LEDS, "GET_LEDS", true, "no keyboard has this index"},
    {IOCTL_TVUSB_SET_LEDS, "SET_LEDS", true, "no keyboard has this index, or it refused the transfer"},
    {IOCTL_TVUSB_GET_TYPEMATIC, "GET_TYPEMATIC", true, "no keyboard has this index"},
    {IOCTL_TVUSB_SET_TYPEMATIC, "SET_TYPEMATIC", true, "no keyboard has this index"},
    {IOCTL_TVUSB_TAKE_MANY_NOTIFY, "TAKE_MANY_NOTIFY", true, "the output is shorter than count records"},
    {IOCTL_TVUSB_FIND_KEYBOARD, "FIND_KEYBOARD", false, "no keyboard has this name"},
    {IOCTL_TVUSB_REGISTER_APPLICATION_EVENT, "REGISTER_APPLICATION_EVENT", false,
     "an event is registered already"},
    {IOCTL_TVUSB_GET_MODIFIERS, "GET_MODIFIERS", false, ""},
    {IOCTL_TVUSB_INSERT_SCANS, "INSERT_SCANS", true,
     "no keyboard has this index, it is no keyboard with ordinary reports, usCount is above 510, or the "
     "keyboard went while it waited"},
    {IOCTL_TVUSB_READ_DEVICE_DESCRIPTOR, "READ_DEVICE_DESCRIPTOR", true,
     "no keyboard has this index, or it gave no descriptor"},
    {IOCTL_TVUSB_READ_STRING_DESCRIPTOR, "READ_STRING_DESCRIPTOR", true,
     "no keyboard has this index, or it gave no such string"},
    {IOCTL_TVUSB_READ_DESCRIPTOR_MEMORY, "READ_DESCRIPTOR_MEMORY", true,
     "no keyboard has this index, or it refused the transfer"},
    {IOCTL_TVUSB_WRITE_DESCRIPTOR_MEMORY, "WRITE_DESCRIPTOR_MEMORY", true,
     "no keyboard has this index, or it refused the transfer"},
    {IOCTL_TVUSB_FAIL, "FAIL", false, "always"},
    {IOCTL_TVUSB_SEND_KEY_COMMAND, "SEND_KEY_COMMAND", true,
     "no keyboard has this index, or the scan code is unknown, or it refused the transfer"},
    {IOCTL_TVUSB_READ_EEPROM, "READ_EEPROM", true, "no keyboard has this index, or it refused the transfer"},
    {IOCTL_TVUSB_WRITE_EEPROM, "WRITE_EEPROM", true,
     "no keyboard has this index, or it refused the transfer"},
    {IOCTL_TVUSB_GET_RESERVED_STATUS, "GET_RESERVED_STATUS", true, "no keyboard has this index"},
    {IOCTL_TVUSB_INSERT_PACKETS, "INSERT_PACKETS", true,
     "no keyboard has this index, usCount is not 1 to 32, an entry is longer than 10 bytes, or the wait was "
     "ended"},
    {IOCTL_TVUSB_READ_VENDOR_MEMORY, "READ_VENDOR_MEMORY", true,
     "no keyboard has this index, or it refused the transfer"},
    {IOCTL_TVUSB_WRITE_VENDOR_MEMORY, "WRITE_VENDOR_MEMORY", true,
     "no keyboard has this index, or it refused the transfer"},
    {IOCTL_TVUSB_GET_CONTROL_PIPE, "GET_CONTROL_PIPE", true, "no keyboard has this index"},
    {IOCTL_TVUSB_LIST_KEYBOARDS, "LIST_KEYBOARDS", false, ""},
    {IOCTL_TVUSB_REGISTER_MACRO_EVENT, "REGISTER_MACRO_EVENT", false, "an event is registered already"},
    {IOCTL_TVUSB_RELEASE_MACRO_EVENT, "RELEASE_MACRO_EVENT", false, "no event is registered"},
    {IOCTL_TVUSB_GET_MACRO_COUNT, "GET_MACRO_COUNT", false, ""},
    {IOCTL_TVUSB_CLEAR_MACRO, "CLEAR_MACRO", false, ""},
    {IOCTL_TVUSB_PEEK_MACRO, "PEEK_MACRO", false, "nothing is queued"},
    {IOCTL_TVUSB_TAKE_MACRO, "TAKE_MACRO", false, "nothing is queued"},
    {IOCTL_TVUSB_TAKE_MANY_MACRO, "TAKE_MANY_MACRO", false, "the output is shorter than count records"},
    {IOCTL_TVUSB_GET_MACRO_MODE, "GET_MACRO_MODE", false, ""},
    {IOCTL_TVUSB_RELOAD_MACROS, "RELOAD_MACROS", false, ""},
    {IOCTL_TVUSB_GET_CAPTURE, "GET_CAPTURE", false, ""},
    {IOCTL_TVUSB_SET_CAPTURE, "SET_CAPTURE", false, ""},
};
} // namespace tvusb
