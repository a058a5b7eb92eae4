// verbs_siblings.cpp - the other drivers around a story's keyboards: keyboard class devices, mouse filters.
#include "player.h"

#include <map>

// slow, silent, refuses, closed; no word: at once and with success
static EmuReply AnswerWord(const Words& words, size_t at)
{
    static const std::map<std::string, EmuReply> Answers = {
        {"slow", {STATUS_SUCCESS, 50, FALSE, STATUS_SUCCESS, FALSE}},
        {"silent", {STATUS_SUCCESS, 0, TRUE, STATUS_SUCCESS, FALSE}},
        {"refuses", {STATUS_IO_DEVICE_ERROR, 0, FALSE, STATUS_SUCCESS, FALSE}},
        {"closed", {STATUS_SUCCESS, 0, FALSE, STATUS_ACCESS_DENIED, FALSE}},
    };
    if (words.size() <= at) {
        return {};
    }
    auto answer = Answers.find(words[at]);
    if (answer == Answers.end()) {
        throw BadLine("unknown way to answer: " + words[at]);
    }
    return answer->second;
}

// class N RATE DELAY [slow|silent|refuses|closed], or class N -> RATE DELAY
void Player::Class(const Words& words, const Parts& parts)
{
    if (!m_Machine) {
        ASSERT_NO_FATAL_FAILURE(StartMachine());
    }
    EmuClassDevice*& pClass = m_ClassDevices[Number32(words.at(1), 10)];
    if (!parts.Right.empty()) {
        ASSERT_NE(nullptr, pClass);
        const Words wanted = SplitWords(parts.Right);
        EmuClassState state = pClass->State();
        EXPECT_EQ(state.usRate, Number32(wanted.at(0), 10)) << "rate";
        EXPECT_EQ(state.usDelayMs, Number32(wanted.at(1), 10)) << "delay";
        return;
    }
    if (!pClass) {
        pClass = m_Machine->AddClassDevice((USHORT)Number32(words.at(1), 10));
    }
    pClass->SetTypematic((USHORT)Number32(words.at(2), 10), (USHORT)Number32(words.at(3), 10));
    pClass->Answer(AnswerWord(words, 4));
}

// typematic -> RATE DELAY, or typematic -> refused: the application asks
void Player::Typematic(const Words& words, const Parts& parts)
{
    if (words.size() > 1) {
        return SetTypematic(words, parts);
    }
    std::vector<UCHAR> out;
    USHORT usAnswer[2] = {0xFFFF, 0xFFFF};
    const NTSTATUS status =
        m_Application->RequestRecord(IOCTL_TVUSB_GET_TYPEMATIC, Index(), nullptr, 0, sizeof usAnswer, &out);
    const Words wanted = SplitWords(parts.Right);
    if (wanted == Words{"refused"}) {
        EXPECT_FALSE(NT_SUCCESS(status));
        EXPECT_TRUE(out.empty()) << "no output with an error";
        return;
    }
    EXPECT_EQ(STATUS_SUCCESS, status);
    ASSERT_EQ(out.size(), sizeof usAnswer);
    memcpy(usAnswer, out.data(), sizeof usAnswer);
    EXPECT_EQ(usAnswer[0], Number32(wanted.at(0), 10)) << "rate";
    EXPECT_EQ(usAnswer[1], Number32(wanted.at(1), 10)) << "delay";
}

// typematic RATE INDEX, or typematic RATE INDEX -> refused: the application sets
void Player::SetTypematic(const Words& words, const Parts& parts)
{
    USHORT usValues[2] = {(USHORT)Number32(words[1], 10), (USHORT)Number32(words.at(2), 10)};
    EXPECT_EQ(NT_SUCCESS(m_Application->RequestRecord(IOCTL_TVUSB_SET_TYPEMATIC, Index(), usValues,
                                                      sizeof usValues)),
              parts.Right.empty());
}

// mouse ps2|usb comes [slow|silent|refuses|closed], mouse ps2|usb goes, or mouse ps2|usb -> NAMES, NAMES … (nothing behind the arrow: none)
void Player::Mouse(const Words& words, const Parts& parts)
{
    if (!m_Machine) {
        ASSERT_NO_FATAL_FAILURE(StartMachine());
    }
    EmuSibling*& pMouse = m_Mice[words.at(1)];
    if (!pMouse) {
        pMouse = m_Machine->AddSibling(words[1] == "ps2" ? EmuPs2MouseSibling : EmuUsbMouseSibling);
    }
    if (words.size() == 2) {
        std::vector<ULONG> wanted;
        for (std::string word : SplitWords(parts.Right)) {
            word.resize(word.find_last_not_of(',') + 1);
            wanted.push_back(Modifiers(word));
        }
        EXPECT_EQ(pMouse->TakeWords(), wanted) << "modifier words";
    } else if (words[2] == "comes") {
        EXPECT_EQ(STATUS_SUCCESS, pMouse->Arrive(AnswerWord(words, 3)));
    } else {
        pMouse->Leave();
    }
}
