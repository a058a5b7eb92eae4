// The answers of a keyboard's control pipe, out of its descriptor tables.
//
// An answer is cut to the length asked for, as on the wire. What a keyboard does not know it stalls, which
// the stack above sees as STATUS_UNSUCCESSFUL.
#include "device.h"

NTSTATUS Answer(const UCHAR* pAnswer, ULONG ulAnswer, PUCHAR pBuffer, PULONG pulLength)
{
    if (*pulLength > ulAnswer) {
        *pulLength = ulAnswer;
    }
    if (*pulLength != 0) {
        RtlCopyMemory(pBuffer, pAnswer, *pulLength);
    }
    return STATUS_SUCCESS;
}

NTSTATUS Stall(PULONG pulLength)
{
    *pulLength = 0;
    return STATUS_UNSUCCESSFUL;
}

// The first descriptor of a type inside the configuration; null when there is none. IRQL any.
static const UCHAR* FindInConfiguration(const EmuDescriptors* pDescriptors, UCHAR ucType)
{
    const UCHAR* pAt = pDescriptors->pConfiguration;
    const UCHAR* pEnd = pAt + pDescriptors->ulConfiguration;
    for (; pEnd - pAt >= 2 && pAt[0] >= 2 && pAt[0] <= pEnd - pAt; pAt += pAt[0]) {
        if (pAt[1] == ucType) {
            return pAt;
        }
    }
    return nullptr;
}

const UCHAR* FindEndpoint(const EmuDescriptors* pDescriptors)
{
    return FindInConfiguration(pDescriptors, USB_ENDPOINT_DESCRIPTOR_TYPE);
}

static NTSTATUS AnswerDescriptor(const EmuDescriptors* pDescriptors, const UCHAR* pSetup, PUCHAR pBuffer,
                                 PULONG pulLength)
{
    const UCHAR* pHid;
    switch (pSetup[3]) {
    case USB_DEVICE_DESCRIPTOR_TYPE:
        return Answer(pDescriptors->pDevice, pDescriptors->pDevice[0], pBuffer, pulLength);
    case USB_CONFIGURATION_DESCRIPTOR_TYPE:
        return Answer(pDescriptors->pConfiguration, pDescriptors->ulConfiguration, pBuffer, pulLength);
    case USB_STRING_DESCRIPTOR_TYPE:
        return AnswerString(pDescriptors, pSetup[2], (USHORT)(pSetup[4] | pSetup[5] << 8), pBuffer,
                            pulLength);
    case 0x21: // HID descriptor
        pHid = FindInConfiguration(pDescriptors, pSetup[3]);
        return pHid ? Answer(pHid, pHid[0], pBuffer, pulLength) : Stall(pulLength);
    case 0x22: // report descriptor
        return Answer(pDescriptors->pReport, pDescriptors->ulReport, pBuffer, pulLength);
    default:
        return Stall(pulLength);
    }
}

NTSTATUS AnswerControl(KeyboardDevice* pKeyboard, const UCHAR* pSetup, PUCHAR pBuffer, PULONG pulLength)
{
    ULONG ulAsked = (ULONG)(pSetup[6] | pSetup[7] << 8);
    if (*pulLength > ulAsked) {
        *pulLength = ulAsked;
    }
    NTSTATUS status = AnswerMemory(pKeyboard, pSetup, pBuffer, pulLength);
    if (status != STATUS_NOT_SUPPORTED) {
        return status;
    }
    switch (pSetup[0]) {
    case 0x80: // standard, from the device
    case 0x81: // standard, from the interface
        if (pSetup[1] == 6) {
            return AnswerDescriptor(pKeyboard->pDescriptors, pSetup, pBuffer, pulLength);
        }
        return Stall(pulLength);
    case 0x00: // SET_ADDRESS, SET_CONFIGURATION
        return pSetup[1] == 5 || pSetup[1] == 9 ? STATUS_SUCCESS : Stall(pulLength);
    case 0x21: // SET_REPORT, SET_IDLE, SET_PROTOCOL
        return pSetup[1] >= 9 && pSetup[1] <= 11 ? STATUS_SUCCESS : Stall(pulLength);
    case 0x41: // key commands, which only the observer sees
        return pSetup[1] == 1 || pSetup[1] == 3 ? STATUS_SUCCESS : Stall(pulLength);
    default:
        return Stall(pulLength);
    }
}
