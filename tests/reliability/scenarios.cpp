// scenarios.cpp - seven whole scenarios of a driver's life, in the order in which a machine lives them.
#include "world.h"

#include "control/call.h"

using Failing = std::function<void()>;

static KeyDefinition Definition(uint32_t ulId, uint32_t ulType, uint32_t ulModifiers, uint8_t ucScan)
{
    KeyDefinition definition = {};
    definition.ulId = ulId;
    definition.ulType = ulType;
    definition.ulModifiers = ulModifiers;
    definition.ulSwallow = 1;
    definition.usScanCount = ucScan != 0 ? 1 : 0;
    definition.ucScans[0] = ucScan;
    return definition;
}

static void Nothing(World&) {}

static void Loaded(World& world)
{
    world.Load();
}

static void OneKeyboard(World& world)
{
    world.Load();
    world.Open(world.Plug());
}

static void OneMacroKeyboard(World& world)
{
    world.Macros = MacroModeOnKeys;
    OneKeyboard(world);
}

static void PlugTwo(World& world)
{
    for (int i = 0; i < 2; i++) {
        EmuKeyboard* pKeyboard = world.Plug();
        world.Open(pKeyboard);
        (void)world.Application->AddDefinition(pKeyboard->Index(), Definition(1, 1, 0x400, 0x3B));
        pKeyboard->Report({1, 0, 0x3A, 0, 0, 0, 0, 0}); // its hotkey is held from now on
    }
}

static void TwoKeyboards(World& world)
{
    world.Load();
    PlugTwo(world);
}

static void LoadDriver(World& world, const Failing& beforeLoad)
{
    world.Load(beforeLoad);
}

static void AddAndStart(World& world, const Failing& beforeRun)
{
    beforeRun();
    for (const EmuKind& kind : EmuMachine::Kinds()) {
        world.Plug(*kind.pDescriptors);
    }
}

static void TypeHotkeys(World& world, const Failing& beforeRun)
{
    beforeRun();
    EmuKeyboard* pKeyboard = world.Keyboards[0];
    EmuApplication& application = *world.Application;
    const ULONG ulIndex = pKeyboard->Index();
    (void)application.AddDefinition(ulIndex, Definition(1, 1, 0x400, 0x3B));
    (void)application.AddDefinition(ulIndex, Definition(2, 1, 0, 0x1E));
    World::Press(pKeyboard, 0x3A, 0x01);
    World::Press(pKeyboard, 0x04);
    World::Press(pKeyboard, 0x05);
    (void)application.TakeRecords(ulIndex);
    (void)application.InsertScans(ulIndex, {0x2A, 0x1E, 0x9E, 0xAA});
    FifoEntry entry = {0, 8, {0, 0, 6}};
    (void)application.InsertUSBPackets(ulIndex, {entry, FifoEntry{0, 8, {}}});
    World::Press(pKeyboard, 0x06);
    (void)application.AddDefinition(ulIndex, Definition(5, 5, 0, 0)); // point of sale
    pKeyboard->Report({0, 0, 0x52, 0, 0, 0, 0, 0});
    world.Let(1500); // it repeats
    pKeyboard->Report({0, 0, 0, 0, 0, 0, 0, 0});
    (void)application.RemoveDefinition(ulIndex, 5);
    (void)application.AddDefinition(ulIndex, Definition(11, 11, 0, 0)); // discard
    World::Press(pKeyboard, 0x07, 0x02);
    (void)application.RemoveDefinition(ulIndex, 11);
    World::Press(pKeyboard, 0x08);
    (void)application.RemoveDefinition(ulIndex, 1);
    (void)application.RemoveDefinition(ulIndex, 2);
    (void)application.TakeRecords(ulIndex);
}

static void PlayMacros(World& world, const Failing& beforeRun)
{
    beforeRun();
    EmuKeyboard* pKeyboard = world.Keyboards[0];
    (void)world.Application->RegisterMacroEvent();
    for (UCHAR ucUsage : {0x39, 0x3A, 0x3B, 0x04, 0x39}) { // mode on, two macros, a plain key, mode off
        World::Press(pKeyboard, ucUsage);
        world.Let(100);
    }
    (void)world.Application->TakeMacroRecords();
    (void)world.Application->ReleaseMacroEvent();
}

// Each code once with a whole record and room, once as a 32-bit process, once with nothing.
static void TourOfRequests(World& world, const Failing& beforeRun)
{
    beforeRun();
    EmuKeyboard* pKeyboard = world.Keyboards[0];
    const ULONG ulIndex = pKeyboard->Index();
    RequestPayload payload = {};
    payload.Memory.usAddress = 4;
    payload.Memory.usLength = 8;
    for (ULONG ulCode = 0x222000; ulCode < 0x222200; ulCode += 4) {
        if (FindRequestRow(ulCode) == nullptr || ulCode == IOCTL_TVUSB_INSERT_SCANS) {
            continue; // InsertScans would wait for reports; typing has it
        }
        std::vector<UCHAR> out;
        (void)world.Application->RequestRecord(ulCode, ulIndex, &payload, sizeof payload, 2052, &out);
        EmuApplication other(true);
        (void)other.RequestRecord(ulCode, ulIndex, &payload, sizeof payload, 2052, &out);
        (void)other.Request(ulCode, {}, 0);
    }
}

// What went wrong while they came must not hurt when they go.
template <bool bFirst, bool bSurprise> static void RemoveTwo(World& world, const Failing& beforeRun)
{
    beforeRun();
    PlugTwo(world);
    world.Keyboards[bFirst ? 0 : 1]->Unplug(bSurprise);
    world.Keyboards[bFirst ? 1 : 0]->Unplug(!bSurprise);
}

static void UnloadDriver(World& world, const Failing& beforeRun)
{
    beforeRun();
    world.Application.reset();
    EXPECT_EQ(0u, world.Machine->UnloadDrivers()) << "things left over";
}

const std::vector<Scenario> Scenarios = {
    {"load", Nothing, LoadDriver},
    {"add and start", Loaded, AddAndStart},
    {"typing with hotkeys", OneKeyboard, TypeHotkeys},
    {"macro playback", OneMacroKeyboard, PlayMacros},
    {"tour of all requests", OneMacroKeyboard, TourOfRequests},
    {"removal, first one asked, second one pulled", Loaded, RemoveTwo<true, false>},
    {"removal, first one pulled, second one asked", Loaded, RemoveTwo<true, true>},
    {"removal, second one asked, first one pulled", Loaded, RemoveTwo<false, false>},
    {"removal, second one pulled, first one asked", Loaded, RemoveTwo<false, true>},
    {"unload", TwoKeyboards, UnloadDriver},
};
