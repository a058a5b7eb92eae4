// world.cpp - the system of a scenario, and what must hold after it.
#include "world.h"

#include <algorithm>
#include <cstdlib>

#include "emu/hid/hid.h"

World::World()
{
    Drive.Write("macros.bin", TwoMacros());
}

void World::Load(const std::function<void()>& beforeLoad)
{
    EmuMachineOptions options;
    options.Entry = DriverEntry;
    options.Mode = Mode;
    const char* pDropped = getenv("TV64USB_DROP_LOCK");
    options.DroppedLock = pDropped != nullptr ? pDropped : "";
    options.FileRoot = Drive.Path();
    options.BeforeLoad = beforeLoad;
    options.Settings = {{"LogFile", "\\??\\C:\\driver.log"},
                        {"LogLevel", 1u},
                        {"KorvexHotkey", static_cast<ULONG>(Macros)},
                        {"KorvexLEDDisabled", 0u},
                        {"KorvexDelay", 2u},
                        {"KorvexConfigFile", "\\??\\C:\\macros.bin"}};
    Machine = std::make_unique<EmuMachine>(options);
    if (Machine->Driver() != nullptr) {
        (void)Machine->AddClassDevice(1);
        (void)Machine->AddSibling(EmuUsbMouseSibling)->Arrive();
    }
}

EmuKeyboard* World::Plug(const EmuDescriptors& kind)
{
    Keyboards.push_back(Machine->Plug(kind));
    return Keyboards.back();
}

void World::Open(EmuKeyboard* pKeyboard)
{
    if (!Application) {
        Application = std::make_unique<EmuApplication>();
    }
    (void)Application->RegisterNotifyEvent(pKeyboard->Index());
    (void)Application->StartReportProcessing(pKeyboard->Index());
}

void World::Press(EmuKeyboard* pKeyboard, UCHAR ucUsage, UCHAR ucModifiers)
{
    pKeyboard->Report({ucModifiers, 0, ucUsage, 0, 0, 0, 0, 0});
    HostSettle();
    pKeyboard->Report({0, 0, 0, 0, 0, 0, 0, 0});
    HostSettle();
}

void World::Let(unsigned uMs) const
{
    const unsigned uMost = Mode == HostThreaded ? 5 : ~0u;
    HostAdvanceToUs(HostNowUs() + std::min(uMs, uMost) * 1000ull);
}

// Every read that the system above has out waits at the keyboard.
static bool ReadsAreBelow(const World& world)
{
    for (EmuKeyboard* pKeyboard : world.Keyboards) {
        if (pKeyboard->Plugged() && pKeyboard->Hid() != nullptr &&
            EmuHidOutstandingReads(pKeyboard->Hid()) != pKeyboard->PendingReads()) {
            return false;
        }
    }
    return true;
}

// The driver holds no read back for ever: 10 seconds after the last deed all are at the keyboard.
static void CheckReads(const World& world)
{
    const unsigned long long ullEnd = HostNowUs() + 10'000'000;
    while (world.Mode == HostThreaded && !ReadsAreBelow(world) && HostNowUs() < ullEnd) {
        world.Let(1);
    }
    world.Let(10000);
    EXPECT_TRUE(ReadsAreBelow(world));
}

// A keyboard that is plugged in now types, and its hotkey is told once down and once up.
static void CheckNewKeyboard(World& world)
{
    EmuKeyboard* pKeyboard = world.Plug();
    ASSERT_EQ(STATUS_SUCCESS, pKeyboard->AddStatus());
    ASSERT_EQ(STATUS_SUCCESS, pKeyboard->StartStatus());
    EmuApplication application;
    ASSERT_EQ(STATUS_SUCCESS, application.OpenStatus());
    const ULONG ulIndex = pKeyboard->Index();
    ASSERT_EQ(STATUS_SUCCESS, application.RegisterNotifyEvent(ulIndex));
    ASSERT_EQ(STATUS_SUCCESS, application.StartReportProcessing(ulIndex));
    const KeyDefinition hotkey = tvusb::MakeHotkey(77, MODIFIER_ANY_CONTROL, {0x3B}, false);
    ASSERT_EQ(STATUS_SUCCESS, application.AddDefinition(ulIndex, hotkey));
    (void)pKeyboard->Taken();
    World::Press(pKeyboard, 0x04);
    World::Press(pKeyboard, 0x3A, 0x01);
    EXPECT_EQ(4u, pKeyboard->Taken().size()) << "what a new keyboard types reaches the system";
    EXPECT_EQ(2u, application.TakeRecords(ulIndex).size()) << "its hotkey goes down and up";
}

void CheckAfterwards(World& world)
{
    if (world.Machine->Driver() != nullptr) {
        CheckReads(world);
        // The macro mode is for all keyboards: a mode left on, or its settings, would take the hotkey.
        Globals.ucKorvexMode = 0;
        Settings.ulKorvexHotkey = 0;
        CheckNewKeyboard(world);
    }
    world.Application.reset();
    EXPECT_EQ(0u, world.Machine->Unload()) << "things left over";
}
