// macro_test.cpp - macro files: read, shown, compiled again, and what there is to warn of.
#include "tests/macro_file.h"
#include "tools/common/failure.h"
#include "tools/macro/readable.h"
#include "tools/macro/warnings.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>

namespace
{

using Bytes = std::vector<uint8_t>;

std::string FailureOf(const std::function<void()>& work)
{
    try {
        work();
    } catch (const InputError& error) {
        EXPECT_EQ(nullptr, strchr(error.what(), '\n')) << error.what();
        return error.what();
    }
    return "done without complaint";
}

// The bytes behind the header and the unread bytes, as hexadecimal digits with a blank between records' parts.
std::string RecordsOf(const std::string& text)
{
    std::string hex;
    Bytes bytes = BytesOf(CompileMacros("my.toml", text));
    for (size_t i = 50; i < bytes.size(); ++i) {
        char digits[3];
        snprintf(digits, sizeof(digits), "%02x", bytes[i]);
        hex += digits;
    }
    return hex;
}

// One action as RecordsOf shows it.
std::string Act(const std::string& report)
{
    return "0008" + report + std::string(16 - report.size(), '0');
}
const std::string Up = Act("");

Bytes Recompiled(const Bytes& content)
{
    std::string text = ShowMacros("my.bin", ReadMacroFile("my.bin", content));
    return BytesOf(CompileMacros("shown.toml", text));
}

// Random files that look like what people have, with every oddity now and then.
class RandomFiles
{
public:
    Bytes Next()
    {
        Bytes bytes = MacroFileHead();
        if (Chance(20)) {
            bytes.resize(34 + Below(17));
            return bytes;
        }
        for (size_t i = 34; i < 50; ++i)
            bytes[i] = Chance(30) ? static_cast<uint8_t>(Below(256)) : 0;
        for (unsigned uRecords = Below(5); uRecords > 0; --uRecords)
            AppendRecord(bytes);
        if (Chance(3))
            bytes.resize(50 + Below(static_cast<unsigned>(bytes.size() - 50) + 1)); // cut anywhere
        return bytes;
    }

private:
    unsigned Below(unsigned uBound) { return static_cast<unsigned>(m_random() % uBound); }
    bool Chance(unsigned uOneIn) { return Below(uOneIn) == 0; }

    Bytes Press()
    {
        Bytes report(8);
        report[0] = static_cast<uint8_t>(Chance(2) ? 0 : 1 << Below(8));
        for (size_t i = 2; i < 3 + Below(3); ++i)
            report[i] = static_cast<uint8_t>(Chance(10) ? Below(256) : 4 + Below(0x60));
        if (Chance(15))
            report[Below(8)] = static_cast<uint8_t>(Below(256));
        return report;
    }

    void AppendAction(Bytes& bytes, const Bytes& report)
    {
        bytes.push_back(static_cast<uint8_t>(Chance(20) ? Below(256) : 0));
        bytes.push_back(static_cast<uint8_t>(Chance(20) ? Below(256) : 8));
        bytes.insert(bytes.end(), report.begin(), report.end());
    }

    void AppendRecord(Bytes& bytes)
    {
        Bytes actions;
        for (unsigned uPresses = Below(12); uPresses > 0; --uPresses) {
            AppendAction(actions, Press());
            if (!Chance(6))
                AppendAction(actions, Bytes(8));
        }
        for (unsigned uRest = Chance(4) ? Below(10) : 0; uRest > 0; --uRest)
            actions.push_back(static_cast<uint8_t>(Below(256)));
        AppendWord(bytes, Chance(3) ? Below(0x10000) : Below(256));
        AppendWord(bytes, static_cast<unsigned>(actions.size()));
        bytes.insert(bytes.end(), actions.begin(), actions.end());
    }

    std::mt19937 m_random{20};
};

std::vector<std::string> WarningsFor(const MacroFile& macros)
{
    std::vector<std::string> texts;
    for (const MacroWarning& warning : WarningsOf(macros))
        texts.push_back(warning.what);
    return texts;
}

} // namespace

TEST(MacroFile, AnyFileComesBackByteForByte)
{
    RandomFiles files;
    for (int i = 0; i < 1500; ++i) {
        Bytes content = files.Next();
        ASSERT_EQ(content, BytesOf(ReadMacroFile("my.bin", content))) << "file " << i;
        ASSERT_EQ(content, Recompiled(content)) << "file " << i << ":\n"
                                                << ShowMacros("my.bin", ReadMacroFile("my.bin", content));
    }
    Bytes biggest = MacroFileHead();
    AppendMacro(biggest, 0x3A, std::vector<FileBytes>(6553, FileBytes{0, 0, 4}));
    EXPECT_EQ(biggest, Recompiled(biggest));
}

TEST(MacroFile, OtherFilesAreRefused)
{
    Bytes other = MacroFileHead("Korvex Configuration File V1.0.0.1");
    Bytes shorter(other.begin(), other.begin() + 33);
    for (const Bytes& content : {other, shorter, Bytes()})
        EXPECT_EQ(0u,
                  FailureOf([&] { ReadMacroFile("my.bin", content); }).find("my.bin: byte 0: no macro file"));
}

TEST(MacroText, PlaysChordsTextAndReports)
{
    const std::pair<const char*, std::string> cases[] = {
        {"[[macro]]\nkey = \"F1\"\n", "3a000000"},
        {"[[macro]]\nkey = 0x3A\nplay = \"ctrl+c\"\n", "3a001400" + Act("010006") + Up},
        {"[[macro]]\nmodifiers = [\"lshift\"]\nplay = [\"win\", \"Keypad +\"]\n",
         "02012800" + Act("08") + Up + Act("000057") + Up},
        {"[[macro]]\nmodifiers = [\"Ctrl\", \"altgr\"]\nmark = 0xFF\nplay = [\"rctrl+ralt+Del+0xa7+a\"]\n",
         "51ff1400" + Act("50004ca704") + Up},
        {"[[macro]]\nkey = \"Esc\"\nplay = { text = \"aB\\n~\" }\n",
         "29005000" + Act("000004") + Up + Act("020005") + Up + Act("000028") + Up + Act("020035") + Up},
        {"[[macro]]\nkey = \"a\"\nplay = [{ report = \"02 00 0406\\n07 00 00 FF\", head = \"01 0A\" }]\nrest "
         "= \"aa\"\n",
         "04000b00010a02000406070000ffaa"},
        {"tail = \"3a 00 05 00 01\"\n[[macro]]\nkey = \"F1\"\n", "3a0000003a00050001"},
    };
    for (const auto& [pText, expected] : cases)
        EXPECT_EQ(expected, RecordsOf(pText)) << pText;
}

// Every character of a US keyboard, against its legend: the key, and whether Shift is held.
TEST(MacroText, TypesTheUsLayout)
{
    const char* const legend = "1!2@3#4$5%6^7&8*9(0)\n\n";
    for (int i = 0; legend[i] != 0; ++i) {
        bool bShift = i % 2 == 1 && legend[i] != '\n';
        char expected[17];
        snprintf(expected, sizeof(expected), "%02x00%02x", bShift ? 2 : 0, 0x1E + i / 2);
        std::string quoted = legend[i] == '\n' ? "\\n" : std::string(1, legend[i]);
        EXPECT_EQ("04001400" + Act(expected) + Up,
                  RecordsOf("[[macro]]\nkey = \"a\"\nplay = [{ text = \"" + quoted + "\" }]\n"));
    }
    for (char c = ' '; c < 0x7F; ++c) {
        std::string literal = c == '\'' ? "\"'\"" : "'" + std::string(1, c) + "'";
        EXPECT_EQ(2 * 20u + 8,
                  RecordsOf("[[macro]]\nkey = \"a\"\nplay = { text = " + literal + " }\n").size())
            << c;
    }
}

TEST(MacroText, ReadsWell)
{
    const char* const text = "# my.bin: 4 macros.\n"
                             "\n"
                             "[[macro]]\n"
                             "key = \"F1\"\n"
                             "play = [{ text = \"say \\\"Hi\\\"\\n\" }]\n"
                             "\n"
                             "[[macro]]\n"
                             "modifiers = [\"LShift\", \"RAlt\"]\n"
                             "mark = 0x02\n"
                             "play = [\n"
                             "    \"ctrl+Page Up\",\n"
                             "    \"a\",\n"
                             "    { report = \"00 00 04 00 00 00 00 00\" },\n"
                             "    { report = \"00 00 00 00 00 00 00 00\", head = \"00 00\" },\n"
                             "]\n"
                             "\n"
                             "[[macro]]\n"
                             "key = 0xA7\n"
                             "rest = \"01 02\"\n"
                             "\n"
                             "[[macro]]\n"
                             "key = 0x00\n";
    EXPECT_EQ(text, ShowMacros("my.bin", CompileMacros("my.toml", text)));
}

TEST(MacroText, NamesTheLineThatIsWrong)
{
    const std::string macro = "[[macro]]\nkey = \"F1\"\n";
    std::string longText = macro + "play = { text = \"" + std::string(3277, 'a') + "\" }";
    const std::pair<std::string, const char*> cases[] = {
        {"[[macro]\n", nullptr},
        {"[[makro]]\n", "my.toml:1: unknown key 'makro' in the file (did you mean 'macro'?)"},
        {"macro = 3\n", "my.toml:1: macros are tables: [[macro]]"},
        {"\n[[macro]]\nplay = []\n", "my.toml:2: a macro needs a key or modifiers, one of the two"},
        {macro + "modifiers = 1\n", "my.toml:2: a macro needs a key or modifiers, one of the two"},
        {macro + "mark = 1\n", "my.toml:3: a mark belongs to modifiers, not to a key"},
        {"[[macro]]\nmodifiers = 1\nmark = 0\n", "my.toml:3: mark is not 0: that would be a key"},
        {"[[macro]]\nkey = \"Retrun\"\n", "my.toml:2: unknown key name 'Retrun' (did you mean 'Return'?)"},
        {"[[macro]]\nkey = \"Mute\"\n",
         "my.toml:2: 'Mute' is no key of the standard report, which macros are made of"},
        {"[[macro]]\nkey = 256\n", "my.toml:2: key is a number from 0 to 0xFF, not 256"},
        {"[[macro]]\nmodifiers = [\"crtl\"]\n",
         "my.toml:2: unknown modifier name 'crtl' (did you mean 'ctrl'?)"},
        {"[[macro]]\nmodifiers = [\"prefix1\"]\n", "my.toml:2: unknown modifier name 'prefix1'"},
        {macro + "play = [\"a\",\n\"ctrl+\"]\n",
         "my.toml:4: unknown key name 'ctrl+' (did you mean 'ctrl'?)"},
        {macro + "play = [\"a+b+c+d+e+f+g\"]\n",
         "my.toml:3: the chord 'a+b+c+d+e+f+g' has more than the six keys of a report"},
        {macro + "play = [1]\n",
         "my.toml:3: a macro plays chords (\"ctrl+c\"), { text = \"...\" } or { report = \"...\" }"},
        {macro + "play = [{}]\n", "my.toml:3: { text = \"...\" } or { report = \"...\" }, one of the two"},
        {macro + "play = [{ text = \"\\u00e9\" }]\n",
         "my.toml:3: the text has a character that is not ASCII; no key of the US layout types it"},
        {macro + "play = [{ text = \"\\u0007\" }]\n",
         "my.toml:3: no key of the US layout types the character 0x07"},
        {macro + "play = [{ text = \"a\", head = \"00 08\" }]\n",
         "my.toml:3: a head belongs to a report, not to a text"},
        {macro + "play = [{ report = \"00 00 04\" }]\n", "my.toml:3: a report has 8 bytes, not 3"},
        {macro + "play = [{ report = \"0 0\" }]\n",
         "my.toml:3: report is bytes of two hexadecimal digits: \"00 0a\""},
        {macro + "rest = \"00000000000000000000\"\n", "my.toml:3: rest has 10 bytes; 10 are a whole action"},
        {"reserved = \"00\"\n" + macro, "my.toml:1: reserved has 1 bytes; there are 16"},
        {"tail = \"3a 00 00 00\"\n",
         "my.toml:1: tail holds a whole record; it is the beginning of one that is cut"},
        {longText,
         "my.toml:1: the macro has 6554 actions; their 65540 bytes do not fit the 16 bits that count "
         "them, which hold 6553 actions"},
    };
    for (const auto& [text, pMessage] : cases) {
        std::string failure = FailureOf([&, &input = text] { CompileMacros("my.toml", input); });
        if (pMessage)
            EXPECT_EQ(pMessage, failure) << text;
        else
            EXPECT_EQ(0u, failure.find("my.toml:1: ")) << failure;
    }
}

TEST(MacroWarnings, TellWhatTheDriverDoesSilently)
{
    using Texts = std::vector<std::string>;
    const std::string macro = "[[macro]]\nkey = \"F1\"\n";
    const std::pair<std::string, Texts> cases[] = {
        {macro + "play = { text = \"12345678\" }", {}},
        {macro + "play = { text = \"123456789\" }",
         {"macro 1 (F1): 18 actions, but the driver queues 16 reports at once; the last 2 are lost"}},
        {macro + "play = [{ text = \"1234567\" }, { report = \"0000000000000000\" }, \"shift+a\"]",
         {"macro 1 (F1): 17 actions, but the driver queues 16 reports at once; the last 1 are lost, which "
          "leaves "
          "shift+a down"}},
        {macro + "play = [{ report = \"0100040000000000\" }]",
         {"macro 1 (F1): its last report leaves ctrl+a down"}},
        {macro + "play = [{ report = \"00FF000000000000\" }]", {}}, // the reserved byte is no key
        {macro + "rest = \"01 02\"",
         {"macro 1 (F1): 2 bytes of actions are no multiple of 10; the last 2 are passed over"}},
        {"tail = \"3a\"", {"a record is cut: 1 of the 4 bytes of its head; the driver drops it"}},
        {"tail = \"3a 00 0a 00 00\"", {"a record is cut: 1 of its 10 bytes of actions; the driver drops it"}},
        {macro + macro, {"macro 2 (F1): macro 1 takes that key first; it never plays"}},
        {"[[macro]]\nmodifiers = [\"shift\"]\n[[macro]]\nmodifiers = [\"lshift\"]\n[[macro]]\nmodifiers = "
         "[\"lshift\", \"lalt\"]",
         {"macro 2 (LShift): macro 1 takes that modifier first; it never plays"}},
        {"[[macro]]\nkey = 0\n[[macro]]\nmodifiers = 0\n[[macro]]\nkey = \"LCtrl\"",
         {"macro 1 (0x00): usage 0 is every empty place of a report; it plays all the time",
          "macro 2 (no modifier): no modifier starts it; it never plays",
          "macro 3 (LCtrl): a modifier is no key of a report, so it never plays; use modifiers"}},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(expected, WarningsFor(CompileMacros("my.toml", text))) << text;

    Bytes many = MacroFileHead();
    for (unsigned i = 0; i < 101; ++i)
        AppendMacro(many, 0x10 + i, {});
    EXPECT_EQ(
        (Texts{"macro 101 (Execute): the driver holds 100 macros; this one and all behind it are dropped"}),
        WarningsFor(ReadMacroFile("my.bin", many)));
    many.resize(50 + 100 * 4);
    EXPECT_TRUE(WarningsFor(ReadMacroFile("my.bin", many)).empty());

    Bytes huge = MacroFileHead();
    for (unsigned i = 0; i < 16; ++i)
        AppendMacro(huge, 0x10 + i, std::vector<FileBytes>(6553, FileBytes{}));
    huge.resize(1 << 20);
    EXPECT_EQ(std::string::npos, WarningsFor(ReadMacroFile("my.bin", huge))[0].find("refuses"));
    huge.push_back(0);
    EXPECT_EQ("the file has 1048577 bytes; the driver refuses more than 1048576",
              WarningsFor(ReadMacroFile("my.bin", huge))[0]);

    EXPECT_FALSE(WarnOfName(std::string(93, 'x')));
    EXPECT_TRUE(WarnOfName(std::string(94, 'x')));
    EXPECT_FALSE(WarnOfName(std::string(91, 'x') + "\xc3\xa9\xe2\x82\xac")); // 93 characters
    EXPECT_TRUE(WarnOfName(std::string(92, 'x') + "\xf0\x9f\x98\x80"));      // 94 UTF-16 units
}
