// application_test.cpp - the control device, opens and closes, and what the last close releases.
#include <gtest/gtest.h>

#include "registry.h"
#include "control/control.h"
#include "emu/app/application.h"
#include "siblings/siblings.h"

namespace
{
// What the driver guards by its locks, read while nobody else runs.
bool HasEvent(DeviceContext* pContext) WITHOUT_LOCK_ANALYSIS
{
    return pContext->pNotifyEvent != nullptr;
}

bool HasMacroEvent() WITHOUT_LOCK_ANALYSIS
{
    return Globals.pMacroEvent != nullptr;
}

TEST(Application, LastCloseReleasesWhatItSetUp)
{
    EmuMachine machine(WithRegistry(""));
    DeviceContext* pContexts[] = {ContextOf(machine.Plug()), ContextOf(machine.Plug())};
    KEVENT* pClosed = &Control()->ClosedEvent;
    HANDLE hEvent = HostCreateEvent(false);
    EmuApplication* pFirst = new EmuApplication;
    EmuApplication* pSecond = new EmuApplication(true);
    EXPECT_EQ(2, Globals.usOpenCount);
    for (ULONG i = 0; i < 2; i++) {
        EXPECT_EQ(STATUS_SUCCESS, pFirst->AddDefinition(i, Hotkey(7)));
        EXPECT_EQ(STATUS_SUCCESS, pFirst->StartReportProcessing(i));
        EXPECT_EQ(STATUS_SUCCESS, pFirst->RegisterNotifyEvent(i));
    }
    EXPECT_EQ(STATUS_SUCCESS, pFirst->RegisterMacroEvent());
    EXPECT_EQ(STATUS_SUCCESS, pFirst->RegisterApplicationEvent(hEvent));
    delete pFirst;
    EXPECT_EQ(0, KeReadStateEvent(pClosed)) << "a handle is still open";
    EXPECT_EQ(KEYDEF_HOTKEY, pContexts[0]->ulKeyDefTypes & ~KEYDEF_MACRO_MODE);
    delete pSecond;
    EXPECT_NE(0, KeReadStateEvent(pClosed));
    EXPECT_EQ(0, Globals.usOpenCount);
    for (DeviceContext* pContext : pContexts) {
        EXPECT_EQ(0u, pContext->ulKeyDefTypes & ~KEYDEF_MACRO_MODE);
        EXPECT_EQ(0, pContext->ucReportProcessing);
        EXPECT_FALSE(HasEvent(pContext));
    }
    EXPECT_FALSE(HasMacroEvent());
    EXPECT_EQ(nullptr, Control()->pApplicationEvent);
    {
        EmuApplication again;
        EXPECT_EQ(0, KeReadStateEvent(pClosed)) << "cleared by every open";
    }
    HostCloseHandle(hEvent);
    EXPECT_EQ(0u, machine.Unload());
}

// The time that the surprise removal of the only keyboard takes, with an application that closes after so
// many milliseconds (0: not before the removal is through).
unsigned long long SurpriseUs(bool bRegister, unsigned ulCloseMs, bool* pbSignalled)
{
    EmuMachine machine(WithRegistry(""));
    EmuKeyboard* pKeyboard = machine.Plug();
    EmuApplication application;
    HANDLE hEvent = HostCreateEvent(false);
    if (bRegister) {
        EXPECT_EQ(STATUS_SUCCESS, application.RegisterApplicationEvent(hEvent));
    }
    HostThread thread = nullptr;
    if (ulCloseMs != 0) {
        thread = HostStartThread([&] {
            EXPECT_EQ(STATUS_SUCCESS, HostWaitEvent(hEvent, 60000000));
            LARGE_INTEGER delay;
            delay.QuadPart = -10000LL * ulCloseMs;
            KeDelayExecutionThread(KernelMode, FALSE, &delay);
            application.Close();
        });
    }
    const unsigned long long ullBefore = HostNowUs();
    EXPECT_TRUE(NT_SUCCESS(pKeyboard->SurpriseRemove()));
    const unsigned long long ullTaken = HostNowUs() - ullBefore;
    *pbSignalled = ulCloseMs != 0 || HostTakeEvent(hEvent);
    EXPECT_EQ(0, Globals.usStartedKeyboards);
    pKeyboard->Remove();
    EXPECT_EQ(nullptr, Globals.pControlDevice);
    if (thread != nullptr) {
        HostJoinThread(thread);
    }
    application.Close(); // may come after its device is gone
    EXPECT_EQ(0, Globals.usOpenCount);
    HostCloseHandle(hEvent);
    EXPECT_EQ(0u, machine.Unload());
    return ullTaken;
}

TEST(Application, IsToldOfTheLastSurpriseRemoval)
{
    bool bSignalled = false;
    EXPECT_EQ(5000000u, SurpriseUs(true, 0, &bSignalled)) << "waits no longer";
    EXPECT_TRUE(bSignalled);
    EXPECT_EQ(40000u, SurpriseUs(true, 40, &bSignalled)) << "goes on at the close";
    EXPECT_EQ(0u, SurpriseUs(false, 0, &bSignalled)) << "nobody to wait for";
    EXPECT_FALSE(bSignalled);
}

TEST(Application, IsToldNothingWhileAKeyboardIsLeft)
{
    EmuMachine machine(WithRegistry(""));
    EmuKeyboard* pFirst = machine.Plug();
    machine.Plug();
    EmuApplication application;
    HANDLE hEvent = HostCreateEvent(false);
    EXPECT_EQ(STATUS_SUCCESS, application.RegisterApplicationEvent(hEvent));
    const unsigned long long ullBefore = HostNowUs();
    EmuPlugOptions added;
    added.Start = false;
    EXPECT_EQ(STATUS_SUCCESS, machine.Plug(EmuBootKeyboard, added)->Unplug(true)); // was never one of them
    EXPECT_EQ(STATUS_SUCCESS, pFirst->Unplug(true));
    EXPECT_EQ(ullBefore, HostNowUs());
    EXPECT_FALSE(HostTakeEvent(hEvent));
    application.Close();
    HostCloseHandle(hEvent);
    EXPECT_EQ(0u, machine.Unload());
}

// A 32-bit process has handles of 32 bits, whose highest bit is a sign.
TEST(Application, HandlesOfASmallProcessAreWidenedWithTheirSign)
{
    EmuMachineOptions options = WithRegistry("");
    options.FirstHandle = 0xFFFFFFFF80000004;
    EmuMachine machine(options);
    EmuKeyboard* pKeyboard = machine.Plug();
    for (bool b32 : {true, false}) {
        EmuApplication application(b32);
        EXPECT_EQ(STATUS_SUCCESS, application.RegisterMacroEvent());
        ASSERT_EQ(STATUS_SUCCESS, application.RegisterNotifyEvent(pKeyboard->Index()));
        SignalMacroEvent();
        SignalNotifyEvent(FilterOf(pKeyboard));
        EXPECT_TRUE(application.MacroSignalled());
        EXPECT_TRUE(application.NotifySignalled(pKeyboard->Index()));
    }
    EXPECT_EQ(0u, machine.Unload());
}

// Records and the recording of reports belong to the driver: the next application finds them.
TEST(Application, LastCloseLeavesRecordsAndCapture)
{
    EmuMachine machine(WithRegistry("\"KorvexHotkey\"=dword:00010039\r\n"));
    EmuKeyboard* pKeyboard = machine.Plug();
    {
        EmuApplication first;
        EXPECT_EQ(STATUS_SUCCESS,
                  first.Request(IOCTL_TVUSB_SET_CAPTURE, {1, 1, 0, 0}, 0)); // the low byte counts
        EXPECT_TRUE(pKeyboard->Report({0, 0, 4, 0, 0, 0, 0, 0}));
        NotifyRecord record = {1, 0, 0, 1, 0, 0, 7};
        EXPECT_EQ(STATUS_SUCCESS, QueueNotifyRecord(FilterOf(pKeyboard), &record));
    }
    EmuApplication next;
    std::vector<UCHAR> capture;
    EXPECT_EQ(STATUS_SUCCESS, next.Request(IOCTL_TVUSB_GET_CAPTURE, {}, 4, &capture));
    EXPECT_EQ((std::vector<UCHAR>{1, 0, 0, 0}), capture);
    EXPECT_EQ(1u, next.TakeRecords(pKeyboard->Index()).size());
    EXPECT_EQ(1u, next.TakeMacroRecords().size());
    next.Close();
    EXPECT_EQ(0u, machine.Unload());
}

TEST(ControlDevice, CompletesEveryMajorFunction)
{
    EmuMachine machine(WithRegistry(""));
    machine.Plug();
    EXPECT_FALSE(IsMouseSiblingConnected());
    Globals.ucUsbMouseArrivals = Control()->UsbMouse.ucConnected = 1;
    EXPECT_TRUE(IsMouseSiblingConnected());
    EXPECT_EQ(0u, Globals.pControlDevice->Flags & DO_DEVICE_INITIALIZING);
    ULONG_PTR ulInformation = 0;
    for (UCHAR ucMajor = 0; ucMajor <= IRP_MJ_MAXIMUM_FUNCTION; ucMajor++) {
        if (ucMajor == IRP_MJ_DEVICE_CONTROL) {
            continue; // the dispatcher's own tests
        }
        EXPECT_EQ(STATUS_SUCCESS, Send(Globals.pControlDevice, ucMajor, 0, &ulInformation)) << +ucMajor;
        EXPECT_EQ(0u, ulInformation) << +ucMajor;
    }
    EXPECT_EQ(STATUS_NOT_IMPLEMENTED,
              Send(Globals.pControlDevice, IRP_MJ_PNP, IRP_MN_QUERY_DEVICE_RELATIONS, &ulInformation));
    EXPECT_EQ(0u, ulInformation);
    EXPECT_EQ(STATUS_SUCCESS, Send(Globals.pControlDevice, IRP_MJ_CLOSE, 0, &ulInformation));
    EXPECT_EQ(0, Globals.usOpenCount) << "a close at 0 leaves it there";
    EXPECT_EQ(0u, machine.Unload());
}

TEST(ControlDevice, IsNotForTheWorld)
{
    EmuMachine machine(WithRegistry(""));
    machine.Plug();
    ASSERT_NE(nullptr, Globals.pControlDevice);
    const UCHAR* pBytes = static_cast<const UCHAR*>(Globals.pControlDevice->SecurityDescriptor);
    ASSERT_NE(nullptr, pBytes);
    const std::vector<EmuBytes> parts = {
        {1, 0, 0x14, 0x80, 0, 0, 0,  0, 0, 0,
         0, 0, 20,   0,    0, 0, 48, 0, 0, 0}, // self-relative, lists at 20 and 48
        {2, 0, 28, 0, 1, 0, 0, 0},             // the label alone:
        {0x11, 0, 20, 0, 3, 0,  0, 0,    1, 1,
         0,    0, 0,  0, 0, 16, 0, 0x20, 0, 0}, // medium, no write up, no read up
        {2, 0, 72, 0, 3, 0, 0, 0},              // the access list, of three:
        {0, 0, 20, 0, 0xFF, 0x01, 0x1F, 0, 1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0}, // system: all
        {0, 0, 24, 0, 0xFF, 0x01, 0x1F, 0, 1,  2, 0, 0,
         0, 0, 0,  5, 32,   0,    0,    0, 32, 2, 0, 0}, // administrators
        {0, 0, 20, 0, 0x9F, 0x01, 0x12, 0, 1, 1,
         0, 0, 0,  0, 0,    2,    1,    0, 0, 0}, // console logon: read and write
    };
    EmuBytes expected;
    for (const EmuBytes& part : parts) {
        expected.insert(expected.end(), part.begin(), part.end());
    }
    EXPECT_EQ(expected, EmuBytes(pBytes, pBytes + expected.size()));
    EXPECT_EQ(0u, machine.Unload());
}

TEST(ControlDevice, SurvivesItsOpenHandles)
{
    EmuMachine machine(WithRegistry(""));
    EmuKeyboard* pFirst = machine.Plug();
    HANDLE hEvent = HostCreateEvent(false);
    EmuApplication application;
    EXPECT_EQ(STATUS_SUCCESS, application.RegisterApplicationEvent(hEvent));
    EXPECT_EQ(STATUS_SUCCESS, application.RegisterMacroEvent());
    EXPECT_EQ(STATUS_SUCCESS, application.RegisterNotifyEvent(pFirst->Index()));
    pFirst->Remove(); // in order, under an open handle: its events go with the device
    EmuKeyboard* pSecond = machine.Plug();
    EXPECT_TRUE(CanOpen());
    EXPECT_FALSE(HasMacroEvent()) << "free for the next application";
    EXPECT_EQ(1, Globals.usOpenCount);
    application.Close();
    EXPECT_EQ(0, Globals.usOpenCount);
    EXPECT_NE(0, KeReadStateEvent(&Control()->ClosedEvent));
    {
        EmuApplication late; // registers when the last keyboard, and the control device with it, is gone
        pSecond->Unplug(false);
        EXPECT_EQ(STATUS_SUCCESS, late.RegisterMacroEvent());
    }
    HostCloseHandle(hEvent);
    EXPECT_EQ(0u, machine.Unload());
}

// The count of handles never wraps: one more than it can hold is refused, and the others go on working.
TEST(ControlDevice, RefusesMoreHandlesThanItCounts)
{
    EmuMachine machine(WithRegistry(""));
    EmuKeyboard* pKeyboard = machine.Plug();
    {
        EmuApplication application;
        EXPECT_EQ(STATUS_SUCCESS, application.AddDefinition(0, Hotkey(7)));
        Globals.usOpenCount = MAXUSHORT; // as if 65,534 others were open
        ULONG_PTR ulInformation = 0;
        EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, EmuApplication().OpenStatus());
        EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Send(FilterOf(pKeyboard), IRP_MJ_CREATE, 0, &ulInformation));
        EXPECT_EQ(MAXUSHORT, Globals.usOpenCount);
        EXPECT_NE(0u, FilterContextOf(FilterOf(pKeyboard))->ulKeyDefTypes & KEYDEF_HOTKEY);
        Globals.usOpenCount = 1;
    }
    EXPECT_EQ(0u, machine.Unload());
}

// The last handle is closed when the control device is gone, but a keyboard is there that never started.
TEST(ControlDevice, LastCloseWithoutItReleasesWhatIsThere)
{
    EmuMachine machine(WithRegistry(""));
    EmuKeyboard* pStarted = machine.Plug();
    EmuPlugOptions added;
    added.Start = false;
    EmuKeyboard* pAdded = machine.Plug(EmuBootKeyboard, added);
    const ULONG ulAdded = pAdded->Index();
    {
        EmuApplication application;
        EXPECT_EQ(STATUS_SUCCESS, application.AddDefinition(ulAdded, Hotkey(7)));
        EXPECT_EQ(STATUS_SUCCESS, application.StartReportProcessing(ulAdded));
        EXPECT_EQ(STATUS_SUCCESS, application.RegisterNotifyEvent(ulAdded));
        pStarted->Unplug(false);
        EXPECT_EQ(nullptr, Globals.pControlDevice);
    }
    const PDEVICE_OBJECT pLeft = FirstKeyboard();
    ASSERT_NE(nullptr, pLeft);
    EXPECT_EQ(0u, FilterContextOf(pLeft)->ulKeyDefTypes & KEYDEF_HOTKEY);
    EXPECT_EQ(0, FilterContextOf(pLeft)->ucReportProcessing);
    EXPECT_EQ(STATUS_UNSUCCESSFUL, ReleaseNotifyEvent(ulAdded)) << "none is registered any more";
    ReleaseDevice(pLeft);
    EXPECT_EQ(0u, machine.Unload());
}
} // namespace
