// keynames.cpp - the table of key names and its look-ups.
//
// A key's make code is the scan code in the driver's key table; a key that has none there cannot stand in a
// definition.
#include "keynames.h"
#include "sys/control/requests.h"
#include "tools/common/text.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{

constexpr bool Consumer = true;

struct NamedUsage {
    uint16_t usUsage;
    bool bConsumer;
    const char* pNames;
};

// clang-format off
const NamedUsage NamedUsages[] = {
    {0x04, false, "A"}, {0x05, false, "B"}, {0x06, false, "C"}, {0x07, false, "D"},
    {0x08, false, "E"}, {0x09, false, "F"}, {0x0A, false, "G"}, {0x0B, false, "H"},
    {0x0C, false, "I"}, {0x0D, false, "J"}, {0x0E, false, "K"}, {0x0F, false, "L"},
    {0x10, false, "M"}, {0x11, false, "N"}, {0x12, false, "O"}, {0x13, false, "P"},
    {0x14, false, "Q"}, {0x15, false, "R"}, {0x16, false, "S"}, {0x17, false, "T"},
    {0x18, false, "U"}, {0x19, false, "V"}, {0x1A, false, "W"}, {0x1B, false, "X"},
    {0x1C, false, "Y"}, {0x1D, false, "Z"},
    {0x1E, false, "1"}, {0x1F, false, "2"}, {0x20, false, "3"}, {0x21, false, "4"},
    {0x22, false, "5"}, {0x23, false, "6"}, {0x24, false, "7"}, {0x25, false, "8"},
    {0x26, false, "9"}, {0x27, false, "0"},
    {0x28, false, "Enter|Return"},
    {0x29, false, "Esc|Escape"},
    {0x2A, false, "Backspace"},
    {0x2B, false, "Tab"},
    {0x2C, false, "Space"},
    {0x2D, false, "-|Minus"},
    {0x2E, false, "=|Equal"},
    {0x2F, false, "[|Left Bracket"},
    {0x30, false, "]|Right Bracket"},
    {0x31, false, "\\|Backslash"},
    {0x32, false, "#|Non-US #"},
    {0x33, false, ";|Semicolon"},
    {0x34, false, "'|Apostrophe"},
    {0x35, false, "`|Grave"},
    {0x36, false, ",|Comma"},
    {0x37, false, ".|Period"},
    {0x38, false, "/|Slash"},
    {0x39, false, "Caps Lock|CapsLock"},
    {0x3A, false, "F1"}, {0x3B, false, "F2"}, {0x3C, false, "F3"}, {0x3D, false, "F4"},
    {0x3E, false, "F5"}, {0x3F, false, "F6"}, {0x40, false, "F7"}, {0x41, false, "F8"},
    {0x42, false, "F9"}, {0x43, false, "F10"}, {0x44, false, "F11"}, {0x45, false, "F12"},
    {0x46, false, "Print Screen|PrintScreen|PrintScrn|PrtSc"},
    {0x47, false, "Scroll Lock|ScrollLock"},
    {0x48, false, "Pause|Break"},
    {0x49, false, "Insert|Ins"},
    {0x4A, false, "Home"},
    {0x4B, false, "Page Up|PageUp|PgUp"},
    {0x4C, false, "Delete|Del"},
    {0x4D, false, "End"},
    {0x4E, false, "Page Down|PageDown|PgDn"},
    {0x4F, false, "Right|Right Arrow"},
    {0x50, false, "Left|Left Arrow"},
    {0x51, false, "Down|Down Arrow"},
    {0x52, false, "Up|Up Arrow"},
    {0x53, false, "Num Lock|NumLock"},
    {0x54, false, "Keypad /"}, {0x55, false, "Keypad *"}, {0x56, false, "Keypad -"},
    {0x57, false, "Keypad +"}, {0x58, false, "Keypad Enter"},
    {0x59, false, "Keypad 1"}, {0x5A, false, "Keypad 2"}, {0x5B, false, "Keypad 3"},
    {0x5C, false, "Keypad 4"}, {0x5D, false, "Keypad 5"}, {0x5E, false, "Keypad 6"},
    {0x5F, false, "Keypad 7"}, {0x60, false, "Keypad 8"}, {0x61, false, "Keypad 9"},
    {0x62, false, "Keypad 0"}, {0x63, false, "Keypad ."},
    {0x64, false, "<|Non-US \\"},
    {0x65, false, "Menu|App|Application|Context"},
    {0x66, false, "Keyboard Power"},
    {0x67, false, "Keypad ="},
    {0x68, false, "F13"}, {0x69, false, "F14"}, {0x6A, false, "F15"}, {0x6B, false, "F16"},
    {0x6C, false, "F17"}, {0x6D, false, "F18"}, {0x6E, false, "F19"}, {0x6F, false, "F20"},
    {0x70, false, "F21"}, {0x71, false, "F22"}, {0x72, false, "F23"}, {0x73, false, "F24"},
    {0x74, false, "Execute"},
    {0x75, false, "Help"},
    {0x76, false, "Keyboard Menu"}, {0x77, false, "Select"}, {0x78, false, "Keyboard Stop"},
    {0x79, false, "Again"}, {0x7A, false, "Keyboard Undo"},
    {0x7B, false, "Keyboard Cut"},
    {0x7C, false, "Keyboard Copy"},
    {0x7D, false, "Keyboard Paste"},
    {0x7E, false, "Find"}, {0x7F, false, "Keyboard Mute"}, {0x80, false, "Keyboard Volume Up"},
    {0x81, false, "Keyboard Volume Down"},
    {0x85, false, "Keypad Comma"},
    {0x87, false, "International 1|Ro"},
    {0x88, false, "International 2|Katakana"},
    {0x89, false, "International 3|Yen"},
    {0x8A, false, "International 4|Henkan"},
    {0x8B, false, "International 5|Muhenkan"},
    {0x8C, false, "International 6"},
    {0x90, false, "Language 1"}, {0x91, false, "Language 2"}, {0x92, false, "Language 3"},
    {0x93, false, "Language 4"}, {0x94, false, "Language 5"},
    {0xA5, false, "Fn"},
    {0xE0, false, "LCtrl|Left Ctrl|Left Control"},
    {0xE1, false, "LShift|Left Shift"},
    {0xE2, false, "LAlt|Left Alt"},
    {0xE3, false, "LWin|Left Win|Left GUI"},
    {0xE4, false, "RCtrl|Right Ctrl|Right Control"},
    {0xE5, false, "RShift|Right Shift"},
    {0xE6, false, "RAlt|Right Alt|AltGr"},
    {0xE7, false, "RWin|Right Win|Right GUI"},

    {0x0B5, Consumer, "Next Track|Scan Next Track"},
    {0x0B6, Consumer, "Previous Track|Scan Previous Track"},
    {0x0B7, Consumer, "Stop"},
    {0x0B8, Consumer, "Eject|CD Open"},
    {0x0CD, Consumer, "Play|Play / Pause"},
    {0x0E2, Consumer, "Mute"},
    {0x0E9, Consumer, "Volume Up"},
    {0x0EA, Consumer, "Volume Down"},
    {0x183, Consumer, "Media Select"},
    {0x18A, Consumer, "Mail"},
    {0x192, Consumer, "Calculator"},
    {0x194, Consumer, "My Computer"},
    {0x202, Consumer, "Sleep|System Sleep"},
    {0x204, Consumer, "Wake Up|WakeUp"},
    {0x21A, Consumer, "Undo"},
    {0x21B, Consumer, "Copy"},
    {0x21C, Consumer, "Cut"},
    {0x21D, Consumer, "Paste"},
    {0x221, Consumer, "WWW Search"},
    {0x223, Consumer, "WWW Home"},
    {0x224, Consumer, "WWW Back"},
    {0x225, Consumer, "WWW Forward"},
    {0x226, Consumer, "WWW Stop"},
    {0x227, Consumer, "WWW Refresh"},
    {0x22A, Consumer, "WWW Favorites"},
    {0x233, Consumer, "Scroll Up"},
    {0x234, Consumer, "Scroll Down"},
    {0x279, Consumer, "Redo"},
    {0x301, Consumer, "Brisk1"},
    {0x302, Consumer, "Brisk2"},
    {0x303, Consumer, "Brisk3"},
};

struct ModifierName {
    const char* pName;
    uint32_t ulMask;
};

// The modifier word of the driver: one bit a key, and the bits for "either of the two".
const ModifierName ModifierWords[] = {
    {"left ctrl", MODIFIER_LEFT_CONTROL},      {"right ctrl", MODIFIER_RIGHT_CONTROL},   {"left shift", MODIFIER_LEFT_SHIFT}, {"right shift", MODIFIER_RIGHT_SHIFT},
    {"left alt", MODIFIER_LEFT_ALT},      {"right alt", MODIFIER_RIGHT_ALT},   {"left win", MODIFIER_LEFT_GUI},  {"right win", MODIFIER_RIGHT_GUI},
    {"menu", MODIFIER_CONTEXT_KEY},         {"ctrl", MODIFIER_ANY_CONTROL},       {"shift", MODIFIER_ANY_SHIFT},    {"alt", MODIFIER_ANY_ALT},
    {"win", MODIFIER_ANY_GUI},         {"pos", MODIFIER_POSKEY_PREFIX},   {"prefix1", MODIFIER_PREFIX1}, {"prefix2", MODIFIER_PREFIX2},
    {"fn", MODIFIER_FN},
    {"left control", MODIFIER_LEFT_CONTROL},   {"right control", MODIFIER_RIGHT_CONTROL}, {"control", MODIFIER_ANY_CONTROL},
    {"left gui", MODIFIER_LEFT_GUI},      {"right gui", MODIFIER_RIGHT_GUI},  {"gui", MODIFIER_ANY_GUI},
    {"lctrl", MODIFIER_LEFT_CONTROL}, {"rctrl", MODIFIER_RIGHT_CONTROL}, {"lshift", MODIFIER_LEFT_SHIFT}, {"rshift", MODIFIER_RIGHT_SHIFT}, {"lalt", MODIFIER_LEFT_ALT}, {"ralt", MODIFIER_RIGHT_ALT},
    {"altgr", MODIFIER_RIGHT_ALT}, {"lwin", MODIFIER_LEFT_GUI}, {"rwin", MODIFIER_RIGHT_GUI}, {"lgui", MODIFIER_LEFT_GUI}, {"rgui", MODIFIER_RIGHT_GUI},
    {"context", MODIFIER_CONTEXT_KEY}, {"app", MODIFIER_CONTEXT_KEY}, {"poskey", MODIFIER_POSKEY_PREFIX},
};
// clang-format on

// True when one of the names between the bars is that one, whatever the case.
bool HasName(std::string_view names, const std::string& wanted)
{
    while (true) {
        size_t cEnd = names.find('|');
        if (LowerCase(names.substr(0, cEnd)) == wanted)
            return true;
        if (cEnd == std::string_view::npos)
            return false;
        names.remove_prefix(cEnd + 1);
    }
}

const char* NamesOf(uint16_t usUsage, bool bConsumer)
{
    for (const NamedUsage& key : NamedUsages)
        if (key.bConsumer == bConsumer && key.usUsage == usUsage)
            return key.pNames;
    return nullptr;
}

std::string FirstName(std::string_view names)
{
    return std::string(names.substr(0, names.find('|')));
}

// "left_ctrl" and "left-ctrl" are "left ctrl".
std::string WordsOf(std::string_view name)
{
    std::string words = LowerCase(Trim(name));
    if (words.size() > 1)
        for (char& c : words)
            if (c == '_')
                c = ' ';
    return words;
}

const KeyTableRow* RowOf(const NamedUsage& named)
{
    constexpr size_t KeyboardRows = 255; // the keyboard page comes first in the table
    const KeyTableRow* pBegin = named.bConsumer ? KeyTable + KeyboardRows : KeyTable;
    const KeyTableRow* pEnd = named.bConsumer ? std::end(KeyTable) : KeyTable + KeyboardRows;
    return std::find_if(pBegin, pEnd, [&](const KeyTableRow& row) { return row.usUsage == named.usUsage; });
}

std::vector<KeyName> JoinedWithRows()
{
    std::vector<KeyName> keys;
    for (const NamedUsage& named : NamedUsages)
        keys.push_back({named.usUsage, named.bConsumer, named.pNames, RowOf(named)});
    return keys;
}

} // namespace

uint32_t KeyName::MakeCode() const
{
    bool bNone = pRow->ulScanCode == NO_SCAN_CODE || pRow->ulScanCode == RESERVED_SCAN_CODE;
    return bNone ? 0 : pRow->ulScanCode;
}

const std::vector<KeyName>& AllKeyNames()
{
    static const std::vector<KeyName> keys = JoinedWithRows();
    return keys;
}

const KeyName* FindKeyByName(std::string_view name)
{
    std::string wanted = WordsOf(name);
    for (const KeyName& key : AllKeyNames())
        if (HasName(key.pNames, wanted))
            return &key;
    return nullptr;
}

std::vector<std::string> KnownKeyNames(bool bMediaKeys)
{
    std::vector<std::string> known;
    for (const KeyName& key : AllKeyNames()) {
        if (key.bConsumer && !bMediaKeys)
            continue;
        std::string_view names = key.pNames;
        for (size_t cEnd; (cEnd = names.find('|')) != names.npos; names.remove_prefix(cEnd + 1))
            known.emplace_back(names.substr(0, cEnd));
        known.emplace_back(names);
    }
    return known;
}

std::vector<std::string> KnownModifierNames()
{
    std::vector<std::string> known;
    for (const ModifierName& modifier : ModifierWords)
        known.emplace_back(modifier.pName);
    return known;
}

std::string ShownKeyName(uint8_t ucUsage)
{
    const char* pNames = NamesOf(ucUsage, false);
    if (pNames)
        return FirstName(pNames);
    return ucUsage == 1 ? "(overrun)" : fmt::format("0x{:02x}", ucUsage);
}

std::string ShownMediaName(uint16_t usUsage)
{
    const char* pNames = NamesOf(usUsage, Consumer);
    return pNames ? FirstName(pNames) : fmt::format("0x{:03x}", usUsage);
}

std::vector<std::string> ShownModifiers(uint8_t ucModifiers)
{
    std::vector<std::string> names;
    for (int iBit = 0; iBit < 8; ++iBit)
        if (ucModifiers & 1 << iBit)
            names.push_back(ShownKeyName(static_cast<uint8_t>(0xE0 + iBit)));
    return names;
}

std::vector<std::string> ShownModifierMask(uint32_t ulMask)
{
    std::vector<std::string> names;
    for (uint32_t ulBit = 1; ulBit != 0; ulBit <<= 1) {
        if ((ulMask & ulBit) == 0)
            continue;
        const auto named =
            std::find_if(std::begin(ModifierWords), std::end(ModifierWords),
                         [=](const ModifierName& modifier) { return modifier.ulMask == ulBit; });
        names.push_back(named == std::end(ModifierWords) ? fmt::format("bit 0x{:x}", ulBit) : named->pName);
    }
    return names;
}

std::vector<uint8_t> MakeCodeBytes(uint32_t ulMakeCode)
{
    std::vector<uint8_t> bytes;
    for (int iShift = 24; iShift >= 0; iShift -= 8)
        if (!bytes.empty() || ulMakeCode >> iShift & 0xFF)
            bytes.push_back(static_cast<uint8_t>(ulMakeCode >> iShift));
    return bytes;
}

std::optional<uint32_t> FindModifierMask(std::string_view name)
{
    std::string wanted = WordsOf(name);
    for (const ModifierName& modifier : ModifierWords)
        if (wanted == modifier.pName)
            return modifier.ulMask;
    return std::nullopt;
}
