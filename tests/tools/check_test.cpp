// check_test.cpp - what `tvusb check` says of a configuration, and that the driver agrees.
#include "emu/app/application.h"
#include "emu/app/machine.h"
#include "tests/macro_file.h"
#include "tools/check/check.h"

#include <gtest/gtest.h>

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

namespace
{

using Texts = std::vector<std::string>;

// "line: what" of everything there is to tell.
Texts Told(const std::string& text, std::optional<KeyboardKind> kind = std::nullopt,
           const std::string& file = "my.toml")
{
    std::vector<Problem> problems;
    ReplayConfig config = ParseConfig(file, text, &problems);
    CheckSettings(config, problems);
    CheckDefinitions(config, kind, problems);
    Texts texts;
    for (const Problem& problem : problems)
        texts.push_back(std::to_string(problem.uLine) + ": " + problem.what);
    return texts;
}

std::string Definition(const std::string& rest, int iId = 7)
{
    return "[[definition]]\nid = " + std::to_string(iId) + "\n" + rest + "\n";
}

std::string Repeated(const std::string& text, int iTimes)
{
    std::string all;
    for (int i = 0; i < iTimes; ++i)
        all += text;
    return all;
}

} // namespace

TEST(Check, GoesOnBehindAMistake)
{
    EXPECT_EQ((Texts{"1: unknown key 'report_procesing' in the file (did you mean 'report_processing'?)",
                     "3: unknown key 'Prefix_1' in [settings] (did you mean 'Prefix1'?)",
                     "6: unknown key name 'Page Upp' (did you mean 'Page Up'?)",
                     "9: unknown modifier name 'shfit' (did you mean 'shift'?)",
                     "13: definition 8: the driver refuses it: it is the one of line 10 again"}),
              Told("report_procesing = true\n[settings]\nPrefix_1 = 1\n" +
                   Definition("keys = [\"Page Upp\"]") + Definition("modifiers = [\"shfit\"]") +
                   Repeated(Definition("keys = [\"F1\"]", 8), 2)));
    EXPECT_EQ((Texts{"2: unknown key name 'xyzzy'"}), Told("[settings]\nPrefix1 = \"xyzzy\"\n"));
}

TEST(Check, TellsWhatCanNeverFire)
{
    const std::string media = "keys = [\"Volume Up\"]", plain = "keys = [\"F1\"]";
    struct {
        std::string text;
        std::optional<KeyboardKind> kind;
        Texts expected;
    } cases[] = {
        // fine
        {Definition("modifiers = [\"ctrl\", \"alt\"]\nkeys = [\"Delete\"]"), KeyboardKind::Normal, {}},
        {Definition("modifiers = [\"lctrl\"]"), KeyboardKind::Normal, {}},
        {Definition("modifiers = [\"menu\"]"), KeyboardKind::Normal, {}},
        {Definition(plain) + Definition(media, 8), std::nullopt, {}},
        {Definition("keys = [\"Fn\"]"),
         KeyboardKind::Power,
         {"1: definition 7: it never fires: its key is one that the driver takes as the modifier fn only"}},
        {Definition("type = 5") + Definition("type = 11", 8), KeyboardKind::Normal, {}},
        {"[settings]\nPrefix1 = 0x3B\n" + Definition("modifiers = [\"prefix1\"]\nkeys = [\"A\"]"),
         std::nullopt,
         {}},
        // the definition by itself
        {Definition(plain, 0),
         std::nullopt,
         {"1: definition 0: it never fires: the driver makes no hotkey of id 0"}},
        {Definition("type = 4\n" + plain),
         std::nullopt,
         {"1: definition 7: it never fires: nothing in the driver looks at type 4: 1 hotkey, 5 point of "
          "sale, 11 "
          "discard mode"}},
        {Definition("scans = [" + Repeated("0x1E, ", 33) + "]"),
         std::nullopt,
         {"1: definition 7: the driver refuses it: it has 33 scan code bytes; there is room for 32"}},
        {Definition("type = 5\nscans = [" + Repeated("0x1E, ", 33) + "]"),
         std::nullopt,
         {"1: definition 7: the driver refuses it: it has 33 scan code bytes; there is room for 32"}},
        {Definition("scans = [" + Repeated("0x1E, ", 32) + "]\nmodifiers = [\"menu\"]"),
         KeyboardKind::Normal,
         {"1: definition 7: the driver refuses it: its keys take 33 bytes; there is room for 32"}},
        {Definition("keys = [" + Repeated("\"Mute\", ", 9) + "]"),
         KeyboardKind::Jaalaa,
         {"1: definition 7: the driver refuses it: its keys take 36 bytes; there is room for 32"}},
        {Definition("scans = [0x1E, 0xE0]"),
         std::nullopt,
         {"1: definition 7: the driver refuses it: its scan codes end behind a prefix byte"}},
        {Definition("scans = [0xE0, 0x7F]"),
         std::nullopt,
         {"1: definition 7: the driver refuses it: no key has the scan code e0 7f"}},
        {Definition("keys = [\"Print Screen\", \"A\"]"),
         std::nullopt,
         {"1: definition 7: the driver refuses it: Print Screen stands alone in a definition, without other "
          "keys"}},
        {Definition("keys = [\"LCtrl\"]"),
         KeyboardKind::Normal,
         {"1: definition 7: it never fires: LCtrl is no key of a report; name it in modifiers"}},
        {Definition("modifiers = 0x1\n" + plain),
         KeyboardKind::Normal,
         {"1: definition 7: it never fires: no modifier sets the bits 0x1"}},
        {Definition("modifiers = [\"ctrl\"]") + Definition("", 8),
         std::nullopt,
         {"1: definition 7: on a normal keyboard it fires with the first report and never again: modifiers "
          "without a key count one by one: name the sides (lctrl, rctrl, ...)",
          "4: definition 8: on a normal keyboard it fires with the first report and never again: it has "
          "neither a "
          "key nor a modifier of its own"}},
        {Definition("modifiers = [\"lctrl\"]"), std::nullopt, {}},
        {Definition("modifiers = [\"ctrl\", \"lctrl\"]"),
         KeyboardKind::Normal,
         {"1: definition 7: it fires with the first report and never again: modifiers without a key count "
          "one by one: name the sides (lctrl, rctrl, ...)"}},
        {Definition("") + Definition("keys = []", 8),
         KeyboardKind::Normal,
         {"1: definition 7: it fires with the first report and never again: it has neither a key nor a "
          "modifier of its own",
          "4: definition 8: it fires with the first report and never again: it has neither a key nor a "
          "modifier of its own"}},
        {Definition(plain + "\nswallow = 2") + Definition("keys = [\"F2\"]\nswallow = 256", 8) +
             Definition("keys = [\"F3\"]\nswallow = 257", 9) +
             Definition("modifiers = [\"lctrl\"]\nswallow = 2", 10),
         KeyboardKind::Normal,
         {"1: definition 7: swallow is 2, of which the driver takes the low byte, 2: it swallows nothing; "
          "write "
          "1 or 0",
          "5: definition 8: swallow is 256, of which the driver takes the low byte, 0: it swallows nothing; "
          "write "
          "1 or 0",
          "9: definition 9: swallow is 257, of which the driver takes the low byte, 1: it swallows; write 1 "
          "or 0",
          "13: definition 10: swallow is 2, of which the driver takes the low byte, 2: it swallows; write 1 "
          "or "
          "0"}},
        // the kind of keyboard
        {Definition(media),
         KeyboardKind::Normal,
         {"1: definition 7: it never fires: a normal keyboard's reports have no key Volume Up"}},
        {Definition(plain),
         KeyboardKind::Power,
         {"1: definition 7: it never fires: a power keyboard's reports have no key F1"}},
        {Definition("keys = [\"Stop\"]"),
         KeyboardKind::Chic,
         {"1: definition 7: the driver refuses it: a Chic keyboard has no key Stop"}},
        {Definition(plain),
         KeyboardKind::Other,
         {"1: definition 7: it never fires: the driver leaves keyboards of another kind alone"}},
        {Definition("keys = [\"F1\", \"Mute\"]"),
         std::nullopt,
         {"1: definition 7: it never fires: a normal keyboard's reports have no key Mute; nor does another "
          "kind of "
          "keyboard take it"}},
        // prefixes
        {Definition("modifiers = [\"pos\"]\n" + plain),
         std::nullopt,
         {"1: definition 7: it needs pos, which is not set: [settings] has no PosKeyPrefix, so the driver "
          "takes "
          "International 4 (0x79)"}},
        {"[settings]\nPrefix2 = 0x7F\n" + Definition("modifiers = [\"prefix2\"]\n" + plain),
         std::nullopt,
         {"2: Prefix2: no key has the scan code 0x7F; the prefix is not set",
          "3: definition 7: it never fires: prefix2 is not set: Prefix2 is no key's scan code"}},
        {"[settings]\nPrefix1 = \"F1\"\n" + Definition(plain),
         KeyboardKind::Normal,
         {"3: definition 7: it fires with the first report and never again: its key is "
          "one that the driver takes as the modifier prefix1 only"}},
        // what others do to it
        {Definition(plain) + Definition(plain + "\nswallow = 1"),
         std::nullopt,
         {"4: definition 7: it never fires: it is the hotkey of line 1 again, with another swallow"}},
        {Definition(plain) + Definition("keys = [\"F2\"]\nswallow = 1"),
         std::nullopt,
         {"4: definition 7: its swallow has no effect: that of line 1, with the same id, counts"}},
        {Definition(plain) + Definition("type = 5", 8) + Definition("type = 5\nswallow = 1", 9),
         std::nullopt,
         {"1: definition 7: it never fires: the point-of-sale definition of line 4 takes every report",
          "7: definition 9: it has no effect: the driver takes the first of its type, in line 4"}},
        {"report_processing = false\n" + Definition(plain),
         std::nullopt,
         {"2: definition 7: report_processing is false, so none of the definitions has an effect"}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.expected, Told(c.text, c.kind)) << c.text;

    std::string many;
    for (int i = 1; i <= 512; ++i)
        many += Definition(plain, i);
    EXPECT_EQ((Texts{"1534: definition 512: the driver refuses it and all behind it: a keyboard holds 511"}),
              Told(many));
}

TEST(Check, FollowsTheMacroSettings)
{
    DriveFolder folder;
    folder.Write("good.bin", MacroFileHead());
    folder.Write("bad.bin", {'x'});
    FileBytes held = MacroFileHead();
    AppendMacro(held, 0x3A, {{0, 0, 4}});
    folder.Write("held.bin", held);
    const std::string wrong = "[[macro]]\nplay = [\"ctr+c\"]\n[[macro]]\nkey = \"F1\"\nmark = 1\n";
    folder.Write("wrong.toml", {wrong.begin(), wrong.end()});
    const std::string file = folder.Path() + "/my.toml";
    const std::string before = "[settings]\nKorvexHotkey = \"F12\"\nKorvexLEDDisabled = 0\nKorvexDelay = 1\n";
    const std::pair<std::string, Texts> cases[] = {
        {before + "KorvexConfigFile = \"good.bin\"", {}},
        {before + "KorvexConfigFile = \"held.bin\"",
         {"5: KorvexConfigFile: " + folder.Path() +
          "/held.bin: macro 1 (F1): its last report leaves a down"}},
        {before + "KorvexConfigFile = \"bad.bin\"",
         {"5: KorvexConfigFile: " + folder.Path() +
          "/bad.bin: byte 0: no macro file: it does not begin with \"Korvex Configuration File V1.0.0.0\", "
          "so the "
          "driver would keep its old macros"}},
        {before + "KorvexConfigFile = \"none.bin\"",
         {"5: KorvexConfigFile: " + folder.Path() +
          "/none.bin:1: cannot be read: No such file or directory"}},
        {before + "KorvexConfigFile = \"wrong.toml\"", // all that is wrong in it
         {"5: " + folder.Path() + "/wrong.toml:1: a macro needs a key or modifiers, one of the two",
          "5: " + folder.Path() + "/wrong.toml:2: unknown key name 'ctr' (did you mean 'ctrl'?)",
          "5: " + folder.Path() + "/wrong.toml:5: a mark belongs to modifiers, not to a key"}},
        {before + "KorvexConfigFile = \"absent.toml\"",
         {"5: " + folder.Path() + "/absent.toml:1: cannot be read: No such file or directory"}},
        {before + "KorvexConfigFile = 'C:\\macros\\a.bin'",
         {"5: KorvexConfigFile: 'C:\\macros\\a.bin' is a plain path, which the driver opens nowhere: it has "
          "no "
          "macros then and says nothing; write '\\??\\C:\\macros\\a.bin'"}},
        {before + "KorvexConfigFile = '\\??\\C:\\macros\\a.bin'", {}},
        {before + "KorvexConfigFile = '" + std::string(94, '\\') + "'",
         {"5: KorvexConfigFile: the full name '" + std::string(94, '\\') +
          "' has 94 characters; the driver reads at most 93 and keeps its old macros"}},
        {"[settings]\nKorvexHotkey = 0x10039\nKorvexDelay = 1\nKorvexConfigFile = \"good.bin\"",
         {"3: KorvexDelay: the driver does not read it: KorvexLEDDisabled, which it reads before, is absent",
          "4: KorvexConfigFile: the driver does not read it: KorvexLEDDisabled, which it reads before, is "
          "absent"}},
        {"[settings]\nKorvexHotkey = 0", {"2: KorvexHotkey: 0 switches the macro mode off"}},
        {"[settings]\nKorvexHotkey = 0x39", {"2: KorvexHotkey: byte 2 is 0: it matches every report"}},
        {"[settings]\nKorvexHotkey = 0x30039",
         {"2: KorvexHotkey: it never matches: byte 2 is 3, and a hotkey has 1 or 2 bytes"}},
        {"[settings]\nKorvexHotkey = 0x3010039",
         {"2: KorvexHotkey: it never matches: byte 3 is 3, and there are the places 0, 1 and 2"}},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(expected, Told(text, std::nullopt, file)) << text;
}

// What is called refused is refused, and nothing else: the driver is asked on every kind of keyboard.
TEST(Check, AgreesWithTheDriver)
{
    std::string text;
    const std::string bodies[] = {"keys = [\"F1\"]",
                                  "keys = [\"Volume Up\"]",
                                  "keys = [\"Stop\"]",
                                  "keys = [\"My Computer\"]",
                                  "keys = [\"Sleep\"]",
                                  "keys = [\"Pause\"]",
                                  "keys = [\"Print Screen\"]",
                                  "keys = [\"Print Screen\", \"A\"]",
                                  "scans = []",
                                  "scans = [0xE0]",
                                  "scans = [0xE1, 0x1D]",
                                  "scans = [0x7F]",
                                  "scans = [" + Repeated("0x1E, ", 32) + "]",
                                  "scans = [" + Repeated("0x1E, ", 33) + "]",
                                  "scans = [" + Repeated("0x1E, ", 32) + "]\nmodifiers = [\"menu\"]",
                                  "keys = [" + Repeated("\"Mail\", ", 8) + "]",
                                  "keys = [" + Repeated("\"Mail\", ", 8) + "]\nmodifiers = [\"menu\"]",
                                  "keys = [" + Repeated("\"Mail\", ", 16) + "]",
                                  "type = 5\nscans = [0x7F]",
                                  "type = 4",
                                  "type = 11\nscans = [" + Repeated("0x1E, ", 33) + "]"};
    int iId = 0;
    for (const std::string& body : bodies)
        text += Definition(body, ++iId);
    ReplayConfig config = ParseConfig("my.toml", text);
    unsigned uRefused = 0;
    for (const auto& [pName, pDescriptors, ulKbdType] : EmuMachine::Kinds()) {
        EmuMachineOptions options;
        options.Entry = DriverEntry;
        EmuMachine machine(options);
        EmuKeyboard* pKeyboard = machine.Plug(*pDescriptors);
        EmuApplication application;
        for (const KeyDefinition& definition : config.definitions) {
            bool bRefused = FaultOf(definition, config, KeyboardKind{ulKbdType}).claim == Claim::Refused;
            NTSTATUS status = application.AddDefinition(pKeyboard->Index(), definition);
            EXPECT_EQ(bRefused, !NT_SUCCESS(status)) << pName << ": " << bodies[definition.ulId - 1];
            application.RemoveDefinition(pKeyboard->Index(), definition.ulId);
            uRefused += bRefused;
        }
    }
    EXPECT_LT(20u, uRefused);
}
