// keyboards_test.cpp - which keyboard is meant, definitions that stay or go, events, what is typed.
#include "tests/tvctl/tvctl_test.h"
#include "tools/common/files.h"

#include <csignal>

namespace
{

class Tvctl : public TvctlTest
{
};

// Two interfaces of one keyboard and another keyboard: a word that fits several names none of them.
TEST_F(Tvctl, KeyboardsAreNamedInFiveWaysAndNoneByChance)
{
    machine.Plug(EmuPowerKeyboard);
    const std::string name = [this] {
        const UNICODE_STRING& link = FilterContextOf(pKeyboard->Filter())->InterfaceLinkName;
        return tvusb::ToUtf8({reinterpret_cast<const char16_t*>(link.Buffer), link.Length / 2u});
    }();
    for (const std::string& word : {std::string("0"), std::string("index:0"), std::string("7A3C:0101:00"),
                                    std::string("id:7a3c:0101:00"), name, name.substr(4), "name:" + name}) {
        Outcome outcome = Run({"info", "--json", "-k", word});
        EXPECT_EQ(Done, outcome.iExit) << word << outcome.err;
        EXPECT_TRUE(Has(outcome.out, "{\"type\":\"info\",\"index\":0,")) << word << outcome.out;
    }
    for (const auto& [word, iExit] :
         {std::pair{"7a3c:0101", int(SeveralFit)}, std::pair{"serial:0", int(NoKeyboard)},
          std::pair{"7", int(NoKeyboard)}}) {
        Outcome outcome = Run({"leds", "num=on", "--json", "-k", word});
        EXPECT_EQ(iExit, outcome.iExit) << word;
        EXPECT_TRUE(Has(outcome.out, "\"candidates\":[{")) << outcome.out;
        EXPECT_TRUE(Has(outcome.err, "\n  keyboard 0  7a3c:0101:00  ") &&
                    Has(outcome.err, "\n  keyboard 1  "))
            << outcome.err;
    }
    EXPECT_EQ(SeveralFit, Run({"leds", "num=on"}).iExit);
}

TEST_F(Tvctl, WithoutAKeyboardThereIsNoDriver)
{
    pKeyboard->Unplug(true);
    EXPECT_EQ(NoKeyboard, Run({"list"}).iExit);
    Outcome doctor = Run({"doctor"});
    EXPECT_EQ(Refused, doctor.iExit);
    EXPECT_TRUE(Has(doctor.out, "fault    opening the driver: ") && Has(doctor.out, "→ plug in a keyboard"))
        << doctor.out;
}

// What is added goes with the last handle, and that is found out.
TEST_F(Tvctl, ADefinitionStaysWithAnotherApplicationAlone)
{
    Outcome alone = Run({"hotkey", "add", "7", "ctrl+F1"});
    EXPECT_EQ(NotKept, alone.iExit);
    EXPECT_TRUE(Has(alone.err, "--watch")) << alone.err;

    tvusb::Driver other(tvusb::HostTransport());
    ASSERT_TRUE(other.Open().Ok());
    for (int i = 0; i < 2; i++) // the second takes the place of the first
        EXPECT_EQ(Done, Run({"hotkey", "add", "7", "ctrl+F1", "--swallow"}).iExit);
    auto events = other.FindOnly()->Events();
    pKeyboard->Report({0x01, 0, 0x3A, 0, 0, 0, 0, 0});
    EXPECT_EQ(1u, *events.Count());
    EXPECT_EQ(EmuBytes({0x00, 0, 0, 0, 0, 0, 0, 0}), pKeyboard->Received().back().Bytes);
    EXPECT_EQ("keyboard 0: removed 1 definition 7\n", Run({"hotkey", "remove", "7"}).out);
    EXPECT_EQ(Refused, Run({"hotkey", "remove", "7"}).iExit);
}

TEST_F(Tvctl, EventsHaveTheNamesOfTheConfiguration)
{
    std::string file =
        Write("keys.toml",
              "[[definition]]\nid = 7\nname = \"pay\"\nmodifiers = [\"ctrl\"]\nkeys = [\"F1\"]\nswallow = 1\n"
              "[[definition]]\nid = 8\nmodifiers = [\"lshift\"]\nkeys = [\"Pause\", \"Up\"]\n");
    EXPECT_EQ("7  Ctrl+F1  swallowed  \"pay\"\n8  LShift+Pause+Up\n", Run({"hotkey", "list-file", file}).out);
    HostThread person = Meanwhile([this] {
        pKeyboard->Report({0x01, 0, 0x3A, 0, 0, 0, 0, 0});
        pKeyboard->Report({0x00, 0, 0, 0, 0, 0, 0, 0});
    });
    Outcome outcome = Run({"apply", file, "--watch", "--events", "2"});
    HostJoinThread(person);
    EXPECT_EQ(Done, outcome.iExit) << outcome.err;
    EXPECT_TRUE(Has(outcome.out, "  7 down  pay\n") && Has(outcome.out, "  7 up  pay\n")) << outcome.out;
}

// The keyboard goes, the time is over, somebody presses Ctrl+C, another application listens.
TEST_F(Tvctl, AWatchEnds)
{
    EXPECT_EQ(Done, Run({"watch", "--seconds", "2"}).iExit);
    HostThread person = Meanwhile([] { raise(SIGINT); });
    EXPECT_EQ(Done, Run({"watch"}).iExit);
    HostJoinThread(person);
    tvusb::Driver other(tvusb::HostTransport());
    ASSERT_TRUE(other.Open().Ok());
    {
        auto listener = other.FindOnly()->Events().Listen();
        Outcome outcome = Run({"watch"});
        EXPECT_EQ(Refused, outcome.iExit);
        EXPECT_TRUE(Has(outcome.err, "another application is told")) << outcome.err;
    }
    machine.Plug();
    person = Meanwhile([this] { pKeyboard->Unplug(true); });
    EXPECT_EQ(NoKeyboard, Run({"watch", "-k", "0"}).iExit);
    HostJoinThread(person);
}

TEST_F(Tvctl, BadInputAsksTheDriverForNothing)
{
    std::string file = Write("bad.toml", "[[definition]]\nid = 7\nkeys = [\"F99\"]\n");
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"hotkey", "add", "7", "ctrl+F99"},
                                               {"apply", file},
                                               {"type", "caf\xC3\xA9"},
                                               {"insert", "0000zz"},
                                               {"insert", "00 00 0"},
                                               {"insert", "0000040000000000000000"},
                                               {"leds", "num"},
                                               {"leds", "num=on", "num=off"},
                                               {"typematic", "--delay", "300"},
                                               {"typematic", "--rate", "31"},
                                               {"nonsense"},
                                               {}}) {
        Outcome outcome = Run(arguments);
        EXPECT_EQ(BadInput, outcome.iExit) << (arguments.empty() ? "" : arguments[0]);
        EXPECT_NE("", outcome.err);
        EXPECT_EQ("", outcome.out);
    }
    EXPECT_TRUE(pKeyboard->Received().empty());
}

TEST_F(Tvctl, TheSystemSeesWhatIsTyped)
{
    EXPECT_EQ(Done, Run({"type", "Hi", "--enter"}).iExit);
    std::string typed;
    for (const EmuReceived& received : pKeyboard->Taken()) {
        tvusb::KeyReport report = {};
        std::copy_n(received.Bytes.begin(), std::min<size_t>(received.Bytes.size(), report.size()),
                    report.begin());
        if (char c = tvusb::CharacterOfReport(report))
            typed += c;
    }
    EXPECT_EQ("Hi\n", typed);
    std::vector<std::string> many = {"insert"};
    for (int i = 0; i < 40; i++) // more than the driver's queue holds
        many.push_back(i % 2 ? "0000000000000000" : "00 00 04 00 00 00 00 00");
    EXPECT_EQ("keyboard 0: inserted 40 reports\n", Run(many).out);
    EXPECT_EQ(40u, pKeyboard->Taken().size());
}

TEST_F(Tvctl, LedsAndWhatTheKeyboardTells)
{
    tvusb::Driver other(tvusb::HostTransport());
    ASSERT_TRUE(other.Open().Ok());
    EXPECT_EQ("num on  caps off  scroll off\n", Run({"leds", "num=on"}).out);
    EXPECT_EQ("num on  caps on  scroll off\n", Run({"leds", "CAPS=on"}).out);
    EXPECT_EQ("{\"type\":\"leds\",\"index\":0,\"num\":false,\"caps\":true,\"scroll\":false}\n",
              Run({"leds", "num=off", "--json"}).out);
    EXPECT_TRUE(Has(Run({"strings", "--language", "0x0407"}).out, "product       Nachgebildete Tastatur\n"));
    EXPECT_TRUE(Has(Run({"descriptor"}).out, "vendor 0x7A3C  product 0x0101"));
    EXPECT_EQ("tvctl " TV64USB_VERSION "\ndriver " TV64USB_VERSION "\n", Run({"version"}).out);
    Outcome doctor = Run({"doctor"});
    EXPECT_EQ(Done, doctor.iExit) << doctor.out;
}

class TvctlMacros : public TvctlTest
{
protected:
    TvctlMacros() : TvctlTest({{"KorvexHotkey", 0x00010047u}}) {}
};

// Escape or Ctrl+C ends it, and the system has its keys again.
TEST_F(TvctlMacros, ARecordingIsAMacroAndEnds)
{
    std::string file = Path("macro.toml");
    HostThread person = Meanwhile([this] {
        for (UCHAR ucKey : {0x0B, 0, 0x29, 0})
            pKeyboard->Report({0, 0, ucKey, 0, 0, 0, 0, 0});
    });
    Outcome outcome = Run({"macro", "record", file, "--key", "F2"});
    HostJoinThread(person);
    EXPECT_EQ(Done, outcome.iExit) << outcome.err;
    std::string text = ReadWholeText(file);
    EXPECT_TRUE(Has(text, "key = \"F2\"") && Has(text, "\"h\"")) << text;
    EXPECT_TRUE(Has(Run({"macro", "status"}).out, "recording off"));

    person = Meanwhile([] { raise(SIGINT); });
    EXPECT_EQ(Refused, Run({"macro", "record", Path("none.toml")}).iExit);
    HostJoinThread(person);
    EXPECT_FALSE(std::filesystem::exists(Path("none.toml")));
    EXPECT_TRUE(Has(Run({"macro", "status"}).out, "recording off"));

    tvusb::Driver other(tvusb::HostTransport());
    ASSERT_TRUE(other.Open().Ok() && other.Macros().SetCapture(1).Ok()); // and is killed
    EXPECT_EQ(Refused, Run({"doctor"}).iExit);
    EXPECT_TRUE(Has(Run({"macro", "record", "--off"}).out, "recording off"));
}

} // namespace
