// windows_errors.cpp - the errors by their numbers, as this is tried on every system.
#include "client/windows_errors.h"

#include "client/status.h"
#include "sys/control/requests.h"

namespace tvusb
{
namespace
{
struct ErrorRow {
    uint32_t ulError;
    uint32_t ulStatus;
};

const ErrorRow ErrorRows[] = {
    {1, Status::InvalidDeviceRequest},     // ERROR_INVALID_FUNCTION
    {2, Status::NameNotFound},             // ERROR_FILE_NOT_FOUND
    {5, Status::AccessDenied},             // ERROR_ACCESS_DENIED
    {6, Status::InvalidHandle},            // ERROR_INVALID_HANDLE
    {8, Status::InsufficientResources},    // ERROR_NOT_ENOUGH_MEMORY
    {21, 0xC00000A3},                      // ERROR_NOT_READY
    {22, 0xC0000184},                      // ERROR_BAD_COMMAND: the device is in no state for it
    {23, Status::DeviceDataError},         // ERROR_CRC
    {31, Status::Unsuccessful},            // ERROR_GEN_FAILURE
    {50, 0xC00000BB},                      // ERROR_NOT_SUPPORTED
    {55, 0xC000000E},                      // ERROR_DEV_NOT_EXIST
    {87, Status::InvalidParameter},        // ERROR_INVALID_PARAMETER
    {121, 0xC00000B5},                     // ERROR_SEM_TIMEOUT
    {122, Status::BufferTooSmall},         // ERROR_INSUFFICIENT_BUFFER
    {170, 0x80000011},                     // ERROR_BUSY
    {303, Status::DeletePending},          // ERROR_DELETE_PENDING
    {433, 0xC000000E},                     // ERROR_NO_SUCH_DEVICE
    {995, Status::Cancelled},              // ERROR_OPERATION_ABORTED
    {1117, 0xC0000185},                    // ERROR_IO_DEVICE
    {1167, 0xC000009D},                    // ERROR_DEVICE_NOT_CONNECTED
    {1450, Status::InsufficientResources}, // ERROR_NO_SYSTEM_RESOURCES
    {1617, 0xC00002B6},                    // ERROR_DEVICE_REMOVED
};

bool TakesEvent(uint32_t ulRequest)
{
    return ulRequest == IOCTL_TVUSB_REGISTER_NOTIFY_EVENT || ulRequest == IOCTL_TVUSB_REGISTER_MACRO_EVENT ||
           ulRequest == IOCTL_TVUSB_REGISTER_APPLICATION_EVENT;
}

// Between the last keyboard's removal and the last handle's end the control device has its name no more, or is
// there and refuses.
bool IsGone(uint32_t ulStatus)
{
    return ulStatus == 0xC000000E || ulStatus == 0xC000009D || ulStatus == Status::DeletePending;
}
} // namespace

// The driver denies access to an event object only, and the system to the opening: elsewhere the error that stands
// for both tells of a keyboard that is being removed.
uint32_t StatusOfError(uint32_t ulError, uint32_t ulRequest)
{
    for (const ErrorRow& row : ErrorRows) {
        if (row.ulError != ulError) {
            continue;
        }
        if (ulRequest == 0) {
            return IsGone(row.ulStatus) ? uint32_t(Status::NameNotFound) : row.ulStatus;
        }
        bool bDenied = row.ulStatus == Status::AccessDenied && !TakesEvent(ulRequest);
        return bDenied ? uint32_t(Status::DeletePending) : row.ulStatus;
    }
    return 0xC0070000 | (ulError & 0xFFFF);
}
} // namespace tvusb
