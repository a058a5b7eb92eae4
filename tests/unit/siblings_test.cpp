// siblings_test.cpp - keyboard class devices that answer oddly, mouse filters that are slow, silent or gone,
// interfaces that come and go faster than anybody looks.
#include "machine.h"

#include <atomic>

#include "siblings/siblings.h"

namespace
{
const EmuBytes Released = {0, 0, 0, 0, 0, 0, 0, 0};
const EmuBytes ControlHeld = {1, 0, 0, 0, 0, 0, 0, 0};
enum : ULONG { ControlWord = 0x402, ControlGuiWord = 0x2482 };
const EmuReply Refuses = {STATUS_IO_DEVICE_ERROR, 0, FALSE, 0, FALSE};
const EmuReply Slow = {STATUS_SUCCESS, 50, FALSE, 0, FALSE};
const EmuReply SlowRefusal = {STATUS_IO_DEVICE_ERROR, 50, FALSE, 0, FALSE};
const EmuReply Silent = {STATUS_SUCCESS, 0, TRUE, 0, FALSE};
const EmuReply Closed = {STATUS_SUCCESS, 0, FALSE, STATUS_ACCESS_DENIED, FALSE};
const EmuReply OpensLate = {STATUS_SUCCESS, 0, FALSE, STATUS_SUCCESS, TRUE};

using Words = std::vector<ULONG>;

class Siblings : public KeyboardTest
{
protected:
    void SetUp() override
    {
        KeyboardTest::SetUp();
        ASSERT_EQ(STATUS_SUCCESS, Application->StartReportProcessing(0));
    }

    // The last keyboard goes and another comes: the control device is made anew.
    void Replug()
    {
        Application->Close();
        Keyboard->Unplug(false);
        ASSERT_EQ(nullptr, Globals.pControlDevice);
        Keyboard = Machine->Plug();
        ASSERT_EQ(STATUS_SUCCESS, Keyboard->StartStatus());
    }

    static int UsbConnected() { return Control()->UsbMouse.ucConnected; }

    static int UsbArrivals()
    {
        LockScope lock(Globals.SiblingLock);
        return Globals.ucUsbMouseArrivals;
    }

    // The system calls the USB mouse's callback of the newest registration.
    static void Tell(const GUID& event)
    {
        DEVICE_INTERFACE_CHANGE_NOTIFICATION record = {};
        record.Event = event;
        PVOID pContext;
        {
            LockScope lock(Globals.SiblingLock);
            pContext = reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(Globals.ulArrivalGeneration));
        }
        EXPECT_EQ(STATUS_SUCCESS, UsbMouseArrival(&record, pContext));
    }

    NTSTATUS Query(USHORT* pusRate, USHORT* pusDelayMs)
    {
        return QueryKeyboardTypematic(Keyboard->Index(), pusRate, pusDelayMs);
    }
};

TEST_F(Siblings, BoundsWhatAClassDeviceReports)
{
    const struct {
        USHORT usRate, usDelayMs, usStoredRate, usStoredDelay;
    } rows[] = {{10, 500, 10, 1},  {31, 1000, 31, 3}, {32, 250, 31, 0}, {0xFFFF, 249, 31, 0},
                {0, 0, 0, 0},      {5, 999, 5, 2},    {5, 1249, 5, 3},  {5, 1250, 5, 3},
                {5, 0xFFFF, 5, 3}, {23, 751, 23, 2}};
    EmuClassDevice* pClass = Machine->AddClassDevice(0);
    for (const auto& row : rows) {
        USHORT usRate = 0, usDelayMs = 0;
        pClass->SetTypematic(row.usRate, row.usDelayMs);
        EXPECT_EQ(STATUS_SUCCESS, Query(&usRate, &usDelayMs));
        EXPECT_EQ(row.usRate, usRate) << "as it was returned";
        EXPECT_EQ(row.usDelayMs, usDelayMs);
        EXPECT_EQ(row.usStoredRate, Globals.usTypematicRate) << row.usRate;
        EXPECT_EQ(row.usStoredDelay, Globals.usTypematicDelay) << row.usDelayMs;
    }
}

TEST_F(Siblings, AsksClassDevicesUntilOneAnswers)
{
    USHORT usRate = 1, usDelayMs = 2;
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Query(&usRate, &usDelayMs)) << "there is none";
    std::vector<EmuClassDevice*> classes;
    for (USHORT us = 0; us < 5; us++) {
        classes.push_back(Machine->AddClassDevice(us));
        classes[us]->SetTypematic(us, (USHORT)(250 * us));
    }
    classes[0]->Answer(SlowRefusal); // its late answer must not be taken for the next one's
    classes[1]->Answer(Closed);
    classes[2]->Answer(Refuses);
    classes[3]->Answer(Slow);
    const unsigned long long ullBefore = HostNowUs();
    EXPECT_EQ(STATUS_SUCCESS, Query(&usRate, &usDelayMs));
    EXPECT_EQ(100000u, HostNowUs() - ullBefore);
    EXPECT_EQ(3, usRate);
    EXPECT_EQ(750, usDelayMs);
    const ULONG ulAsked[5] = {1, 0, 1, 1, 0};
    for (size_t i = 0; i < 5; i++) {
        EXPECT_EQ(classes[i]->State().ulQueries, ulAsked[i]) << i;
    }

    HostFailNth("irp", 1); // no request for the first: the second answers
    classes[1]->Answer({});
    EXPECT_EQ(STATUS_SUCCESS, Query(&usRate, &usDelayMs));
    EXPECT_EQ(1, usRate);
    EXPECT_EQ(1u, classes[0]->State().ulQueries);
    HostFailNth(nullptr, 0);

    for (EmuClassDevice* pClass : classes) {
        pClass->Answer(Refuses);
    }
    classes[4]->Answer({STATUS_DEVICE_BUSY, 0, FALSE, 0, FALSE});
    EXPECT_EQ(STATUS_DEVICE_BUSY, Query(&usRate, &usDelayMs)) << "the last one's";
    EXPECT_EQ(STATUS_DEVICE_BUSY, SetKeyboardTypematic(Keyboard->Index(), 5, 1));
    EXPECT_EQ(1, usRate) << "unchanged";
    EXPECT_EQ(1, Globals.usTypematicRate);
    EXPECT_EQ(0, Globals.usTypematicDelay);
    EXPECT_EQ(STATUS_UNSUCCESSFUL, QueryKeyboardTypematic(77, &usRate, &usDelayMs));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, SetKeyboardTypematic(77, 5, 1));
    EXPECT_EQ(2u, classes[3]->State().ulQueries) << "nobody is asked for a keyboard that is not there";
}

TEST_F(Siblings, AnswersOnAnotherThread)
{
    EmuClassDevice* pClass = Machine->AddClassDevice(4);
    pClass->Answer(Silent);
    pClass->SetTypematic(12, 750);
    USHORT usRate = 0, usDelayMs = 0;
    HostThread thread = HostStartThread([&] { EXPECT_EQ(STATUS_SUCCESS, Query(&usRate, &usDelayMs)); });
    HostSettle();
    EXPECT_EQ(0, usRate) << "it waits";
    pClass->Release();
    HostJoinThread(thread);
    EXPECT_EQ(12, usRate);

    thread = HostStartThread([&] { EXPECT_EQ(STATUS_DELETE_PENDING, Query(&usRate, &usDelayMs)); });
    HostSettle();
    pClass->Remove(); // never answered
    HostJoinThread(thread);
}

TEST_F(Siblings, TellsBothMiceWhateverOneAnswers)
{
    EmuSibling* pPs2 = Machine->AddSibling(EmuPs2MouseSibling);
    EmuSibling* pUsb = Machine->AddSibling(EmuUsbMouseSibling);
    const ULONG ulWord = 0x12345678;
    EXPECT_EQ(STATUS_UNSUCCESSFUL, NotifyMouseModifiers(&ulWord)) << "nobody is there";
    pPs2->Arrive();
    pUsb->Arrive();
    const struct {
        NTSTATUS Ps2, Usb, Result;
    } rows[] = {{STATUS_SUCCESS, STATUS_SUCCESS, STATUS_SUCCESS},
                {STATUS_IO_DEVICE_ERROR, STATUS_SUCCESS, STATUS_UNSUCCESSFUL},
                {STATUS_SUCCESS, STATUS_IO_DEVICE_ERROR, STATUS_UNSUCCESSFUL},
                {STATUS_BUFFER_OVERFLOW, STATUS_SUCCESS, STATUS_SUCCESS}}; // a warning is no error
    for (const auto& row : rows) {
        pPs2->Answer({row.Ps2, 0, FALSE, 0, FALSE});
        pUsb->Answer({row.Usb, 20, FALSE, 0, FALSE});
        EXPECT_EQ(row.Result, NotifyMouseModifiers(&ulWord));
        EXPECT_EQ(Words{ulWord}, pPs2->TakeWords());
        EXPECT_EQ(Words{ulWord}, pUsb->TakeWords());
    }
    pPs2->Answer(Closed); // open no more
    EXPECT_EQ(STATUS_UNSUCCESSFUL, NotifyMouseModifiers(&ulWord));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, SendMouseRequest(L"\\Device\\TvPS2M_COMM", &ulWord));
    EXPECT_EQ(Words{ulWord}, pUsb->TakeWords());
}

TEST_F(Siblings, DropsAWordThatCannotBeQueued)
{
    EmuSibling* pUsb = Machine->AddSibling(EmuUsbMouseSibling);
    pUsb->Arrive();
    for (const char* pWhat : {"pool", "workitem", "the control device goes"}) {
        HostFailNth(pWhat, 1);
        const LONG lUsers = ExchangeShared(Control()->lNotifications, pWhat[0] == 't' ? 0 : 1);
        Keyboard->Report(ControlHeld);
        WriteShared(Control()->lNotifications, lUsers);
        HostFailNth(nullptr, 0);
        HostSettle();
        EXPECT_EQ(Words{}, pUsb->TakeWords()) << pWhat;
        Keyboard->Report(Released);
        HostSettle();
        EXPECT_EQ(Words{0}, pUsb->TakeWords()) << "the next change is told";
    }
}

TEST_F(Siblings, RemovalDoesNotWaitForASilentMouse)
{
    EmuSibling* pUsb = Machine->AddSibling(EmuUsbMouseSibling);
    EmuSibling* pPs2 = Machine->AddSibling(EmuPs2MouseSibling);
    pUsb->Arrive(Silent);
    pPs2->Arrive(Silent);
    for (int i = 0; i < 3; i++) { // more words than the system has workers for
        Keyboard->Report(ControlHeld);
        Keyboard->Report(Released);
    }
    HostSettle();
    EXPECT_LT(0u, pPs2->Held());
    Application->Close();
    Keyboard->Unplug(true);
    EXPECT_EQ(0u, pPs2->Held() + pUsb->Held());
    EXPECT_EQ(nullptr, Globals.pControlDevice);
}

// The mouse's cancel routine is under way when the mouse goes: its device stays until the request is back.
TEST_F(Siblings, MouseGoesWhileItsRequestIsBeingCancelled)
{
    EmuSibling* pUsb = Machine->AddSibling(EmuUsbMouseSibling);
    pUsb->Arrive(Silent);
    pUsb->CancelSlowly(3);
    Keyboard->Report(ControlHeld);
    HostSettle();
    EXPECT_EQ(1u, pUsb->Held());
    HostThread removal = HostStartThread([&] {
        Application->Close();
        Keyboard->Unplug(true);
    });
    HostSettle();
    pUsb->Leave();
    HostJoinThread(removal);
    EXPECT_EQ(nullptr, Globals.pControlDevice);
}

TEST_F(Siblings, MouseGoesWithAWordUnanswered)
{
    EmuSibling* pUsb = Machine->AddSibling(EmuUsbMouseSibling);
    pUsb->Arrive(Silent);
    Keyboard->Report(ControlHeld);
    HostSettle();
    EXPECT_EQ(1u, pUsb->Held());
    pUsb->Leave();
    EXPECT_EQ(1, Control()->lNotifications) << "the request came back";
    Keyboard->Report(Released);
    HostSettle();
    EXPECT_EQ(Words{ControlWord}, pUsb->TakeWords());
    pUsb->Arrive();
    Keyboard->Report({9, 0, 0, 0, 0, 0, 0, 0});
    HostSettle();
    EXPECT_EQ(Words{ControlGuiWord}, pUsb->TakeWords()) << "it is back";
}

TEST_F(Siblings, CountsInterfacesAndOpensOnTheFirst)
{
    EmuSibling* pFirst = Machine->AddSibling(EmuUsbMouseSibling);
    EmuSibling* pSecond = Machine->AddSibling(EmuUsbMouseSibling);
    EXPECT_EQ(STATUS_SUCCESS, pFirst->Arrive());
    EXPECT_EQ(STATUS_SUCCESS, pSecond->Arrive({}, true));
    EXPECT_EQ(2, UsbArrivals());
    EXPECT_EQ(1, UsbConnected());
    EXPECT_EQ(0, Control()->Ps2Mouse.ucConnected + Control()->Ps2Keyboard.ucConnected);
    pSecond->Leave();
    EXPECT_EQ(1, UsbConnected()) << "one is left";
    pFirst->Leave();
    EXPECT_EQ(0, UsbArrivals());
    EXPECT_EQ(0, UsbConnected());

    Tell(GUID_DEVICE_INTERFACE_REMOVAL);
    EXPECT_EQ(255, UsbArrivals()) << "wraps";
    pFirst->Arrive();
    EXPECT_EQ(0, UsbArrivals());
    EXPECT_EQ(0, UsbConnected()) << "not the first by the count";
    Tell(GUID_TARGET_DEVICE_REMOVE_COMPLETE);
    EXPECT_EQ(0, UsbArrivals()) << "no arrival and no removal";
    Tell(GUID_DEVICE_INTERFACE_ARRIVAL);
    HostSettle();
    EXPECT_EQ(1, UsbConnected());
}

TEST_F(Siblings, LinkStaysDownWhenItCannotBeOpened)
{
    EmuSibling* pUsb = Machine->AddSibling(EmuUsbMouseSibling);
    EmuSibling* pSecond = Machine->AddSibling(EmuUsbMouseSibling);
    for (int iCase = 0; iCase < 3; iCase++) {
        HostFailNth(iCase == 1 ? "workitem" : iCase == 2 ? "open" : nullptr, iCase == 0 ? 0 : 1);
        pUsb->Arrive(iCase == 0 ? Closed : EmuReply{});
        HostFailNth(nullptr, 0);
        pUsb->Answer({});
        pSecond->Arrive({}, true);
        EXPECT_EQ(2, UsbArrivals()) << iCase;
        EXPECT_EQ(0, UsbConnected()) << iCase << ": the second arrival opens nothing";
        pSecond->Leave();
        pUsb->Leave();
        pUsb->Arrive();
        EXPECT_EQ(1, UsbConnected()) << iCase << ": a first arrival again";
        pUsb->Leave();
    }
}

TEST_F(Siblings, NewControlDeviceKeepsTheCount)
{
    EmuSibling* pPs2 = Machine->AddSibling(EmuPs2MouseSibling);
    EmuSibling* pUsb = Machine->AddSibling(EmuUsbMouseSibling);
    pUsb->Arrive();
    Replug();
    EXPECT_EQ(2, UsbArrivals()) << "reported again";
    EXPECT_EQ(0, UsbConnected()) << "not opened again";
    pUsb->Leave();
    pUsb->Arrive();
    EXPECT_EQ(0, UsbConnected());

    Application->Close();
    Keyboard->Unplug(false);
    pPs2->Arrive();                      // while nobody is registered
    Tell(GUID_DEVICE_INTERFACE_ARRIVAL); // a callback that outlived its registration
    EXPECT_EQ(3, UsbArrivals());
    Tell(GUID_DEVICE_INTERFACE_REMOVAL);
    Keyboard = Machine->Plug();
    HostSettle();
    EXPECT_EQ(1, Control()->Ps2Mouse.ucConnected) << "existing interfaces are told at once";
}

TEST_F(Siblings, QuickComingAndGoingQueuesOnce)
{
    EmuSibling* pUsb = Machine->AddSibling(EmuUsbMouseSibling);
    pUsb->Arrive();
    pUsb->Publish(false);
    Tell(GUID_DEVICE_INTERFACE_ARRIVAL);
    PIO_WORKITEM pWorkItem = Control()->UsbMouse.pWorkItem;
    EXPECT_NE(nullptr, pWorkItem);
    Tell(GUID_DEVICE_INTERFACE_REMOVAL);
    Tell(GUID_DEVICE_INTERFACE_ARRIVAL);
    EXPECT_EQ(Control()->UsbMouse.pWorkItem, pWorkItem) << "it will see this arrival too";
    HostSettle();
    EXPECT_EQ(nullptr, Control()->UsbMouse.pWorkItem);
    EXPECT_EQ(1, UsbConnected());
    Tell(GUID_DEVICE_INTERFACE_REMOVAL);
    Tell(GUID_DEVICE_INTERFACE_ARRIVAL);
    Tell(GUID_DEVICE_INTERFACE_REMOVAL);
    HostSettle();
    EXPECT_EQ(0, UsbConnected()) << "gone when the routine came to run";
}

TEST_F(Siblings, LateOpenDoesNotConnectWhatIsGone)
{
    EmuSibling* pUsb = Machine->AddSibling(EmuUsbMouseSibling);
    pUsb->Arrive(OpensLate);
    EXPECT_EQ(1u, pUsb->Held()) << "the work routine waits for the open";
    pUsb->Publish(false);
    pUsb->Release();
    EXPECT_EQ(0, UsbConnected());

    pUsb->Publish(true);
    pUsb->Publish(false);
    pUsb->Answer(Closed);
    pUsb->Publish(true); // this one's open fails at once, while the first one's is still under way
    pUsb->Release();
    EXPECT_EQ(1, UsbArrivals());
    EXPECT_EQ(0, UsbConnected()) << "the open belongs to the arrival before";

    pUsb->Publish(false);
    pUsb->Answer(OpensLate);
    pUsb->Publish(true);
    Application->Close();
    Keyboard->Unplug(false); // the control device goes under the work routine
    pUsb->Release();
}

TEST(SiblingEvents, AreClassifiedByAllTheirBytes)
{
    const GUID* const events[] = {&GUID_HWPROFILE_QUERY_CHANGE,         &GUID_HWPROFILE_CHANGE_CANCELLED,
                                  &GUID_HWPROFILE_CHANGE_COMPLETE,      &GUID_DEVICE_INTERFACE_ARRIVAL,
                                  &GUID_DEVICE_INTERFACE_REMOVAL,       &GUID_TARGET_DEVICE_QUERY_REMOVE,
                                  &GUID_TARGET_DEVICE_REMOVE_CANCELLED, &GUID_TARGET_DEVICE_REMOVE_COMPLETE};
    for (ULONG i = 0; i < 8; i++) {
        EXPECT_EQ(ClassifyPnpEvent(events[i]), i + 1);
        for (size_t at : {0, 5, 15}) {
            GUID other = *events[i];
            reinterpret_cast<UCHAR*>(&other)[at] ^= 0x80;
            EXPECT_EQ(0u, ClassifyPnpEvent(&other)) << i << " byte " << at;
        }
    }
}

// Plugs a keyboard in, types on it and takes it away.
void TypeOnce(EmuMachine& machine, bool bSurprise)
{
    EmuKeyboard* pKeyboard = machine.Plug();
    EXPECT_EQ(STATUS_SUCCESS, pKeyboard->StartStatus());
    EmuApplication application;
    EXPECT_EQ(STATUS_SUCCESS, application.StartReportProcessing(pKeyboard->Index()));
    for (int i = 0; i < 50; i++) {
        pKeyboard->Report(i % 2 ? Released : ControlHeld);
    }
    pKeyboard->Unplug(bSurprise);
}

// Mice come and go while keyboards are typed on; then while the control device is made and deleted with each.
TEST(Threaded, ModifierWordsMeetRemovalAndUnload)
{
    EmuMachine machine(DriverOptions(HostThreaded));
    ASSERT_EQ(STATUS_SUCCESS, machine.LoadStatus());
    EmuKeyboard* pStays = machine.Plug();
    EmuSibling* pPs2 = machine.AddSibling(EmuPs2MouseSibling);
    EmuSibling* pUsb = machine.AddSibling(EmuUsbMouseSibling);
    std::atomic<bool> bStop{false};
    std::atomic<size_t> words{0};
    HostThread mice = HostStartThread([&] {
        for (unsigned i = 0; !bStop; i++) {
            pPs2->Arrive(i % 3 == 0 ? Silent : Slow);
            pUsb->Arrive(i % 3 == 1 ? Refuses : EmuReply{});
            pPs2->Publish(i % 2 != 0);
            (i % 2 ? pUsb : pPs2)->Leave();
            words += pPs2->TakeWords().size() + pUsb->TakeWords().size();
        }
    });
    for (int iRound = 0; iRound < 10 || (words == 0 && iRound < 1000); iRound++) {
        TypeOnce(machine, iRound % 2 == 0);
    }
    pStays->Unplug(false);
    for (int iRound = 0; iRound < 10; iRound++) {
        TypeOnce(machine, iRound % 2 == 0);
    }
    bStop = true;
    HostJoinThread(mice);
    EXPECT_LT(0u, words);
    EXPECT_EQ(0u, machine.Unload());
}
} // namespace
