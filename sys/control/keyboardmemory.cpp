// keyboardmemory.cpp - the keyboard's own memory: three families of access for different firmware, each a read and a
// write.
//
//               read: the address goes            write: the address goes
//   EEPROM      low byte into wIndex              before the data          HID reports of interface 1
//   descriptor  into wIndex                       before the data          descriptor index 0xFD
//   vendor      into wIndex                       into wIndex              vendor requests
//
// Runs in the application's thread at PASSIVE_LEVEL; two threads may use one keyboard at once. What a
// keyboard leaves out of an answer is zero.
#include "control/control.h"

#include "log/log.h"
#include "usb/submit.h"

namespace
{
enum Direction : UCHAR { Reads, Writes };
// Where the 16-bit address goes.
enum AddressPlace : UCHAR { IntoIndex, LowByteIntoIndex, BeforeData };
// What a length of 0 does.
enum EmptyAccess : UCHAR { SendsEmpty, DoesNothing, AsksForSize };

// One of the six routines.
struct MemoryAccessKind {
    Direction direction;
    SetupRequest request;
    AddressPlace place;
    EmptyAccess empty;
    const char* pszSizeTitle = nullptr; // of the log's dump when it asks for the size
};

enum : USHORT {
    MEMORY_DESCRIPTOR = USB_DEVICE_DESCRIPTOR_TYPE << 8 | 0xFD,
    EEPROM_REPORT = HID_OUTPUT_REPORT | 3,
    EEPROM_INTERFACE = 1,
    REPORT_DESCRIPTOR = 0x22 << 8,
};
enum : ULONG {
    PREFIX_BYTES = 2, // the address before the data
    REPORT_DESCRIPTOR_BYTES = 77,
    REPORT_SIZE_AT = 71, // bits
    REPORT_COUNT_AT = 73,
};
enum : UCHAR { UNREAD = 0x75 }; // what a read's buffer holds before the transfer

constexpr ULONG FROM_KEYBOARD = USBD_TRANSFER_DIRECTION_IN;
constexpr ULONG TO_KEYBOARD = USBD_TRANSFER_DIRECTION_OUT;
constexpr USHORT GET_DESCRIPTOR = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
constexpr USHORT SET_DESCRIPTOR = URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE;
constexpr USHORT CLASS_REQUEST = URB_FUNCTION_CLASS_INTERFACE;
constexpr USHORT VENDOR_REQUEST = URB_FUNCTION_VENDOR_DEVICE;

const MemoryAccessKind ReadEEpromKind = {
    Reads,
    {CLASS_REQUEST, HID_GET_REPORT, FROM_KEYBOARD, EEPROM_REPORT, EEPROM_INTERFACE},
    LowByteIntoIndex,
    AsksForSize,
    "(ReadQuintoraEEprom) pUchar"};
const MemoryAccessKind WriteEEpromKind = {
    Writes,
    {CLASS_REQUEST, HID_SET_REPORT, TO_KEYBOARD, EEPROM_REPORT, EEPROM_INTERFACE},
    BeforeData,
    AsksForSize,
    "(WriteQuintoraEEprom) pTmp"};
const MemoryAccessKind ReadDescriptorKind = {
    Reads, {GET_DESCRIPTOR, 0, 0, MEMORY_DESCRIPTOR, 0}, IntoIndex, DoesNothing};
const MemoryAccessKind WriteDescriptorKind = {
    Writes, {SET_DESCRIPTOR, 0, 0, MEMORY_DESCRIPTOR, 0}, BeforeData, DoesNothing};
const MemoryAccessKind ReadVendorKind = {
    Reads, {VENDOR_REQUEST, HID_GET_REPORT, FROM_KEYBOARD, HID_OUTPUT_REPORT, 0}, IntoIndex, SendsEmpty};
const MemoryAccessKind WriteVendorKind = {
    Writes, {VENDOR_REQUEST, HID_SET_REPORT, TO_KEYBOARD, HID_OUTPUT_REPORT, 0}, IntoIndex, SendsEmpty};

SetupRequest AddressedRequest(const MemoryAccessKind& kind, USHORT usAddress)
{
    SetupRequest request = kind.request;
    if (kind.place == IntoIndex) {
        request.usIndex = usAddress;
    } else if (kind.place == LowByteIntoIndex) {
        request.usIndex = static_cast<USHORT>(usAddress << 8 | request.usIndex);
    }
    return request;
}

PUCHAR AllocateTransfer(ULONG ulBytes)
{
    return static_cast<PUCHAR>(AllocateZeroed(NonPagedPoolNx, ulBytes));
}

void FreeTransfer(PUCHAR pBuffer)
{
    ExFreePoolWithTag(pBuffer, POOL_TAG);
}

// The keyboard's report descriptor tells how large its EEPROM report is, in bits a field and fields.
// IRQL = PASSIVE. Fails: no memory, or as ReadFromKeyboard; *pulSize untouched.
NTSTATUS QuerySize(PDEVICE_OBJECT device, const char* pszTitle, PULONG pulSize)
{
    static const SetupRequest Request = {URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE, 0, FROM_KEYBOARD,
                                         REPORT_DESCRIPTOR, EEPROM_INTERFACE};
    PUCHAR pBuffer = AllocateTransfer(REPORT_DESCRIPTOR_BYTES);
    if (pBuffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlFillMemory(pBuffer, REPORT_DESCRIPTOR_BYTES, UNREAD);
    NTSTATUS status = ReadFromKeyboard(device, Request, pBuffer, REPORT_DESCRIPTOR_BYTES);
    if (NT_SUCCESS(status)) {
        LogHexDump(pszTitle, REPORT_DESCRIPTOR_BYTES, pBuffer);
        *pulSize = static_cast<ULONG>(pBuffer[REPORT_COUNT_AT] * pBuffer[REPORT_SIZE_AT] / 8);
    }
    FreeTransfer(pBuffer);
    return status;
}

// IRQL = PASSIVE. Fails: no memory, or as ReadFromKeyboard; pOut untouched.
NTSTATUS ReadData(PDEVICE_OBJECT device, const SetupRequest& request, USHORT usLength, PUCHAR pOut,
                  PULONG pulLength)
{
    if (usLength == 0) {
        return ReadFromKeyboard(device, request, nullptr, 0);
    }
    PUCHAR pBuffer = AllocateTransfer(usLength);
    if (pBuffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlFillMemory(pBuffer, usLength, UNREAD);
    NTSTATUS status = ReadFromKeyboard(device, request, pBuffer, usLength);
    if (NT_SUCCESS(status)) {
        RtlCopyMemory(pOut, pBuffer, usLength);
        *pulLength = usLength;
    }
    FreeTransfer(pBuffer);
    return status;
}

// IRQL = PASSIVE. Fails: no memory, or as WriteToKeyboard.
NTSTATUS WriteData(PDEVICE_OBJECT device, const MemoryAccessKind& kind, USHORT usAddress, USHORT usLength,
                   const UCHAR* pData)
{
    PUCHAR pBuffer = AllocateTransfer(PREFIX_BYTES + usLength);
    if (pBuffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ULONG ulPrefix = 0;
    if (kind.place == BeforeData) {
        ulPrefix = PREFIX_BYTES;
        pBuffer[0] = static_cast<UCHAR>(usAddress);
        pBuffer[1] = static_cast<UCHAR>(usAddress >> 8);
    }
    if (usLength != 0) {
        RtlCopyMemory(pBuffer + ulPrefix, pData, usLength);
    }
    NTSTATUS status =
        WriteToKeyboard(device, AddressedRequest(kind, usAddress), pBuffer, ulPrefix + usLength);
    FreeTransfer(pBuffer);
    return status;
}

// One access of any kind; pOut is for a read, pData for a write. *pulLength is what was read, or the size.
// IRQL = PASSIVE. Fails: unknown index, no memory, or as the transfer; *pulLength 0.
NTSTATUS AccessMemory(const MemoryAccessKind& kind, ULONG ulDeviceIndex, USHORT usAddress, USHORT usLength,
                      PUCHAR pOut, const UCHAR* pData, PULONG pulLength)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    *pulLength = 0;
    const KeyboardReference keyboard(ulDeviceIndex);
    if (!keyboard.IsHeld()) {
        return keyboard.Status();
    }
    if (usLength == 0 && kind.empty == AsksForSize) {
        return QuerySize(keyboard.Device(), kind.pszSizeTitle, pulLength);
    }
    if (usLength == 0 ? kind.empty == DoesNothing : pOut == nullptr && pData == nullptr) {
        return STATUS_SUCCESS; // nothing to send, or nowhere to put it
    }
    if (kind.direction == Writes) {
        return WriteData(keyboard.Device(), kind, usAddress, usLength, pData);
    }
    return ReadData(keyboard.Device(), AddressedRequest(kind, usAddress), usLength, pOut, pulLength);
}
} // namespace

NTSTATUS ReadQuintoraEEprom(ULONG ulDeviceIndex, USHORT usAddress, USHORT usLength, PUCHAR pOut,
                            PULONG pulLength)
{
    return AccessMemory(ReadEEpromKind, ulDeviceIndex, usAddress, usLength, pOut, nullptr, pulLength);
}

NTSTATUS WriteQuintoraEEprom(ULONG ulDeviceIndex, USHORT usAddress, USHORT usLength, const UCHAR* pData,
                             PULONG pulLength)
{
    return AccessMemory(WriteEEpromKind, ulDeviceIndex, usAddress, usLength, nullptr, pData, pulLength);
}

NTSTATUS ReadDescriptorMemory(ULONG ulDeviceIndex, USHORT usAddress, USHORT usLength, PUCHAR pOut,
                              PULONG pulLength)
{
    return AccessMemory(ReadDescriptorKind, ulDeviceIndex, usAddress, usLength, pOut, nullptr, pulLength);
}

NTSTATUS WriteDescriptorMemory(ULONG ulDeviceIndex, USHORT usAddress, USHORT usLength, const UCHAR* pData,
                               PULONG pulLength)
{
    return AccessMemory(WriteDescriptorKind, ulDeviceIndex, usAddress, usLength, nullptr, pData, pulLength);
}

NTSTATUS ReadVendorMemory(ULONG ulDeviceIndex, USHORT usAddress, USHORT usLength, PUCHAR pOut,
                          PULONG pulLength)
{
    return AccessMemory(ReadVendorKind, ulDeviceIndex, usAddress, usLength, pOut, nullptr, pulLength);
}

NTSTATUS WriteVendorMemory(ULONG ulDeviceIndex, USHORT usAddress, USHORT usLength, const UCHAR* pData,
                           PULONG pulLength)
{
    return AccessMemory(WriteVendorKind, ulDeviceIndex, usAddress, usLength, nullptr, pData, pulLength);
}
