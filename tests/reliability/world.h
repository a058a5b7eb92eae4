// world.h - a system with keyboards and an application, lived through whole scenarios in which calls fail.
//
// A scenario is what users do from beginning to end. It looks at no status: whatever fails, the next deed follows,
// as it would on a desk. What must hold afterwards is asked by the checks: every read of the system above is at
// the keyboard or held by the driver, a new keyboard works, and unloading leaves nothing behind.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "driver/context.h"
#include "driver/driver.h"
#include "emu/app/application.h"
#include "emu/app/machine.h"
#include "tests/macro_file.h"

// On which keyboards the macro mode's hotkey lies. Those keyboards know no other road.
enum MacroMode : ULONG { NoMacroMode = 0, MacroModeOnKeys = 0x00010039, MacroModeOnPowerKeys = 0x02010023 };

struct World {
    World();

    // Loads the driver; before that, `beforeLoad` is called.
    void Load(const std::function<void()>& beforeLoad = {});
    EmuKeyboard* Plug(const EmuDescriptors& kind = EmuBootKeyboard);
    // Opens the application and lets it work with the keyboard.
    void Open(EmuKeyboard* pKeyboard);
    // A key goes down, with modifiers, and everything up again.
    static void Press(EmuKeyboard* pKeyboard, UCHAR ucUsage, UCHAR ucModifiers = 0);
    // Time goes by. With the real clock that is a few milliseconds at most: nobody sits through 20 minutes of waits.
    void Let(unsigned uMs) const;

    HostMode Mode = HostSimulated;
    MacroMode Macros = NoMacroMode; // as the driver finds it when it is loaded
    DriveFolder Drive;              // what C:\ is
    std::unique_ptr<EmuMachine> Machine;
    std::unique_ptr<EmuApplication> Application;
    std::vector<EmuKeyboard*> Keyboards;
};

struct Scenario {
    const char* pName;
    void (*pPrepare)(World& world); // nothing fails here
    void (*pRun)(World& world, const std::function<void()>& beforeLoad);
};

extern const std::vector<Scenario> Scenarios;

// All of what must hold after a scenario, failed calls or not. Ends with the driver unloaded.
void CheckAfterwards(World& world);
