// bus_test.cpp - the driver's requests on their way to a real keyboard, which a made one answers when it likes.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "tests/live/fakebus.h"
#include "tools/live/machine.h"

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

namespace
{
struct Sent {
    ULONG_PTR ulTicket;
    Bytes setup, data;
};

class Bus : public testing::Test
{
protected:
    Bus() : m_Machine({DriverEntry, {}, nullptr}), m_Interface(InterfaceOf(FakeDevice, FakeConfiguration, 1))
    {
        m_Descriptors = m_Interface.Descriptors();
        EmuPlugOptions plug;
        plug.Send = [this](ULONG_PTR ulTicket, const UCHAR* pSetup, const EmuBytes& data) {
            std::lock_guard<std::mutex> lock(m_Lock);
            m_Sent.push_back({ulTicket, Bytes(pSetup, pSetup + 8), data});
            m_Came.notify_all();
            return m_bGone ? STATUS_DELETE_PENDING : STATUS_SUCCESS;
        };
        plug.GiveUp = [this](ULONG_PTR ulTicket) { m_ulGivenUp = ulTicket; };
        plug.OnReceived = [this](const EmuReceived& received) { m_Seen = received.Bytes; };
        m_uKeyboard = m_Machine.Add(m_Descriptors, plug, {});
        m_pKeyboard = m_Machine.At(m_uKeyboard);
    }

    ~Bus() override
    {
        m_Machine.Unplug(m_uKeyboard, true);
        m_Machine.Forget(m_uKeyboard);
        EXPECT_EQ(0u, m_Machine.End());
    }

    // The next request that went out; one without a setup packet after five seconds.
    Sent Next()
    {
        std::unique_lock<std::mutex> lock(m_Lock);
        m_Came.wait_for(lock, std::chrono::seconds(5), [this] { return m_cTaken < m_Sent.size(); });
        return m_cTaken < m_Sent.size() ? m_Sent[m_cTaken++] : Sent{0, Bytes(8), {}};
    }

    // Starts the stack; every request is answered, those for a descriptor with these bytes.
    std::vector<Bytes> StartAnswering()
    {
        std::vector<Bytes> setups;
        std::atomic<bool> bStarted{false};
        std::thread answerer([&] {
            while (!bStarted) {
                std::unique_lock<std::mutex> lock(m_Lock);
                m_Came.wait_for(lock, std::chrono::milliseconds(10));
                if (m_cTaken == m_Sent.size())
                    continue;
                Sent sent = m_Sent[m_cTaken++];
                lock.unlock();
                setups.push_back(sent.setup);
                bool bDevice = sent.setup[0] == 0x80 && sent.setup[3] == 1;
                m_pKeyboard->Answer(sent.ulTicket, STATUS_SUCCESS, bDevice ? FakeDevice : Bytes(4));
            }
        });
        m_Machine.Start(m_uKeyboard);
        bStarted = true;
        answerer.join();
        return setups;
    }

    LiveMachine m_Machine;
    UsbInterface m_Interface;
    EmuDescriptors m_Descriptors;
    unsigned m_uKeyboard;
    EmuKeyboard* m_pKeyboard;
    std::mutex m_Lock;
    std::condition_variable m_Came;
    std::vector<Sent> m_Sent;
    size_t m_cTaken = 0;
    bool m_bGone = false;
    std::atomic<ULONG_PTR> m_ulGivenUp{0};
    Bytes m_Seen;
};

TEST_F(Bus, AStackIsToldOfItsOwnInterfaceAndAsksForIt)
{
    EXPECT_EQ(0x81, m_Interface.ucEndpoint);
    EXPECT_EQ(0x0111, HidHeadOf(m_Interface.configuration).usVersion);
    EXPECT_EQ(13, HidHeadOf(m_Interface.configuration).ucCountry);
    EXPECT_EQ(63, HidHeadOf(m_Interface.configuration).usReportBytes);
    EXPECT_EQ(u"USB\\VID_7A3C&PID_0101&MI_01", m_Interface.hardwareId);
    for (uint8_t ucMissing : {2, 3})
        EXPECT_THROW(InterfaceOf(FakeDevice, FakeConfiguration, ucMissing), std::runtime_error);
    EXPECT_THROW(InterfaceOf(Bytes(3), FakeConfiguration, 1), std::runtime_error);
    EXPECT_THROW(InterfaceOf(FakeDevice, Bytes(FakeConfiguration.begin(), FakeConfiguration.end() - 3), 1),
                 std::runtime_error);
    bool bIdle = false, bReport = false;
    for (const Bytes& setup : StartAnswering()) {
        EXPECT_FALSE(setup[0] == 0x80 && setup[3] == 2) << "the configuration is not asked for on the wire";
        bIdle |= setup == Bytes{0x21, 10, 0, 0, 1, 0, 0, 0};
        bReport |= setup == Bytes{0x81, 6, 0, 0x22, 1, 0, 63, 0};
    }
    EXPECT_TRUE(bIdle && bReport) << "its number";
    m_Machine.Report(m_uKeyboard, {0, 0, 4, 0, 0, 0, 0, 0});
    EXPECT_EQ((Bytes{0, 0, 4, 0, 0, 0, 0, 0}), m_Seen);
}

TEST_F(Bus, ARequestIsAnsweredWhenTheKeyboardAnswers)
{
    StartAnswering();
    const UCHAR aucLed[8] = {0x21, 9, 0, 2, 1, 0, 1, 0}, aucGet[8] = {0xA1, 1, 0, 1, 1, 0, 8, 0};
    struct {
        const char* pName;
        const UCHAR* pSetup;
        Bytes data;
        NTSTATUS answer;
        Bytes brought, got;
    } const rows[] = {
        {"LEDs", aucLed, {2}, STATUS_SUCCESS, {0}, {2}},
        {"a stall", aucLed, {2}, STATUS_UNSUCCESSFUL, {}, {}},
        {"whole", aucGet, Bytes(8), STATUS_SUCCESS, {1, 2, 3, 4, 5, 6, 7, 8}, {1, 2, 3, 4, 5, 6, 7, 8}},
        {"short", aucGet, Bytes(8), STATUS_SUCCESS, {1, 2}, {1, 2}},
        {"too long", aucGet, Bytes(2), STATUS_SUCCESS, {1, 2, 3, 4}, {1, 2}},
    };
    for (const auto& row : rows) {
        Bytes data = row.data;
        NTSTATUS status = STATUS_PENDING;
        std::thread asker([&] { status = m_pKeyboard->Control(row.pSetup, data, EmuHidRouteControl); });
        Sent sent = Next();
        EXPECT_EQ(Bytes(row.pSetup, row.pSetup + 8), sent.setup) << row.pName;
        EXPECT_EQ(row.pSetup[0] & 0x80 ? Bytes() : row.data, sent.data) << row.pName;
        m_pKeyboard->Answer(sent.ulTicket + 1, STATUS_UNSUCCESSFUL, {}); // nobody's
        m_pKeyboard->Answer(sent.ulTicket, row.answer, row.brought);
        m_pKeyboard->Answer(sent.ulTicket, STATUS_UNSUCCESSFUL, {}); // once more
        asker.join();
        EXPECT_EQ(row.answer, status) << row.pName;
        EXPECT_EQ(row.got, data) << row.pName;
    }
}

TEST_F(Bus, ACancelledRequestIsGivenUp)
{
    StartAnswering();
    UCHAR ucLed = 2;
    URB urb = {};
    auto& request = urb.UrbControlVendorClassRequest;
    request.Hdr.Length = sizeof request;
    request.Hdr.Function = URB_FUNCTION_CLASS_INTERFACE;
    request.TransferBufferLength = 1;
    request.TransferBuffer = &ucLed;
    request.Request = 9;
    request.Value = 0x200;
    PIRP pIrp = IoAllocateIrp(m_pKeyboard->Physical()->StackSize, FALSE);
    PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(pIrp);
    pNext->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    pNext->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
    pNext->Parameters.Others.Argument1 = &urb;
    auto keep = [](PDEVICE_OBJECT, PIRP, PVOID) -> NTSTATUS { return STATUS_MORE_PROCESSING_REQUIRED; };
    IoSetCompletionRoutine(pIrp, keep, nullptr, TRUE, TRUE, TRUE);
    EXPECT_EQ(STATUS_PENDING, IoCallDriver(m_pKeyboard->Physical(), pIrp));
    Sent sent = Next();
    IoCancelIrp(pIrp);
    EXPECT_EQ(STATUS_CANCELLED, pIrp->IoStatus.Status);
    EXPECT_EQ(sent.ulTicket, m_ulGivenUp);
    m_pKeyboard->Answer(sent.ulTicket, STATUS_SUCCESS, {0}); // late
    EXPECT_EQ(STATUS_CANCELLED, pIrp->IoStatus.Status);
    IoFreeIrp(pIrp);
}

TEST_F(Bus, AKeyboardThatGoesEndsWhatItHasNotAnswered)
{
    StartAnswering();
    UCHAR aucLed[8] = {0x21, 9, 0, 2, 1, 0, 1, 0};
    NTSTATUS status = STATUS_PENDING;
    std::thread asker([&] {
        Bytes data = {2};
        status = m_pKeyboard->Control(aucLed, data, EmuHidRouteClass);
    });
    Sent sent = Next();
    m_pKeyboard->SurpriseRemove();
    asker.join();
    EXPECT_FALSE(NT_SUCCESS(status));
    m_pKeyboard->Answer(sent.ulTicket, STATUS_SUCCESS, {0}); // late
}

TEST_F(Bus, WhatCannotBeSentFails)
{
    StartAnswering();
    m_bGone = true;
    UCHAR aucLed[8] = {0x21, 9, 0, 2, 1, 0, 1, 0};
    Bytes data = {2};
    EXPECT_EQ(STATUS_DELETE_PENDING, m_pKeyboard->Control(aucLed, data, EmuHidRouteClass));
}
} // namespace
