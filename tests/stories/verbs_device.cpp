// verbs_device.cpp - what a story's application asks of the keyboard itself: LEDs, memory, descriptors, commands.
#include "player.h"

#include <map>

namespace
{
struct MemoryCodes {
    ULONG ulRead, ulWrite;
};

MemoryCodes Memory(const std::string& word)
{
    static const std::map<std::string, MemoryCodes> families = {
        {"eeprom", {IOCTL_TVUSB_READ_EEPROM, IOCTL_TVUSB_WRITE_EEPROM}},
        {"descriptor", {IOCTL_TVUSB_READ_DESCRIPTOR_MEMORY, IOCTL_TVUSB_WRITE_DESCRIPTOR_MEMORY}},
        {"vendor", {IOCTL_TVUSB_READ_VENDOR_MEMORY, IOCTL_TVUSB_WRITE_VENDOR_MEMORY}},
    };
    auto family = families.find(word);
    if (family == families.end()) {
        throw BadLine("unknown memory: " + word);
    }
    return family->second;
}

EmuBytes Words16(std::initializer_list<unsigned long> values)
{
    EmuBytes bytes;
    for (unsigned long ulValue : values) {
        bytes.push_back(static_cast<UCHAR>(ulValue));
        bytes.push_back(static_cast<UCHAR>(ulValue >> 8));
    }
    return bytes;
}

// UTF-16 up to its end as the story writes it, in UTF-8; nothing is "-".
std::string TextOf(const EmuBytes& string)
{
    std::string text;
    for (size_t i = 0; i + 1 < string.size() && (string[i] | string[i + 1]) != 0; i += 2) {
        unsigned uLetter = string[i] | string[i + 1] << 8;
        if (uLetter >= 0x80) {
            text += static_cast<char>(0xC0 | uLetter >> 6);
            uLetter = 0x80 | (uLetter & 0x3F);
        }
        text += static_cast<char>(uLetter);
    }
    return text.empty() ? "-" : text;
}

std::string Joined(const Words& words)
{
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}
} // namespace

EmuBytes Player::Ask(ULONG ulCode, const EmuBytes& payload, ULONG ulOut)
{
    EmuBytes out;
    ExpectStatus(m_Application->RequestRecord(ulCode, Index(), payload.data(),
                                              static_cast<ULONG>(payload.size()), ulOut, &out));
    return out;
}

// setled BYTE -> BYTE
void Player::SetLed(const Words& words, const Parts& parts)
{
    m_Leds.at(m_Current)->clear();
    Ask(IOCTL_TVUSB_SET_LEDS, Words16({Number(words.at(1), 16)}), 0);
    EXPECT_EQ(Text(*m_Leds.at(m_Current)), Text(Bytes(parts.Right))) << "the keyboard's LED report";
    m_Leds.at(m_Current)->clear();
}

// leds BYTE
void Player::ExpectLeds(const Words& words, const Parts&)
{
    EXPECT_EQ(Text(Ask(IOCTL_TVUSB_GET_LEDS, {}, 2)), Text(Words16({Number(words.at(1), 16)})));
}

// read MEMORY ADDRESS LENGTH -> BYTES
void Player::Read(const Words& words, const Parts& parts)
{
    unsigned long ulLength = Number(words.at(3), 10);
    EmuBytes access = Words16({Number(words.at(2), 16), ulLength});
    EXPECT_EQ(Text(Ask(Memory(words.at(1)).ulRead, access, static_cast<ULONG>(ulLength))),
              Text(Bytes(parts.Right)));
}

// write MEMORY ADDRESS BYTES
void Player::Write(const Words& words, const Parts&)
{
    EmuBytes data = Bytes(words, 3);
    EmuBytes access = Words16({Number(words.at(2), 16), static_cast<unsigned long>(data.size())});
    access.insert(access.end(), data.begin(), data.end());
    EXPECT_TRUE(Ask(Memory(words.at(1)).ulWrite, access, 0).empty());
}

// size BYTES
void Player::Size(const Words& words, const Parts&)
{
    for (ULONG ulCode : {IOCTL_TVUSB_READ_EEPROM, IOCTL_TVUSB_WRITE_EEPROM}) {
        EXPECT_EQ(Ask(ulCode, Words16({0, 0}), 0x4000).size(), Number(words.at(1), 10));
    }
}

// string INDEX LANGUAGE -> TEXT
void Player::String(const Words& words, const Parts& parts)
{
    EmuBytes which = Words16({Number(words.at(1), 10), 0, Number(words.at(2), 16), 0});
    EXPECT_EQ(TextOf(Ask(IOCTL_TVUSB_READ_STRING_DESCRIPTOR, which, 256)), Joined(SplitWords(parts.Right)));
}

// descriptor -> BYTES
void Player::Descriptor(const Words&, const Parts& parts)
{
    EXPECT_EQ(Text(Ask(IOCTL_TVUSB_READ_DEVICE_DESCRIPTOR, {}, 18)), Text(Bytes(parts.Right)));
}

// command NUMBER SCAN -> REQUEST VALUE
void Player::Command(const Words& words, const Parts& parts)
{
    Current().TakenRequests();
    Ask(IOCTL_TVUSB_SEND_KEY_COMMAND, Words16({Number(words.at(1), 10), 0, 0, Number(words.at(2), 16)}), 0);
    std::string seen;
    for (const EmuRequest& request : Current().TakenRequests()) {
        char text[32];
        snprintf(text, sizeof(text), "%u %04X", request.Setup[1], request.Setup[2] | request.Setup[3] << 8);
        seen += text;
    }
    EXPECT_EQ(seen, Joined(SplitWords(parts.Right))) << "what the keyboard got";
}

// keyboards INDEX…
void Player::ListKeyboards(const Words& words, const Parts&)
{
    KeyboardList list = {};
    EmuBytes out = Ask(IOCTL_TVUSB_LIST_KEYBOARDS, {}, sizeof(list));
    ASSERT_EQ(out.size(), sizeof(list));
    memcpy(&list, out.data(), sizeof(list));
    Words seen;
    for (unsigned i = 0; i < list.usCount; i++) {
        seen.push_back(std::to_string(list.Entries[i].ulDeviceIndex));
    }
    EXPECT_EQ(Joined(seen), Joined(Words(words.begin() + 1, words.end())));
}

// answers well, answers stall, answers never, answers short BYTES, answers late 40ms
void Player::Answers(const Words& words, const Parts&)
{
    EmuAnswerRule rule = {EmuAny, EmuAny, EmuAny, EmuAny, EmuAnswerStatus, 0, STATUS_UNSUCCESSFUL, 0, 0};
    const std::string& how = words.at(1);
    if (how == "short") {
        rule.How = EmuAnswerShort;
        rule.ulAmount = Number32(words.at(2), 10);
    } else if (how == "late") {
        rule.How = EmuAnswerLate;
        rule.ulAmount = Milliseconds(words.at(2));
    } else if (how == "never") {
        rule.How = EmuAnswerNever;
    } else if (how != "well" && how != "stall") {
        throw BadLine("answers how? " + how);
    }
    EXPECT_EQ(STATUS_SUCCESS,
              Current().SetRules(how == "well" ? std::vector<EmuAnswerRule>() : std::vector{rule}));
}
