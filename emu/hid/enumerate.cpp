// What the HID stack asks a keyboard before it reads it, in the order in which the system does.
//
// device descriptor -> configuration descriptor's head -> configuration descriptor whole -> product string
// -> select configuration -> SET_IDLE -> report descriptor from the interface
#include "device.h"

enum { MaximumConfiguration = 512 };

static NTSTATUS GetDescriptor(HidDevice* pHid, USHORT usFunction, UCHAR ucType, UCHAR ucIndex,
                              USHORT usLanguage, PUCHAR pBuffer, PULONG pulLength)
{
    URB urb;
    RtlZeroMemory(&urb, sizeof urb);
    auto& request = urb.UrbControlDescriptorRequest;
    request.Hdr.Length = sizeof request;
    request.Hdr.Function = usFunction;
    request.TransferBufferLength = *pulLength;
    request.TransferBuffer = pBuffer;
    request.DescriptorType = ucType;
    request.Index = ucIndex;
    request.LanguageId = usLanguage;
    NTSTATUS status = SendUrb(pHid, &urb);
    if (*pulLength > request.TransferBufferLength) {
        *pulLength = request.TransferBufferLength;
    }
    return status;
}

static NTSTATUS FromDevice(HidDevice* pHid, UCHAR ucType, PUCHAR pBuffer, PULONG pulLength)
{
    return GetDescriptor(pHid, URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, ucType, 0, 0, pBuffer, pulLength);
}

// Asks for the languages, then for the product string; a keyboard without strings is none the worse.
static VOID ReadProduct(HidDevice* pHid, UCHAR ucIndex)
{
    UCHAR ucString[128] = {};
    ULONG ulLength = sizeof ucString;
    NTSTATUS status = GetDescriptor(pHid, URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, USB_STRING_DESCRIPTOR_TYPE,
                                    0, 0, ucString, &ulLength);
    if (ucIndex == 0 || !NT_SUCCESS(status) || ulLength < 4) {
        return;
    }
    USHORT usLanguage = (USHORT)(ucString[2] | ucString[3] << 8);
    ulLength = sizeof ucString;
    GetDescriptor(pHid, URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, USB_STRING_DESCRIPTOR_TYPE, ucIndex,
                  usLanguage, ucString, &ulLength);
}

// Takes the interface's number, the report descriptor's length and the endpoint's packet size out of the configuration
// descriptor.
static VOID ParseConfiguration(HidDevice* pHid, const UCHAR* pConfiguration, ULONG ulLength)
{
    pHid->ulPacketBytes = pHid->ulReportBytes = 0;
    pHid->ucInterface = 0;
    for (ULONG i = 0; i + 2 <= ulLength && pConfiguration[i] >= 2; i += pConfiguration[i]) {
        const UCHAR* pAt = pConfiguration + i;
        ULONG ulLeft = ulLength - i;
        if (pAt[1] == USB_INTERFACE_DESCRIPTOR_TYPE && ulLeft >= 9 && pHid->ulReportBytes == 0) {
            pHid->ucInterface = pAt[2];
        }
        if (pAt[1] == 0x21 && pAt[0] >= 9 && ulLeft >= 9 && pHid->ulReportBytes == 0) {
            pHid->ulReportBytes = (ULONG)(pAt[7] | pAt[8] << 8);
        }
        if (pAt[1] == USB_ENDPOINT_DESCRIPTOR_TYPE && ulLeft >= 7 && (pAt[2] & 0x80) &&
            pHid->ulPacketBytes == 0) {
            pHid->ulPacketBytes = (ULONG)(pAt[4] | pAt[5] << 8);
        }
    }
    if (pHid->ulPacketBytes > EmuHidMaximumPacket) {
        pHid->ulPacketBytes = EmuHidMaximumPacket;
    }
}

static NTSTATUS SelectConfiguration(HidDevice* pHid, PUCHAR pConfiguration)
{
    URB urb;
    RtlZeroMemory(&urb, sizeof urb);
    auto& request = urb.UrbSelectConfiguration;
    request.Hdr.Length = sizeof request;
    request.Hdr.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    request.ConfigurationDescriptor = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(pConfiguration);
    request.Interface.Length = sizeof request.Interface;
    request.Interface.NumberOfPipes = 1;
    NTSTATUS status = SendUrb(pHid, &urb);
    pHid->hPipe = NT_SUCCESS(status) ? request.Interface.Pipes[0].PipeHandle : nullptr;
    return status;
}

// SET_IDLE 0; a keyboard may stall it.
static VOID SetIdle(HidDevice* pHid)
{
    URB urb;
    RtlZeroMemory(&urb, sizeof urb);
    auto& request = urb.UrbControlVendorClassRequest;
    request.Hdr.Length = sizeof request;
    request.Hdr.Function = URB_FUNCTION_CLASS_INTERFACE;
    request.RequestTypeReservedBits = 0x22;
    request.Request = 10;
    request.Index = pHid->ucInterface;
    SendUrb(pHid, &urb);
}

static NTSTATUS ReadReportDescriptor(HidDevice* pHid, PUCHAR pBuffer, ULONG ulRoom)
{
    ULONG ulLength = pHid->ulReportBytes < ulRoom ? pHid->ulReportBytes : ulRoom;
    if (ulLength == 0) {
        return STATUS_SUCCESS;
    }
    return GetDescriptor(pHid, URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE, 0x22, 0, pHid->ucInterface,
                         pBuffer, &ulLength);
}

// The road itself, with `pBuffer` of MaximumConfiguration bytes for the answers.
static NTSTATUS Ask(HidDevice* pHid, PUCHAR pBuffer)
{
    UCHAR ucDevice[18] = {};
    ULONG ulLength = sizeof ucDevice;
    NTSTATUS status = FromDevice(pHid, USB_DEVICE_DESCRIPTOR_TYPE, ucDevice, &ulLength);
    if (!NT_SUCCESS(status) || ulLength < sizeof ucDevice) {
        return NT_SUCCESS(status) ? STATUS_UNSUCCESSFUL : status;
    }
    ulLength = 9;
    status = FromDevice(pHid, USB_CONFIGURATION_DESCRIPTOR_TYPE, pBuffer, &ulLength);
    if (!NT_SUCCESS(status) || ulLength < 9) {
        return NT_SUCCESS(status) ? STATUS_UNSUCCESSFUL : status;
    }
    ulLength = (ULONG)(pBuffer[2] | pBuffer[3] << 8);
    if (ulLength > MaximumConfiguration) {
        ulLength = MaximumConfiguration;
    }
    status = FromDevice(pHid, USB_CONFIGURATION_DESCRIPTOR_TYPE, pBuffer, &ulLength);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ParseConfiguration(pHid, pBuffer, ulLength);
    ReadProduct(pHid, ucDevice[15]);
    status = SelectConfiguration(pHid, pBuffer);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    SetIdle(pHid);
    return ReadReportDescriptor(pHid, pBuffer, MaximumConfiguration);
}

NTSTATUS Enumerate(HidDevice* pHid)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    auto pBuffer = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPoolNx, MaximumConfiguration, HidTag));
    if (!pBuffer) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(pBuffer, MaximumConfiguration);
    NTSTATUS status = Ask(pHid, pBuffer);
    ExFreePoolWithTag(pBuffer, HidTag);
    return status;
}
