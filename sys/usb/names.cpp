// names.cpp - names of URB functions, descriptor types, standard requests and interface protocols, for trace points.
#include "usb/submit.h"

namespace
{
const char OutOfBounds[] = "String is out of bounds";

// By URB function code, 0x00 to 0x2A.
const char* const UrbFunctionNames[43] = {
    "URB_FUNCTION_SELECT_CONFIGURATION",
    "URB_FUNCTION_SELECT_INTERFACE",
    "URB_FUNCTION_ABORT_PIPE",
    "URB_FUNCTION_TAKE_FRAME_LENGTH_CONTROL",
    "URB_FUNCTION_RELEASE_FRAME_LENGTH_CONTROL",
    "URB_FUNCTION_GET_FRAME_LENGTH",
    "URB_FUNCTION_SET_FRAME_LENGTH",
    "URB_FUNCTION_GET_CURRENT_FRAME_NUMBER",
    "URB_FUNCTION_CONTROL_TRANSFER",
    "URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER",
    "URB_FUNCTION_ISOCH_TRANSFER",
    "URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE",
    "URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE",
    "URB_FUNCTION_SET_FEATURE_TO_DEVICE",
    "URB_FUNCTION_SET_FEATURE_TO_INTERFACE",
    "URB_FUNCTION_SET_FEATURE_TO_ENDPOINT",
    "URB_FUNCTION_CLEAR_FEATURE_TO_DEVICE",
    "URB_FUNCTION_CLEAR_FEATURE_TO_INTERFACE",
    "URB_FUNCTION_CLEAR_FEATURE_TO_ENDPOINT",
    "URB_FUNCTION_GET_STATUS_FROM_DEVICE",
    "URB_FUNCTION_GET_STATUS_FROM_INTERFACE",
    "URB_FUNCTION_GET_STATUS_FROM_ENDPOINT",
    "URB_FUNCTION_RESERVED_0X0016",
    "URB_FUNCTION_VENDOR_DEVICE",
    "URB_FUNCTION_VENDOR_INTERFACE",
    "URB_FUNCTION_VENDOR_ENDPOINT",
    "URB_FUNCTION_CLASS_DEVICE",
    "URB_FUNCTION_CLASS_INTERFACE",
    "URB_FUNCTION_CLASS_ENDPOINT",
    "URB_FUNCTION_RESERVE_0X001D",
    "URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL",
    "URB_FUNCTION_CLASS_OTHER",
    "URB_FUNCTION_VENDOR_OTHER",
    "URB_FUNCTION_GET_STATUS_FROM_OTHER",
    "URB_FUNCTION_CLEAR_FEATURE_TO_OTHER",
    "URB_FUNCTION_SET_FEATURE_TO_OTHER",
    "URB_FUNCTION_GET_DESCRIPTOR_FROM_ENDPOINT",
    "URB_FUNCTION_SET_DESCRIPTOR_TO_ENDPOINT",
    "URB_FUNCTION_GET_CONFIGURATION",
    "URB_FUNCTION_GET_INTERFACE",
    "URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE",
    "URB_FUNCTION_SET_DESCRIPTOR_TO_INTERFACE",
    "URB_FUNCTION_GET_MS_FEATURE_DESCRIPTOR",
};

// By bRequest, 0 to 12.
const char* const StandardRequestNames[13] = {
    "GET_STATUS",    "CLEAR_FEATURE",  "Reserved",       "SET_FEATURE",       "Reserved",
    "SET_ADDRESS",   "GET_DESCRIPTOR", "SET_DESCRIPTOR", "GET_CONFIGURATION", "SET_CONFIGURATION",
    "GET_INTERFACE", "SET_INTERFACE",  "SYNCH_FRAME",
};

// By bDescriptorType, the first run and the class descriptors from 33 on.
const char* const DescriptorTypeNames[9] = {
    "INVALID descriptor", "Device descriptor",         "Configuration descriptor",
    "String descriptor",  "Interface descriptor",      "Endpoint descriptor",
    "Device qualifier",   "Other speed configuration", "Interface power",
};
const char* const ClassDescriptorNames[3] = {
    "HID descriptor (class)",
    "Report descriptor (class)",
    "Physical descriptor (class)",
};
} // namespace

const char* UrbFunctionName(USHORT usFunction)
{
    return usFunction < ARRAYSIZE(UrbFunctionNames) ? UrbFunctionNames[usFunction] : OutOfBounds;
}

const char* StandardRequestName(UCHAR ucRequest)
{
    return ucRequest < ARRAYSIZE(StandardRequestNames) ? StandardRequestNames[ucRequest] : OutOfBounds;
}

const char* DescriptorTypeName(UCHAR ucType)
{
    if (ucType >= 36) {
        return OutOfBounds;
    }
    if (ucType >= 33) {
        return ClassDescriptorNames[ucType - 33];
    }
    return ucType < ARRAYSIZE(DescriptorTypeNames) ? DescriptorTypeNames[ucType] : "unknown descriptor";
}

const char* InterfaceProtocolName(UCHAR ucProtocol)
{
    static const char* const Names[3] = {"None", "Keyboard", "Mouse"};
    return ucProtocol < ARRAYSIZE(Names) ? Names[ucProtocol] : "Reserved";
}
