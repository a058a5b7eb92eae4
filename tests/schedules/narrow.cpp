// narrow.cpp - the narrow scenes: two or three threads, and one place of the driver that they meet at.
//
// One keyboard each; nothing is drawn that would lead elsewhere. What the scenes share with the busy one is checked
// after them as well.
#include <algorithm>

#include "life.h"
#include "macro/macro.h"

namespace
{
enum : UCHAR { CAPS_LOCK = 0x39, ARROW_UP = 0x52, F2 = 0x3B };

void Press(EmuKeyboard* pKeyboard, UCHAR ucModifiers, UCHAR ucUsage)
{
    pKeyboard->Report({ucModifiers, 0, ucUsage, 0, 0, 0, 0, 0});
}

void Release(EmuKeyboard* pKeyboard)
{
    Press(pKeyboard, 0, 0);
}

KeyDefinition Definition(ULONG ulType, ULONG ulId)
{
    KeyDefinition definition = {};
    definition.ulId = ulId;
    definition.ulType = ulType;
    if (ulType == 1) {
        definition.usScanCount = 1;
        definition.ucScans[0] = F2;
    }
    return definition;
}

// An application that is there all the time and takes what the keyboard sends.
void OpenApplication(Life& life)
{
    life.Application = std::make_unique<EmuApplication>();
    const ULONG ulIndex = life.pKeyboards[0]->Index();
    life.Expect(NT_SUCCESS(life.Application->RegisterNotifyEvent(ulIndex)) &&
                    NT_SUCCESS(life.Application->StartReportProcessing(ulIndex)),
                "the application cannot begin");
}

void Define(Life& life, const KeyDefinition& definition)
{
    (void)life.Application->AddDefinition(life.pKeyboards[0]->Index(), definition);
}

// --- Lock keys and modifiers are held back while discard mode comes and goes, and given back by the next reads.
void BeginDiscard(Life& life)
{
    OpenApplication(life);
    life.Begin([&life] {
        for (int i = 0; i < 20; i++) {
            Press(life.pKeyboards[0], static_cast<UCHAR>(1 + i % 7), CAPS_LOCK);
        }
        Release(life.pKeyboards[0]);
    });
    life.Begin([&life] {
        for (ULONG i = 0; i < 10; i++) {
            Define(life, Definition(11, 1));
            (void)life.Application->RemoveDefinition(life.pKeyboards[0]->Index(), 1);
        }
    });
    life.Begin([&life] {
        for (int i = 0; i < 20; i++) {
            (void)life.pKeyboards[0]->FailRead(STATUS_CANCELLED);
        }
    });
}

// --- An arrow key at a point of sale is let go in the very moment of its first or second repeat, or just before: a
// repeat that is due soon may come earlier.
void BeginRepeat(Life& life)
{
    OpenApplication(life);
    Define(life, Definition(5, 1));
    const DeviceContext* pContext = FilterContextOf(life.pKeyboards[0]->Filter());
    life.Begin([&life, pContext] {
        static const unsigned HELD_MS[] = {250, 750};
        for (int i = 0; i < 12; i++) {
            Press(life.pKeyboards[0], 0, ARROW_UP);
            Life::Sleep(HELD_MS[life.Draw(2)] - life.Draw(2) * 5);
            Release(life.pKeyboards[0]);
            HostSettle();
            life.Expect(pContext->TypematicDelay.ullDue == 0 && pContext->TypematicRepeat.ullDue == 0,
                        "a repeat is due of a key that is up");
        }
    });
}

void CheckRepeat(Life& life)
{
    const DeviceContext* pContext = FilterContextOf(life.pKeyboards[0]->Filter());
    const ULONG ulTold = pContext->ulNotifyCount;
    life.Expect(ulTold != 0, "the arrow key was never told");
    HostAdvanceToUs(HostNowUs() + 3000000);
    life.Expect(pContext->ulNotifyCount == ulTold, "a key that is up repeats");
}

// --- Two applications open the driver, register an event each, and close again.
void BeginEvents(Life& life)
{
    for (int i = 0; i < 2; i++) {
        life.Begin([&life, i] {
            for (int iRound = 0; iRound < 12; iRound++) {
                HANDLE hEvent = HostCreateEvent(false);
                {
                    EmuApplication application(i != 0);
                    (void)application.RegisterApplicationEvent(hEvent);
                }
                life.Expect(!HostTakeEvent(hEvent),
                            "an application is told to close, but a keyboard is left");
                HostCloseHandle(hEvent);
            }
        });
    }
}

// --- A keyboard starts anew under another name, again and again, while its name is asked for.
enum : size_t { NAME_CHARS = 60 };

void Rename(EmuKeyboard* pKeyboard, WCHAR wcLetter)
{
    std::vector<WCHAR> name(NAME_CHARS, wcLetter);
    name.push_back(0);
    name.push_back(0);
    for (DEVICE_REGISTRY_PROPERTY property : {DevicePropertyHardwareID, DevicePropertyDeviceDescription}) {
        HostSetDeviceProperty(pKeyboard->Physical(), property, name.data(),
                              static_cast<ULONG>(name.size() * sizeof(WCHAR)));
    }
}

bool IsWhole(const char16_t (&name)[PROPERTY_CHARS])
{
    return std::all_of(name, name + NAME_CHARS, [&](char16_t c) { return c == name[0]; }) &&
           name[NAME_CHARS] == 0;
}

void CheckNames(Life& life, EmuApplication& application)
{
    USHORT usPosition = 0;
    std::vector<UCHAR> out;
    NTSTATUS status = application.RequestRecord(IOCTL_TVUSB_GET_KEYBOARD_INFO, 0, &usPosition,
                                                sizeof(usPosition), 8 + sizeof(KeyboardInfo), &out);
    KeyboardInfo info;
    life.Expect(NT_SUCCESS(status) && out.size() >= sizeof(info), "the keyboard is not described");
    if (out.size() >= sizeof(info)) {
        RtlCopyMemory(&info, out.data(), sizeof(info));
        life.Expect(IsWhole(info.HardwareId) && IsWhole(info.Description), "half a name is told");
    }
}

void BeginNames(Life& life)
{
    EmuKeyboard* pKeyboard = life.pKeyboards[0];
    Rename(pKeyboard, 'A');
    (void)pKeyboard->SendPnp(IRP_MN_STOP_DEVICE);
    (void)pKeyboard->Start();
    life.Begin([pKeyboard] {
        for (int i = 0; i < 5; i++) {
            Rename(pKeyboard, static_cast<WCHAR>('B' + i));
            (void)pKeyboard->SendPnp(IRP_MN_STOP_DEVICE);
            (void)pKeyboard->Start();
        }
    });
    for (int i = 0; i < 2; i++) {
        life.Begin([&life, i] {
            EmuApplication application(i != 0);
            for (int iAsked = 0; iAsked < 5; iAsked++) {
                CheckNames(life, application);
            }
        });
    }
}

// --- The first of two definitions goes and a third comes while the report road looks for the first.
enum : ULONG { LAST_ID = 16 };

void BeginDefinitions(Life& life)
{
    const ULONG ulType = life.Draw(2) != 0 ? 5 : 1;
    OpenApplication(life);
    Define(life, Definition(ulType, 1));
    Define(life, Definition(ulType, 2));
    life.Begin([&life] {
        for (int i = 0; i < 15; i++) {
            Press(life.pKeyboards[0], 0, i % 2 != 0 ? ARROW_UP : F2);
            Release(life.pKeyboards[0]);
        }
    });
    life.Begin([&life, ulType] {
        for (ULONG ulId = 3; ulId <= LAST_ID; ulId++) {
            (void)life.Application->RemoveDefinition(life.pKeyboards[0]->Index(), ulId - 2);
            Define(life, Definition(ulType, ulId));
        }
    });
}

void CheckDefinitions(Life& life)
{
    for (const NotifyRecord& record : life.Application->TakeRecords(life.pKeyboards[0]->Index())) {
        life.Expect(record.ulId <= LAST_ID, "an event of a definition that never was");
    }
}

// --- A mouse's driver comes and goes while its device is opened; when all is quiet, the driver speaks to it if and
// only if it is there.
void CheckSibling(Life& life)
{
    const ControlContext* pContext = ControlContextOf(Globals.pControlDevice);
    life.Expect(Globals.ucUsbMouseArrivals <= 1, "the mouse's arrivals are miscounted");
    life.Expect(pContext->UsbMouse.ucConnected == Globals.ucUsbMouseArrivals,
                "the driver takes a mouse that is not there for one that is, or the other way round");
}

void BeginSibling(Life& life)
{
    life.pMouse = life.Machine->AddSibling(EmuUsbMouseSibling);
    (void)life.pMouse->Arrive();
    life.Begin([&life] {
        for (int i = 0; i < 25; i++) {
            (void)life.pMouse->Publish(i % 4 != 3); // each fourth round ends with the mouse there
            life.Linger();
            (void)life.pMouse->Publish(i % 4 == 3);
            HostSettle();
            CheckSibling(life);
        }
    });
}

// --- Two applications change the macro delay and have the settings read anew: the newest stays.
template <typename Do> void WithDelaySetting(Do&& what)
{
    HANDLE hKey;
    OBJECT_ATTRIBUTES attributes;
    UNICODE_STRING name;
    InitializeObjectAttributes(&attributes, &Globals.ParametersPath, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    RtlInitUnicodeString(&name, L"KorvexDelay");
    if (NT_SUCCESS(ZwOpenKey(&hKey, KEY_ALL_ACCESS, &attributes))) {
        what(hKey, &name);
        ZwClose(hKey);
    }
}

ULONG ReadDelaySetting()
{
    struct {
        KEY_VALUE_PARTIAL_INFORMATION Info;
        UCHAR ucMore[8];
    } value = {};
    ULONG ulBytes, ulDelayMs = 0;
    WithDelaySetting([&](HANDLE hKey, PUNICODE_STRING pName) {
        (void)ZwQueryValueKey(hKey, pName, KeyValuePartialInformation, &value, sizeof(value), &ulBytes);
        RtlCopyMemory(&ulDelayMs, value.Info.Data, sizeof(ulDelayMs));
    });
    return ulDelayMs;
}

void ChangeDelay(ULONG ulDelayMs)
{
    EmuApplication application;
    WithDelaySetting([&](HANDLE hKey, PUNICODE_STRING pName) {
        (void)ZwSetValueKey(hKey, pName, 0, REG_DWORD, &ulDelayMs, sizeof(ulDelayMs));
    });
    (void)application.RequestRecord(IOCTL_TVUSB_RELOAD_MACROS, 0, nullptr, 0);
}

void BeginSettings(Life& life)
{
    life.Begin([&life] {
        for (ULONG ulRound = 1; ulRound <= 8; ulRound++) {
            HostThread other = HostStartThread([ulRound] { ChangeDelay(2 * ulRound); });
            ChangeDelay(2 * ulRound + 1);
            HostJoinThread(other);
            const ULONG ulNewest = ReadDelaySetting();
            life.Expect(ulNewest / 2 == ulRound, "the setting was not written");
            life.Expect(Settings.ulKorvexDelay == ulNewest, "an older setting than the newest is in force");
        }
    });
}
// --- The macro mode is switched on the report road and by the settings at once: the LED shows the newest.
void BeginLeds(Life& life)
{
    Settings.ucKorvexLEDDisabled = 0;
    for (int i = 0; i < 3; i++) {
        life.Begin([&life, i] {
            for (int iSwitch = 0; iSwitch < 8; iSwitch++) {
                const UCHAR ucMode = static_cast<UCHAR>(life.Draw(2));
                WriteShared(Globals.ucKorvexMode, ucMode);
                if (i == 0) {
                    QueueKorvexLed();
                } else {
                    (void)SetKorvexLed(ucMode);
                }
                life.Linger();
            }
        });
    }
}

void CheckLeds(Life& life)
{
    life.Expect((life.ucLeds != 0) == (Globals.ucKorvexMode != 0), "the LED shows an older mode");
}
} // namespace

const Scene NarrowScenes[NARROW_SCENES] = {
    {BeginDiscard, nullptr},
    {BeginRepeat, CheckRepeat},
    {BeginEvents, nullptr},
    {BeginNames, nullptr},
    {BeginDefinitions, CheckDefinitions},
    {BeginSibling, nullptr},
    {BeginSettings, nullptr},
    {BeginLeds, CheckLeds},
};
