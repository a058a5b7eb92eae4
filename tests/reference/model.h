// model.h - the report engine told plainly: the walk over the whole hotkey list that the driver's must equal.
//
//   World      what all keyboards share: the modifier word, the flags of the hotkey pass, the log's text
//   Keyboard   one keyboard: definitions, the list made from them, key buffers, previous reports, events
//
// Written for reading, with one array and one loop for everything and no thought for time. Of the driver it knows the
// records of applications and the rows of the key table; it shares no routine with it. One thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "control/requests.h"

namespace reference
{
enum Kind : uint32_t { Unknown, Normal, Power, Jaalaa, Chic, Other };
enum { LIST_ENTRIES = 512, ENTRY_KEYS = 32, BUFFER_KEYS = 1024, LOG_CHARACTERS = 40949 };

struct World {
    uint32_t Word = 0;
    uint32_t PrefixReleased = 0, PrefixUnmatched = 0;
    uint8_t Prefixes[3] = {0x89, 0x8B, 0x8A}; // Prefix1, Prefix2, PosKeyPrefix
    uint8_t HotkeyComplete = 0, EscAbort = 0, SwallowPending = 0;
    uint32_t Now = 0; // the stamp of events

    bool LogOn = false;
    uint32_t LogLevel = 0;
    std::string LogHead; // before each message: the time
    std::string LogText; // as much as the log's buffer holds

    bool Logs(uint8_t level) const { return LogOn && LogsLevel(level); }
    void Log(uint8_t level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    void Dump(const char* title, uint32_t length, const uint8_t* bytes);

private:
    bool LogsLevel(uint8_t level) const;
};

struct Entry {
    uint8_t Down, ModMatch;
    uint32_t Id, Modifiers, KeyCount;
    uint8_t Keys[ENTRY_KEYS], KeyDown[ENTRY_KEYS];
};

struct KeyBuffer {
    uint8_t Bytes[BUFFER_KEYS] = {};
    uint16_t Count = 0;

    bool Push(uint8_t key);
    bool Pop(uint8_t* key);
    void Clear();
};

class Keyboard
{
public:
    Keyboard(World& world, Kind kind) : m_World(world), Type(kind) {}

    // False: refused.
    bool Add(const KeyDefinition& definition);
    bool Remove(uint32_t id);
    void RemoveAll();

    // One completed report, rewritten in place. False: no handler has taken it.
    bool Report(uint32_t length, uint8_t* bytes);
    void UpdateModifierFlags(const uint8_t* bytes, uint32_t length, bool prefixes);

private:
    World& m_World;

public:
    Kind Type;
    bool UpAtOnce = false, Simple = false; // the two settings
    uint8_t OldPacket[8] = {}, OldPowerPacket[2] = {};
    KeyBuffer Swallowed, Inserted;
    uint8_t HotkeyActive = 0;
    uint32_t ActiveHotkeyId = 0;
    std::vector<NotifyRecord> Events;

private:
    // definitions.cpp
    bool Build();
    bool Convert(const KeyDefinition& definition, Entry* entry);
    bool AppendKey(Entry* entry, uint32_t scanCode);
    void DropTrackedKeys(Entry* entry);
    const KeyDefinition* FindDefinition(uint32_t id) const;

    // model.cpp
    bool IsPrefix(uint8_t usage) const;
    bool Matches(uint32_t mask) const;
    void Send(uint32_t id, uint32_t value, uint32_t escAbort);
    void Notify(uint32_t id, uint8_t down);
    uint32_t RemoveKey(uint8_t* bytes, uint32_t length, uint32_t index);
    uint32_t Swallow(uint8_t* bytes, uint32_t length, uint32_t index);
    void Insert(uint8_t key);
    void GiveBack();
    void UpdateModifierMatch();
    void CheckModifierOnly(uint8_t* bytes);
    bool UpdateByScan(uint8_t usage, bool released);
    uint8_t FindTrueMatch(uint8_t* noPartial, uint8_t* swallow, uint8_t* hotkeyReleased);
    void Scan(uint8_t usage, bool released, uint8_t* bytes, uint32_t* index, uint32_t* length,
              uint8_t* hotkeyReleased);
    void ForeignKey(bool released, uint8_t* bytes, uint32_t* index, uint32_t* length);
    void HotkeyKey(bool released, uint8_t* bytes, uint32_t* index, uint32_t* length, uint8_t* hotkeyReleased);

    // reports.cpp
    bool ByKind(uint32_t length, uint8_t* bytes, bool* known);
    bool ByLength(uint32_t length, uint8_t* bytes);
    void NormalReport(uint32_t length, uint8_t* bytes);
    void SimpleReport(uint32_t length, uint8_t* bytes);
    bool TakeOut(Entry& entry, uint32_t length, uint8_t* bytes);
    void PowerReport(uint32_t length, uint8_t* bytes);
    bool ExtendedReport(uint32_t length, uint8_t* keys);
    bool ExtendedPowerReport(uint32_t length, uint8_t* bytes);
    void SetDown(Entry& entry, bool down);

    KeyDefinition m_Definitions[LIST_ENTRIES] = {};
    uint32_t m_DefinitionCount = 0;
    Entry m_List[LIST_ENTRIES] = {};
};

uint32_t FirstKeyPosition(uint32_t length);
bool IsKeyIn(uint8_t usage, const uint8_t* bytes, uint32_t length);
} // namespace reference
