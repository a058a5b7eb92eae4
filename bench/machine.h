// machine.h - a driver with keyboards and hotkeys for the scenes, and the reference with the same hotkeys.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "driver/context.h"
#include "driver/driver.h"
#include "emu/app/machine.h"
#include "tests/reference/model.h"

using Scans = std::vector<uint8_t>;

// What stands in the list: so many hotkeys of so many keys, none of which is used by the reports, but for the last
// hotkey, whose keys are given; no keys: it is like the others.
struct Hotkeys {
    const EmuDescriptors* Kind;
    unsigned Count, KeysEach;
    uint32_t Modifiers;
    Scans Last;
    bool AllHoldTheFirstOfLast = false; // the worst case: each begins with the first key of Last
};

std::vector<KeyDefinition> DefinitionsOf(const Hotkeys& hotkeys);

class Stage
{
public:
    // The oldest keyboard is measured; with a log file the log is on at this level.
    explicit Stage(const Hotkeys& hotkeys, unsigned keyboards = 1, uint32_t ulLogLevel = 0);
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    void Define(const KeyDefinition& definition);
    void Process(); // the application switches report processing on
    void DropEvents();
    EmuKeyboard* Keyboard() const { return m_Keyboard; }
    DeviceContext* Context() const;

private:
    std::string m_Folder;
    std::unique_ptr<EmuMachine> m_Machine;
    EmuKeyboard* m_Keyboard;
};

// A scene that does not do what its name says is not timed.
void Require(bool bHolds, const char* pszWhat);
