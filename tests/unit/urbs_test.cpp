// urbs_test.cpp - what the driver learns from, dumps of and changes in the URBs that pass it, with buffers of
// exactly their lengths.
#include "machine.h"
#include "urbs.h"

#include <functional>

#include "control/control.h"
#include "hotkeys/hotkeys.h"
#include "usb/usb.h"

namespace
{
const EmuBytes SetLed = {0x21, 9, 0, 2, 0, 0, 1, 0};

// A control transfer with its setup packet; its data lie on the heap or are described by an MDL alone.
struct ControlUrb {
    ControlUrb(const EmuBytes& setup, const EmuBytes& data, ULONG ulFlags) : Buffer(new UCHAR[data.size()])
    {
        std::copy(data.begin(), data.end(), Buffer.get());
        Urb.UrbHeader.Function = URB_FUNCTION_CONTROL_TRANSFER;
        Urb.UrbHeader.Length = sizeof(Urb.UrbControlTransfer);
        auto& transfer = Urb.UrbControlTransfer;
        std::copy(setup.begin(), setup.end(), transfer.SetupPacket);
        transfer.TransferFlags = ulFlags;
        transfer.TransferBuffer = data.empty() ? nullptr : Buffer.get();
        transfer.TransferBufferLength = static_cast<ULONG>(data.size());
    }
    std::unique_ptr<UCHAR[]> Buffer;
    URB Urb = {};
};

// The same as a class request to the interface.
struct ClassUrb {
    ClassUrb(UCHAR ucReserved, UCHAR ucRequest, USHORT usValue, USHORT usIndex, ULONG ulFlags, ULONG ulBytes)
    {
        Urb.UrbHeader.Function = URB_FUNCTION_CLASS_INTERFACE;
        Urb.UrbHeader.Length = sizeof(Urb.UrbControlVendorClassRequest);
        auto& request = Urb.UrbControlVendorClassRequest;
        request.RequestTypeReservedBits = ucReserved;
        request.Request = ucRequest;
        request.Value = usValue;
        request.Index = usIndex;
        request.TransferFlags = ulFlags;
        request.TransferBuffer = ulBytes == 0 ? nullptr : Data;
        request.TransferBufferLength = ulBytes == 0 ? 1 : ulBytes;
    }
    UCHAR Data[2] = {0x03, 0};
    URB Urb = {};
};

struct OwnMdl {
    OwnMdl(PVOID pData, ULONG ulBytes) : pMdl(IoAllocateMdl(pData, ulBytes, FALSE, FALSE, nullptr)) {}
    ~OwnMdl() { IoFreeMdl(pMdl); }
    PMDL pMdl;
};
} // namespace

class Urbs : public KeyboardTest
{
protected:
    UCHAR Show(URB& urb, UCHAR ucCompletion)
    {
        FilterIrp request(Filter(), &urb);
        return ShowURBInfo(Filter(), request.pIrp, ucCompletion);
    }
    // The title of the one dump that stands beside those of the setup packet.
    static bool Dumped(const std::string& text, const std::string& title)
    {
        return KeptLog::Count(text, title) == 1;
    }
};

TEST_F(Urbs, ControlTransfersAreDumpedByWhatTheyAskFor)
{
    const struct {
        const char* pszWhat;
        EmuBytes Setup;
        const char* pszTitle;
    } cases[] = {
        {"report descriptor",
         {0x81, 6, 0, 0x22, 0, 0, 4, 0},
         "(ShowURBInfo) HID class report descriptor[00-03"},
        {"descriptor", {0x80, 6, 0, 1, 0, 0, 4, 0}, "(DiagDescriptor) pPacket[00-03"},
        {"set descriptor", {0x00, 7, 0, 3, 0, 0, 4, 0}, "(DiagDescriptor) pPacket[00-03"},
        {"alternate setting", {0x81, 10, 0, 0, 0, 0, 4, 0}, "(DiagDescriptor) pPacket[00-03"},
        {"idle rate", {0x21, 10 + 1, 0, 0, 0, 0, 4, 0}, "(ShowURBInfo) TransferBuffer[00-03"},
    };
    KeptLog log(LOG_TRAFFIC);
    for (const auto& row : cases) {
        for (UCHAR ucCompletion : {0, 1}) {
            ControlUrb control(row.Setup, {9, 3, 1, 1}, USBD_TRANSFER_DIRECTION_IN);
            EXPECT_EQ(URB_PASS, Show(control.Urb, ucCompletion));
            const std::string text = log.Take();
            EXPECT_TRUE(Dumped(text, "(DiagSetupPacket) pPacket[00-07")) << text;
            EXPECT_TRUE(Dumped(text, row.pszTitle)) << row.pszWhat << text;
        }
    }
    ControlUrb nothing({0x21, 11, 0, 0, 0, 0, 0, 0}, {}, 0);
    EXPECT_EQ(URB_PASS, Show(nothing.Urb, 1));
    EXPECT_EQ(1u, KeptLog::Count(log.Take(), " -- ")) << "the setup packet alone";
}

TEST_F(Urbs, OnlyAnLedReportThatWentOutIsRemembered)
{
    const struct {
        const char* pszWhat;
        EmuBytes Setup, Data;
        ULONG ulFlags;
        UCHAR ucCompletion;
        USHORT usReport, usFlags;
    } cases[] = {
        {"on its way down", SetLed, {1}, 0, 0, 0x2A, 0x2A},
        {"a read", SetLed, {1}, USBD_TRANSFER_DIRECTION_IN, 1, 0x2A, 0x2A},
        {"no byte", SetLed, {}, 0, 1, 0x2A, 0x2A},
        {"a feature report", {0x21, 9, 0, 3, 0, 0, 1, 0}, {1}, 0, 1, 0x2A, 0x2A},
        {"report 1", {0x21, 9, 1, 2, 0, 0, 1, 0}, {1}, 0, 1, 0x2A, 0x2A},
        {"interface 1", {0x21, 9, 0, 2, 1, 0, 1, 0}, {1}, 0, 1, 0x2A, 0x2A},
        {"Num Lock", SetLed, {1}, 0, 1, 1, 2},
        {"Caps Lock", SetLed, {2}, 0, 1, 2, 4},
        {"Scroll Lock", SetLed, {4}, 0, 1, 4, 1},
    };
    for (const auto& row : cases) {
        WriteShared(Context()->usLedReport, 0x2A);
        WriteShared(Context()->usLedFlags, 0x2A);
        ControlUrb control(row.Setup, row.Data, row.ulFlags);
        EXPECT_EQ(URB_PASS, Show(control.Urb, row.ucCompletion));
        EXPECT_EQ(row.usReport, Context()->usLedReport) << row.pszWhat;
        EXPECT_EQ(row.usFlags, Context()->usLedFlags) << row.pszWhat;
    }
    ControlUrb lengthless(SetLed, {1}, 0); // a buffer, but nothing was moved
    lengthless.Urb.UrbControlTransfer.TransferBufferLength = 0;
    WriteShared(Context()->usLedReport, 0x2A);
    Show(lengthless.Urb, 1);
    lengthless.Urb.UrbControlTransfer.TransferBufferLength = 1; // or behind an MDL
    lengthless.Urb.UrbControlTransfer.TransferBuffer = nullptr;
    Show(lengthless.Urb, 1);
    EXPECT_EQ(0x2A, Context()->usLedReport);
}

// A USB stack may complete the class request as it was sent; the LEDs are learnt from it all the same.
TEST_F(Urbs, AClassRequestThatComesBackTellsTheLeds)
{
    for (UCHAR ucCompletion : {0, 1}) {
        for (UCHAR ucRequest : {10, 9}) {
            WriteShared(Context()->usLedReport, 0x2A);
            ClassUrb request(0x22, ucRequest, 0x200, 0, 0, 1);
            EXPECT_EQ(URB_PASS, Show(request.Urb, ucCompletion));
            const bool bLearnt = ucCompletion == 1 && ucRequest == 9;
            EXPECT_EQ(bLearnt ? 3 : 0x2A, Context()->usLedReport);
        }
    }
    EXPECT_EQ(6, Context()->usLedFlags);
}

// Scroll Lock (4) shows the macro mode in the LED packet that goes down, and in nothing else.
TEST_F(Urbs, OnlyTheLedPacketShowsTheMacroMode)
{
    enum : ULONG { OUT = 0, IN = USBD_TRANSFER_DIRECTION_IN };
    const struct {
        const char* pszWhat;
        UCHAR ucReserved, ucRequest;
        USHORT usValue, usIndex;
        ULONG ulFlags, ulBytes;
        UCHAR ucCompletion, ucUnused, ucHotkey, ucMode, ucBefore, ucAfter;
    } cases[] = {
        {"mode on", 0x22, 9, 0x200, 0, OUT, 1, 0, 0, 1, 1, 0x03, 0x07},
        {"mode off", 0x22, 9, 0x200, 0, OUT, 1, 0, 0, 1, 0, 0x07, 0x03},
        {"completed", 0x22, 9, 0x200, 0, OUT, 1, 1, 0, 1, 1, 0x03, 0x03},
        {"LED not used", 0x22, 9, 0x200, 0, OUT, 1, 0, 1, 1, 1, 0x03, 0x03},
        {"no macro mode", 0x22, 9, 0x200, 0, OUT, 1, 0, 0, 0, 0, 0x07, 0x07},
        {"a read", 0x22, 9, 0x200, 0, IN, 1, 0, 0, 1, 1, 0x03, 0x03},
        {"no buffer", 0x22, 9, 0x200, 0, OUT, 0, 0, 0, 1, 1, 0x03, 0x03},
        {"two bytes", 0x22, 9, 0x200, 0, OUT, 2, 0, 0, 1, 1, 0x03, 0x03},
        {"other reserved bits", 0, 9, 0x200, 0, OUT, 1, 0, 0, 1, 1, 0x03, 0x03},
        {"idle rate", 0x22, 10, 0x200, 0, OUT, 1, 0, 0, 1, 1, 0x03, 0x03},
        {"feature report", 0x22, 9, 0x300, 0, OUT, 1, 0, 0, 1, 1, 0x03, 0x03},
        {"interface 1", 0x22, 9, 0x200, 1, OUT, 1, 0, 0, 1, 1, 0x03, 0x03},
    };
    for (const auto& row : cases) {
        Settings.ucKorvexLEDDisabled = row.ucUnused;
        Settings.ulKorvexHotkey = row.ucHotkey;
        Globals.ucKorvexMode = row.ucMode;
        ClassUrb request(row.ucReserved, row.ucRequest, row.usValue, row.usIndex, row.ulFlags, row.ulBytes);
        request.Data[0] = row.ucBefore;
        EXPECT_EQ(URB_PASS, Show(request.Urb, row.ucCompletion));
        EXPECT_EQ(row.ucAfter, request.Data[0]) << row.pszWhat;
    }
    Settings.ucKorvexLEDDisabled = Globals.ucKorvexMode = 0;
    Settings.ulKorvexHotkey = 0;
}

// Data that an MDL alone describes are dumped, never rewritten; what cannot be mapped is not dumped.
TEST_F(Urbs, DataBehindAnMdlAreOnlyDumped)
{
    const char* const pszDump = "(ShowURBInfo) TransferBufferMDL[00-07]: 00 00 39 ";
    UCHAR ucReport[8] = {0, 0, 0x39};
    KeyDefinition definition = Hotkey(9, 0, {});
    definition.ulType = 11;
    ASSERT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), &definition));
    ASSERT_EQ(STATUS_SUCCESS, Application->StartReportProcessing(Keyboard->Index()));
    InterruptUrb read(8);
    auto& transfer = read.Urb.UrbBulkOrInterruptTransfer;
    transfer.TransferBuffer = nullptr;
    ControlUrb control({0x21, 11, 0, 0, 0, 0, 8, 0}, {}, 0);
    ControlUrb descriptor({0, 0, 0, 0, 0, 0, 0, 0}, {}, USBD_TRANSFER_DIRECTION_IN);
    auto& asked = descriptor.Urb.UrbControlDescriptorRequest;
    asked.Hdr.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
    asked.Hdr.Length = sizeof(asked);
    for (USHORT usFlags : {MDL_PAGES_LOCKED, MDL_PAGES_LOCKED, MDL_SOURCE_IS_NONPAGED_POOL}) {
        OwnMdl mdl(ucReport, sizeof(ucReport));
        mdl.pMdl->MdlFlags = usFlags;
        if (usFlags == MDL_SOURCE_IS_NONPAGED_POOL) {
            MmBuildMdlForNonPagedPool(mdl.pMdl);
        }
        transfer.TransferBufferMDL = mdl.pMdl;
        control.Urb.UrbControlTransfer.TransferBufferMDL = mdl.pMdl;
        asked.TransferBufferMDL = mdl.pMdl;
        for (URB* pUrb : {&read.Urb, &control.Urb, &descriptor.Urb}) {
            for (UCHAR ucCompletion : {0, 1}) {
                EXPECT_EQ(URB_PASS, Show(*pUrb, ucCompletion)); // the log is off: not even mapped
                KeptLog log(LOG_TRAFFIC);
                EXPECT_EQ(URB_PASS, Show(*pUrb, ucCompletion));
                EXPECT_EQ(1u, KeptLog::Count(log.Take(), pszDump)) << ucCompletion;
            }
        }
    }
    EXPECT_EQ(0x39, ucReport[2]);
    OwnMdl unmappable(ucReport, sizeof(ucReport));
    unmappable.pMdl->MdlFlags = MDL_PAGES_LOCKED;
    KeptLog log(LOG_TRAFFIC);
    HostFailNth("map", 1);
    DumpMdl("t", unmappable.pMdl);
    HostFailNth(nullptr, 0);
    EXPECT_EQ("", log.Take());
}

TEST_F(Urbs, DescriptorsAreReadAsFarAsTheyCame)
{
    const EmuBytes device = {18, 1, 0, 2, 0xD1, 0xD2, 0, 8, 0x3C, 0x7A, 0x65, 0, 0, 1, 1, 2, 0, 1};
    DeviceContext* pContext = Context();
    for (ULONG ulLen : {0, 5, 6, 11, 12, 18}) {
        WriteShared(pContext->ucDeviceClass, 0);
        WriteShared(pContext->usVendorID, 0);
        std::unique_ptr<UCHAR[]> cut(new UCHAR[ulLen]);
        std::copy_n(device.begin(), ulLen, cut.get());
        DiagDescriptor(Filter(), cut.get(), ulLen, 1);
        EXPECT_EQ(ulLen >= 6 ? 0xD1 : 0, pContext->ucDeviceClass) << ulLen;
        EXPECT_EQ(ulLen >= 12 ? 0x7A3C : 0, pContext->usVendorID) << ulLen;
    }
    // One line for each class descriptor that the HID descriptor behind the interface names.
    const EmuBytes whole = {9, 2, 40, 0, 1, 1,    0,  0xA0, 50,   9, 4, 0,    0, 1, 3,    1, 1, 0, 9, 0x21,
                            0, 1, 0,  2, 0, 0x22, 63, 0,    0x23, 7, 0, 0x77, 0, 0, 0x77, 0, 0, 0, 0, 0};
    const struct {
        const char* pszWhat;
        ULONG ulLen, ulAt;
        UCHAR ucByte;
        size_t lines;
    } cases[] = {
        {"whole", 40, 23, 2, 2},
        {"names more than came", 29, 23, 255, 1},
        {"none came", 26, 23, 2, 0},
        {"no count", 23, 23, 2, 0},
        {"another type", 40, 19, 7, 0},
        {"another length", 40, 18, 7, 0},
        {"ends before", 40, 2, 18, 0},
        {"ends within", 40, 2, 19, 2},
        {"no interface", 40, 10, 5, 0},
        {"cut there", 10, 23, 2, 0},
        {"no total length", 3, 23, 2, 0},
        {"alone", 40, 2, 9, 0},
        {"longer than its kind", 40, 0, 10, 0},
    };
    KeptLog log(LOG_DETAIL);
    for (const auto& row : cases) {
        EmuBytes bytes = whole;
        bytes[row.ulAt] = row.ucByte;
        std::unique_ptr<UCHAR[]> cut(new UCHAR[row.ulLen]);
        std::copy_n(bytes.begin(), row.ulLen, cut.get());
        log.Take();
        DiagDescriptor(Filter(), cut.get(), row.ulLen, 1);
        EXPECT_EQ(row.lines, KeptLog::Count(log.Take(), "Data Removed because of bluescreen")) << row.pszWhat;
    }
    const EmuBytes interface = {9, 4, 0, 0, 1, 8, 6, 80, 0};
    WriteShared(pContext->KbdType, 0u);
    DiagDescriptor(Filter(), interface.data(), 7, 1); // its protocol did not come
    const EmuBytes longer = {10, 4, 0, 0, 1, 8, 6, 80, 0, 0};
    DiagDescriptor(Filter(), longer.data(), 10, 1);
    EXPECT_EQ(0u, pContext->KbdType);
}

// The URBs of the driver's own requests, as the device below gets them.
class OwnRequests : public Urbs
{
protected:
    void SetUp() override
    {
        Urbs::SetUp();
        uSucceed = ~0u;
        PDRIVER_INITIALIZE pEntry = [](PDRIVER_OBJECT pDriver, PUNICODE_STRING) -> NTSTATUS {
            pDriver->DriverUnload = [](PDRIVER_OBJECT) {};
            pDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = [](PDEVICE_OBJECT,
                                                                        PIRP pIrp) -> NTSTATUS {
                Take(*static_cast<PURB>(IoGetCurrentIrpStackLocation(pIrp)->Parameters.Others.Argument1));
                return CompleteRequest(pIrp, uSucceed-- == 0 ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS, 0);
            };
            return STATUS_SUCCESS;
        };
        ASSERT_EQ(STATUS_SUCCESS, HostLoadDriver(pEntry, L"Below", &pBelow));
        ASSERT_EQ(STATUS_SUCCESS,
                  IoCreateDevice(pBelow, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &pDevice));
        pLower = Context()->pLowerDevice;
        Context()->pLowerDevice = pDevice;
    }
    void TearDown() override
    {
        if (pDevice != nullptr) {
            Context()->pLowerDevice = pLower;
            IoDeleteDevice(pDevice);
            EXPECT_EQ(0u, HostUnloadDriver(pBelow));
        }
        Urbs::TearDown();
    }

    // Function, flags, reserved bits and request or index and type, value or language, index, length; then data.
    static void Take(const URB& urb)
    {
        const auto& request = urb.UrbControlVendorClassRequest; // buffer and length lie at one place in both
        const auto& descriptor = urb.UrbControlDescriptorRequest;
        const bool bDescriptor = urb.UrbHeader.Function == URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE ||
                                 urb.UrbHeader.Function == URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE ||
                                 urb.UrbHeader.Function == URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE;
        char text[96];
        if (bDescriptor) {
            snprintf(text, sizeof(text), "%02X %u | %02X.%u %04X | %u:", urb.UrbHeader.Function,
                     descriptor.Reserved0, descriptor.Index, descriptor.DescriptorType, descriptor.LanguageId,
                     request.TransferBufferLength);
        } else {
            snprintf(text, sizeof(text), "%02X %u | %02X %02X %04X %04X | %u:", urb.UrbHeader.Function,
                     request.TransferFlags, request.RequestTypeReservedBits, request.Request, request.Value,
                     request.Index, request.TransferBufferLength);
        }
        Told = text;
        const UCHAR* pData = static_cast<const UCHAR*>(request.TransferBuffer);
        EXPECT_EQ(request.TransferBufferLength == 0, pData == nullptr);
        for (ULONG i = 0; i < request.TransferBufferLength && i < 6; i++) {
            snprintf(text, sizeof(text), " %02X", pData[i]);
            Told += text;
        }
        EXPECT_EQ(136, urb.UrbHeader.Length);
        EXPECT_EQ(nullptr, request.TransferBufferMDL);
        EXPECT_EQ(nullptr, request.UrbLink);
        EXPECT_EQ(nullptr, descriptor.UrbLink);
    }

    static std::string Told;
    static unsigned uSucceed; // so many, then one fails
    PDRIVER_OBJECT pBelow = nullptr;
    PDEVICE_OBJECT pDevice = nullptr, pLower = nullptr;
};
std::string OwnRequests::Told;
unsigned OwnRequests::uSucceed;

TEST_F(OwnRequests, HaveTheirUrbs)
{
    const ULONG ulIndex = Keyboard->Index();
    UCHAR ucOut[256];
    const UCHAR ucData[3] = {0xA1, 0xA2, 0xA3};
    ULONG ulLength = 0;
    const auto command = [&](ULONG ulCommand, USHORT usScanCode) {
        KeyCommand record = {};
        record.ulCommand = ulCommand;
        record.usScanCode = usScanCode;
        return SendKeyCommand(ulIndex, &record);
    };
    const struct {
        const char* pszUrb;
        std::function<NTSTATUS()> Send;
    } cases[] = {
        {"0B 0 | 00.1 0000 | 18:", [&] { return GetDeviceDescriptor(ulIndex, ucOut); }},
        {"0B 0 | 02.3 0409 | 4: 00 00 00 00",
         [&] { return GetStringDescriptor(ulIndex, 2, 0x409, nullptr, 0, &ulLength); }},
        {"1B 0 | 22 09 0200 0000 | 1: 06", [&] { return SetKeyboardLeds(ulIndex, 5); }},
        {"18 0 | 22 03 003A 0000 | 0:", [&] { return command(1, 0x3B); }},
        {"18 0 | 22 01 0000 0000 | 0:", [&] { return command(2, 0x3B); }},
        {"1B 1 | 22 01 0203 3401 | 5: 75 75 75 75 75",
         [&] { return ReadQuintoraEEprom(ulIndex, 0x1234, 5, ucOut, &ulLength); }},
        {"1B 0 | 22 09 0203 0001 | 5: 34 12 A1 A2 A3",
         [&] { return WriteQuintoraEEprom(ulIndex, 0x1234, 3, ucData, &ulLength); }},
        {"28 1 | 00.34 0001 | 77:", [&] { return ReadQuintoraEEprom(ulIndex, 7, 0, ucOut, &ulLength); }},
        {"0B 0 | FD.1 1234 | 4: 75 75 75 75",
         [&] { return ReadDescriptorMemory(ulIndex, 0x1234, 4, ucOut, &ulLength); }},
        {"0C 0 | FD.1 0000 | 5: 34 12 A1 A2 A3",
         [&] { return WriteDescriptorMemory(ulIndex, 0x1234, 3, ucData, &ulLength); }},
        {"17 1 | 22 01 0200 1234 | 4: 75 75 75 75",
         [&] { return ReadVendorMemory(ulIndex, 0x1234, 4, ucOut, &ulLength); }},
        {"17 1 | 22 01 0200 1234 | 0:",
         [&] { return ReadVendorMemory(ulIndex, 0x1234, 0, ucOut, &ulLength); }},
        {"17 0 | 22 09 0200 1234 | 3: A1 A2 A3",
         [&] { return WriteVendorMemory(ulIndex, 0x1234, 3, ucData, &ulLength); }},
    };
    for (const auto& row : cases) {
        Told.clear();
        EXPECT_EQ(STATUS_SUCCESS, row.Send()) << row.pszUrb;
        EXPECT_EQ(row.pszUrb, Told.substr(0, strlen(row.pszUrb)));
    }
    uSucceed = 1; // its length is told, the string itself is not
    EXPECT_EQ(STATUS_UNSUCCESSFUL, GetStringDescriptor(ulIndex, 2, 0x409, ucOut, sizeof(ucOut), &ulLength));
    EXPECT_EQ(0u, ulLength);
    Told.clear();
    EXPECT_EQ(STATUS_SUCCESS, ReadDescriptorMemory(ulIndex, 0x1234, 0, ucOut, &ulLength));
    EXPECT_EQ(STATUS_SUCCESS, WriteDescriptorMemory(ulIndex, 0x1234, 0, ucData, &ulLength));
    EXPECT_EQ("", Told) << "nothing is sent of nothing";
}

TEST(UrbNames, EndWithTheirTables)
{
    EXPECT_STREQ("URB_FUNCTION_SET_DESCRIPTOR_TO_INTERFACE",
                 UrbFunctionName(URB_FUNCTION_SET_DESCRIPTOR_TO_INTERFACE));
    EXPECT_STREQ("SYNCH_FRAME", StandardRequestName(12));
    const struct {
        UCHAR ucType;
        const char* pszName;
    } types[] = {{8, "Interface power"},
                 {9, "unknown descriptor"},
                 {32, "unknown descriptor"},
                 {33, "HID descriptor (class)"},
                 {35, "Physical descriptor (class)"}};
    for (const auto& type : types) {
        EXPECT_STREQ(type.pszName, DescriptorTypeName(type.ucType));
    }
    for (const char* pszName : {UrbFunctionName(43), UrbFunctionName(0xFFFF), StandardRequestName(13),
                                StandardRequestName(255), DescriptorTypeName(36), DescriptorTypeName(255)}) {
        EXPECT_STREQ("String is out of bounds", pszName);
    }
}

// Discard mode holds 128 values back, the oldest ones, each for one read.
TEST_F(Urbs, DiscardModeHolds128)
{
    ULONG ulCount = 0;
    DiscardEntry entry = {};
    for (int round = 0; round < 2; round++) { // the second one wraps
        for (ULONG i = 0; i < 130; i++) {
            UCHAR ucValue = static_cast<UCHAR>(i);
            EXPECT_EQ(i < 128 ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL,
                      AddDiscardedPacket(Filter(), &ucValue, i % 2));
        }
        EXPECT_EQ(STATUS_SUCCESS, GetDiscardedPacketCount(Keyboard->Index(), &ulCount));
        EXPECT_EQ(128u, ulCount);
        for (ULONG i = 0; i < 128; i++) {
            ASSERT_EQ(STATUS_SUCCESS, GetDiscardedPacket(Keyboard->Index(), &entry));
            EXPECT_EQ(i, entry.ucValue);
            EXPECT_EQ(i % 2, entry.ucIsModifier);
        }
        EXPECT_EQ(STATUS_UNSUCCESSFUL, GetDiscardedPacket(Keyboard->Index(), &entry));
    }
    EXPECT_EQ(STATUS_UNSUCCESSFUL, GetDiscardedPacketCount(99, &ulCount));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, GetDiscardedPacket(99, &entry));
}

// The application has 10 bytes of a report at most, and the system none of it.
TEST_F(Urbs, ALongReportIsRecordedAsFarAsARecordHolds)
{
    Settings.ulKorvexHotkey = 0x39;
    Globals.ucReportCapture = 1;
    InterruptUrb read(12);
    for (UCHAR i = 0; i < 12; i++) {
        read.Buffer[i] = static_cast<UCHAR>(i + 1);
    }
    EXPECT_EQ(URB_PASS, Show(read.Urb, 1));
    const std::vector<MacroRecord> records = Application->TakeMacroRecords();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(10, records[0].ucLength);
    EXPECT_EQ(10, records[0].ucReport[9]);
    EXPECT_EQ(EmuBytes(12), EmuBytes(read.Buffer.get(), read.Buffer.get() + 12));
    Globals.ucReportCapture = 0;
    Settings.ulKorvexHotkey = 0;
}
