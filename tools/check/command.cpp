// command.cpp - tvusb check: everything that is wrong with a configuration, in the order of its lines.
//
// Exit status: 0 nothing to tell, 1 warnings only, 2 mistakes: the file cannot be used.
#include "check.h"
#include "emu/app/machine.h"
#include "tools/verbs.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{

void Print(FILE* pOut, const std::string& file, const char* pKind, std::vector<Problem>& problems)
{
    std::stable_sort(problems.begin(), problems.end(),
                     [](const Problem& a, const Problem& b) { return a.uLine < b.uLine; });
    for (const Problem& problem : problems) {
        std::string place = problem.uLine ? fmt::format("{}:{}: ", file, problem.uLine) : "";
        fmt::print(pOut, "{}{}{}\n", place, pKind, problem.what);
    }
}

int Check(const std::string& file, const std::string& kind)
{
    std::vector<Problem> mistakes, warnings;
    ReplayConfig config = ParseConfig(file, ReadWholeText(file), &mistakes);
    std::optional<KeyboardKind> asked;
    for (const EmuKind& known : EmuMachine::Kinds())
        if (kind == known.pName)
            asked = KeyboardKind{known.ulKbdType};
    CheckSettings(config, warnings);
    CheckDefinitions(config, asked, warnings);
    Print(stderr, file, "", mistakes);
    Print(stdout, file, "warning: ", warnings);
    if (mistakes.empty() && warnings.empty())
        fmt::print("{}: {} definition{}, {} setting{}, nothing to warn of\n", file, config.definitions.size(),
                   config.definitions.size() == 1 ? "" : "s", config.settings.size(),
                   config.settings.size() == 1 ? "" : "s");
    return !mistakes.empty() ? ExitBadInput : !warnings.empty() ? ExitFailed : ExitGood;
}

} // namespace

void AddCheckVerb(CLI::App& app, Verbs& verbs)
{
    struct Arguments {
        std::string file, kind;
    };
    auto arguments = std::make_shared<Arguments>();
    CLI::App* pCheck = app.add_subcommand("check", "Check a replay's configuration without running it");
    pCheck->add_option("FILE", arguments->file, "settings and key definitions (TOML)")->required();
    pCheck->add_option("--keyboard", arguments->kind, "the kind of keyboard it is for (default: any)")
        ->check(CLI::IsMember(EmuMachine::KindNames()));
    verbs.push_back({pCheck, [arguments] { return Check(arguments->file, arguments->kind); }});
}
