// table.cpp - the control requests: for each code what is checked, how it fails and who does the work.
//
// The checks run in the order listed. 55 rows in ascending codes; the numbers between them are unknown.
#include "control/call.h"

namespace
{
constexpr CheckList NEED_NOTHING = {{}};
constexpr CheckList NEED_OUT = {{CheckBuffer, CheckOut}};
constexpr CheckList NEED_IN = {{CheckBuffer, CheckIn}};
constexpr CheckList NEED_OUT_RECORD = {{CheckBuffer, CheckOut, CheckRecord}};
constexpr CheckList NEED_RECORD = {{CheckRecord}};
constexpr CheckList NEED_RECORD_OUT = {{CheckRecord, CheckOut}};
constexpr CheckList NEED_KEYBOARD = {{CheckKeyboards, CheckBuffer, CheckRecord, CheckOut}};

constexpr NTSTATUS TS = STATUS_BUFFER_TOO_SMALL;
constexpr NTSTATUS UN = STATUS_UNSUCCESSFUL;
constexpr NTSTATUS NO = STATUS_INVALID_DEVICE_REQUEST;

// clang-format off
const RequestRow RequestTable[] = {
    {IOCTL_TVUSB_GET_VERSION, NEED_OUT, 4, TS, AsHandled, HandleGetVersion},
    {IOCTL_TVUSB_GET_TIME, NEED_OUT, 4, TS, AsHandled, HandleGetTime},
    {IOCTL_TVUSB_REFUSED_806, NEED_NOTHING, 0, NO, AsHandled, HandleRefuse},
    {IOCTL_TVUSB_REFUSED_807, NEED_NOTHING, 0, NO, AsHandled, HandleRefuse},
    {IOCTL_TVUSB_REFUSED_808, NEED_NOTHING, 0, NO, AsHandled, HandleRefuse},
    {IOCTL_TVUSB_REFUSED_809, NEED_NOTHING, 0, NO, AsHandled, HandleRefuse},
    {IOCTL_TVUSB_GET_ZERO, NEED_OUT, 4, TS, AsHandled, HandleGetZero},
    {IOCTL_TVUSB_CHECK_ZERO, NEED_OUT_RECORD, 4, TS, AsHandled, HandleGetZero},
    {IOCTL_TVUSB_REGISTER_NOTIFY_EVENT, NEED_RECORD, 0, TS, AsHandled, HandleRegisterNotifyEvent},
    {IOCTL_TVUSB_RELEASE_NOTIFY_EVENT, NEED_RECORD, 0, TS, AsHandled, HandleReleaseNotifyEvent},
    {IOCTL_TVUSB_START_PROCESSING, NEED_RECORD, 0, TS, AsHandled, HandleStartProcessing},
    {IOCTL_TVUSB_STOP_PROCESSING, NEED_RECORD, 0, TS, AsHandled, HandleStopProcessing},
    {IOCTL_TVUSB_GET_KEYBOARD_COUNT, NEED_OUT, 2, TS, AsHandled, HandleGetKeyboardCount},
    {IOCTL_TVUSB_GET_KEYBOARD_INFO, NEED_KEYBOARD, 2052, TS, AsHandled, HandleGetKeyboardInfo},
    {IOCTL_TVUSB_REFUSED_812, NEED_NOTHING, 0, NO, AsHandled, HandleRefuse},
    {IOCTL_TVUSB_ADD_DEFINITION, NEED_RECORD, 0, UN, AsHandled, HandleAddDefinition},
    {IOCTL_TVUSB_REMOVE_DEFINITION, NEED_RECORD, 0, UN, AsHandled, HandleRemoveDefinition},
    {IOCTL_TVUSB_GET_NOTIFY_COUNT, NEED_RECORD_OUT, 4, UN, PlainFailure, HandleGetNotifyCount},
    {IOCTL_TVUSB_CLEAR_NOTIFY, NEED_RECORD, 0, UN, AsHandled, HandleClearNotify},
    {IOCTL_TVUSB_PEEK_NOTIFY, NEED_RECORD_OUT, 20, UN, AsHandled, HandlePeekNotify},
    {IOCTL_TVUSB_TAKE_NOTIFY, NEED_RECORD_OUT, 20, UN, AsHandled, HandleTakeNotify},
    {IOCTL_TVUSB_GET_LEDS, NEED_RECORD_OUT, 2, UN, ReportAnyway, HandleGetLeds},
    {IOCTL_TVUSB_SET_LEDS, NEED_RECORD, 0, UN, AsHandled, HandleSetLeds},
    {IOCTL_TVUSB_GET_TYPEMATIC, NEED_RECORD_OUT, 4, UN, ReportAnyway, HandleGetTypematic},
    {IOCTL_TVUSB_SET_TYPEMATIC, NEED_RECORD, 0, UN, AsHandled, HandleSetTypematic},
    {IOCTL_TVUSB_TAKE_MANY_NOTIFY, NEED_RECORD_OUT, 20, UN, AsHandled, HandleTakeManyNotify},
    {IOCTL_TVUSB_FIND_KEYBOARD, NEED_RECORD_OUT, 4, UN, PlainFailure, HandleFindKeyboard},
    {IOCTL_TVUSB_REGISTER_APPLICATION_EVENT, NEED_RECORD, 0, TS, AsHandled, HandleRegisterApplicationEvent},
    {IOCTL_TVUSB_GET_MODIFIERS, NEED_OUT, 4, TS, AsHandled, HandleGetModifiers},
    {IOCTL_TVUSB_INSERT_SCANS, NEED_RECORD, 0, TS, AsHandled, HandleInsertScans},
    {IOCTL_TVUSB_READ_DEVICE_DESCRIPTOR, NEED_RECORD, 0, TS, HiddenFailure, HandleReadDeviceDescriptor},
    {IOCTL_TVUSB_READ_STRING_DESCRIPTOR, NEED_RECORD, 0, TS, HiddenFailure, HandleReadStringDescriptor},
    {IOCTL_TVUSB_READ_DESCRIPTOR_MEMORY, NEED_RECORD, 0, TS, AsHandled, HandleReadDescriptorMemory},
    {IOCTL_TVUSB_WRITE_DESCRIPTOR_MEMORY, NEED_RECORD, 0, TS, AsHandled, HandleWriteDescriptorMemory},
    {IOCTL_TVUSB_FAIL, NEED_RECORD_OUT, 2, UN, AsHandled, HandleFail},
    {IOCTL_TVUSB_SEND_KEY_COMMAND, NEED_RECORD, 0, TS, AsHandled, HandleSendKeyCommand},
    {IOCTL_TVUSB_READ_EEPROM, NEED_RECORD, 0, TS, AsHandled, HandleReadEEprom},
    {IOCTL_TVUSB_WRITE_EEPROM, NEED_RECORD, 0, TS, AsHandled, HandleWriteEEprom},
    {IOCTL_TVUSB_GET_RESERVED_STATUS, NEED_RECORD_OUT, 1, UN, AsHandled, HandleGetReservedStatus},
    {IOCTL_TVUSB_INSERT_PACKETS, NEED_RECORD, 0, TS, AsHandled, HandleInsertPackets},
    {IOCTL_TVUSB_READ_VENDOR_MEMORY, NEED_RECORD, 0, TS, AsHandled, HandleReadVendorMemory},
    {IOCTL_TVUSB_WRITE_VENDOR_MEMORY, NEED_RECORD, 0, TS, AsHandled, HandleWriteVendorMemory},
    {IOCTL_TVUSB_GET_CONTROL_PIPE, NEED_RECORD_OUT, 4, UN, AsHandled, HandleGetControlPipe},
    {IOCTL_TVUSB_LIST_KEYBOARDS, NEED_RECORD_OUT, 1020, UN, AsHandled, HandleListKeyboards},
    {IOCTL_TVUSB_REGISTER_MACRO_EVENT, NEED_RECORD, 0, TS, AsHandled, HandleRegisterMacroEvent},
    {IOCTL_TVUSB_RELEASE_MACRO_EVENT, NEED_RECORD, 0, TS, AsHandled, HandleReleaseMacroEvent},
    {IOCTL_TVUSB_GET_MACRO_COUNT, NEED_RECORD_OUT, 4, UN, PlainFailure, HandleGetMacroCount},
    {IOCTL_TVUSB_CLEAR_MACRO, NEED_RECORD, 0, UN, AsHandled, HandleClearMacro},
    {IOCTL_TVUSB_PEEK_MACRO, NEED_RECORD_OUT, 16, UN, AsHandled, HandlePeekMacro},
    {IOCTL_TVUSB_TAKE_MACRO, NEED_RECORD_OUT, 16, UN, AsHandled, HandleTakeMacro},
    {IOCTL_TVUSB_TAKE_MANY_MACRO, NEED_RECORD_OUT, 16, UN, AsHandled, HandleTakeManyMacro},
    {IOCTL_TVUSB_GET_MACRO_MODE, NEED_RECORD_OUT, 4, UN, AsHandled, HandleGetMacroMode},
    {IOCTL_TVUSB_RELOAD_MACROS, NEED_RECORD, 0, UN, AsHandled, HandleReloadMacros},
    {IOCTL_TVUSB_GET_CAPTURE, NEED_OUT, 4, UN, AsHandled, HandleGetCapture},
    {IOCTL_TVUSB_SET_CAPTURE, NEED_IN, 4, UN, PlainFailure, HandleSetCapture},
};
// clang-format on

static_assert(sizeof(RequestTable) / sizeof(RequestTable[0]) == 55, "one row for each code");
} // namespace

const RequestRow* FindRequestRow(ULONG ulCode)
{
    for (const RequestRow& row : RequestTable) {
        if (row.ulCode == ulCode) {
            return &row;
        }
    }
    return nullptr;
}
