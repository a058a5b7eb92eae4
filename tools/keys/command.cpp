// command.cpp - tvusb keys: every key with a name, as the driver's key table knows it.
//
//   name  other names   usage   scan code   Jaalaa pattern   Chic pattern
#include "tools/common/text.h"
#include "tools/keynames.h"
#include "tools/verbs.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{

std::string PatternText(ULONG ulPattern)
{
    return ulPattern ? fmt::format("0x{:08X}", ulPattern) : "-";
}

std::string LineOf(const KeyName& key)
{
    std::string names = key.pNames;
    size_t cBar = names.find('|');
    std::string others = cBar == names.npos ? "" : names.substr(cBar + 1);
    for (size_t cAt; (cAt = others.find('|')) != others.npos;)
        others.replace(cAt, 1, ", ");
    std::string scan = key.MakeCode() ? HexOf(MakeCodeBytes(key.MakeCode()), " ") : "-";
    std::transform(scan.begin(), scan.end(), scan.begin(), [](unsigned char c) { return toupper(c); });
    return fmt::format("{:<20}  {:<8}  0x{:03X}  {:<11}  {:<10}  {:<10}  {}", names.substr(0, cBar),
                       key.bConsumer ? "media" : "keyboard", key.usUsage, scan,
                       PatternText(key.pRow->ulHIDJaalaa), PatternText(key.pRow->ulHIDChic), others);
}

int Print(const std::string& filter)
{
    std::string wanted = LowerCase(filter);
    bool bAny = false;
    for (const KeyName& key : AllKeyNames()) {
        std::string line = LineOf(key);
        if (LowerCase(line).find(wanted) == line.npos)
            continue;
        if (!bAny)
            fmt::print("{:<20}  {:<8}  {:<5}  {:<11}  {:<10}  {:<10}  {}\n", "name", "page", "usage",
                       "scan code", "Jaalaa", "Chic", "also called");
        bAny = true;
        line.erase(line.find_last_not_of(' ') + 1);
        fmt::print("{}\n", line);
    }
    if (!bAny)
        fmt::print(stderr, "tvusb: no key has '{}' in its line\n", filter);
    return bAny ? ExitGood : ExitFailed;
}

} // namespace

void AddKeysVerb(CLI::App& app, Verbs& verbs)
{
    auto filter = std::make_shared<std::string>();
    CLI::App* pKeys =
        app.add_subcommand("keys", "List the keys: names, usage, scan code, controller patterns");
    pKeys->add_option("TEXT", *filter, "only the keys with this text in their line");
    verbs.push_back({pKeys, [filter] { return Print(*filter); }});
}
