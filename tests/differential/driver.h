// driver.h - the driver as the comparison sees it: one machine with a keyboard of each kind, whose state is read out
// and set back between two runs. The one place that knows where the driver keeps what.
#pragma once

#include <string>
#include <vector>

#include "emu/app/machine.h"
#include "tests/reference/model.h"

// What a report leaves behind, on either side.
struct Outcome {
    bool Taken;
    std::vector<uint8_t> Report;
    std::vector<NotifyRecord> Events;
    std::vector<uint8_t> Swallowed, Inserted, OldPacket, OldPowerPacket;
    std::vector<uint32_t> Flags; // word, prefixes, hotkey pass, active hotkey, sound or not
    std::string Log;
};

class Driver
{
public:
    enum { KEYBOARDS = 4 };

    Driver();
    ~Driver();
    Driver(const Driver&) = delete;
    Driver& operator=(const Driver&) = delete;

    // A run starts from nothing: no definition, no key held, no flag set.
    void Reset();
    void SetLog(bool bOn, uint32_t ulLevel);
    void SetKind(int keyboard, uint32_t ulKind);
    void SetSettings(int keyboard, bool bUpAtOnce, bool bSimple);

    bool Add(int keyboard, const KeyDefinition& definition);
    bool Remove(int keyboard, uint32_t ulId);
    void RemoveAll(int keyboard);
    Outcome Report(int keyboard, std::vector<uint8_t> report, bool bModifiersFirst);

    static uint32_t Now();        // the stamp of events
    static std::string LogHead(); // the time as the log writes it
    static const reference::Kind Kinds[KEYBOARDS];

private:
    std::string TakeLog();

    std::unique_ptr<EmuMachine> m_Machine;
    EmuKeyboard* m_Keyboards[KEYBOARDS];
};
