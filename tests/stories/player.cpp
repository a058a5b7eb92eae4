// player.cpp - plays a story: the table of verbs, what is checked around each line, and the end.
#include "player.h"

#include "story.h"

struct Player::VerbRow {
    const char* pName;
    void (Player::*pVerb)(const Words& words, const Parts& parts);
};

const Player::VerbRow Player::Verbs[] = {
    {"setting", &Player::Setting},
    {"keyboard", &Player::Keyboard},
    {"replug", &Player::Replug},
    {"on", &Player::On},
    {"report", &Player::Report},
    {"answer", &Player::Answer},
    {"led", &Player::Led},
    {"wait", &Player::Wait},
    {"unplug", &Player::Unplug},
    {"pull", &Player::Unplug},
    {"quiet", &Player::Quiet},
    {"hotkey", &Player::Hotkey},
    {"refused", &Player::Refused},
    {"define", &Player::Define},
    {"remove", &Player::Remove},
    {"processing", &Player::Processing},
    {"scans", &Player::Scans},
    {"packet", &Player::Packet},
    {"modifiers", &Player::ExpectModifiers},
    {"macro", &Player::Macro},
    {"macrofile", &Player::MacroFile},
    {"reread", &Player::Reread},
    {"capture", &Player::Capture},
    {"classled", &Player::ClassLed},
    {"shows", &Player::Shows},
    {"setled", &Player::SetLed},
    {"leds", &Player::ExpectLeds},
    {"read", &Player::Read},
    {"write", &Player::Write},
    {"size", &Player::Size},
    {"string", &Player::String},
    {"descriptor", &Player::Descriptor},
    {"command", &Player::Command},
    {"keyboards", &Player::ListKeyboards},
    {"answers", &Player::Answers},
    {"class", &Player::Class},
    {"typematic", &Player::Typematic},
    {"mouse", &Player::Mouse},
};

// The system's time as events carry it.
static ULONG TimeNow()
{
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    return static_cast<ULONG>(now.QuadPart / 1000);
}

void Player::ExpectReceived(const std::string& expected)
{
    std::deque<EmuBytes>& received = *m_Received.at(m_Current);
    ASSERT_FALSE(received.empty()) << "the system received nothing";
    EXPECT_EQ(Text(received.front()), Text(Bytes(expected)));
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
    if (!m_Keyboards.empty() && Current().Plugged()) {
        bool bSignalled = m_Application->NotifySignalled(Index());
        for (const NotifyRecord& record : m_Application->TakeRecords(Index())) {
            EXPECT_EQ(1, record.ucValid);
            EXPECT_LE(record.ulTime - m_ulLineBegan, TimeNow() - m_ulLineBegan) << "when it happened";
            told += (told.empty() ? "" : ", ") + EventText(record);
        }
        EXPECT_EQ(bSignalled, !told.empty()) << "the application is signalled when there is something";
    }
    if (m_Application) {
        bool bSignalled = m_Application->MacroSignalled();
        std::vector<MacroRecord> records = m_Application->TakeMacroRecords();
        EXPECT_EQ(bSignalled, !records.empty()) << "the application is signalled of macro records";
        for (const MacroRecord& record : records) {
            told += (told.empty() ? "" : ", ") + EventText(record);
        }
    }
    std::string wanted;
    for (const std::string& word : SplitWords(expected)) {
        wanted += (wanted.empty() ? "" : " ") + word;
    }
    EXPECT_EQ(told, wanted) << "events";
}

void Player::PlayVerb(const Words& words, const Parts& parts)
{
    for (const VerbRow& row : Verbs) {
        if (words.at(0) == row.pName) {
            return (this->*row.pVerb)(words, parts);
        }
    }
    throw BadLine("unknown verb: " + words.at(0));
}

void Player::Play(const std::string& line)
{
    const Parts parts = SplitParts(line);
    const Words words = SplitWords(parts.Left);
    if (words.at(0) != "answer") {
        ExpectNothingReceived();
    }
    m_ulLineBegan = m_Machine ? TimeNow() : 0;
    PlayVerb(words, parts);
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
        EXPECT_EQ(0u, m_Machine->Unload()) << "things left over";
    }
}

void PlayStory(const Story& story, bool b32)
{
    Player player(b32);
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
