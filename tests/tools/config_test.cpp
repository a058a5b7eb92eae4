// config_test.cpp - the configuration file: what it may say, and the line and words of each complaint.
#include "captures.h"

#include "tools/keynames.h"
#include "tools/replay/config.h"
#include "tools/common/failure.h"

#include <gtest/gtest.h>

namespace
{

std::string FailureOf(const std::string& text)
{
    try {
        ParseConfig("my.toml", text);
    } catch (const InputError& error) {
        EXPECT_EQ(nullptr, strchr(error.what(), '\n')) << error.what();
        return error.what();
    }
    return "read without complaint";
}

Bytes ScansOf(const KeyDefinition& definition)
{
    return Bytes(definition.ucScans, definition.ucScans + definition.usScanCount);
}

uint32_t NumberSetting(const ReplayConfig& config, const std::string& name)
{
    return std::get<uint32_t>(config.settings.at(name));
}

std::string TextSetting(const ReplayConfig& config, const std::string& name)
{
    return std::get<std::string>(config.settings.at(name));
}

} // namespace

TEST(Config, ReadsEveryTable)
{
    ReplayConfig config = ParseConfig("my.toml", "report_processing = false\n"
                                                 "[settings]\n"
                                                 "Prefix1 = 0x7D\n"
                                                 "KorvexHotkey = 0x00010039\n"
                                                 "LogFileSize = 0xFFFFFFFF\n"
                                                 "[[definition]]\n"
                                                 "id = 7\n"
                                                 "modifiers = 0x400\n"
                                                 "scans = [0x3B, 0xE0, 0x48]\n"
                                                 "swallow = 1\n"
                                                 "[[definition]]\n"
                                                 "id = 0xFFFFFFFF\n"
                                                 "type = 11\n"
                                                 "modifiers = [\"Ctrl\", \"left shift\", \"Prefix1\"]\n"
                                                 "keys = [\"esc\", \"Page Up\", \"Pause\", \"a\"]\n");
    EXPECT_FALSE(config.bReportProcessing);
    EXPECT_EQ(3u, config.settings.size());
    EXPECT_EQ(0x7Du, NumberSetting(config, "Prefix1"));
    EXPECT_EQ(0x10039u, NumberSetting(config, "KorvexHotkey"));
    EXPECT_EQ(0xFFFFFFFFu, NumberSetting(config, "LogFileSize"));
    ASSERT_EQ(2u, config.definitions.size());
    const KeyDefinition& first = config.definitions[0];
    EXPECT_EQ(7u, first.ulId);
    EXPECT_EQ(1u, first.ulType);
    EXPECT_EQ(0x400u, first.ulModifiers);
    EXPECT_EQ(1u, first.ulSwallow);
    EXPECT_EQ((Bytes{0x3B, 0xE0, 0x48}), ScansOf(first));
    const KeyDefinition& second = config.definitions[1];
    EXPECT_EQ(0xFFFFFFFFu, second.ulId);
    EXPECT_EQ(11u, second.ulType);
    EXPECT_EQ(0x10000408u, second.ulModifiers);
    EXPECT_EQ(0u, second.ulSwallow);
    EXPECT_EQ((Bytes{0x01, 0xE0, 0x49, 0xE1, 0x1D, 0x45, 0x1E}), ScansOf(second));

    ReplayConfig named =
        ParseConfig("my.toml", "[settings]\nPrefix1 = \"F1\"\nKorvexHotkey = \"caps lock\"\n");
    EXPECT_EQ(0x3Bu, NumberSetting(named, "Prefix1"));
    EXPECT_EQ(0x10039u, NumberSetting(named, "KorvexHotkey"));

    ReplayConfig empty = ParseConfig("my.toml", "");
    EXPECT_TRUE(empty.bReportProcessing);
    EXPECT_TRUE(empty.settings.empty());
    EXPECT_TRUE(empty.definitions.empty());
}

TEST(Config, LeavesTooLongDefinitionsToTheDriver)
{
    std::string scans;
    for (int i = 0; i < 40; ++i)
        scans += "0x1E, ";
    ReplayConfig config = ParseConfig("my.toml", "[[definition]]\nid = 1\nscans = [" + scans + "]\n");
    EXPECT_EQ(40u, config.definitions.at(0).usScanCount);
    EXPECT_EQ(0x1E, config.definitions[0].ucScans[31]);
}

TEST(Config, FindsFilesBesideTheConfiguration)
{
    ReplayConfig beside = ParseConfig(
        "/data/demo/my.toml", "[settings]\nKorvexConfigFile = \"sub/../macros.bin\"\nLogFile = \"\"\n");
    EXPECT_EQ("/data/demo", beside.fileRoot);
    EXPECT_EQ("\\??\\C:\\macros.bin", TextSetting(beside, "KorvexConfigFile"));
    EXPECT_EQ("", TextSetting(beside, "LogFile"));

    ReplayConfig away = ParseConfig(
        "/data/demo/my.toml", "[settings]\nKorvexConfigFile = \"../macros.bin\"\nLogFile = \"a/log.txt\"\n");
    EXPECT_EQ("/", away.fileRoot);
    EXPECT_EQ("\\??\\C:\\data\\macros.bin", TextSetting(away, "KorvexConfigFile"));
    EXPECT_EQ("\\??\\C:\\data\\demo\\a\\log.txt", TextSetting(away, "LogFile"));

    ReplayConfig kernel = ParseConfig("my.toml", "[settings]\nLogFile = '\\SystemRoot\\log.txt'\n");
    EXPECT_EQ("\\SystemRoot\\log.txt", TextSetting(kernel, "LogFile"));
}

TEST(Config, NamesTheLineThatIsWrong)
{
    const std::pair<const char*, const char*> cases[] = {
        {"\nreports = true", "my.toml:2: unknown key 'reports' in the file"},
        {"report_processing = 1", "my.toml:1: report_processing is true or false"},
        {"settings = 3", "my.toml:1: settings is a table: [settings]"},
        {"[settings]\nPrefix1 = 1\nprefix2 = 1",
         "my.toml:3: unknown key 'prefix2' in [settings] (did you mean 'Prefix2'?)"},
        {"[settings]\nPrefix1 = -1", "my.toml:2: Prefix1 is a number from 0 to 0xFFFFFFFF, not -1"},
        {"[settings]\nPrefix1 = 0x100000000",
         "my.toml:2: Prefix1 is a number from 0 to 0xFFFFFFFF, not 4294967296"},
        {"[settings]\nPrefix1 = \"0x7D\"", "my.toml:2: unknown key name '0x7D'"},
        {"[settings]\nPrefix1 = 1.5", "my.toml:2: Prefix1 is a number"},
        {"[settings]\nKorvexHotkey = \"Mute\"",
         "my.toml:2: 'Mute' is no key of the standard report; give the number"},
        {"[settings]\nKorvexConfigFile = \"/no/such.toml\"",
         "/no/such.toml:1: cannot be read: No such file or directory"},
        {"[settings]\nLogFile = 1", "my.toml:2: LogFile is text in quotes"},
        {"[settings]\nLogFile = \"\\u00e9\"", "my.toml:2: LogFile has characters that are not plain ASCII"},
        {"[definition]\nid = 1", "my.toml:1: definitions are tables: [[definition]]"},
        {"[[definition]]\nid = 1\nkey = [\"F1\"]",
         "my.toml:3: unknown key 'key' in [[definition]] (did you mean 'keys'?)"},
        {"\n[[definition]]\ntype = 1", "my.toml:2: a definition needs an id"},
        {"[[definition]]\nid = 1.5", "my.toml:2: id is a number"},
        {"[[definition]]\nid = 1\nswallow = \"yes\"", "my.toml:3: swallow is a number"},
        {"[[definition]]\nid = 1\nmodifiers = [\"ctrl\",\n\"hyper\"]",
         "my.toml:4: unknown modifier name 'hyper'"},
        {"[[definition]]\nid = 1\nmodifiers = \"ctrl\"",
         "my.toml:3: modifiers is a number, or names in brackets"},
        {"[[definition]]\nid = 1\nscans = [0x3B, 256]",
         "my.toml:3: a scan code byte is a number from 0 to 0xFF, not 256"},
        {"[[definition]]\nid = 1\nscans = 0x3B", "my.toml:3: scans is a list of bytes in brackets"},
        {"[[definition]]\nid = 1\nkeys = [\"F1\", \"F25\"]",
         "my.toml:3: unknown key name 'F25' (did you mean 'F2'?)"},
        {"[[definition]]\nid = 1\nkeys = [\"Find\"]", "my.toml:3: the key 'Find' has no PS/2 scan code"},
        {"[[definition]]\nid = 1\nscans = [1]\nkeys = [\"F1\"]",
         "my.toml:4: a definition has scans or keys, not both"},
    };
    for (const auto& [pText, pMessage] : cases)
        EXPECT_EQ(pMessage, FailureOf(pText)) << pText;
    EXPECT_EQ(0u, FailureOf("[settings]\nPrefix1 = \n").find("my.toml:2: "))
        << FailureOf("[settings]\nPrefix1 = \n");
    EXPECT_THROW(ReadConfig("/no/such/file.toml"), InputError);
}

// What people write instead of modifiers and numbers.
TEST(Config, TakesChordsAndTruth)
{
    ReplayConfig config = ParseConfig(
        "my.toml", "[[definition]]\nid = 1\nkeys = [\"ctrl+Left Shift+F1\"]\nswallow = true\n"
                   "[[definition]]\nid = 2\nmodifiers = [\"alt\"]\nkeys = [\"win+Keypad +\", \"A\"]\n"
                   "swallow = false\n");
    EXPECT_EQ(0x408u, config.definitions[0].ulModifiers);
    EXPECT_EQ(Bytes{0x3B}, ScansOf(config.definitions[0]));
    EXPECT_EQ(1u, config.definitions[0].ulSwallow);
    EXPECT_EQ(0x3000u, config.definitions[1].ulModifiers);
    EXPECT_EQ((Bytes{0x4E, 0x1E}), ScansOf(config.definitions[1]));
    EXPECT_EQ(0u, config.definitions[1].ulSwallow);
    EXPECT_EQ("my.toml:3: unknown key name 'F1+ctrl'",
              FailureOf("[[definition]]\nid = 1\nkeys = [\"F1+ctrl\"]"));
}

TEST(KeyNames, AreUniqueAndFound)
{
    for (const KeyName& key : AllKeyNames()) {
        std::string_view names = key.pNames;
        while (true) {
            size_t cEnd = names.find('|');
            const KeyName* pFound = FindKeyByName(names.substr(0, cEnd));
            EXPECT_EQ(&key, pFound) << key.pNames << " is also " << (pFound ? pFound->pNames : "unknown");
            if (cEnd == std::string_view::npos)
                break;
            names.remove_prefix(cEnd + 1);
        }
    }
    EXPECT_EQ(nullptr, FindKeyByName(""));
    EXPECT_EQ(0x29, FindKeyByName("ESCAPE")->usUsage);
    EXPECT_EQ(0x4B, FindKeyByName("page_up")->usUsage);
    EXPECT_EQ("F1", ShownKeyName(0x3A));
    EXPECT_EQ("0xa7", ShownKeyName(0xA7));
    EXPECT_EQ((std::vector<std::string>{"LCtrl", "RWin"}), ShownModifiers(0x81));
}
