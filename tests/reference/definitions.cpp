// definitions.cpp - the reference's definitions and the list of hotkeys, made anew from all of them at each change.
#include "model.h"

#include <cstring>

#include "report/keytable.h"

namespace reference
{
const KeyDefinition* Keyboard::FindDefinition(uint32_t id) const
{
    for (uint32_t i = 0; i < m_DefinitionCount; i++) {
        if (m_Definitions[i].ulId == id) {
            return &m_Definitions[i];
        }
    }
    return nullptr;
}

bool Keyboard::Add(const KeyDefinition& definition)
{
    if (definition.usScanCount > sizeof(definition.ucScans)) {
        return false;
    }
    for (uint32_t i = 0; i < m_DefinitionCount; i++) {
        if (memcmp(&m_Definitions[i], &definition, sizeof(definition)) == 0) {
            return false;
        }
    }
    if (m_DefinitionCount >= LIST_ENTRIES - 1) {
        return false;
    }
    m_Definitions[m_DefinitionCount++] = definition;
    return definition.ulType != 1 || Build();
}

bool Keyboard::Remove(uint32_t id)
{
    const KeyDefinition* found = FindDefinition(id);
    if (found == nullptr) {
        return false;
    }
    const bool hotkey = found->ulType == 1;
    for (uint32_t i = static_cast<uint32_t>(found - m_Definitions); i + 1 < m_DefinitionCount; i++) {
        m_Definitions[i] = m_Definitions[i + 1];
    }
    m_DefinitionCount--;
    if (hotkey) {
        Build();
    }
    return true;
}

void Keyboard::RemoveAll()
{
    m_DefinitionCount = 0;
    Build();
}

bool Keyboard::AppendKey(Entry* entry, uint32_t scanCode)
{
    const KeyTableRow* row = nullptr;
    for (const KeyTableRow& each : KeyTable) {
        if (each.ulScanCode == scanCode) {
            row = &each;
            break;
        }
    }
    uint32_t value = 0, bytes = 4;
    if (Type == Jaalaa || Type == Chic) {
        m_World.Log(3, "(ConvertPS2ToHID) Device with %s electronics", Type == Jaalaa ? "Jaalaa" : "Chic");
        value = row == nullptr ? 0 : Type == Jaalaa ? row->ulHIDJaalaa : row->ulHIDChic;
        if (value == 0) {
            m_World.Log(3, "(ConvertPS2ToHID) PS2ToHID returned an error, leaving (PS2Scan=0x%08x)",
                        scanCode);
            return false;
        }
        m_World.Log(3,
                    Type == Jaalaa ? "(ConvertPS2ToHID) PS2Scan=0x%08x, ulHIDJaalaa=0x%08X"
                                   : "(ConvertPS2ToHID) PS2Scan=0x%08x, ulHIDChic=0x%08X",
                    scanCode, value);
    } else {
        if (row == nullptr) {
            return false;
        }
        value = row->usUsage;
        bytes = row->usUsageBytes;
    }
    if (entry->KeyCount + bytes > ENTRY_KEYS) {
        return false;
    }
    for (uint32_t i = bytes; i > 0; i--) {
        entry->Keys[entry->KeyCount++] = static_cast<uint8_t>(value >> 8 * (i - 1));
    }
    return true;
}

bool Keyboard::Convert(const KeyDefinition& definition, Entry* entry)
{
    const uint8_t* scans = definition.ucScans;
    const uint32_t count = definition.usScanCount;
    memset(entry, 0, sizeof(*entry));
    for (uint32_t i = 0; i < count; i++) {
        uint32_t value = scans[i];
        if (scans[i] == 0xE1) {
            if (i + 2 >= count) {
                return false;
            }
            value = 0xE10000u + (scans[i + 1] << 8) + scans[i + 2];
            i += 2;
        } else if (scans[i] == 0xE0) {
            if (i + 1 >= count) {
                return false;
            }
            if (count == 4 && memcmp(scans, "\xE0\x2A\xE0\x37", 4) == 0) {
                value = 0xE02AE037;
                i += 3;
            } else {
                value = 0xE000u + scans[i + 1];
                i += 1;
            }
        }
        if (!AppendKey(entry, value)) {
            return false;
        }
    }
    return true;
}

// Keys that are tracked as modifiers are no keys of a hotkey.
void Keyboard::DropTrackedKeys(Entry* entry)
{
    for (uint32_t i = 0; i < entry->KeyCount;) {
        const bool tracked =
            (Type == Power && entry->Keys[i] == 0xA5) || (Type == Normal && IsPrefix(entry->Keys[i]));
        if (!tracked) {
            i++;
            continue;
        }
        for (uint32_t j = i; j + 1 < entry->KeyCount; j++) {
            entry->Keys[j] = entry->Keys[j + 1];
        }
        entry->Keys[--entry->KeyCount] = 0;
    }
}

// Returns how the last conversion went.
bool Keyboard::Build()
{
    const struct {
        uint32_t any, sides;
    } pairs[] = {{0x400, 0x006}, {0x800, 0x018}, {0x1000, 0x060}, {0x2000, 0x180}};
    memset(m_List, 0, sizeof(m_List));
    bool good = true;
    for (uint32_t i = 0; i < m_DefinitionCount; i++) {
        const KeyDefinition& definition = m_Definitions[i];
        if (definition.ulType != 1) {
            continue;
        }
        Entry entry;
        good = Convert(definition, &entry);
        if (!good) {
            continue;
        }
        DropTrackedKeys(&entry);
        if (definition.ulId == 0) {
            continue;
        }
        entry.Id = definition.ulId;
        entry.Modifiers = definition.ulModifiers;
        if (entry.Modifiers & 0x200) {
            if (entry.KeyCount >= ENTRY_KEYS) {
                good = false; // no room for the context key
                continue;
            }
            entry.Keys[entry.KeyCount++] = 0x65;
        }
        for (const auto& pair : pairs) {
            if (definition.ulModifiers & pair.any) {
                entry.Modifiers &= ~pair.sides;
            }
        }
        uint32_t at = 0;
        while (at < LIST_ENTRIES && m_List[at].Id != 0 &&
               !(m_List[at].Id == entry.Id && m_List[at].Modifiers == entry.Modifiers &&
                 m_List[at].KeyCount == entry.KeyCount &&
                 memcmp(m_List[at].Keys, entry.Keys, ENTRY_KEYS) == 0)) {
            at++;
        }
        if (at < LIST_ENTRIES && m_List[at].Id == 0) {
            m_List[at] = entry;
        }
    }
    return good;
}
} // namespace reference
