// scene.cpp - random hotkeys of every shape, and reports of a person who presses their keys.
#include "scene.h"

#include <algorithm>

#include "report/keytable.h"

namespace
{
std::vector<uint8_t> ScansOf(uint32_t scanCode)
{
    std::vector<uint8_t> scans;
    for (int shift = 24; shift >= 0; shift -= 8) {
        if (scanCode >> shift != 0) {
            scans.push_back(static_cast<uint8_t>(scanCode >> shift));
        }
    }
    return scans;
}

Key KeyOf(const KeyTableRow& row)
{
    return {ScansOf(row.ulScanCode), row.usUsage, row.ulHIDJaalaa, row.ulHIDChic};
}

// Escape, the prefixes, the context key, Fn, volume, Print Screen: each means something to the engine.
const uint32_t Special[] = {0x01, 0x7D, 0x7B, 0x79, 0xE05D, 0xE00E, 0xE030, 0xE02E, 0xE02AE037, 0x3B};

const KeyTableRow& RowOf(uint32_t scanCode)
{
    const KeyTableRow* found =
        std::find_if(std::begin(KeyTable), std::end(KeyTable),
                     [=](const KeyTableRow& row) { return row.ulScanCode == scanCode; });
    return found == std::end(KeyTable) ? KeyTable[4] : *found;
}

bool HasScanCode(const KeyTableRow& row)
{
    return row.ulScanCode != NO_SCAN_CODE && row.ulScanCode != RESERVED_SCAN_CODE;
}
} // namespace

uint32_t Dice::Below(uint32_t limit)
{
    m_State ^= m_State << 13;
    m_State ^= m_State >> 7;
    m_State ^= m_State << 17;
    return static_cast<uint32_t>((m_State >> 32) % limit);
}

Keys::Keys(Dice& dice) : m_Dice(dice)
{
    for (uint32_t count = 3 + dice.Below(8); m_Keys.size() < count;) {
        if (dice.In(3)) {
            m_Keys.push_back(KeyOf(RowOf(dice.OneOf(Special))));
            continue;
        }
        const KeyTableRow& row = KeyTable[dice.Below(KEY_TABLE_ROWS)];
        if (HasScanCode(row) && (dice.In(2) || row.ulHIDJaalaa != 0 || row.ulHIDChic != 0)) {
            m_Keys.push_back(KeyOf(row));
        }
    }
}

KeyDefinition Keys::Definition()
{
    const uint32_t masks[] = {0,          0x400,      0x400,  0x800,      0x402,      0x2,        0x4,
                              0x8,        0x22,       0x1000, 0x200,      0x600,      0x10000000, 0x10000400,
                              0x20000000, 0x30000000, 0x180,  0x08000002, 0x80000000, 0x80000400, 0x2000};
    const uint32_t types[] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 5, 11, 12};
    KeyDefinition definition = {};
    definition.ulId = m_Dice.In(20) ? 0 : 1 + m_Dice.Below(m_Dice.In(2) ? 4 : 1000);
    definition.ulSwallow = m_Dice.In(6) ? m_Dice.Below(0x300) : m_Dice.Below(2);
    definition.ulType = m_Dice.OneOf(types);
    definition.ulModifiers = m_Dice.OneOf(masks);
    const uint32_t keys = m_Dice.In(12) ? 32 : m_Dice.Below(m_Dice.In(3) ? 5 : 3);
    for (uint32_t i = 0; i < keys; i++) {
        const Key& key = m_Keys[m_Dice.Below(static_cast<uint32_t>(m_Keys.size()))];
        for (uint8_t scan : m_Dice.In(60) ? std::vector<uint8_t>{0x7F} : key.Scans) {
            if (definition.usScanCount < sizeof(definition.ucScans)) {
                definition.ucScans[definition.usScanCount++] = scan;
            }
        }
    }
    return definition;
}

void Keys::PressAndRelease()
{
    for (uint32_t changes = 1 + m_Dice.Below(m_Dice.In(4) ? 4 : 1); changes > 0; changes--) {
        if (!m_Held.empty() && (m_Held.size() >= 6 || m_Dice.In(2))) {
            m_Held.erase(m_Held.begin() + m_Dice.Below(static_cast<uint32_t>(m_Held.size())));
        } else {
            m_Held.push_back(m_Dice.Below(static_cast<uint32_t>(m_Keys.size())));
        }
    }
    if (m_Dice.In(30)) {
        m_Held.clear();
    }
    if (m_Dice.In(3)) {
        const uint8_t choices[] = {0, 0, 0x01, 0x10, 0x02, 0x22, 0x04, 0x05, 0x08, 0x80};
        m_Modifiers = m_Dice.In(8) ? static_cast<uint8_t>(m_Dice.Below(256)) : m_Dice.OneOf(choices);
    }
}

std::vector<uint8_t> Keys::StandardReport(size_t length)
{
    std::vector<uint8_t> report(length);
    if (length == 8 && m_Dice.In(100)) {
        return std::vector<uint8_t>(8, 0x01); // rollover
    }
    if (length >= 3) {
        report[0] = m_Modifiers;
    }
    size_t at = reference::FirstKeyPosition(static_cast<uint32_t>(length));
    for (size_t held : m_Held) {
        const uint16_t usage = m_Keys[held].Usage;
        for (uint8_t byte : {static_cast<uint8_t>(usage >> 8), static_cast<uint8_t>(usage)}) {
            if (byte != 0 && at < length) {
                report[at++] = byte;
            }
        }
    }
    if (m_Dice.In(15) && length > 2) { // keys that no hotkey has, and a gap
        report[length - 1 - m_Dice.Below(2)] = static_cast<uint8_t>(m_Dice.Below(256));
    }
    return report;
}

// The bits of all held keys; a power report holds the bits of one.
std::vector<uint8_t> Keys::ExtendedReport(reference::Kind kind)
{
    const bool jaalaa = kind == reference::Jaalaa;
    uint32_t bits = 0, power = 0;
    for (size_t held : m_Held) {
        const uint32_t pattern = jaalaa ? m_Keys[held].Jaalaa : m_Keys[held].Chic;
        bits |= pattern;
        power = (pattern & 0xFFFF) == 0 ? pattern : power;
    }
    if (m_Dice.In(4)) {
        return {static_cast<uint8_t>(jaalaa ? 1 : 2), static_cast<uint8_t>(power >> 16)};
    }
    std::vector<uint8_t> report = {static_cast<uint8_t>(jaalaa ? 2 : 3), static_cast<uint8_t>(bits >> 24),
                                   static_cast<uint8_t>(bits >> 16), static_cast<uint8_t>(bits >> 8)};
    if (jaalaa) {
        report.push_back(static_cast<uint8_t>(bits));
        report.resize(report.size() + m_Dice.Below(m_Dice.In(10) ? 7 : 1));
        report.resize(m_Dice.In(40) ? 2 + m_Dice.Below(3) : report.size());
    }
    if (m_Dice.In(30)) {
        report[0] = static_cast<uint8_t>(m_Dice.Below(6));
        report.resize(report.size() < 4 ? 4 : report.size());
    }
    return report;
}

std::vector<uint8_t> Keys::Report(reference::Kind kind)
{
    PressAndRelease();
    if ((kind == reference::Jaalaa || kind == reference::Chic) && !m_Dice.In(20)) {
        return ExtendedReport(kind);
    }
    const bool power = kind == reference::Power;
    const size_t lengths[] = {power ? 2u : 8u, power ? 2u : 8u, power ? 2u : 8u, power ? 2u : 8u, 8, 8, 3, 2};
    const size_t length = m_Dice.In(100) ? 1 + m_Dice.Below(12) : m_Dice.OneOf(lengths);
    return StandardReport(kind == reference::Jaalaa || kind == reference::Chic ? 8 : length);
}
