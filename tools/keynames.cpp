// keynames.cpp - the table of key names and its look-ups.
//
// The make codes are those of PS/2 scan code set 1: one byte, or E0 and a byte, or the longer sequences of
// Print Screen and Pause. A key whose make code is 0 cannot stand in a definition.
#include "keynames.h"
#include "tools/common/text.h"

#include <fmt/format.h>

namespace
{

constexpr bool Consumer = true;

// clang-format off
const std::vector<KeyName> KeyNames = {
    {0x04, false, 0x1E, "A"}, {0x05, false, 0x30, "B"}, {0x06, false, 0x2E, "C"}, {0x07, false, 0x20, "D"},
    {0x08, false, 0x12, "E"}, {0x09, false, 0x21, "F"}, {0x0A, false, 0x22, "G"}, {0x0B, false, 0x23, "H"},
    {0x0C, false, 0x17, "I"}, {0x0D, false, 0x24, "J"}, {0x0E, false, 0x25, "K"}, {0x0F, false, 0x26, "L"},
    {0x10, false, 0x32, "M"}, {0x11, false, 0x31, "N"}, {0x12, false, 0x18, "O"}, {0x13, false, 0x19, "P"},
    {0x14, false, 0x10, "Q"}, {0x15, false, 0x13, "R"}, {0x16, false, 0x1F, "S"}, {0x17, false, 0x14, "T"},
    {0x18, false, 0x16, "U"}, {0x19, false, 0x2F, "V"}, {0x1A, false, 0x11, "W"}, {0x1B, false, 0x2D, "X"},
    {0x1C, false, 0x15, "Y"}, {0x1D, false, 0x2C, "Z"},
    {0x1E, false, 0x02, "1"}, {0x1F, false, 0x03, "2"}, {0x20, false, 0x04, "3"}, {0x21, false, 0x05, "4"},
    {0x22, false, 0x06, "5"}, {0x23, false, 0x07, "6"}, {0x24, false, 0x08, "7"}, {0x25, false, 0x09, "8"},
    {0x26, false, 0x0A, "9"}, {0x27, false, 0x0B, "0"},
    {0x28, false, 0x1C, "Enter|Return"},
    {0x29, false, 0x01, "Esc|Escape"},
    {0x2A, false, 0x0E, "Backspace"},
    {0x2B, false, 0x0F, "Tab"},
    {0x2C, false, 0x39, "Space"},
    {0x2D, false, 0x0C, "-|Minus"},
    {0x2E, false, 0x0D, "=|Equal"},
    {0x2F, false, 0x1A, "[|Left Bracket"},
    {0x30, false, 0x1B, "]|Right Bracket"},
    {0x31, false, 0x2B, "\\|Backslash"},
    {0x32, false, 0xE02B, "#|Non-US #"},
    {0x33, false, 0x27, ";|Semicolon"},
    {0x34, false, 0x28, "'|Apostrophe"},
    {0x35, false, 0x29, "`|Grave"},
    {0x36, false, 0x33, ",|Comma"},
    {0x37, false, 0x34, ".|Period"},
    {0x38, false, 0x35, "/|Slash"},
    {0x39, false, 0x3A, "Caps Lock|CapsLock"},
    {0x3A, false, 0x3B, "F1"}, {0x3B, false, 0x3C, "F2"}, {0x3C, false, 0x3D, "F3"}, {0x3D, false, 0x3E, "F4"},
    {0x3E, false, 0x3F, "F5"}, {0x3F, false, 0x40, "F6"}, {0x40, false, 0x41, "F7"}, {0x41, false, 0x42, "F8"},
    {0x42, false, 0x43, "F9"}, {0x43, false, 0x44, "F10"}, {0x44, false, 0x57, "F11"}, {0x45, false, 0x58, "F12"},
    {0x46, false, 0xE02AE037, "Print Screen|PrintScreen|PrintScrn|PrtSc"},
    {0x47, false, 0x46, "Scroll Lock|ScrollLock"},
    {0x48, false, 0xE11D45, "Pause|Break"},
    {0x49, false, 0xE052, "Insert|Ins"},
    {0x4A, false, 0xE047, "Home"},
    {0x4B, false, 0xE049, "Page Up|PageUp|PgUp"},
    {0x4C, false, 0xE053, "Delete|Del"},
    {0x4D, false, 0xE04F, "End"},
    {0x4E, false, 0xE051, "Page Down|PageDown|PgDn"},
    {0x4F, false, 0xE04D, "Right|Right Arrow"},
    {0x50, false, 0xE04B, "Left|Left Arrow"},
    {0x51, false, 0xE050, "Down|Down Arrow"},
    {0x52, false, 0xE048, "Up|Up Arrow"},
    {0x53, false, 0x45, "Num Lock|NumLock"},
    {0x54, false, 0xE035, "Keypad /"}, {0x55, false, 0x37, "Keypad *"}, {0x56, false, 0x4A, "Keypad -"},
    {0x57, false, 0x4E, "Keypad +"}, {0x58, false, 0xE01C, "Keypad Enter"},
    {0x59, false, 0x4F, "Keypad 1"}, {0x5A, false, 0x50, "Keypad 2"}, {0x5B, false, 0x51, "Keypad 3"},
    {0x5C, false, 0x4B, "Keypad 4"}, {0x5D, false, 0x4C, "Keypad 5"}, {0x5E, false, 0x4D, "Keypad 6"},
    {0x5F, false, 0x47, "Keypad 7"}, {0x60, false, 0x48, "Keypad 8"}, {0x61, false, 0x49, "Keypad 9"},
    {0x62, false, 0x52, "Keypad 0"}, {0x63, false, 0x53, "Keypad ."},
    {0x64, false, 0x56, "<|Non-US \\"},
    {0x65, false, 0xE05D, "Menu|App|Application|Context"},
    {0x66, false, 0, "Keyboard Power"},
    {0x67, false, 0x59, "Keypad ="},
    {0x68, false, 0x5D, "F13"}, {0x69, false, 0x5E, "F14"}, {0x6A, false, 0x5F, "F15"}, {0x6B, false, 0x65, "F16"},
    {0x6C, false, 0x66, "F17"}, {0x6D, false, 0x6D, "F18"}, {0x6E, false, 0x6F, "F19"}, {0x6F, false, 0x71, "F20"},
    {0x70, false, 0x67, "F21"}, {0x71, false, 0x68, "F22"}, {0x72, false, 0x69, "F23"}, {0x73, false, 0x6B, "F24"},
    {0x74, false, 0x5B, "Execute"},
    {0x75, false, 0x6A, "Help"},
    {0x76, false, 0, "Keyboard Menu"}, {0x77, false, 0, "Select"}, {0x78, false, 0, "Keyboard Stop"},
    {0x79, false, 0, "Again"}, {0x7A, false, 0, "Keyboard Undo"},
    {0x7B, false, 0x5A, "Keyboard Cut"},
    {0x7C, false, 0, "Keyboard Copy"},
    {0x7D, false, 0x6C, "Keyboard Paste"},
    {0x7E, false, 0, "Find"}, {0x7F, false, 0, "Keyboard Mute"}, {0x80, false, 0, "Keyboard Volume Up"},
    {0x81, false, 0, "Keyboard Volume Down"},
    {0x85, false, 0x7E, "Keypad Comma"},
    {0x87, false, 0x73, "International 1|Ro"},
    {0x88, false, 0x70, "International 2|Katakana"},
    {0x89, false, 0x7D, "International 3|Yen"},
    {0x8A, false, 0x79, "International 4|Henkan"},
    {0x8B, false, 0x7B, "International 5|Muhenkan"},
    {0x8C, false, 0x5C, "International 6"},
    {0x90, false, 0xF2, "Language 1"}, {0x91, false, 0xF1, "Language 2"}, {0x92, false, 0x78, "Language 3"},
    {0x93, false, 0x77, "Language 4"}, {0x94, false, 0x76, "Language 5"},
    {0xA5, false, 0xE00E, "Fn"},
    {0xE0, false, 0x1D, "LCtrl|Left Ctrl|Left Control"},
    {0xE1, false, 0x2A, "LShift|Left Shift"},
    {0xE2, false, 0x38, "LAlt|Left Alt"},
    {0xE3, false, 0xE05B, "LWin|Left Win|Left GUI"},
    {0xE4, false, 0xE01D, "RCtrl|Right Ctrl|Right Control"},
    {0xE5, false, 0x36, "RShift|Right Shift"},
    {0xE6, false, 0xE038, "RAlt|Right Alt|AltGr"},
    {0xE7, false, 0xE05C, "RWin|Right Win|Right GUI"},

    {0x0B5, Consumer, 0xE019, "Next Track|Scan Next Track"},
    {0x0B6, Consumer, 0xE010, "Previous Track|Scan Previous Track"},
    {0x0B7, Consumer, 0xE024, "Stop"},
    {0x0B8, Consumer, 0xE070, "Eject|CD Open"},
    {0x0CD, Consumer, 0xE022, "Play|Play / Pause"},
    {0x0E2, Consumer, 0xE020, "Mute"},
    {0x0E9, Consumer, 0xE030, "Volume Up"},
    {0x0EA, Consumer, 0xE02E, "Volume Down"},
    {0x183, Consumer, 0xE06D, "Media Select"},
    {0x18A, Consumer, 0xE06C, "Mail"},
    {0x192, Consumer, 0xE021, "Calculator"},
    {0x194, Consumer, 0xE06B, "My Computer"},
    {0x202, Consumer, 0xE05F, "Sleep|System Sleep"},
    {0x204, Consumer, 0xE063, "Wake Up|WakeUp"},
    {0x21A, Consumer, 0xE008, "Undo"},
    {0x21B, Consumer, 0xE018, "Copy"},
    {0x21C, Consumer, 0xE017, "Cut"},
    {0x21D, Consumer, 0xE00A, "Paste"},
    {0x221, Consumer, 0xE065, "WWW Search"},
    {0x223, Consumer, 0xE032, "WWW Home"},
    {0x224, Consumer, 0xE06A, "WWW Back"},
    {0x225, Consumer, 0xE069, "WWW Forward"},
    {0x226, Consumer, 0xE068, "WWW Stop"},
    {0x227, Consumer, 0xE067, "WWW Refresh"},
    {0x22A, Consumer, 0xE066, "WWW Favorites"},
    {0x233, Consumer, 0xE00B, "Scroll Up"},
    {0x234, Consumer, 0xE012, "Scroll Down"},
    {0x279, Consumer, 0xE007, "Redo"},
    {0x301, Consumer, 0xE071, "Brisk1"},
    {0x302, Consumer, 0xE02C, "Brisk2"},
    {0x303, Consumer, 0xE072, "Brisk3"},
};

struct ModifierName {
    const char* pName;
    uint32_t ulMask;
};

// The modifier word of the driver: one bit a key, and the bits for "either of the two".
const ModifierName ModifierNames[] = {
    {"left ctrl", 0x2},      {"right ctrl", 0x4},   {"left shift", 0x8}, {"right shift", 0x10},
    {"left alt", 0x20},      {"right alt", 0x40},   {"left win", 0x80},  {"right win", 0x100},
    {"menu", 0x200},         {"ctrl", 0x400},       {"shift", 0x800},    {"alt", 0x1000},
    {"win", 0x2000},         {"pos", 0x08000000},   {"prefix1", 0x10000000}, {"prefix2", 0x20000000},
    {"fn", 0x80000000},
    {"left control", 0x2},   {"right control", 0x4}, {"control", 0x400},
    {"left gui", 0x80},      {"right gui", 0x100},  {"gui", 0x2000},
    {"lctrl", 0x2}, {"rctrl", 0x4}, {"lshift", 0x8}, {"rshift", 0x10}, {"lalt", 0x20}, {"ralt", 0x40},
    {"altgr", 0x40}, {"lwin", 0x80}, {"rwin", 0x100}, {"lgui", 0x80}, {"rgui", 0x100},
    {"context", 0x200}, {"app", 0x200}, {"poskey", 0x08000000},
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
    for (const KeyName& key : KeyNames)
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

} // namespace

const std::vector<KeyName>& AllKeyNames()
{
    return KeyNames;
}

const KeyName* FindKeyByName(std::string_view name)
{
    std::string wanted = WordsOf(name);
    for (const KeyName& key : KeyNames)
        if (HasName(key.pNames, wanted))
            return &key;
    return nullptr;
}

std::vector<std::string> KnownKeyNames(bool bMediaKeys)
{
    std::vector<std::string> known;
    for (const KeyName& key : KeyNames) {
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
    for (const ModifierName& modifier : ModifierNames)
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
    for (const ModifierName& modifier : ModifierNames)
        if (wanted == modifier.pName)
            return modifier.ulMask;
    return std::nullopt;
}
