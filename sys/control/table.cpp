// table.cpp - the control requests: for each code what is checked, how it fails and who does the work.
//
// The checks run in the order listed. 55 rows, ascending codes; the numbers between them are unknown
// requests.
#include "control/call.h"

namespace
{
constexpr CheckList NOTHING = {{}};
constexpr CheckList OUT = {{CheckBuffer, CheckOut}};
constexpr CheckList IN = {{CheckBuffer, CheckIn}};
constexpr CheckList OUT_RECORD = {{CheckBuffer, CheckOut, CheckRecord}};
constexpr CheckList RECORD = {{CheckRecord}};
constexpr CheckList RECORD_OUT = {{CheckRecord, CheckOut}};
constexpr CheckList KEYBOARD_RECORD_OUT = {{CheckKeyboards, CheckBuffer, CheckRecord, CheckOut}};

constexpr NTSTATUS TS = STATUS_BUFFER_TOO_SMALL;
constexpr NTSTATUS UN = STATUS_UNSUCCESSFUL;
constexpr NTSTATUS NO = STATUS_INVALID_DEVICE_REQUEST;

// clang-format off
const RequestRow RequestTable[] = {
    {IOCTL_TVUSB_GET_VERSION, OUT, 4, TS, AsHandled, HandleGetVersion},
    {IOCTL_TVUSB_GET_TIME, OUT, 4, TS, AsHandled, HandleGetTime},
    {IOCTL_TVUSB_REFUSED_806, NOTHING, 0, NO, AsHandled, HandleRefuse},
    {IOCTL_TVUSB_REFUSED_807, NOTHING, 0, NO, AsHandled, HandleRefuse},
    {IOCTL_TVUSB_REFUSED_808, NOTHING, 0, NO, AsHandled, HandleRefuse},
    {IOCTL_TVUSB_REFUSED_809, NOTHING, 0, NO, AsHandled, HandleRefuse},
    {IOCTL_TVUSB_GET_ZERO, OUT, 4, TS, AsHandled, HandleGetZero},
    {IOCTL_TVUSB_CHECK_ZERO, OUT_RECORD, 4, TS, AsHandled, HandleGetZero},
    {IOCTL_TVUSB_REGISTER_NOTIFY_EVENT, RECORD, 0, TS, AsHandled, HandleRegisterNotifyEvent},
    {IOCTL_TVUSB_RELEASE_NOTIFY_EVENT, RECORD, 0, TS, AsHandled, HandleReleaseNotifyEvent},
    {IOCTL_TVUSB_START_PROCESSING, RECORD, 0, TS, AsHandled, HandleStartProcessing},
    {IOCTL_TVUSB_STOP_PROCESSING, RECORD, 0, TS, AsHandled, HandleStopProcessing},
    {IOCTL_TVUSB_GET_KEYBOARD_COUNT, OUT, 2, TS, AsHandled, HandleGetKeyboardCount},
    {IOCTL_TVUSB_GET_KEYBOARD_INFO, KEYBOARD_RECORD_OUT, 2052, TS, AsHandled, HandleGetKeyboardInfo},
    {IOCTL_TVUSB_REFUSED_812, NOTHING, 0, NO, AsHandled, HandleRefuse},
    {IOCTL_TVUSB_ADD_DEFINITION, RECORD, 0, UN, AsHandled, HandleAddDefinition},
    {IOCTL_TVUSB_REMOVE_DEFINITION, RECORD, 0, UN, AsHandled, HandleRemoveDefinition},
    {IOCTL_TVUSB_GET_NOTIFY_COUNT, RECORD_OUT, 4, UN, PlainFailure, HandleGetNotifyCount},
    {IOCTL_TVUSB_CLEAR_NOTIFY, RECORD, 0, UN, AsHandled, HandleClearNotify},
    {IOCTL_TVUSB_PEEK_NOTIFY, RECORD_OUT, 20, UN, AsHandled, HandlePeekNotify},
    {IOCTL_TVUSB_TAKE_NOTIFY, RECORD_OUT, 20, UN, AsHandled, HandleTakeNotify},
    {IOCTL_TVUSB_GET_LEDS, RECORD_OUT, 2, UN, ReportAnyway, HandleGetLeds},
    {IOCTL_TVUSB_SET_LEDS, RECORD, 0, UN, AsHandled, HandleSetLeds},
    {IOCTL_TVUSB_GET_TYPEMATIC, RECORD_OUT, 4, UN, ReportAnyway, HandleGetTypematic},
    {IOCTL_TVUSB_SET_TYPEMATIC, RECORD, 0, UN, AsHandled, HandleSetTypematic},
    {IOCTL_TVUSB_TAKE_MANY_NOTIFY, RECORD_OUT, 20, UN, AsHandled, HandleTakeManyNotify},
    {IOCTL_TVUSB_FIND_KEYBOARD, RECORD_OUT, 4, UN, PlainFailure, HandleFindKeyboard},
    {IOCTL_TVUSB_REGISTER_APPLICATION_EVENT, RECORD, 0, TS, AsHandled, HandleRegisterApplicationEvent},
    {IOCTL_TVUSB_GET_MODIFIERS, OUT, 4, TS, AsHandled, HandleGetModifiers},
    {IOCTL_TVUSB_INSERT_SCANS, RECORD, 0, TS, AsHandled, HandleInsertScans},
    {IOCTL_TVUSB_READ_DEVICE_DESCRIPTOR, RECORD, 0, TS, HiddenFailure, HandleReadDeviceDescriptor},
    {IOCTL_TVUSB_READ_STRING_DESCRIPTOR, RECORD, 0, TS, HiddenFailure, HandleReadStringDescriptor},
    {IOCTL_TVUSB_READ_DESCRIPTOR_MEMORY, RECORD, 0, TS, AsHandled, HandleReadDescriptorMemory},
    {IOCTL_TVUSB_WRITE_DESCRIPTOR_MEMORY, RECORD, 0, TS, AsHandled, HandleWriteDescriptorMemory},
    {IOCTL_TVUSB_FAIL, RECORD_OUT, 2, UN, AsHandled, HandleFail},
    {IOCTL_TVUSB_SEND_KEY_COMMAND, RECORD, 0, TS, AsHandled, HandleSendKeyCommand},
    {IOCTL_TVUSB_READ_EEPROM, RECORD, 0, TS, AsHandled, HandleReadEEprom},
    {IOCTL_TVUSB_WRITE_EEPROM, RECORD, 0, TS, AsHandled, HandleWriteEEprom},
    {IOCTL_TVUSB_GET_RESERVED_STATUS, RECORD_OUT, 1, UN, AsHandled, HandleGetReservedStatus},
    {IOCTL_TVUSB_INSERT_PACKETS, RECORD, 0, TS, AsHandled, HandleInsertPackets},
    {IOCTL_TVUSB_READ_VENDOR_MEMORY, RECORD, 0, TS, AsHandled, HandleReadVendorMemory},
    {IOCTL_TVUSB_WRITE_VENDOR_MEMORY, RECORD, 0, TS, AsHandled, HandleWriteVendorMemory},
    {IOCTL_TVUSB_GET_CONTROL_PIPE, RECORD_OUT, 4, UN, AsHandled, HandleGetControlPipe},
    {IOCTL_TVUSB_LIST_KEYBOARDS, RECORD_OUT, 1020, UN, AsHandled, HandleListKeyboards},
    {IOCTL_TVUSB_REGISTER_MACRO_EVENT, RECORD, 0, TS, AsHandled, HandleRegisterMacroEvent},
    {IOCTL_TVUSB_RELEASE_MACRO_EVENT, RECORD, 0, TS, AsHandled, HandleReleaseMacroEvent},
    {IOCTL_TVUSB_GET_MACRO_COUNT, RECORD_OUT, 4, UN, PlainFailure, HandleGetMacroCount},
    {IOCTL_TVUSB_CLEAR_MACRO, RECORD, 0, UN, AsHandled, HandleClearMacro},
    {IOCTL_TVUSB_PEEK_MACRO, RECORD_OUT, 16, UN, AsHandled, HandlePeekMacro},
    {IOCTL_TVUSB_TAKE_MACRO, RECORD_OUT, 16, UN, AsHandled, HandleTakeMacro},
    {IOCTL_TVUSB_TAKE_MANY_MACRO, RECORD_OUT, 16, UN, AsHandled, HandleTakeManyMacro},
    {IOCTL_TVUSB_GET_MACRO_MODE, RECORD_OUT, 4, UN, AsHandled, HandleGetMacroMode},
    {IOCTL_TVUSB_RELOAD_MACROS, RECORD, 0, UN, AsHandled, HandleReloadMacros},
    {IOCTL_TVUSB_GET_CAPTURE, OUT, 4, UN, AsHandled, HandleGetCapture},
    {IOCTL_TVUSB_SET_CAPTURE, IN, 4, UN, PlainFailure, HandleSetCapture},
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
