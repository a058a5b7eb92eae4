// command.cpp - tvusb drill: a session while its keyboard is pulled, its application goes, calls fail.
//
// Exit status: 0 nothing was left behind, hung or stuck, 1 something was, 2 an input is bad.
#include "drill.h"
#include "tools/common/text.h"
#include "tools/session/session.h"
#include "tools/verbs.h"

#include <fmt/format.h>

namespace
{

constexpr size_t MostShown = 20;

struct DrillArguments : SessionArguments {
    unsigned uEvery = 0;
    bool bJson = false;
};

const char* TitleOf(Trouble trouble)
{
    static const char* const titles[] = {"the keyboard pulled at a report", "removed in order at a report",
                                         "the application gone at an event", "a call of the driver failing"};
    return titles[static_cast<size_t>(trouble)];
}

std::string PlaceOf(const Harm& harm)
{
    const std::string report = harm.uReport ? fmt::format("report {}", harm.uReport) : "the start";
    const std::string what = harm.trouble == Trouble::Pulled    ? "pulled at " + report
                             : harm.trouble == Trouble::Removed ? "removed at " + report
                             : harm.trouble == Trouble::Gone
                                 ? fmt::format("gone at event {}, {}", harm.uNumber, report)
                                 : fmt::format("failed at {}: call {}, {}", report, harm.uNumber, harm.call);
    return fmt::format("{:>4}.{:06} s  keyboard {}  {}", harm.ullUs / 1000000, harm.ullUs % 1000000,
                       harm.uKeyboard, what);
}

std::string ResultWords(Result result)
{
    std::string words = NameOf(result);
    std::replace(words.begin(), words.end(), '_', ' ');
    return words;
}

void PrintHarms(const Drill& drill, bool bWrong)
{
    size_t cAll = 0;
    for (const Harm& harm : drill.harms) {
        if (IsWrong(harm) != bWrong || ++cAll > MostShown)
            continue;
        if (cAll == 1)
            fmt::print("\n  {}\n", bWrong ? "wrong" : "to know");
        fmt::print("    {}: {}: {}\n", PlaceOf(harm), ResultWords(harm.result), harm.text);
    }
    if (cAll > MostShown)
        fmt::print("    and {} more; --json tells them all\n", cAll - MostShown);
}

void PrintPage(const std::string& input, const Drill& drill)
{
    fmt::print("{}: {} reports, {} events\n\n", input, drill.uReports, drill.uEvents);
    for (Trouble trouble : Troubles) {
        const Drill::Kind& kind = drill.kinds[static_cast<size_t>(trouble)];
        const std::string sample =
            kind.uEvery == 1 ? "each of them" : fmt::format("one in {}: {}", kind.uEvery, kind.uTried);
        fmt::print("  {:34}{:>7} times, {:18}  something lost in {}, wrong in {}\n", TitleOf(trouble),
                   kind.uMoments, sample, kind.uLost, kind.uWrong);
    }
    PrintHarms(drill, true);
    PrintHarms(drill, false);
}

void PrintJson(const std::string& input, const Drill& drill)
{
    for (Trouble trouble : Troubles) {
        const Drill::Kind& kind = drill.kinds[static_cast<size_t>(trouble)];
        fmt::print("{{\"type\":\"drill\",\"file\":{},\"trouble\":\"{}\",\"moments\":{},\"every\":{},"
                   "\"tried\":{},\"lost\":{},"
                   "\"wrong\":{}}}\n",
                   QuotedJson(input), NameOf(trouble), kind.uMoments, kind.uEvery, kind.uTried, kind.uLost,
                   kind.uWrong);
    }
    for (const Harm& harm : drill.harms)
        fmt::print("{{\"type\":\"harm\",\"trouble\":\"{}\",\"number\":{},\"t_us\":{},\"kbd\":{},\"result\":"
                   "\"{}\",\"text\":{},\"report\":{},\"call\":{}}}\n",
                   NameOf(harm.trouble), harm.uNumber, harm.ullUs, harm.uKeyboard, NameOf(harm.result),
                   QuotedJson(harm.text), harm.uReport, QuotedJson(harm.call));
}

int RunVerb(const DrillArguments& arguments)
{
    SessionInput input(arguments);
    DrillPlan plan;
    plan.uEvery = arguments.uEvery;
    const Drill drill = RunDrill(input.script, input.setup, plan);
    arguments.bJson ? PrintJson(arguments.input, drill) : PrintPage(arguments.input, drill);
    return std::any_of(drill.harms.begin(), drill.harms.end(), IsWrong) ? ExitFailed : ExitGood;
}

} // namespace

void AddDrillVerb(CLI::App& app, Verbs& verbs)
{
    auto arguments = std::make_shared<DrillArguments>();
    CLI::App* pDrill =
        app.add_subcommand("drill", "Play a session while keyboards are pulled and calls fail");
    AddSessionOptions(*pDrill, *arguments);
    pDrill
        ->add_option("--every", arguments->uEvery,
                     "try one in so many reports, events and calls (default: at most 500 of each)")
        ->check(CLI::Range(1u, ~0u));
    pDrill->add_flag("--json", arguments->bJson, "print JSON objects, one a line");
    verbs.push_back({pDrill, [arguments] { return RunVerb(*arguments); }});
}
