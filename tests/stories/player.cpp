// player.cpp - plays a story: the keyboard, the system and the application in one thread.
//
// The system reads by itself, as a real one does, so a read that the driver answers on its own is received
// without a report; each such read must be told by an `answer` line before the next deed.
#include "story.h"

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <memory>
#include <sstream>

#include "driver/driver.h"
#include "emu/app/application.h"
#include "emu/app/machine.h"

namespace
{
using Words = std::vector<std::string>;

struct BadLine : std::runtime_error {
    using std::runtime_error::runtime_error;
};

Words SplitWords(const std::string& text)
{
    std::istringstream stream(text);
    Words words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

// "left -> right | events": the three parts of a line, absent ones empty.
struct Parts {
    std::string Left, Right, Events;
};

std::string CutAt(std::string& text, const std::string& mark)
{
    size_t at = text.find(mark);
    if (at == std::string::npos) {
        return "";
    }
    std::string behind = text.substr(at + mark.size());
    text.resize(at);
    return behind;
}

Parts SplitParts(std::string text)
{
    Parts parts;
    parts.Events = CutAt(text, "|");
    parts.Right = CutAt(text, "->");
    parts.Left = text;
    return parts;
}

unsigned long Number(const std::string& word, int base)
{
    size_t used = 0;
    unsigned long value = 0;
    try {
        value = std::stoul(word, &used, base);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != word.size() || used == 0) {
        throw BadLine("not a number: " + word);
    }
    return value;
}

EmuBytes Bytes(const Words& words, size_t from = 0)
{
    EmuBytes bytes;
    for (size_t i = from; i < words.size(); i++) {
        bytes.push_back(static_cast<UCHAR>(Number(words[i], 16)));
    }
    return bytes;
}

std::string Text(const EmuBytes& bytes)
{
    std::string text;
    char hex[4];
    for (UCHAR ucByte : bytes) {
        snprintf(hex, sizeof(hex), "%02X ", ucByte);
        text += hex;
    }
    return text;
}

const std::map<std::string, ULONG> ModifierWords = {
    {"-", 0},
    {"lctrl", 0x2},
    {"rctrl", 0x4},
    {"lshift", 0x8},
    {"rshift", 0x10},
    {"lalt", 0x20},
    {"ralt", 0x40},
    {"lwin", 0x80},
    {"rwin", 0x100},
    {"context", 0x200},
    {"ctrl", 0x400},
    {"shift", 0x800},
    {"alt", 0x1000},
    {"win", 0x2000},
    {"poskey", 0x8000000},
    {"prefix1", 0x10000000},
    {"prefix2", 0x20000000},
    {"fn", 0x80000000},
};

ULONG Modifiers(const std::string& word)
{
    ULONG ulMask = 0;
    std::istringstream stream(word);
    for (std::string name; std::getline(stream, name, '+');) {
        auto found = ModifierWords.find(name);
        if (found == ModifierWords.end()) {
            throw BadLine("unknown modifier: " + name);
        }
        ulMask |= found->second;
    }
    return ulMask;
}

std::string EventText(const NotifyRecord& record)
{
    std::string text;
    if (record.ucSource == NOTIFY_SOURCE_HOTKEY) {
        text = record.ulValue == 1   ? "down "
               : record.ulValue == 0 ? "up "
                                     : "repeat " + Text({static_cast<UCHAR>(record.ulValue)});
    } else {
        text = "key " + Text({static_cast<UCHAR>(record.ulValue)});
    }
    text += std::to_string(record.ulId);
    return record.ulEscAbort ? text + " abort" : text;
}

class Player
{
public:
    void Play(const std::string& line);
    void Finish();

private:
    void Keyboard(const Words& words);
    void Hotkey(const Words& words, bool bRefused);
    void Define(const Words& words);
    void Report(const Parts& parts);
    void Wait(const Words& words, const Parts& parts);
    void ExpectReceived(const std::string& expected);
    void ExpectNothingReceived();
    void ExpectEvents(const std::string& expected);
    ULONG Index() const { return m_Keyboards.at(m_Current)->Index(); }

    EmuMachineOptions m_Options;
    std::unique_ptr<EmuMachine> m_Machine;
    std::unique_ptr<EmuApplication> m_Application;
    std::vector<EmuKeyboard*> m_Keyboards;
    std::vector<std::unique_ptr<std::deque<EmuBytes>>> m_Received; // by keyboard
    size_t m_Current = 0;
};

void Player::Keyboard(const Words& words)
{
    if (!m_Machine) {
        m_Options.Entry = DriverEntry;
        m_Machine = std::make_unique<EmuMachine>(m_Options);
        ASSERT_EQ(m_Machine->LoadStatus(), STATUS_SUCCESS);
    }
    const EmuDescriptors* pKind = EmuMachine::FindKind(words.at(1));
    if (pKind == nullptr) {
        throw BadLine("unknown keyboard: " + words[1]);
    }
    m_Received.push_back(std::make_unique<std::deque<EmuBytes>>());
    EmuPlugOptions options;
    options.OnReceived = [pQueue = m_Received.back().get()](const EmuReceived& received) {
        if (NT_SUCCESS(received.Status)) {
            pQueue->push_back(received.Bytes);
        }
    };
    m_Current = m_Keyboards.size();
    m_Keyboards.push_back(m_Machine->Plug(*pKind, options));
    ASSERT_EQ(m_Keyboards.back()->StartStatus(), STATUS_SUCCESS);
    if (!m_Application) {
        m_Application = std::make_unique<EmuApplication>();
        ASSERT_EQ(m_Application->OpenStatus(), STATUS_SUCCESS);
    }
    EXPECT_EQ(m_Application->RegisterNotifyEvent(Index()), STATUS_SUCCESS);
    EXPECT_EQ(m_Application->StartReportProcessing(Index()), STATUS_SUCCESS);
}

// hotkey ID MODIFIERS [SCAN…] [swallow]
void Player::Hotkey(const Words& words, bool bRefused)
{
    KeyDefinition definition = {};
    definition.ulId = static_cast<uint32_t>(Number(words.at(1), 10));
    definition.ulType = 1;
    definition.ulModifiers = Modifiers(words.at(2));
    for (size_t i = 3; i < words.size(); i++) {
        if (words[i] == "swallow") {
            definition.ulSwallow = 1;
        } else {
            definition.ucScans[definition.usScanCount++ % 32] = static_cast<uint8_t>(Number(words[i], 16));
        }
    }
    NTSTATUS status = m_Application->AddDefinition(Index(), definition);
    EXPECT_EQ(status, bRefused ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS);
}

// define ID TYPE [swallow]
void Player::Define(const Words& words)
{
    KeyDefinition definition = {};
    definition.ulId = static_cast<uint32_t>(Number(words.at(1), 10));
    definition.ulType = static_cast<uint32_t>(Number(words.at(2), 10));
    definition.ulSwallow = words.size() > 3 && words[3] == "swallow" ? 1 : 0;
    EXPECT_EQ(m_Application->AddDefinition(Index(), definition), STATUS_SUCCESS);
}

void Player::ExpectReceived(const std::string& expected)
{
    std::deque<EmuBytes>& received = *m_Received.at(m_Current);
    ASSERT_FALSE(received.empty()) << "the system received nothing";
    EXPECT_EQ(Text(received.front()), Text(Bytes(SplitWords(expected))));
    received.pop_front();
}

void Player::ExpectNothingReceived()
{
    for (const auto& pQueue : m_Received) {
        EXPECT_TRUE(pQueue->empty()) << "the system also received " << Text(pQueue->front());
        pQueue->clear();
    }
}

void Player::ExpectEvents(const std::string& expected)
{
    std::string told;
    if (!m_Keyboards.empty() && m_Keyboards.at(m_Current)->Plugged()) {
        bool bSignalled = m_Application->NotifySignalled(Index());
        for (const NotifyRecord& record : m_Application->TakeRecords(Index())) {
            EXPECT_EQ(record.ucValid, 1);
            told += (told.empty() ? "" : ", ") + EventText(record);
        }
        EXPECT_EQ(bSignalled, !told.empty()) << "the application is signalled when there is something";
    }
    std::string wanted;
    for (const std::string& word : SplitWords(expected)) {
        wanted += (wanted.empty() ? "" : " ") + word;
    }
    EXPECT_EQ(told, wanted) << "events";
}

void Player::Report(const Parts& parts)
{
    EXPECT_TRUE(m_Keyboards.at(m_Current)->Report(Bytes(SplitWords(parts.Left), 1)));
    HostSettle();
    if (parts.Right.empty()) {
        return; // kept by the keyboard: no read is there
    }
    ExpectReceived(parts.Right);
}

void Player::Wait(const Words& words, const Parts&)
{
    const std::string& word = words.at(1);
    if (word.size() < 3 || word.substr(word.size() - 2) != "ms") {
        throw BadLine("wait takes milliseconds: wait 250ms");
    }
    HostAdvanceToUs(HostNowUs() + Number(word.substr(0, word.size() - 2), 10) * 1000);
}

void Player::Play(const std::string& line)
{
    Parts parts = SplitParts(line);
    Words words = SplitWords(parts.Left);
    const std::string& verb = words.at(0);
    if (verb == "answer") {
        ExpectReceived(parts.Right);
        return ExpectEvents(parts.Events);
    }
    ExpectNothingReceived();
    if (verb == "setting") {
        m_Options.Settings[words.at(1)] = static_cast<ULONG>(Number(words.at(2), 0));
    } else if (verb == "keyboard") {
        Keyboard(words);
    } else if (verb == "on") {
        m_Current = Number(words.at(1), 10);
    } else if (verb == "hotkey") {
        Hotkey(words, false);
    } else if (verb == "refused") {
        Hotkey(Words(words.begin() + 1, words.end()), true);
    } else if (verb == "define") {
        Define(words);
    } else if (verb == "remove") {
        EXPECT_EQ(m_Application->RemoveDefinition(Index(), static_cast<ULONG>(Number(words.at(1), 10))),
                  STATUS_SUCCESS);
    } else if (verb == "processing") {
        EXPECT_EQ(words.at(1) == "on" ? m_Application->StartReportProcessing(Index())
                                      : m_Application->StopReportProcessing(Index()),
                  STATUS_SUCCESS);
    } else if (verb == "report") {
        Report(parts);
    } else if (verb == "scans") {
        EXPECT_EQ(m_Application->InsertScans(Index(), Bytes(words, 1)), STATUS_SUCCESS);
    } else if (verb == "packet") {
        FifoEntry entry = {};
        for (UCHAR ucByte : Bytes(words, 1)) {
            entry.ucData[entry.usLength++ % sizeof(entry.ucData)] = ucByte;
        }
        EXPECT_EQ(m_Application->InsertUSBPackets(Index(), {entry}), STATUS_SUCCESS);
    } else if (verb == "led") {
        EXPECT_EQ(m_Keyboards.at(m_Current)->SendLed(Bytes(words, 1).at(0), EmuHidRouteControl),
                  STATUS_SUCCESS);
        std::vector<UCHAR> out;
        EXPECT_EQ(m_Application->RequestRecord(IOCTL_TVUSB_GET_LEDS, Index(), nullptr, 0, 2, &out),
                  STATUS_SUCCESS);
        EXPECT_EQ(Text({out.at(0)}), Text(Bytes(SplitWords(parts.Right))));
    } else if (verb == "modifiers") {
        std::vector<UCHAR> out;
        EXPECT_EQ(m_Application->RequestRecord(IOCTL_TVUSB_GET_MODIFIERS, Index(), nullptr, 0, 4, &out),
                  STATUS_SUCCESS);
        ULONG ulFlags = 0;
        memcpy(&ulFlags, out.data(), sizeof(ulFlags));
        EXPECT_EQ(ulFlags, Modifiers(words.at(1)));
    } else if (verb == "wait") {
        Wait(words, parts);
    } else if (verb == "unplug" || verb == "pull") {
        EXPECT_EQ(m_Keyboards.at(m_Current)->Unplug(verb == "pull"), STATUS_SUCCESS);
    } else if (verb == "quiet") {
        for (EmuKeyboard* pKeyboard : m_Keyboards) {
            EXPECT_EQ(pKeyboard->Plugged() ? pKeyboard->PendingReads() : 1, 1u);
        }
    } else {
        throw BadLine("unknown verb: " + verb);
    }
    if (m_Machine) {
        HostSettle();
        ExpectEvents(parts.Events);
    }
}

void Player::Finish()
{
    ExpectNothingReceived();
    if (m_Application) {
        m_Application->Close();
    }
    if (m_Machine) {
        EXPECT_EQ(m_Machine->Unload(), 0u) << "things left over";
    }
}
} // namespace

void PlayStory(const Story& story)
{
    Player player;
    for (const StoryLine& line : story.Lines) {
        SCOPED_TRACE(story.File + ":" + std::to_string(line.uNumber) + ": " + line.Text);
        try {
            player.Play(line.Text);
        } catch (const std::exception& error) {
            ADD_FAILURE() << error.what();
        }
        if (testing::Test::HasFatalFailure()) {
            return;
        }
    }
    SCOPED_TRACE(story.File + ": at the end of the story");
    player.Finish();
}
