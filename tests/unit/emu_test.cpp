// emu_test.cpp - the emulated keyboard's control pipe without a driver above it: each URB form's setup packet,
// strings, memory, and answers that fail, come short, late or never.
#include <gtest/gtest.h>

#include <cstring>

#include "emu/app/machine.h"

namespace
{
// One control request, sent to the keyboard itself, and what became of it.
struct Transfer {
    Transfer(USHORT usFunction, UCHAR ucRequest, USHORT usValue, USHORT usIndex, EmuBytes data, bool bIn)
        : Data(std::move(data))
    {
        auto& urb = Urb.UrbControlVendorClassRequest;
        urb.Hdr.Length = sizeof urb;
        urb.Hdr.Function = usFunction;
        urb.TransferFlags = bIn ? USBD_TRANSFER_DIRECTION_IN : 0;
        urb.TransferBufferLength = static_cast<ULONG>(Data.size());
        urb.RequestTypeReservedBits = 0x22;
        urb.Request = ucRequest;
        urb.Value = usValue;
        urb.Index = usIndex;
        if (usFunction == URB_FUNCTION_CONTROL_TRANSFER) {
            Urb.UrbControlTransfer.SetupPacket[0] = bIn ? 0x80 : 0x00;
            Urb.UrbControlTransfer.SetupPacket[1] = ucRequest;
            memcpy(&Urb.UrbControlTransfer.SetupPacket[2], &usValue, 2);
            memcpy(&Urb.UrbControlTransfer.SetupPacket[4], &usIndex, 2);
            Urb.UrbControlTransfer.SetupPacket[6] = static_cast<UCHAR>(Data.size());
            Urb.UrbControlTransfer.SetupPacket[7] = static_cast<UCHAR>(Data.size() >> 8);
        } else if (ucRequest == 6 || ucRequest == 7) {
            Urb.UrbControlDescriptorRequest.Index = static_cast<UCHAR>(usValue);
            Urb.UrbControlDescriptorRequest.DescriptorType = static_cast<UCHAR>(usValue >> 8);
            Urb.UrbControlDescriptorRequest.LanguageId = usIndex;
        }
    }

    ULONG Moved() const { return Urb.UrbControlTransfer.TransferBufferLength; }

    EmuBytes Data;
    URB Urb = {};
    NTSTATUS Status = STATUS_PENDING;
    PIRP pIrp = nullptr; // valid until it completes
};

NTSTATUS NTAPI Completed(PDEVICE_OBJECT, PIRP pIrp, PVOID pContext)
{
    auto pTransfer = static_cast<Transfer*>(pContext);
    pTransfer->Status = pIrp->IoStatus.Status;
    pTransfer->pIrp = nullptr;
    IoFreeIrp(pIrp);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

class EmuPipe : public testing::Test
{
protected:
    void SetUp() override { Plug({}); }

    void Plug(const EmuPlugOptions& options)
    {
        if (!Machine) {
            Machine = std::make_unique<EmuMachine>(EmuMachineOptions());
        }
        Keyboard = Machine->Plug(EmuBootKeyboard, options);
        ASSERT_EQ(STATUS_SUCCESS, Keyboard->StartStatus());
        Keyboard->TakenRequests();
    }

    void TearDown() override { EXPECT_EQ(0u, Machine->Unload()); }

    void Send(Transfer& transfer)
    {
        transfer.Urb.UrbControlTransfer.TransferBuffer = transfer.Data.data();
        PIRP pIrp = transfer.pIrp = IoAllocateIrp(Keyboard->Physical()->StackSize, FALSE);
        PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(pIrp);
        pNext->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        pNext->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
        pNext->Parameters.Others.Argument1 = &transfer.Urb;
        IoSetCompletionRoutine(pIrp, Completed, &transfer, TRUE, TRUE, TRUE);
        IoCallDriver(Keyboard->Physical(), pIrp);
    }

    NTSTATUS Write(USHORT usFunction, UCHAR ucRequest, USHORT usValue, USHORT usIndex, EmuBytes data)
    {
        Transfer transfer(usFunction, ucRequest, usValue, usIndex, std::move(data), false);
        Send(transfer);
        return transfer.Status;
    }

    // What came back; nothing when the request failed.
    EmuBytes Read(USHORT usFunction, UCHAR ucRequest, USHORT usValue, USHORT usIndex, ULONG ulBytes)
    {
        Transfer transfer(usFunction, ucRequest, usValue, usIndex, EmuBytes(ulBytes), true);
        Send(transfer);
        transfer.Data.resize(transfer.Moved());
        EXPECT_EQ(NT_SUCCESS(transfer.Status), NT_SUCCESS(transfer.Urb.UrbHeader.Status));
        EXPECT_TRUE(NT_SUCCESS(transfer.Status) || transfer.Data.empty());
        return transfer.Data;
    }

    EmuBytes String(UCHAR ucIndex, USHORT usLanguage, ULONG ulBytes = 256)
    {
        return Read(URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, 6, 0x0300 | ucIndex, usLanguage, ulBytes);
    }

    std::unique_ptr<EmuMachine> Machine;
    EmuKeyboard* Keyboard = nullptr;
};

TEST_F(EmuPipe, EveryUrbFormBecomesItsSetupPacket)
{
    struct {
        USHORT usFunction;
        UCHAR ucRequest;
        bool bIn;
        UCHAR ucType;
    } cases[] = {
        {URB_FUNCTION_CONTROL_TRANSFER, 6, true, 0x80},
        {URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, 6, true, 0x80},
        {URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, 6, false, 0x80}, // the function tells the direction
        {URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE, 7, false, 0x00},
        {URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE, 6, true, 0x81},
        {URB_FUNCTION_SET_DESCRIPTOR_TO_INTERFACE, 7, false, 0x01},
        {URB_FUNCTION_VENDOR_DEVICE, 1, true, 0xC0},
        {URB_FUNCTION_VENDOR_DEVICE, 9, false, 0x40},
        {URB_FUNCTION_VENDOR_INTERFACE, 3, false, 0x41},
        {URB_FUNCTION_CLASS_INTERFACE, 1, true, 0xA1},
        {URB_FUNCTION_CLASS_INTERFACE, 9, false, 0x21},
        {URB_FUNCTION_CLASS_DEVICE, 9, false, 0x20},
    };
    for (const auto& c : cases) {
        Transfer transfer(c.usFunction, c.ucRequest, 0x1203, 0x3456, EmuBytes(0x107, 0x55), c.bIn);
        Send(transfer);
        std::vector<EmuRequest> requests = Keyboard->TakenRequests();
        ASSERT_EQ(1u, requests.size()) << c.usFunction;
        std::array<UCHAR, 8> expected = {c.ucType, c.ucRequest, 0x03, 0x12, 0x56, 0x34, 0x07, 0x01};
        EXPECT_EQ(expected, requests[0].Setup) << c.usFunction;
        EXPECT_EQ(requests[0].Data.size(), c.ucType & 0x80 ? 0u : 0x107u);
    }
}

TEST_F(EmuPipe, StringsHaveLanguagesAndLengths)
{
    EXPECT_EQ((EmuBytes{8, 3, 0x09, 0x04, 0x07, 0x04, 0x0C, 0x04}), String(0, 0));
    struct {
        UCHAR ucIndex;
        USHORT usLanguage;
        UCHAR ucLength, ucFirst;
    } cases[] = {
        {1, 0x0409, 38, 'E'}, {1, 0x0407, 38, 'E'},  {2, 0x0409, 28, 'B'},
        {2, 0x0407, 46, 'N'}, {2, 0x040C, 28, 'C'},  {3, 0x0409, 10, '0'},
        {4, 0x0409, 2, 0},    {5, 0x0409, 254, 'T'}, {6, 0x0409, 255, 'A'},
    };
    for (const auto& c : cases) {
        EmuBytes bytes = String(c.ucIndex, c.usLanguage);
        ASSERT_EQ(bytes.size(), c.ucLength) << int(c.ucIndex) << " " << c.usLanguage;
        EXPECT_EQ(bytes[0], c.ucLength);
        EXPECT_EQ(USB_STRING_DESCRIPTOR_TYPE, bytes[1]);
        EXPECT_TRUE(c.ucLength == 2 || (bytes[2] == c.ucFirst && bytes[3] == 0)) << int(c.ucIndex);
    }
    EXPECT_EQ(0xE9, String(2, 0x040C)[18]); // é
    EXPECT_EQ((EmuBytes{255, 3, 'A', 0}), String(6, 0x0409, 4));
    EXPECT_EQ(String(7, 0x0409), EmuBytes());
    EXPECT_EQ(String(1, 0x0410), EmuBytes());
}

TEST_F(EmuPipe, EachMemoryKeepsWhatWasWrittenThroughItsDoor)
{
    const USHORT toDevice = URB_FUNCTION_SET_DESCRIPTOR_TO_DEVICE;
    const USHORT fromDevice = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
    const USHORT classInterface = URB_FUNCTION_CLASS_INTERFACE, vendor = URB_FUNCTION_VENDOR_DEVICE;
    EXPECT_EQ(STATUS_SUCCESS, Write(classInterface, 9, 0x0203, 1, {0x3E, 0x00, 0xA1, 0xA2}));
    EXPECT_EQ(STATUS_SUCCESS, Write(toDevice, 7, 0x01FD, 0, {0xFE, 0x0F, 0xB1, 0xB2}));
    EXPECT_EQ(STATUS_SUCCESS, Write(vendor, 9, 0x0200, 0x0FFE, {0xC1, 0xC2}));
    EXPECT_EQ((EmuBytes{0xFF, 0xA1, 0xA2}), Read(classInterface, 1, 0x0203, 0x3D01, 8)); // cut at the end
    EXPECT_EQ((EmuBytes{0xFF, 0xB1, 0xB2}), Read(fromDevice, 6, 0x01FD, 0x0FFD, 8));
    EXPECT_EQ((EmuBytes{0xFF, 0xC1, 0xC2}), Read(vendor, 1, 0x0200, 0x0FFD, 8));
    EXPECT_EQ(Read(vendor, 1, 0x0200, 0x0FFE, 0), EmuBytes());

    // Beyond the end, without an address, by a wrong interface or index: refused, nothing written.
    EmuMemory before = Keyboard->Memory();
    EXPECT_NE(STATUS_SUCCESS, Write(classInterface, 9, 0x0203, 1, {0x3F, 0x00, 1, 2}));
    EXPECT_NE(STATUS_SUCCESS, Write(classInterface, 9, 0x0203, 1, {0x00, 0x01, 1}));
    EXPECT_NE(STATUS_SUCCESS, Write(toDevice, 7, 0x01FD, 0, {0x00}));
    EXPECT_NE(STATUS_SUCCESS, Write(toDevice, 7, 0x01FD, 1, {0x00, 0x00, 1}));
    EXPECT_NE(STATUS_SUCCESS, Write(vendor, 9, 0x0200, 0x0FFF, {1, 2}));
    EXPECT_EQ(0, memcmp(&before, &Keyboard->Memory(), sizeof before));
    EXPECT_EQ(Read(classInterface, 1, 0x0203, 0x4101, 1), EmuBytes());
    EXPECT_EQ(Read(vendor, 1, 0x0200, 0x1001, 1), EmuBytes());

    // Replugged with the same memory.
    EmuPlugOptions options;
    options.Memory = std::make_shared<EmuMemory>(before);
    options.Memory->ucEepromCount = 0xFF;
    Keyboard->Unplug(true);
    Plug(options);
    EXPECT_EQ((EmuBytes{0xA1, 0xA2}), Read(classInterface, 1, 0x0203, 0x3E01, 2));
    EmuBytes report = Read(URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE, 6, 0x2200, 1, 100);
    ASSERT_EQ(77u, report.size());
    EXPECT_EQ(255, report[73] * report[71] / 8);
    EXPECT_EQ(63u, Read(URB_FUNCTION_GET_DESCRIPTOR_FROM_INTERFACE, 6, 0x2200, 0, 100).size());
}

TEST_F(EmuPipe, RulesDecideInOrderAndCount)
{
    auto read = [this](ULONG ulBytes) {
        return Read(URB_FUNCTION_VENDOR_DEVICE, 1, 0x0200, 0, ulBytes).size();
    };
    ASSERT_EQ(STATUS_SUCCESS, Keyboard->SetRules({
                                  {0xC0, 1, 0x0200, EmuAny, EmuAnswerStatus, 0, STATUS_UNSUCCESSFUL, 1, 1},
                                  {0xC0, EmuAny, EmuAny, EmuAny, EmuAnswerShort, 3, 0, 2, 0},
                              }));
    EXPECT_EQ(8u, read(8)); // the first rule skips it, the second too
    EXPECT_EQ(0u, read(8));
    EXPECT_EQ(8u, read(8)); // the second skips one that it sees for the second time
    EXPECT_EQ(3u, read(8));
    EXPECT_EQ(2u, read(2));
    EXPECT_EQ(STATUS_SUCCESS, Write(URB_FUNCTION_VENDOR_DEVICE, 9, 0x0200, 0, {1})); // no rule's business
    EXPECT_EQ(STATUS_INVALID_PARAMETER, Keyboard->SetRules(std::vector<EmuAnswerRule>(EmuMaximumRules + 1)));

    ASSERT_EQ(STATUS_SUCCESS,
              Keyboard->SetRules({{EmuAny, EmuAny, EmuAny, EmuAny, EmuAnswerUrbStatus, 0, 0, 0, 0}}));
    Transfer failed(URB_FUNCTION_VENDOR_DEVICE, 1, 0x0200, 0, EmuBytes(8), true);
    Send(failed);
    EXPECT_EQ(STATUS_SUCCESS, failed.Status);
    EXPECT_TRUE(USBD_ERROR(failed.Urb.UrbHeader.Status));
    EXPECT_EQ(0u, failed.Moved());
}

TEST_F(EmuPipe, LateNeverAndDeafRequestsEndAsTold)
{
    const LONG any = EmuAny;
    ASSERT_EQ(STATUS_SUCCESS, Keyboard->SetRules({
                                  {0xC0, any, any, 1, EmuAnswerLate, 50, 0, 0, 0},
                                  {0xC0, any, any, 2, EmuAnswerLate, 20, 0, 0, 0},
                                  {0xC0, any, any, 3, EmuAnswerNever, 0, 0, 0, 0},
                                  {0xC0, any, any, 4, EmuAnswerDeaf, 0, 0, 0, 0},
                              }));
    auto make = [](USHORT usIndex) {
        return Transfer(URB_FUNCTION_VENDOR_DEVICE, 1, 0x0200, usIndex, EmuBytes(4), true);
    };
    Transfer late = make(1), sooner = make(2), given = make(2), never = make(3), left = make(3),
             deaf = make(4);
    Transfer* all[] = {&late, &sooner, &given, &never, &left, &deaf};
    for (Transfer* pTransfer : all) {
        Send(*pTransfer);
    }
    EXPECT_EQ(6u, Keyboard->HeldRequests());
    for (Transfer* pTransfer : {&given, &never, &deaf}) {
        IoCancelIrp(pTransfer->pIrp);
    }
    EXPECT_EQ(STATUS_CANCELLED, given.Status);
    EXPECT_EQ(STATUS_CANCELLED, never.Status);
    EXPECT_EQ(4u, Keyboard->HeldRequests());
    HostAdvanceToUs(HostNowUs() + 30000);
    EXPECT_EQ(STATUS_SUCCESS, sooner.Status);
    EXPECT_EQ(4u, sooner.Moved());
    EXPECT_EQ(STATUS_PENDING, late.Status);
    HostAdvanceToUs(HostNowUs() + 30000);
    EXPECT_EQ(STATUS_SUCCESS, late.Status);
    HostAdvanceToUs(HostNowUs() + 3600000000);
    EXPECT_EQ(2u, Keyboard->HeldRequests());
    Keyboard->SurpriseRemove();
    EXPECT_EQ(STATUS_DELETE_PENDING, left.Status);
    EXPECT_EQ(STATUS_DELETE_PENDING, deaf.Status);
    EXPECT_EQ(0u, deaf.Moved());
    Transfer after = make(1);
    Send(after);
    EXPECT_EQ(STATUS_DELETE_PENDING, after.Status);
    Keyboard->Remove();
}

// The system sets the LEDs of a keyboard that has gone deaf, and the keyboard is pulled.
TEST_F(EmuPipe, APulledKeyboardLetsGoOfWhatTheSystemAskedIt)
{
    for (EmuHidRoute route : {EmuHidRouteClass, EmuHidRouteControl}) {
        EmuPlugOptions options;
        options.Rules = {{0x21, 9, EmuAny, EmuAny, EmuAnswerDeaf, 0, 0, 0, 0}};
        EmuKeyboard* pKeyboard = Machine->Plug(EmuBootKeyboard, options);
        NTSTATUS status = STATUS_SUCCESS;
        HostThread thread = HostStartThread([&] { status = pKeyboard->SendLed(2, route); });
        HostSettle();
        EXPECT_EQ(1u, pKeyboard->HeldRequests());
        pKeyboard->Unplug(true);
        HostJoinThread(thread);
        EXPECT_EQ(STATUS_DELETE_PENDING, status);
    }
}
} // namespace
