// scrub_test.cpp - nothing that was typed stays in a scrubbed session, and everything that the driver did.
#include "captures.h"
#include "program.h"

namespace
{

class Scrub : public Program
{
protected:
    void Write(const std::string& name, const Bytes& content)
    {
        Program::Write(name, {content.begin(), content.end()});
    }
    using Program::Write;

    // The lines that begin so of what a replay prints.
    std::string Told(const std::string& arguments, const char* pKind)
    {
        std::istringstream lines(Run("replay --json " + arguments).out);
        std::string told;
        for (std::string line; std::getline(lines, line);)
            if (line.find(std::string("{\"type\":\"") + pKind) == 0)
                told += line + "\n";
        return told;
    }
};

} // namespace

TEST_F(Scrub, PutsOtherKeysInTheirPlace)
{
    Write("b.toml",
          "[settings]\nPrefix1 = \"W\"\n[[definition]]\nid = 3\nkeys = [\"ctrl+B\"]\nswallow = 1\n");
    const struct {
        const char* pWhat;
        const char *pSent, *pWritten; // modifiers and keys
    } reports[] = {
        {"a letter", "00 00 16 00 00 00 00 00", "00 00 04 00 00 00 00 00"},
        {"another to it", "00 00 16 04 00 00 00 00", "00 00 04 06 00 00 00 00"}, // not B, which is named
        {"the first goes", "00 00 04 00 00 00 00 00", "00 00 06 00 00 00 00 00"},
        {"a key for a key", "02 00 0f 00 00 00 00 00", "02 00 04 00 00 00 00 00"},
        {"nothing", "00 00 00 00 00 00 00 00", "00 00 00 00 00 00 00 00"},
        {"digits and signs", "20 00 23 62 34 87 00 00", "20 00 1e 59 2d 2e 00 00"},
        {"too many keys", "00 00 01 01 01 01 01 01", "00 00 01 01 01 01 01 01"},
        {"they are still held", "20 00 23 62 34 87 00 00", "20 00 1e 59 2d 2e 00 00"},
        {"what no one reads", "00 00 28 2c 29 3a 00 00", "00 00 28 2c 29 3a 00 00"},
        {"the hotkey", "01 00 05 00 00 00 00 00", "01 00 05 00 00 00 00 00"},
        {"a prefix key", "00 00 1a 00 00 00 00 00", "00 00 1a 00 00 00 00 00"},
        {"three bytes", "05 0f 23", "05 04 1e"},
        {"a report of another kind", "05 00 00 16 0f 00 00 00 00", "05 00 00 00 00 00 00 00 00"},
    };
    std::string sent = "D: 0\nR: 3 01 02 03\nN: Anna's desk 7\nP: usb-1\nI: 3 7A3C 0001\n";
    std::string written = "D: 0\nN: xxxx'x xxxx x\nI: 3 7a3c 0001\nD: 0\n";
    char line[64];
    int iSecond = 0;
    for (const auto& report : reports) {
        snprintf(line, sizeof(line), "E: %06d.250000 %zu ", iSecond, (strlen(report.pSent) + 1) / 3);
        sent += line + std::string(report.pSent) + "\n";
        snprintf(line, sizeof(line), "E: %06d.000000 %zu ", iSecond++, (strlen(report.pSent) + 1) / 3);
        written += line + std::string(report.pWritten) + "\n";
    }
    Write("in.hid", sent);
    RunOutcome outcome = Run("scrub in.hid out.hid --config b.toml");
    EXPECT_EQ(0, outcome.iStatus) << outcome.err;
    EXPECT_EQ(written, ContentOf(Path("out.hid")));
    EXPECT_EQ(
        "out.hid: 9 key presses, 1 strings and 1 other reports or answers were replaced; 13 reports and 2 "
        "events stay as they were\n",
        outcome.out);
    EXPECT_EQ(Told("in.hid --config b.toml", "event"), Told("out.hid --config b.toml", "event"));
}

// Of a capture stay the keyboards alone; what they were told and what their memory holds does not.
TEST_F(Scrub, KeepsOfACaptureWhatTheDriverNeeds)
{
    UsbmonStory story;
    story.Device(9).Enumerate(0x1111, 2, ConfigurationOf({{8, 6, 80}}));
    story.Control({0xA1, 1, 0, 3, 0, 0, 6, 0}, BytesOf("secret")); // of a disk
    story.Device(3).Enumerate(0x7A3C, 0x65, ConfigurationOf({{3, 1, 1}, {3, 0, 0, 4}}));
    story.Control({0x80, 6, 2, 3, 9, 4, 16, 0},
                  {16, 3, 's', 0, 'e', 0, 'c', 0, 'r', 0, 'e', 0, 't', 0, '!', 0});
    story.Control({0xC0, 7, 0, 0, 0, 0, 6, 0}, BytesOf("secret")); // of the keyboard's memory
    story.At(100000).Report({1, 2}, 0x82).Report({0, 0, 4, 0, 0, 0, 0, 0});
    story.At(200000).Control({0x21, 9, 0, 2, 0, 0, 1, 0}, {4});
    story.At(300000).Report({1, 0, 0x3A, 0, 0, 0, 0, 0}).At(700000).Report({0, 0, 0, 0, 0, 0, 0, 0});
    Write("in.pcap", story.File());
    Write("f1.toml", "[[definition]]\nid = 7\nkeys = [\"ctrl+F1\"]\nswallow = 1\n");
    RunOutcome outcome = Run("scrub in.pcap out.pcap --config f1.toml");
    ASSERT_EQ(0, outcome.iStatus) << outcome.err;
    const std::string written = ContentOf(Path("out.pcap"));
    EXPECT_EQ(std::string::npos, written.find("secret"));
    EXPECT_EQ(std::string::npos, written.find(std::string("s\0e\0", 4)));
    for (const char* pKind : {"definition", "report", "event", "led", "end"}) {
        std::string before = Told("in.pcap --config f1.toml", pKind);
        EXPECT_NE("", before);
        EXPECT_EQ(before, Told("out.pcap --config f1.toml", pKind));
    }
    const std::string keyboards = Told("out.pcap", "keyboard");
    EXPECT_NE(std::string::npos, keyboards.find(R"("vendor":31292,"product":101,"name":"xxxxxx!")"))
        << keyboards;
    EXPECT_EQ(2, std::count(keyboards.begin(), keyboards.end(), '\n'));
}

// A cashier's keys reach the application as scan codes: others of the same class, at the same times.
TEST_F(Scrub, KeepsTheRhythmOfACashier)
{
    Write("sale.toml", "[[definition]]\nid = 5\ntype = 5\nswallow = 1\n");
    Write("in.hid", "E: 0.1 8 00 00 14 00 00 00 00 00\nE: 1.2 8 00 00 14 28 00 00 00 00\n"
                    "E: 1.3 8 00 00 00 00 00 00 00 00\n");
    EXPECT_EQ(0, Run("scrub in.hid out.hid --config sale.toml").iStatus);
    const std::string before = Told("in.hid --config sale.toml", "event"),
                      after = Told("out.hid --config sale.toml", "event");
    EXPECT_LT(10, std::count(before.begin(), before.end(), '\n')); // it repeats
    EXPECT_EQ(std::count(before.begin(), before.end(), '\n'), std::count(after.begin(), after.end(), '\n'));
    EXPECT_EQ(std::string::npos, after.find("\"value\":16,")) << after; // Q
}

TEST_F(Scrub, RefusesWhatItCannotProve)
{
    Write("f1.toml", "[[definition]]\nid = 7\nkeys = [\"F1\"]\nswallow = 1\n");
    Write("typed.hid", "E: 0.1 8 00 00 14 00 00 00 00 00\n");
    // A setting of its own makes the interface a mouse, so its reports are no keys and become zeros; but the driver
    // took it for the keyboard that comes first, and found a hotkey.
    Bytes both = Joined(ConfigurationOf({{3, 1, 1}}), {9, 4, 0, 1, 1, 3, 1, 2, 0, 7, 5, 0x81, 3, 8, 0, 10});
    both[2] = static_cast<uint8_t>(both.size());
    UsbmonStory story;
    story.Enumerate(0x7A3C, 1, both);
    Write("both.pcap", story.At(1000).Report({0, 0, 0x3A, 0, 0, 0, 0, 0}).File());
    Write("out", std::string("as it was"));
    const struct {
        const char *pArguments, *pSaid;
        int iStatus;
    } cases[] = {
        {"both.pcap out --config f1.toml", "tvusb: both.pcap: not scrubbed: '0.001000 keyboard 0: event ", 1},
        {"typed.hid out --config none.toml", "tvusb: none.toml:1: cannot be read", 2},
        {"none.hid out", "tvusb: none.hid: byte 0: cannot be read", 2},
        {"typed.hid none/out", "tvusb: none/out: cannot be written", 2},
    };
    const size_t cFiles = FilesThere();
    for (const auto& c : cases) {
        RunOutcome outcome = Run("scrub " + std::string(c.pArguments));
        EXPECT_EQ(c.iStatus, outcome.iStatus) << c.pArguments << outcome.out;
        EXPECT_EQ(0u, outcome.err.find(c.pSaid)) << outcome.err;
        EXPECT_EQ(1, std::count(outcome.err.begin(), outcome.err.end(), '\n')) << outcome.err;
    }
    EXPECT_EQ("as it was", ContentOf(Path("out")));
    EXPECT_EQ(cFiles, FilesThere());
}
