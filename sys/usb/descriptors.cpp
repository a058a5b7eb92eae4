// descriptors.cpp - what kind of keyboard is it? Learnt from the descriptors that the HID stack asks for.
//
//   device descriptor                      vendor and product
//   configuration, interface descriptor    the interface's class triple ──► KbdType, once
//
// Descriptor layouts are those of USB 2.0 chapter 9 and HID 1.11; each field is read only when it lies inside
// the transfer, whatever the descriptor says of its length. A descriptor counts as one of these types only
// when its bLength is that type's. Runs on the way down and completed; only completed ones decide.
#include "usb/usb.h"

#include "ground/sums.h"
#include "log/events.h"
#include "log/log.h"
#include "macro/fields.h"
#include "macro/macro.h"
#include "usb/roadfields.h"

namespace
{
enum : UCHAR {
    DEVICE_DESCRIPTOR = 1,
    CONFIGURATION_DESCRIPTOR = 2,
    INTERFACE_DESCRIPTOR = 4,
    HID_DESCRIPTOR = 0x21
};
enum : UCHAR { DEVICE_LENGTH = 18, CONFIGURATION_LENGTH = 9, INTERFACE_LENGTH = 9, HID_LENGTH = 9 };
enum : USHORT { MAKER_VENDOR_ID = 0x7A3C, CHIC_PRODUCT_ID = 0x0065 };
enum : ULONG { FIRST_EXTENDED_HOTKEY = 0x1000000 };

USHORT WordAt(const UCHAR* pBuf, ULONG ulOffset)
{
    return static_cast<USHORT>(pBuf[ulOffset] | pBuf[ulOffset + 1] << 8);
}

// The type is set once; who decides it first also says whether the keyboard takes part in the macro mode.
void DecideKbdType(PDEVICE_OBJECT device, ULONG ulKbdType)
{
    ULONG ulUnknown = UnknownKbdType;
    if (!CompareExchangeShared(FieldsOf<FrameFields>(device).KbdType, ulUnknown, ulKbdType)) {
        return;
    }
    ULONG ulHotkey;
    do { // once more when the settings were read anew meanwhile
        ulHotkey = ReadShared(SettingsOfMacro.ulKorvexHotkey);
        bool bExtendedHotkey = ulHotkey >= FIRST_EXTENDED_HOTKEY;
        if (ulKbdType == NORMALKbdType) {
            SetKorvexKeyboard(device, bExtendedHotkey ? 0 : 1);
        } else if (ulKbdType == POWERKbdType) {
            SetKorvexKeyboard(device, bExtendedHotkey ? 1 : 0);
        }
    } while (ulHotkey != ReadShared(SettingsOfMacro.ulKorvexHotkey));
}

void StoreTriple(DeviceContext* pContext, const UCHAR* pTriple)
{
    RoadFields& road = FieldsOf<RoadFields>(pContext);
    WriteShared(road.ucInterfaceClass, pTriple[0]);
    WriteShared(road.ucInterfaceSubClass, pTriple[1]);
    WriteShared(road.ucInterfaceProtocol, pTriple[2]);
}

bool IsTriple(const UCHAR* pTriple, UCHAR ucClass, UCHAR ucSubClass, UCHAR ucProtocol)
{
    return pTriple[0] == ucClass && pTriple[1] == ucSubClass && pTriple[2] == ucProtocol;
}

// A 3/1/2 interface belongs to one of the two controllers, which vendor and product tell apart.
ULONG ExtendedKbdType(DeviceContext* pContext)
{
    RoadFields& road = FieldsOf<RoadFields>(pContext);
    if (ReadShared(road.usVendorID) == MAKER_VENDOR_ID && ReadShared(road.usProductID) == CHIC_PRODUCT_ID) {
        LogPrintf(LOG_DETAIL, 1, "(DiagDescriptor)  setting KbdType = ChicEXTENDEDKbdType");
        return ChicEXTENDEDKbdType;
    }
    LogPrintf(LOG_DETAIL, 1, "(DiagDescriptor)  setting KbdType = JaalaaEXTENDEDKbdType");
    return JaalaaEXTENDEDKbdType;
}

ULONG KbdTypeOf(PDEVICE_OBJECT device, const UCHAR* pTriple, bool bInConfiguration)
{
    if (IsTriple(pTriple, 3, 1, 1)) {
        return NORMALKbdType;
    }
    if (IsTriple(pTriple, 3, 0, 0)) {
        return POWERKbdType;
    }
    if (bInConfiguration && IsTriple(pTriple, 3, 1, 2)) {
        return ExtendedKbdType(FilterContextOf(device));
    }
    return OTHERKbdType;
}

void LearnInterface(PDEVICE_OBJECT device, const UCHAR* pTriple, bool bInConfiguration)
{
    DeviceContext* pContext = FilterContextOf(device);
    FrameFields& frame = FieldsOf<FrameFields>(pContext);
    Trace(Interface, IndexOf(device), pTriple[0], pTriple[1], InterfaceProtocolName(pTriple[2]));
    StoreTriple(pContext, pTriple);
    if (ReadShared(frame.KbdType) == UnknownKbdType) {
        DecideKbdType(device, KbdTypeOf(device, pTriple, bInConfiguration));
    }
}

void DiagDeviceDescriptor(DeviceContext* pContext, const UCHAR* pBuf, ULONG ulLen)
{
    RoadFields& road = FieldsOf<RoadFields>(pContext);
    if (ulLen >= 6) {
        WriteShared(road.ucDeviceClass, pBuf[4]);
        WriteShared(road.ucDeviceSubClass, pBuf[5]);
    }
    if (ulLen >= 12) {
        LogPrintf(LOG_DETAIL, 1, "(DiagDescriptor) Save Product and Device ID");
        WriteShared(road.usVendorID, WordAt(pBuf, 8));
        WriteShared(road.usProductID, WordAt(pBuf, 10));
    }
}

// The HID descriptor behind the interface names class descriptors, which are not parsed.
void DiagHidDescriptor(const UCHAR* pBuf, ULONG ulLen, USHORT usTotalLength)
{
    if (usTotalLength < 19 || ulLen < 24 || pBuf[18] != HID_LENGTH || pBuf[19] != HID_DESCRIPTOR) {
        return;
    }
    UCHAR ucDescriptors = pBuf[23];
    Trace(HidDescriptor, WordAt(pBuf, 20), pBuf[22], ucDescriptors);
    for (ULONG i = 0; i < ucDescriptors && 24 + 3 * i + 3 <= ulLen; i++) {
        Trace(HidClassDescriptor, DescriptorTypeName(pBuf[24 + 3 * i]), WordAt(pBuf, 25 + 3 * i));
        LogPrintf(LOG_DETAIL, 1, "(DiagDescriptor) report Descriptor Data Removed because of bluescreen");
    }
}

void DiagConfigurationDescriptor(PDEVICE_OBJECT device, const UCHAR* pBuf, ULONG ulLen, UCHAR ucCompleted)
{
    if (ulLen < 4 || WordAt(pBuf, 2) <= CONFIGURATION_LENGTH) {
        return;
    }
    USHORT usTotalLength = WordAt(pBuf, 2);
    LogHexDump("(DiagDescriptor) complete buffer", LowerOf(usTotalLength, ulLen), pBuf);
    if (ulLen < 11 || pBuf[9] != INTERFACE_LENGTH || pBuf[10] != INTERFACE_DESCRIPTOR) {
        return;
    }
    if (ucCompleted && ulLen >= 17) {
        LearnInterface(device, pBuf + 14, true);
    }
    DiagHidDescriptor(pBuf, ulLen, usTotalLength);
}
} // namespace

// Accounts for the setup packet of a control transfer (8 bytes); nothing is stored.
// IRQL <= DISPATCH. Fails: never.
void DiagSetupPacket(const UCHAR* pPacket)
{
    static const char* const Types[4] = {"Standard", "Class", "Vendor", "Reserved"};
    static const char* const Recipients[4] = {"Device", "Interface", "Endpoint", "Other"};
    LogHexDump("(DiagSetupPacket) pPacket", 8, pPacket);
    UCHAR ucRecipient = pPacket[0] & 0x1F;
    Trace(SetupPacket, pPacket[0] & 0x80 ? "Device-to-host" : "Host-to-device", Types[(pPacket[0] >> 5) & 3],
          ucRecipient < 4 ? Recipients[ucRecipient] : "Reserved", StandardRequestName(pPacket[1]),
          WordAt(pPacket, 2), WordAt(pPacket, 4), WordAt(pPacket, 6));
}

// Learns from one descriptor. ucCompleted 1: the buffer holds the keyboard's answer.
// IRQL <= DISPATCH. Fails: never; what is cut or of another shape is dumped only.
void DiagDescriptor(PDEVICE_OBJECT device, const UCHAR* pBuf, ULONG ulLen, UCHAR ucCompleted)
{
    if (pBuf == nullptr) {
        return;
    }
    LogHexDump("(DiagDescriptor) pPacket", ulLen == 0 ? 0 : LowerOf(pBuf[0], ulLen), pBuf);
    if (ulLen < 2) {
        return;
    }
    Trace(Descriptor, IndexOf(device), DescriptorTypeName(pBuf[1]));
    UCHAR ucLength = pBuf[0];
    switch (pBuf[1]) {
    case DEVICE_DESCRIPTOR:
        if (ucLength == DEVICE_LENGTH) {
            DiagDeviceDescriptor(FilterContextOf(device), pBuf, ulLen);
        }
        break;
    case CONFIGURATION_DESCRIPTOR:
        if (ucLength == CONFIGURATION_LENGTH) {
            DiagConfigurationDescriptor(device, pBuf, ulLen, ucCompleted);
        }
        break;
    case INTERFACE_DESCRIPTOR:
        if (ucLength == INTERFACE_LENGTH && ucCompleted && ulLen >= 8) {
            LearnInterface(device, pBuf + 5, false);
        }
        break;
    default:
        break;
    }
}
