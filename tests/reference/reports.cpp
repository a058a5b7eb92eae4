// reports.cpp - the reference's reports, kind by kind.
#include "model.h"

#include <cstring>

namespace reference
{
uint32_t FirstKeyPosition(uint32_t length)
{
    return length == 8 ? 2 : length == 3 ? 1 : 0;
}

bool IsKeyIn(uint8_t usage, const uint8_t* bytes, uint32_t length)
{
    for (uint32_t i = FirstKeyPosition(length); i < length; i++) {
        if (bytes[i] == usage) {
            return true;
        }
    }
    return false;
}

static uint32_t WordOf(const uint8_t* bytes)
{
    return bytes[0] | bytes[1] << 8 | bytes[2] << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

bool Keyboard::Report(uint32_t length, uint8_t* bytes)
{
    if (length == 0 || bytes == nullptr) {
        return false;
    }
    bool known = true;
    const bool taken = ByKind(length, bytes, &known);
    if (!known) {
        return false;
    }
    if (Inserted.Count != 0 && (length == 8 || length == 3)) {
        for (uint32_t i = FirstKeyPosition(length); i < length && bytes[i] != 0; i++) {
            Insert(bytes[i]);
            bytes[i] = 0;
        }
        for (uint32_t i = FirstKeyPosition(length); i < length && Inserted.Pop(&bytes[i]); i++) {
        }
    }
    m_World.Dump("(DiagUSBPacket) leaving with packet: ", length, bytes);
    if (length == 8) {
        UpdateModifierFlags(bytes, 8, false);
    }
    return taken;
}

bool Keyboard::ByKind(uint32_t length, uint8_t* bytes, bool* known)
{
    if (Type == Jaalaa) {
        m_World.Log(1, "(DiagUSBPacket) JaalaaEXTENDEDKbdType, ReportId=0x%02X", bytes[0]);
        if (bytes[0] == 2) {
            return ExtendedReport(length - 1, bytes + 1);
        }
        if (bytes[0] == 1) {
            return ExtendedPowerReport(length, bytes);
        }
        *known = false;
        return false;
    }
    if (Type == Chic) {
        m_World.Log(1, "(DiagUSBPacket) ChicEXTENDEDKbdType, ReportId=0x%02X", bytes[0]);
        if (bytes[0] == 3) {
            uint8_t work[5] = {bytes[0], bytes[1], bytes[2], bytes[3], 0};
            const bool taken = ExtendedReport(4, work + 1);
            memcpy(bytes, work, 4);
            return taken;
        }
        if (bytes[0] == 2) {
            return ExtendedPowerReport(length, bytes);
        }
        *known = false;
        return false;
    }
    return ByLength(length, bytes);
}

bool Keyboard::ByLength(uint32_t length, uint8_t* bytes)
{
    if (length == 8) {
        if (memcmp(bytes, "\1\1\1\1\1\1\1\1", 8) == 0) {
            return false;
        }
        Simple ? SimpleReport(8, bytes) : NormalReport(8, bytes);
        return true;
    }
    if (length == 3) {
        NormalReport(3, bytes);
        return true;
    }
    if (length == 2) {
        PowerReport(2, bytes);
        return true;
    }
    return false;
}

void Keyboard::NormalReport(uint32_t length, uint8_t* bytes)
{
    m_World.Dump("(DiagNormalPacket) new packet:", length, bytes);
    m_World.Dump("(DiagNormalPacket) old packet:", length, OldPacket);
    uint8_t received[8];
    memcpy(received, bytes, length);
    if (length == 8) {
        CheckModifierOnly(bytes);
        UpdateModifierFlags(bytes, 8, true);
    }
    UpdateModifierMatch();
    const uint32_t first = FirstKeyPosition(length);
    uint32_t current = length;
    uint8_t hotkeyReleased = 0;
    for (uint32_t i = first; i < current && OldPacket[i] != 0; i++) {
        if (!IsKeyIn(OldPacket[i], bytes, length)) {
            Scan(OldPacket[i], true, OldPacket, &i, &current, &hotkeyReleased);
        }
    }
    if (hotkeyReleased) {
        for (uint32_t i = first; i < current && bytes[i] != 0; i++) {
            bytes[i] = 0;
        }
    }
    uint32_t stopped = first;
    for (; stopped < current && bytes[stopped] != 0; stopped++) {
        uint8_t unused = 0;
        Scan(bytes[stopped], false, bytes, &stopped, &current, &unused);
    }
    if (Swallowed.Count != 0) {
        uint8_t key;
        while (Swallowed.Pop(&key)) {
            if (key != 0xA5 && !IsPrefix(key)) {
                Insert(key);
            }
        }
    }
    for (uint32_t i = current == 8 ? 2 : current == 3 ? 1 : stopped; i < current && bytes[i] != 0;) {
        if (bytes[i] == 0xA5 || IsPrefix(bytes[i])) {
            current = RemoveKey(bytes, current, i);
        } else {
            i++;
        }
    }
    memcpy(OldPacket, received, length);
    m_World.Dump("(DiagNormalPacket) new packet:", current, bytes);
}

// Returns whether the hotkey's key was in the report.
bool Keyboard::TakeOut(Entry& entry, uint32_t length, uint8_t* bytes)
{
    bool found = false;
    for (uint32_t i = FirstKeyPosition(length); i < length && bytes[i] != 0; i++) {
        if (bytes[i] != entry.Keys[0]) {
            continue;
        }
        found = true;
        RemoveKey(bytes, length, i);
        if (entry.Down == 0) {
            entry.Down = 1;
            Notify(entry.Id, 1);
            m_World.Log(1, "(DiagNormalPacket02) Fire DOWN event");
            if (UpAtOnce) {
                Notify(entry.Id, 0);
            }
            break;
        }
    }
    return found;
}

void Keyboard::SimpleReport(uint32_t length, uint8_t* bytes)
{
    m_World.Dump("(DiagNormalPacket02) new packet:", length, bytes);
    CheckModifierOnly(bytes);
    UpdateModifierFlags(bytes, 8, true);
    UpdateModifierMatch();
    for (int i = 0; i < LIST_ENTRIES && m_List[i].Id != 0; i++) {
        Entry& entry = m_List[i];
        if (entry.Keys[0] == 0) {
            continue;
        }
        const bool armed = entry.ModMatch == 1;
        if (armed && TakeOut(entry, length, bytes)) {
            continue;
        }
        if (entry.Down && !UpAtOnce) {
            if (armed) {
                m_World.Log(1, "(DiagNormalPacket02) Fire UP event (1)");
            }
            Notify(entry.Id, 0);
        }
        entry.Down = 0;
    }
    m_World.Dump("(DiagNormalPacket02) new packet:", length, bytes);
}

void Keyboard::PowerReport(uint32_t length, uint8_t* bytes)
{
    m_World.Dump("(DiagPowerPacket) new packet:", length, bytes);
    m_World.Dump("(DiagPowerPacket) old packet:", length, OldPowerPacket);
    const uint8_t received[2] = {bytes[0], bytes[1]};
    UpdateModifierMatch();
    uint32_t current = length;
    uint8_t unused = 0;
    for (uint32_t i = 0; i < current && OldPowerPacket[i] != 0; i++) {
        if (!IsKeyIn(OldPowerPacket[i], bytes, length)) {
            Scan(OldPowerPacket[i], true, OldPowerPacket, &i, &current, &unused);
        }
    }
    for (uint32_t i = 0; i < current && bytes[i] != 0; i++) {
        Scan(bytes[i], false, bytes, &i, &current, &unused);
    }
    uint8_t key;
    while (Swallowed.Pop(&key)) {
        Insert(key);
    }
    memcpy(OldPowerPacket, received, 2);
    m_World.Dump("(DiagPowerPacket) new packet:", current, bytes);
}

void Keyboard::SetDown(Entry& entry, bool down)
{
    if (entry.Down != down) {
        entry.Down = down;
        Notify(entry.Id, down);
    }
}

bool Keyboard::ExtendedReport(uint32_t length, uint8_t* keys)
{
    m_World.Dump("(DiagJaalaaPacket) new packet:", length, keys);
    if (length < 4 || length > 8) {
        return false;
    }
    UpdateModifierMatch();
    uint32_t held = WordOf(keys);
    for (int i = 0; i < LIST_ENTRIES && m_List[i].Id != 0; i++) {
        const uint32_t hotkey = WordOf(m_List[i].Keys);
        const bool down = m_List[i].ModMatch == 1 && (held & hotkey) == hotkey;
        SetDown(m_List[i], down);
        if (down) {
            held &= ~hotkey;
            for (int k = 0; k < 4; k++) {
                keys[k] = static_cast<uint8_t>(held >> 8 * k);
            }
        }
    }
    m_World.Dump("(DiagJaalaaPacket) new packet:", length, keys);
    return true;
}

bool Keyboard::ExtendedPowerReport(uint32_t length, uint8_t* bytes)
{
    m_World.Dump("(DiagJaalaaPacketPower) new packet:", length, bytes);
    if (length != 2) {
        return false;
    }
    UpdateModifierMatch();
    uint32_t power = bytes[1] == 0 ? 0 : bytes[1] << 8 | bytes[0];
    for (int i = 0; i < LIST_ENTRIES && m_List[i].Id != 0; i++) {
        const uint32_t hotkey = WordOf(m_List[i].Keys);
        const bool down = m_List[i].ModMatch == 1 && hotkey == power;
        SetDown(m_List[i], down);
        if (down) {
            power &= ~hotkey;
            bytes[1] = static_cast<uint8_t>(power);
        }
    }
    m_World.Dump("(DiagJaalaaPacketPower) new packet:", 2, bytes);
    return true;
}
} // namespace reference
