// memory_test.cpp - EEPROM and files: nothing is written without a backup, nothing is believed unread.
#include "tests/tvctl/tvctl_test.h"
#include "tools/common/failure.h"
#include "tools/tvctl/findings.h"
#include "tools/tvctl/image.h"

#include <algorithm>
#include <numeric>

namespace
{

class Eeprom : public TvctlTest
{
protected:
    void SetUp() override
    {
        TvctlTest::SetUp();
        std::iota(Bytes(), Bytes() + 64, 0);
        m_before = std::filesystem::current_path();
        std::filesystem::current_path(folder.Path()); // where backups go
    }
    void TearDown() override
    {
        std::filesystem::current_path(m_before);
        TvctlTest::TearDown();
    }

    UCHAR* Bytes() { return pKeyboard->Memory().ucEeprom; }
    size_t Files() const
    {
        std::filesystem::directory_iterator begin(folder.Path()), end;
        return static_cast<size_t>(std::distance(begin, end));
    }

    std::filesystem::path m_before;
};

// One byte changes; a second write finds nothing to do; the backup brings back what was there.
TEST_F(Eeprom, AWriteIsBackedUpReadBackAndUndone)
{
    Write("new.bin", std::string("\xAA\x11", 2));
    EXPECT_EQ("0x0010: the keyboard has 10, the file aa\n1 of 2 bytes would change; nothing was written\n",
              Run({"eeprom", "write", "new.bin", "--at", "0x10", "--dry-run"}).out);
    EXPECT_EQ(0x10, Bytes()[0x10]);
    EXPECT_EQ(1u, Files());
    EXPECT_EQ(NotVerified, Run({"eeprom", "verify", "new.bin", "--at", "0x10"}).iExit);

    Outcome outcome = Run({"eeprom", "write", "new.bin", "--at", "0x10", "--json"});
    EXPECT_EQ("{\"type\":\"written\",\"index\":0,\"bytes\":2,\"changed\":1,\"dry_run\":false,\"backup\":"
              "\"eeprom-7a3c-0101-00-1.hex\"}\n",
              outcome.out);
    EXPECT_EQ(0xAA, Bytes()[0x10]);
    EXPECT_EQ(Done, Run({"eeprom", "verify", "new.bin", "--at", "0x10"}).iExit);
    EXPECT_EQ(Done, Run({"eeprom", "write", "new.bin", "--at", "0x10"}).iExit);
    EXPECT_EQ(2u, Files());
    EXPECT_EQ(Done, Run({"eeprom", "write", "eeprom-7a3c-0101-00-1.hex", "--no-backup"}).iExit);
    EXPECT_EQ(0x10, Bytes()[0x10]);
}

// The keyboard refuses the second piece: the first is written, and the way back is told and works.
TEST_F(Eeprom, AWriteThatCannotBeVerifiedTellsHowToRestore)
{
    Write("new.bin", std::string(64, '\x55'));
    pKeyboard->SetRules({{0x21, 9, 0x0203, EmuAny, EmuAnswerStatus, 0, STATUS_UNSUCCESSFUL, 1, 0}});
    Outcome refused = Run({"eeprom", "write", "new.bin"});
    EXPECT_EQ(NotVerified, refused.iExit);
    EXPECT_TRUE(
        Has(refused.err, "to restore: tvctl eeprom write eeprom-7a3c-0101-00-1.hex --no-backup -k 0\n"))
        << refused.err;
    EXPECT_EQ(0x55, Bytes()[0]);
    pKeyboard->SetRules({});
    EXPECT_EQ(Done, Run({"eeprom", "write", "eeprom-7a3c-0101-00-1.hex", "--no-backup", "-k", "0"}).iExit);
    EXPECT_EQ(0, Bytes()[0]);

    // It says that it wrote, and did not.
    pKeyboard->SetRules({{0x21, 9, 0x0203, EmuAny, EmuAnswerStatus, 0, STATUS_SUCCESS, 0, 0}});
    Outcome lost = Run({"eeprom", "write", "new.bin", "--backup", "mine.bin"});
    EXPECT_EQ(NotVerified, lost.iExit);
    EXPECT_TRUE(
        Has(lost.err, "address 0x0000 should hold 55 and holds 00; to restore: tvctl eeprom write mine.bin"))
        << lost.err;
    EXPECT_EQ(64u, std::filesystem::file_size("mine.bin"));
}

// Without a place for the backup nothing is written to the keyboard.
TEST_F(Eeprom, NothingIsWrittenWhereItCannotBeUndone)
{
    Write("new.bin", std::string(64, '\x55'));
    Write("long.bin", std::string(65, '\x55'));
    Write("far.hex", ":01010000AA54\n:00000001FF\n"); // address 256
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"eeprom", "write", "new.bin", "--backup", "nowhere/mine.hex"},
                                               {"eeprom", "write", "long.bin"},
                                               {"eeprom", "write", "far.hex"},
                                               {"eeprom", "write", "new.bin", "--at", "1"},
                                               {"eeprom", "write", "none.bin"},
                                               {"eeprom", "write", "far.hex", "--at", "0"},
                                               {"eeprom", "dump", "--at", "64"},
                                               {"eeprom", "dump", "--length", "65"},
                                               {"eeprom", "dump", "nowhere/a.bin"}}) {
        Outcome outcome = Run(arguments);
        EXPECT_EQ(BadInput, outcome.iExit) << arguments[2] << outcome.err;
        EXPECT_EQ("", outcome.out);
    }
    EXPECT_EQ(0, Bytes()[0]);
    EXPECT_EQ(3u, Files());
}

TEST_F(Eeprom, ADumpIsReadTwiceAndKeepsWhatWasThereWhenItFails)
{
    EXPECT_EQ("64\n", Run({"eeprom", "size"}).out);
    EXPECT_EQ("0030  30 31                                            01\n",
              Run({"eeprom", "dump", "--at", "0x30", "--length", "2"}).out);
    EXPECT_EQ(Done, Run({"eeprom", "dump", "all.hex"}).iExit);
    EXPECT_EQ(ImageOf({Bytes(), Bytes() + 64}, 0), ReadImage("all.hex", 0));
    pKeyboard->SetRules(
        {{0xA1, 1, 0x0203, EmuAny, EmuAnswerShort, 60, 0, 1, 0}}); // the second read comes short
    EXPECT_EQ(Refused, Run({"eeprom", "dump", "all.hex"}).iExit);
    EXPECT_EQ(ImageOf({Bytes(), Bytes() + 64}, 0), ReadImage("all.hex", 0));
}

TEST(Images, HexIsReadBackAndMistakesHaveTheirLine)
{
    Image image = ImageOf(std::vector<uint8_t>(40, 0x12), 0xF0);
    image[0x300] = 0xFE;
    EXPECT_EQ(image, ReadHex("a.hex", HexText(image)));
    EXPECT_EQ((Image{{0x1234, 0xAB}}), ReadHex("a.hex", ":020000020100FB\r\n:01023400AB1E\n:00000001FF\n"));
    const std::pair<const char*, const char*> mistakes[] = {
        {"0102", "a.hex:1: a record begins"},
        {":00000001FF\n:zz", ""}, // behind the end
        {"\n:01000000AA54", "a.hex:2: the checksum"},
        {":01000000A", "a.hex:1: 'A' is no byte"},
        {":02000000AA54\n", "a.hex:1: the record is not as long"},
        {":01000000AA55\n", "a.hex:1: the file ends"},
        {":01000000AA55\n:01000000AA55\n", "a.hex:2: address 0x0 is told twice"},
        {":020000040001F9\n:01000000AA55\n", "a.hex:2: address 0x10000 is above"},
        {":00000009F7\n", "a.hex:1: there is no record of type 09"},
    };
    for (const auto& [text, wanted] : mistakes) {
        std::string told;
        try {
            ReadHex("a.hex", text);
        } catch (const InputError& error) {
            told = error.what();
        }
        EXPECT_EQ(0u, told.find(wanted)) << text << told;
        EXPECT_EQ(*wanted == 0, told.empty()) << text << told;
    }
}

RegistryValue Number(const char* pName, uint32_t ulNumber, uint32_t ulType = TypeNumber)
{
    return {pName,
            ulType,
            {uint8_t(ulNumber), uint8_t(ulNumber >> 8), uint8_t(ulNumber >> 16), uint8_t(ulNumber >> 24)}};
}

RegistryValue Text(const char* pName, const std::string& text)
{
    RegistryValue value{pName, TypeText, {}};
    for (char c : text + '\0')
        value.data.insert(value.data.end(), {uint8_t(c), 0});
    return value;
}

TEST(Doctor, TellsWhichSettingsAreNotRead)
{
    const std::vector<RegistryValue> good = {Number("Prefix1", 0x7D),
                                             Text("LogFile", std::string(126, 'a')),
                                             Number("LogLevel", 3),
                                             Number("KorvexHotkey", 0x10047),
                                             Number("KorvexLEDDisabled", 0),
                                             Number("KorvexDelay", 5),
                                             Text("KorvexConfigFile", "\\??\\C:\\" + std::string(86, 'm')),
                                             Number("errorcount", 0, TypeBinary)};
    EXPECT_TRUE(FindingsOf(good).empty());
    struct Case {
        std::vector<RegistryValue> values;
        std::vector<const char*> told;
    };
    const Case cases[] = {
        {{Number("ErrorCount", 2, TypeBinary)}, {"ErrorCount is 2"}},
        {{Number("ErrorCount", 1, TypeBinary)}, {"ErrorCount is 1"}},
        {{{"ErrorCount", TypeBinary, {3}}}, {"ErrorCount is 3"}},
        {{Number("Prefx1", 1)}, {"the driver knows no value 'Prefx1' (did you mean 'Prefix1'?)"}},
        {{Text("Prefix1", "7D")}, {"Prefix1 is not read: it is REG_SZ of 6 bytes"}},
        {{{"Prefix1", TypeNumber, {1, 2}}}, {"Prefix1 is not read"}},
        {{Text("LogFile", std::string(127, 'a')), Number("LogLevel", 3)},
         {"LogFile is not read: 127", "LogLevel is not read, as LogFile"}},
        {{Number("LogFile", 3), Number("LogFileSize", 3)},
         {"LogFile is not read: it is REG_DWORD", "LogFileSize is not read"}},
        {{Number("KorvexHotkey", 1), Number("KorvexDelay", 1)},
         {"KorvexDelay is not read, as KorvexLEDDisabled"}},
        {{Number("KorvexHotkey", 1), Number("KorvexLEDDisabled", 0), Number("KorvexDelay", 1),
          Text("KorvexConfigFile", "C:\\m.bin")},
         {"KorvexConfigFile: the driver opens nothing by the plain path C:\\m.bin"}},
        {{Number("KorvexHotkey", 1), Number("KorvexLEDDisabled", 0), Number("KorvexDelay", 1),
          Text("KorvexConfigFile", std::string(94, 'm'))},
         {"KorvexConfigFile is not read: 94"}},
    };
    for (const Case& row : cases) {
        std::vector<Finding> findings = FindingsOf(row.values);
        ASSERT_EQ(row.told.size(), findings.size()) << row.told[0];
        for (size_t i = 0; i < findings.size(); i++) {
            EXPECT_EQ(0u, findings[i].what.find(row.told[i])) << findings[i].what;
            EXPECT_NE("", findings[i].advice);
        }
    }
}

} // namespace
