// model.cpp - the reference's modifier word, key buffers, log and hotkey pass.
#include "model.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace reference
{
bool World::LogsLevel(uint8_t level) const
{
    return level <= (LogLevel & 0xFF) && (LogLevel != 10 || level == 10);
}

void World::Log(uint8_t level, const char* format, ...)
{
    if (!Logs(level)) {
        return;
    }
    char message[2048];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, sizeof(message), format, arguments);
    va_end(arguments);
    if (LogText.size() < LOG_CHARACTERS) {
        LogText += LogHead + message + "\r\n";
        if (LogText.size() > LOG_CHARACTERS) {
            LogText.resize(LOG_CHARACTERS);
        }
    }
}

void World::Dump(const char* title, uint32_t length, const uint8_t* bytes)
{
    if (!Logs(1)) {
        return;
    }
    if (length == 0) {
        Log(1, "%s ulLen is 0", title);
    }
    for (uint32_t first = 0; first < length; first += 16) {
        std::string line;
        uint32_t end = first;
        for (; end < length && end < first + 16; end++) {
            char digits[4];
            snprintf(digits, sizeof(digits), "%02x ", bytes[end]);
            line += digits;
        }
        Log(1, "%s[%02u-%02u]: %s", title, first, end - 1, line.c_str());
    }
}

bool KeyBuffer::Push(uint8_t key)
{
    if (Count >= BUFFER_KEYS) {
        return false;
    }
    Bytes[Count++] = key;
    return true;
}

bool KeyBuffer::Pop(uint8_t* key)
{
    if (Count == 0) {
        return false;
    }
    *key = Bytes[0];
    memmove(Bytes, Bytes + 1, BUFFER_KEYS - 1);
    Bytes[BUFFER_KEYS - 1] = 0;
    Count--;
    return true;
}

void KeyBuffer::Clear()
{
    memset(Bytes, 0, sizeof(Bytes));
    Count = 0;
}

bool Keyboard::IsPrefix(uint8_t usage) const
{
    return usage == m_World.Prefixes[0] || usage == m_World.Prefixes[1] || usage == m_World.Prefixes[2];
}

bool Keyboard::Matches(uint32_t mask) const
{
    const uint32_t word = m_World.Word;
    if (mask == word) {
        return true;
    }
    const uint32_t others = mask & 0xC7FFFFFF;
    return others != 0 && ((mask ^ word) & 0x38000000) == 0 && (others & word) == others;
}

void Keyboard::UpdateModifierFlags(const uint8_t* bytes, uint32_t length, bool prefixes)
{
    const struct {
        uint8_t bit;
        uint32_t flag;
    } bits[] = {{0x01, 0x02}, {0x10, 0x04}, {0x02, 0x08}, {0x20, 0x10},
                {0x04, 0x20}, {0x40, 0x40}, {0x08, 0x80}, {0x80, 0x100}};
    const struct {
        uint32_t sides, any;
    } pairs[] = {{0x006, 0x400}, {0x018, 0x800}, {0x060, 0x1000}, {0x180, 0x2000}};
    const uint32_t before = m_World.Word;
    uint32_t& word = m_World.Word;
    const auto set = [&word](bool on, uint32_t flag) { word = on ? word | flag : word & ~flag; };
    for (const auto& each : bits) {
        set(bytes[0] & each.bit, each.flag);
    }
    bool context = false, fn = false, prefix[3] = {};
    for (uint32_t i = 0; i < length; i++) {
        context = context || bytes[i] == 0x65;
        fn = fn || bytes[i] == 0xA5;
        for (int p = 0; p < 3; p++) {
            prefix[p] = prefix[p] || bytes[i] == m_World.Prefixes[p];
        }
    }
    if (context) {
        m_World.Log(3, "(UpdateModifierFlags) ContextKey dn");
    } else if (before & 0x200) {
        m_World.Log(3, "(UpdateModifierFlags) ContextKey up");
    }
    set(context, 0x200);
    if (prefixes && Type == Normal) {
        const uint32_t flags[3] = {0x10000000, 0x20000000, 0x08000000};
        set(fn, 0x80000000);
        for (int p = 0; p < 3; p++) {
            if (prefix[p]) {
                word |= flags[p];
            } else if (before & flags[p]) {
                m_World.PrefixReleased = 1;
            }
        }
    }
    for (const auto& pair : pairs) {
        set(word & pair.sides, pair.any);
    }
}

void Keyboard::Send(uint32_t id, uint32_t value, uint32_t escAbort)
{
    NotifyRecord record = {};
    record.ulValue = value;
    record.ulEscAbort = escAbort;
    record.ucValid = 1;
    record.ulTime = m_World.Now;
    record.ulId = id;
    Events.push_back(record);
}

void Keyboard::Notify(uint32_t id, uint8_t down)
{
    Send(id, down, m_World.EscAbort);
    m_World.EscAbort = 0;
}

uint32_t Keyboard::RemoveKey(uint8_t* bytes, uint32_t length, uint32_t index)
{
    m_World.Dump("(RemoveKeyFromBuffer) pBuf: ", length, bytes);
    if (index + 1 > length) {
        return length;
    }
    memmove(bytes + index, bytes + index + 1, length - index - 1);
    bytes[length - 1] = 0;
    m_World.Dump("(RemoveKeyFromBuffer) pBuf: ", length, bytes);
    return length - 1;
}

uint32_t Keyboard::Swallow(uint8_t* bytes, uint32_t length, uint32_t index)
{
    if (!Swallowed.Push(bytes[index])) {
        return length;
    }
    const uint32_t left = RemoveKey(bytes, length, index);
    m_World.Dump("(SwallowScan) leaving, SwallowBuf: ", Swallowed.Count, Swallowed.Bytes);
    return left;
}

void Keyboard::Insert(uint8_t key)
{
    if (Inserted.Push(key)) {
        m_World.Dump("(AddDataToInsertBuffer) leaving. InsertBuf: ", Inserted.Count, Inserted.Bytes);
    }
}

void Keyboard::GiveBack()
{
    uint8_t key;
    while (Swallowed.Pop(&key)) {
        if (Type == Normal && key != 0xA5 && !IsPrefix(key) && m_World.PrefixReleased == 0) {
            Insert(key);
        }
    }
}

void Keyboard::UpdateModifierMatch()
{
    bool used = false;
    for (int i = 0; i < LIST_ENTRIES && m_List[i].Id != 0; i++) {
        m_List[i].ModMatch = Matches(m_List[i].Modifiers);
        if (m_List[i].Modifiers & m_World.Word & 0x38000000) {
            used = true;
        }
    }
    if (!used && (m_World.Word & 0x38000000)) {
        m_World.PrefixReleased = 0;
        m_World.PrefixUnmatched = 1;
    }
}

void Keyboard::CheckModifierOnly(uint8_t* bytes)
{
    const struct {
        uint32_t flag;
        uint8_t bit;
    } bits[] = {{0x02, 0x01}, {0x04, 0x10}, {0x08, 0x02}, {0x10, 0x20},
                {0x20, 0x04}, {0x40, 0x40}, {0x80, 0x08}, {0x100, 0x80}};
    uint8_t swallow = 1;
    for (int i = 0; i < LIST_ENTRIES && m_List[i].Id != 0; i++) {
        Entry& entry = m_List[i];
        if (entry.Keys[0] != 0) {
            continue;
        }
        uint8_t wanted = 0;
        for (const auto& each : bits) {
            wanted |= entry.Modifiers & each.flag ? each.bit : 0;
        }
        if ((bytes[0] & wanted) == wanted) {
            if (entry.Down == 0) {
                entry.Down = 1;
                Notify(entry.Id, 1);
                if (UpAtOnce) {
                    Notify(entry.Id, 0);
                }
            }
            const KeyDefinition* definition = FindDefinition(entry.Id);
            if (definition != nullptr) {
                swallow = static_cast<uint8_t>(definition->ulSwallow);
            }
            if (swallow != 0) {
                bytes[0] &= ~wanted;
            }
        } else if (entry.Down == 1) {
            if (!UpAtOnce) {
                Notify(entry.Id, 0);
            }
            entry.Down = 0;
        }
    }
}

// Marks or clears the first occurrence of the key that is not in the wanted state, and tells whether it occurs at all.
static bool Mark(Entry& entry, uint8_t usage, uint8_t down)
{
    bool hit = false;
    for (uint32_t k = 0; k < entry.KeyCount; k++) {
        if (entry.Keys[k] == usage) {
            hit = true;
            if (entry.KeyDown[k] != down) {
                entry.KeyDown[k] = down;
                break;
            }
        }
    }
    return hit;
}

bool Keyboard::UpdateByScan(uint8_t usage, bool released)
{
    bool result = false;
    for (uint32_t i = 0; i < LIST_ENTRIES && m_List[i].Id != 0; i++) {
        Entry& entry = m_List[i];
        if (entry.ModMatch != 1 && entry.Down != 1 && !released && m_World.PrefixReleased != 1) {
            continue;
        }
        if (Matches(entry.Modifiers)) {
            const bool hit = Mark(entry, usage, !released);
            result = result || hit;
            m_World.Dump("(UpdateHotkeyListByScan) ucHotkeyDown", entry.KeyCount, entry.KeyDown);
            if (entry.KeyCount > 1) {
                entry.ModMatch = hit;
            }
            continue;
        }
        entry.ModMatch = 0;
        for (uint32_t k = 0; released && k < entry.KeyCount; k++) {
            if (entry.Keys[k] == usage) {
                m_World.Log(3, "(UpdateHotkeyListByScan) clearing down code %02x at index %u of entry %u",
                            usage, k, i);
                if (entry.KeyDown[k] != 0) {
                    entry.KeyDown[k] = 0;
                    break;
                }
            }
        }
    }
    return result;
}

uint8_t Keyboard::FindTrueMatch(uint8_t* noPartial, uint8_t* swallow, uint8_t* hotkeyReleased)
{
    uint8_t result = 0;
    for (int i = 0; i < LIST_ENTRIES && m_List[i].Id != 0; i++) {
        Entry& entry = m_List[i];
        if (entry.KeyCount == 0) {
            continue;
        }
        m_World.Dump("(FindTrueMatch) ucHotkeyDown", entry.KeyCount, entry.KeyDown);
        bool all = true, any = false;
        for (uint32_t k = 0; k < entry.KeyCount; k++) {
            all = all && entry.KeyDown[k] == 1;
            any = any || entry.KeyDown[k] == 1;
        }
        if (all && entry.ModMatch == 1) {
            result = 1;
            const KeyDefinition* definition = FindDefinition(entry.Id);
            if (definition != nullptr) {
                *swallow = static_cast<uint8_t>(definition->ulSwallow);
            }
            if (entry.Down == 0) {
                entry.Down = 1;
                Send(entry.Id, 1, m_World.EscAbort);
                HotkeyActive = 1;
                ActiveHotkeyId = entry.Id;
            }
        } else if (entry.Down == 1) {
            entry.Down = 0;
            result = 0;
            *hotkeyReleased = 1;
            Send(entry.Id, 0, m_World.EscAbort);
            m_World.EscAbort = 0;
            HotkeyActive = 0;
            ActiveHotkeyId = entry.Id;
        } else if (any) {
            *noPartial = 0;
        }
    }
    return result;
}

void Keyboard::ForeignKey(bool released, uint8_t* bytes, uint32_t* index, uint32_t* length)
{
    m_World.HotkeyComplete = 0;
    if (m_World.SwallowPending == 1 && !released) {
        const uint32_t left = Swallow(bytes, *length, *index);
        if (left != *length) {
            *index -= 1;
            *length = left;
        }
        GiveBack();
        m_World.SwallowPending = 0;
    } else if (m_World.PrefixReleased == 1 && !released) {
        *length = RemoveKey(bytes, *length, *index);
        *index -= 1;
    }
    if (HotkeyActive == 1) {
        Send(ActiveHotkeyId, 0, 0);
        for (int i = 0; i < LIST_ENTRIES && m_List[i].Id != 0; i++) {
            if (m_List[i].Id == ActiveHotkeyId && m_List[i].Down == 1) {
                m_List[i].Down = 0;
            }
        }
        HotkeyActive = 0;
    }
}

void Keyboard::HotkeyKey(bool released, uint8_t* bytes, uint32_t* index, uint32_t* length,
                         uint8_t* hotkeyReleased)
{
    if (released) {
        uint8_t unused = 0;
        m_World.HotkeyComplete = FindTrueMatch(&unused, &unused, hotkeyReleased);
    } else {
        const uint32_t left = Swallow(bytes, *length, *index);
        if (left != *length) { // a key that finds no room stays, and counts as not swallowed
            *index -= 1;
            *length = left;
            m_World.SwallowPending = 1;
        }
    }
    uint8_t noPartial = 1, swallow = 0, unused = 0;
    m_World.HotkeyComplete = FindTrueMatch(&noPartial, &swallow, &unused);
    if (m_World.HotkeyComplete == 1 && swallow == 1) {
        Swallowed.Clear();
        if (*length > 3) {
            bytes[0] = 0;
        }
    } else if (noPartial == 1) {
        GiveBack();
    }
}

void Keyboard::Scan(uint8_t usage, bool released, uint8_t* bytes, uint32_t* index, uint32_t* length,
                    uint8_t* hotkeyReleased)
{
    if (m_World.HotkeyComplete == 1 && usage == 0x29 && !released) {
        *length = RemoveKey(bytes, *length, *index);
        *index -= 1;
        m_World.EscAbort = 1;
        return;
    }
    if (UpdateByScan(usage, released)) {
        HotkeyKey(released, bytes, index, length, hotkeyReleased);
    } else {
        ForeignKey(released, bytes, index, length);
    }
    if ((!IsPrefix(usage) && released && m_World.PrefixReleased != 0) || m_World.PrefixUnmatched != 0) {
        m_World.Word &= ~0x38000000u;
        m_World.PrefixReleased = 0;
        m_World.PrefixUnmatched = 0;
    }
}
} // namespace reference
