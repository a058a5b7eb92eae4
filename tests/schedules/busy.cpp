// busy.cpp - the scene in which everybody does everything: two type, two applications work, one pulls and plugs.
#include "life.h"

namespace
{
enum { TYPED = 14, APPLIED = 5 };

// Plain keys, the macro mode's key, two macros, a hotkey with its modifier, Esc, the point-of-sale's arrow,
// Caps Lock; on a power keyboard its mode key and the volume.
void Type(Life& life, EmuKeyboard* pKeyboard, bool bPower)
{
    static const UCHAR KEYS[] = {0x04, 0x39, 0x3A, 0x3B, 0x29, 0x05, 0x52, 0x39};
    static const EmuBytes POWER[] = {{0x23, 0x02}, {0xE9, 0x00}, {0xE9, 0x00}, {0xEA, 0x00}};
    for (int i = 0; i < TYPED; i++) {
        if (bPower) {
            pKeyboard->Report(POWER[life.Draw(4)]);
            life.Pause();
            pKeyboard->Report({0, 0});
        } else {
            const UCHAR ucModifiers = life.Draw(3) == 0 ? 0x01 : 0;
            pKeyboard->Report({ucModifiers, 0, KEYS[life.Draw(sizeof KEYS)], 0, 0, 0, 0, 0});
            life.Pause();
            pKeyboard->Report({0, 0, 0, 0, 0, 0, 0, 0});
        }
        life.Pause();
    }
}

// A definition of one of the routing types comes, something is inserted, what is queued is taken, and it goes.
void Apply(Life& life, bool b32)
{
    static const uint32_t TYPES[] = {1, 1, 1, 5, 11};
    for (ULONG i = 0; i < APPLIED; i++) {
        EmuApplication application(b32);
        const ULONG ulIndex = life.Draw(3);
        (void)application.RegisterNotifyEvent(ulIndex);
        (void)application.StartReportProcessing(ulIndex);
        KeyDefinition definition = {};
        definition.ulId = 1 + i + (b32 ? 100u : 0u);
        definition.ulType = TYPES[life.Draw(5)];
        definition.ulModifiers = definition.ulType == 1 ? 0x400 : 0;
        definition.ulSwallow = life.Draw(2);
        definition.usScanCount = definition.ulType == 1 ? 1 : 0;
        definition.ucScans[0] = 0x3B;
        (void)application.AddDefinition(ulIndex, definition);
        life.Pause();
        switch (life.Draw(4)) {
        case 0:
            (void)application.InsertScans(ulIndex, {0x2A, 0x1E, 0x9E, 0xAA}, life.Draw(2) != 0);
            break;
        case 1:
            (void)application.InsertUSBPackets(ulIndex, {FifoEntry{0, 8, {0, 0, 6}}, FifoEntry{0, 8, {}}});
            break;
        case 2:
            (void)application.RegisterMacroEvent();
            life.Pause();
            (void)application.TakeMacroRecords();
            break;
        default:
            (void)application.StopReportProcessing(ulIndex);
        }
        (void)application.TakeRecords(ulIndex);
        if (life.Draw(4) != 0) { // else the definition goes with the handle
            (void)application.RemoveDefinition(ulIndex, definition.ulId);
        }
        if (life.Draw(2) != 0) {
            (void)application.ReleaseNotifyEvent(ulIndex);
        }
    }
}

// The second keyboard is pulled in the middle, a third plugged in; before and after, LEDs and cancelled reads.
void PullAndPlug(Life& life)
{
    for (unsigned i = life.Draw(6); i > 0; i--) {
        life.Pause();
        (void)life.pKeyboards[0]->SendLed(static_cast<UCHAR>(i), EmuHidRouteClass);
        (void)life.pKeyboards[life.Draw(2)]->FailRead(STATUS_CANCELLED);
    }
    life.pKeyboards[1]->Unplug(true);
    life.Pause();
    life.pKeyboards[2] = life.Machine->Plug(EmuBootKeyboard, life.Plug);
    life.pKeyboards[2]->Report({1, 0, 0x3A, 0, 0, 0, 0, 0});
    life.Pause();
    if (life.Draw(2) != 0) {
        life.pKeyboards[2]->Unplug(false);
    }
}

void Begin(Life& life)
{
    for (int i = 0; i < 2; i++) {
        life.Begin(
            [&life, i] { Type(life, life.pKeyboards[i], i == 1 && life.pSecondKind == &EmuPowerKeyboard); });
        life.Begin([&life, i] { Apply(life, i != 0); });
    }
    life.Begin([&life] { PullAndPlug(life); });
}
} // namespace

const Scene BusyScene = {Begin, nullptr};
