// command.cpp - tvusb shrink: the smallest session that still shows something, as a session or as a story.
//
// Exit status: 0 it is written, 1 the input does not show it (or a story cannot tell it): there is no OUT, 2 the
// expression or an input is bad.
#include "shrink.h"
#include "tools/common/files.h"
#include "tools/replay/command.h"
#include "tools/replay/input.h"
#include "tools/session/scriptfile.h"
#include "tools/session/session.h"
#include "tools/verbs.h"

#include <fmt/format.h>

namespace
{

struct ShrinkArguments : SessionArguments {
    std::string output, expression;
    PartArguments part;
    bool bStory = false;
};

// What is left is written aside, read again and asked once more.
void WriteSession(const ShrinkArguments& arguments, const Script& script, const ReplaySetup& setup,
                  const Expression& expression)
{
    OutputFile output(arguments.output);
    ScriptFile file(output, script);
    StepReader read = script.Open();
    for (ScriptStep step; read(step);)
        file.Add(step);
    output.Flush();
    if (!expression.HoldsFor(ReadInput(output.Aside()), setup))
        throw std::runtime_error(
            fmt::format("{}: what is left of it shows it no more when it is read again", arguments.input));
    output.Finish();
}

int Shrink(const ShrinkArguments& arguments)
{
    const Expression expression(arguments.expression);
    SessionInput input(arguments, arguments.part.Choice());
    if (!expression.HoldsFor(input.script, input.setup))
        throw std::runtime_error(
            fmt::format("{}: it does not show '{}'", arguments.input, expression.Text()));
    Steps all = StepsOf(arguments.input, input.script);
    const size_t cBefore = all.size();
    const uint64_t ullBeforeUs = all.back().ullUs;
    const Steps steps = Smallest(input.script, std::move(all), input.setup, expression);
    const Script rest = WithSteps(input.script, steps);
    try {
        if (arguments.bStory) {
            const std::string story =
                StoryOf(expression.Text(), rest, input.setup, expression.DecidedAt(rest, input.setup));
            WriteWholeFile(arguments.output, {story.begin(), story.end()});
        } else
            WriteSession(arguments, rest, input.setup, expression);
    } catch (const NoStory& error) {
        throw std::runtime_error(
            fmt::format("{}: a story cannot tell it: {}", arguments.input, error.what()));
    }
    fmt::print("{}: {} of {} reports and requests are left, {:.3f} s of {:.3f} s; it still shows '{}'\n",
               arguments.output, steps.size(), cBefore, static_cast<double>(steps.back().ullUs) / 1e6,
               static_cast<double>(ullBeforeUs) / 1e6, expression.Text());
    return ExitGood;
}

} // namespace

void AddShrinkVerb(CLI::App& app, Verbs& verbs)
{
    auto arguments = std::make_shared<ShrinkArguments>();
    CLI::App* pShrink = app.add_subcommand("shrink", "Find the smallest session that still shows something");
    AddSessionOptions(*pShrink, *arguments);
    pShrink
        ->add_option("OUT", arguments->output,
                     "the session to write: a capture or a recording, as the input is")
        ->required();
    pShrink
        ->add_option("--while", arguments->expression,
                     "what it shows: a line of `replay --json` such as \"event id=7 value=1\", or a finding "
                     "of `audit` "
                     "such as \"lost\"; several with `and` between them; `not`: no such line")
        ->required();
    AddPartOptions(*pShrink, arguments->part);
    pShrink->add_flag("--story", arguments->bStory, "write OUT as a story (docs/stories.md)");
    verbs.push_back({pShrink, [arguments] { return Shrink(*arguments); }});
}
