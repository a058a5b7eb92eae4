// insert.cpp - tvctl type, insert: the system sees keys that nobody pressed.
#include "tools/common/failure.h"
#include "tvctl.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{

constexpr size_t MostReportBytes = 10; // that the driver takes
constexpr size_t QueueReports = 16;    // that it holds; it drops what comes above

int DigitOf(char c)
{
    constexpr std::string_view Digits = "0123456789abcdef";
    size_t cAt = Digits.find(c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c);
    return cAt == Digits.npos ? -1 : static_cast<int>(cAt);
}

// "02 00 04 00 00 00 00 00", with or without the blanks. Fails (InputError).
FifoEntry ReadReport(const std::string& word)
{
    std::string digits = word;
    digits.erase(std::remove_if(digits.begin(), digits.end(), [](char c) { return c == ' ' || c == ':'; }),
                 digits.end());
    bool bHex = std::all_of(digits.begin(), digits.end(), [](char c) { return DigitOf(c) >= 0; });
    if (digits.empty() || digits.size() % 2 != 0 || !bHex)
        throw InputError(fmt::format("'{}' is no report: two hexadecimal digits a byte", word));
    if (digits.size() / 2 > MostReportBytes)
        throw InputError(fmt::format("'{}' has {} bytes, and a report has at most {}", word,
                                     digits.size() / 2, MostReportBytes));
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < digits.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(DigitOf(digits[i]) << 4 | DigitOf(digits[i + 1])));
    return tvusb::MakeReport(bytes);
}

bool HoldsKeys(const FifoEntry& report)
{
    return std::any_of(report.ucData, report.ucData + report.usLength,
                       [](uint8_t ucByte) { return ucByte != 0; });
}

ExitStatus Insert(Session& session, const std::vector<std::string>& words)
{
    std::vector<FifoEntry> reports;
    for (const std::string& word : words)
        reports.push_back(ReadReport(word));
    tvusb::Keyboard keyboard = session.Keyboard();
    for (size_t cAt = 0; cAt < reports.size(); cAt += QueueReports) {
        auto end = reports.begin() + std::min(cAt + QueueReports, reports.size());
        Must(keyboard.InsertPackets({reports.begin() + cAt, end}, true));
    }
    if (HoldsKeys(reports.back()))
        fmt::print(stderr, "tvctl: the last report is not empty: the system takes its keys as held down\n");
    session.Tell(Line("inserted").Number("index", keyboard.Index()).Number("reports", reports.size()),
                 fmt::format("keyboard {}: inserted {} report{}", keyboard.Index(), reports.size(),
                             reports.size() == 1 ? "" : "s"));
    return Done;
}

// Fails (InputError): a character that no key of the US layout types; nothing has been typed then.
ExitStatus Type(Session& session, std::string text, bool bEnter)
{
    text += bEnter ? "\n" : "";
    for (size_t i = 0; i < text.size(); i++)
        if (!tvusb::ReportOfCharacter(text[i]))
            throw InputError(fmt::format("no key of the US layout types character {} of the text", i + 1));
    tvusb::Keyboard keyboard = session.Keyboard();
    Must(keyboard.TypeText(text));
    session.Tell(Line("typed").Number("index", keyboard.Index()).Number("characters", text.size()),
                 fmt::format("keyboard {}: typed {} character{}", keyboard.Index(), text.size(),
                             text.size() == 1 ? "" : "s"));
    return Done;
}

} // namespace

void AddInsertVerbs(CLI::App& app, ControlVerbs& verbs)
{
    struct Arguments {
        std::string text;
        bool bEnter = false;
        std::vector<std::string> reports;
    };
    auto arguments = std::make_shared<Arguments>();
    CLI::App* pType = app.add_subcommand("type", "Have the system see a text typed (US layout)");
    pType->add_option("TEXT", arguments->text, "the text")->required();
    pType->add_flag("--enter", arguments->bEnter, "press Enter behind it");
    verbs.push_back(
        {pType, [arguments](Session& session) { return Type(session, arguments->text, arguments->bEnter); }});

    CLI::App* pInsert = app.add_subcommand("insert", "Have the system see whole reports, in their order");
    pInsert->add_option("REPORT", arguments->reports, "hexadecimal bytes: \"00 00 04 00 00 00 00 00\"")
        ->required();
    verbs.push_back({pInsert, [arguments](Session& session) { return Insert(session, arguments->reports); }});
}
