// requesttexts.h - made by scripts/make-requests: each request's name, and what UNSUCCESSFUL means for it.
#pragma once

#include "sys/control/requests.h"

namespace tvusb
{
struct RequestText {
    uint32_t ulCode;
    const char* pName;
    const char* pUnsuccessful; // "" when it cannot fail so
};

const RequestText RequestTexts[] = {
    {IOCTL_TVUSB_GET_VERSION, "GET_VERSION", ""},
    {IOCTL_TVUSB_GET_TIME, "GET_TIME", ""},
    {IOCTL_TVUSB_REFUSED_806, "REFUSED_806", ""},
    {IOCTL_TVUSB_REFUSED_807, "REFUSED_807", ""},
    {IOCTL_TVUSB_REFUSED_808, "REFUSED_808", ""},
    {IOCTL_TVUSB_REFUSED_809, "REFUSED_809", ""},
    {IOCTL_TVUSB_GET_ZERO, "GET_ZERO", ""},
    {IOCTL_TVUSB_CHECK_ZERO, "CHECK_ZERO", ""},
    {IOCTL_TVUSB_REGISTER_NOTIFY_EVENT, "REGISTER_NOTIFY_EVENT",
     "no keyboard has this index, or it has an event already"},
    {IOCTL_TVUSB_RELEASE_NOTIFY_EVENT, "RELEASE_NOTIFY_EVENT",
     "no keyboard has this index, or it has no event"},
    {IOCTL_TVUSB_START_PROCESSING, "START_PROCESSING",
     "no keyboard has this index, or processing is on already"},
    {IOCTL_TVUSB_STOP_PROCESSING, "STOP_PROCESSING",
     "no keyboard has this index, or processing is off already"},
    {IOCTL_TVUSB_GET_KEYBOARD_COUNT, "GET_KEYBOARD_COUNT", ""},
    {IOCTL_TVUSB_GET_KEYBOARD_INFO, "GET_KEYBOARD_INFO", "there is no such position"},
    {IOCTL_TVUSB_REFUSED_812, "REFUSED_812", ""},
    {IOCTL_TVUSB_ADD_DEFINITION, "ADD_DEFINITION",
     "no keyboard has this index, it has the same definition or 511 already, a scan code is unknown, or "
     "memory is short"},
    {IOCTL_TVUSB_REMOVE_DEFINITION, "REMOVE_DEFINITION",
     "no keyboard has this index, or it has no definition with this id"},
    {IOCTL_TVUSB_GET_NOTIFY_COUNT, "GET_NOTIFY_COUNT", "no keyboard has this index"},
    {IOCTL_TVUSB_CLEAR_NOTIFY, "CLEAR_NOTIFY", "no keyboard has this index"},
    {IOCTL_TVUSB_PEEK_NOTIFY, "PEEK_NOTIFY", "no keyboard has this index, or nothing is queued"},
    {IOCTL_TVUSB_TAKE_NOTIFY, "TAKE_NOTIFY", "no keyboard has this index, or nothing is queued"},
    {IOCTL_TVUSB_GET_LEDS, "GET_LEDS", "no keyboard has this index"},
    {IOCTL_TVUSB_SET_LEDS, "SET_LEDS", "no keyboard has this index"},
    {IOCTL_TVUSB_GET_TYPEMATIC, "GET_TYPEMATIC", "no keyboard has this index"},
    {IOCTL_TVUSB_SET_TYPEMATIC, "SET_TYPEMATIC", "no keyboard has this index"},
    {IOCTL_TVUSB_TAKE_MANY_NOTIFY, "TAKE_MANY_NOTIFY", "the output is shorter than count records"},
    {IOCTL_TVUSB_FIND_KEYBOARD, "FIND_KEYBOARD", "no keyboard has this name"},
    {IOCTL_TVUSB_REGISTER_APPLICATION_EVENT, "REGISTER_APPLICATION_EVENT", "an event is registered already"},
    {IOCTL_TVUSB_GET_MODIFIERS, "GET_MODIFIERS", ""},
    {IOCTL_TVUSB_INSERT_SCANS, "INSERT_SCANS",
     "no keyboard has this index, it is no keyboard with ordinary reports, usCount is above 510, or the "
     "keyboard went while it waited"},
    {IOCTL_TVUSB_READ_DEVICE_DESCRIPTOR, "READ_DEVICE_DESCRIPTOR",
     "no keyboard has this index, or it gave no descriptor"},
    {IOCTL_TVUSB_READ_STRING_DESCRIPTOR, "READ_STRING_DESCRIPTOR",
     "no keyboard has this index, or it gave no such string"},
    {IOCTL_TVUSB_READ_DESCRIPTOR_MEMORY, "READ_DESCRIPTOR_MEMORY", "no keyboard has this index"},
    {IOCTL_TVUSB_WRITE_DESCRIPTOR_MEMORY, "WRITE_DESCRIPTOR_MEMORY", "no keyboard has this index"},
    {IOCTL_TVUSB_FAIL, "FAIL", "always"},
    {IOCTL_TVUSB_SEND_KEY_COMMAND, "SEND_KEY_COMMAND",
     "no keyboard has this index, or the scan code is unknown"},
    {IOCTL_TVUSB_READ_EEPROM, "READ_EEPROM", "no keyboard has this index"},
    {IOCTL_TVUSB_WRITE_EEPROM, "WRITE_EEPROM", "no keyboard has this index"},
    {IOCTL_TVUSB_GET_RESERVED_STATUS, "GET_RESERVED_STATUS", "no keyboard has this index"},
    {IOCTL_TVUSB_INSERT_PACKETS, "INSERT_PACKETS",
     "no keyboard has this index, usCount is not 1 to 32, an entry is longer than 10 bytes, or the wait was "
     "ended"},
    {IOCTL_TVUSB_READ_VENDOR_MEMORY, "READ_VENDOR_MEMORY", "no keyboard has this index"},
    {IOCTL_TVUSB_WRITE_VENDOR_MEMORY, "WRITE_VENDOR_MEMORY", "no keyboard has this index"},
    {IOCTL_TVUSB_GET_CONTROL_PIPE, "GET_CONTROL_PIPE", "no keyboard has this index"},
    {IOCTL_TVUSB_LIST_KEYBOARDS, "LIST_KEYBOARDS", ""},
    {IOCTL_TVUSB_REGISTER_MACRO_EVENT, "REGISTER_MACRO_EVENT", "an event is registered already"},
    {IOCTL_TVUSB_RELEASE_MACRO_EVENT, "RELEASE_MACRO_EVENT", "no event is registered"},
    {IOCTL_TVUSB_GET_MACRO_COUNT, "GET_MACRO_COUNT", ""},
    {IOCTL_TVUSB_CLEAR_MACRO, "CLEAR_MACRO", ""},
    {IOCTL_TVUSB_PEEK_MACRO, "PEEK_MACRO", "nothing is queued"},
    {IOCTL_TVUSB_TAKE_MACRO, "TAKE_MACRO", "nothing is queued"},
    {IOCTL_TVUSB_TAKE_MANY_MACRO, "TAKE_MANY_MACRO", "the output is shorter than count records"},
    {IOCTL_TVUSB_GET_MACRO_MODE, "GET_MACRO_MODE", ""},
    {IOCTL_TVUSB_RELOAD_MACROS, "RELOAD_MACROS", ""},
    {IOCTL_TVUSB_GET_CAPTURE, "GET_CAPTURE", ""},
    {IOCTL_TVUSB_SET_CAPTURE, "SET_CAPTURE", ""},
};
} // namespace tvusb
