// command.cpp - tvusb scrub: a session without what was typed, with all that the driver did.
//
//   replay IN -> its lines, the kinds of its keyboards
//   scrub every step -> a file beside OUT -> read it, replay it -> the same lines? -> it becomes OUT
//
// Exit status: 0 it is proved and written, 1 it cannot be proved: there is no OUT, 2 an input is bad.
#include "scrub.h"
#include "tools/common/files.h"
#include "tools/replay/input.h"
#include "tools/session/scriptfile.h"
#include "tools/verbs.h"

#include <fmt/format.h>

namespace
{

using Stream = std::unique_ptr<FILE, int (*)(FILE*)>;

struct ScrubArguments : SessionArguments {
    std::string output;
};

Stream OpenLines()
{
    Stream lines(tmpfile(), &fclose);
    if (!lines)
        throw std::runtime_error("no temporary file can be made");
    return lines;
}

// The next line, or that there is none.
std::string NextLine(FILE* pLines)
{
    std::string line;
    int iChar;
    while ((iChar = getc(pLines)) != EOF && iChar != '\n')
        line += static_cast<char>(iChar);
    return iChar == EOF && line.empty() ? "nothing" : line;
}

// Fails (runtime_error): the two differ.
void Compare(const std::string& input, FILE* pBefore, FILE* pAfter)
{
    rewind(pBefore);
    rewind(pAfter);
    for (std::string before, after; before != "nothing";) {
        before = NextLine(pBefore);
        after = NextLine(pAfter);
        if (before != after)
            throw std::runtime_error(
                fmt::format("{}: not scrubbed: '{}' would become '{}'", input, before, after));
    }
}

ScrubCounts WriteScrubbed(OutputFile& output, const Script& script, const Session& session,
                          const KeySet& named)
{
    Script scrubbed = script;
    Replacer replacer(named, session.keyboards);
    for (ScriptKeyboard& keyboard : scrubbed.keyboards)
        if (!script.bEnumerates) // else its name is one of the strings
            keyboard.name = replacer.ScrubText(keyboard.name);
    ScriptFile file(output, scrubbed);
    StepReader read = script.Open();
    for (ScriptStep step; read(step);) {
        replacer.Scrub(step);
        file.Add(step);
    }
    output.Flush();
    return replacer.Counts();
}

int Scrub(const ScrubArguments& arguments)
{
    SessionInput input(arguments);
    const KeySet named = KeysNamedIn(input.config);
    Stream before = OpenLines(), after = OpenLines();
    Session session, scrubbed;
    WriteProof(before.get(), input.script, input.setup, named, session);
    session.keyboards.resize(input.script.keyboards.size()); // those without a report have no kind
    OutputFile output(arguments.output);
    ScrubCounts counts = WriteScrubbed(output, input.script, session, named);
    WriteProof(after.get(), ReadInput(output.Aside()), input.setup, named, scrubbed);
    Compare(arguments.input, before.get(), after.get());
    output.Finish();
    fmt::print(
        "{}: {} key presses, {} strings and {} other reports or answers were replaced; {} reports and {} "
        "events stay as they were\n",
        arguments.output, counts.ullPresses, counts.ullStrings, counts.ullBlanked, session.totals.uReports,
        session.totals.uEvents);
    return ExitGood;
}

} // namespace

void AddScrubVerb(CLI::App& app, Verbs& verbs)
{
    auto arguments = std::make_shared<ScrubArguments>();
    CLI::App* pScrub =
        app.add_subcommand("scrub", "Take what was typed out of a session, and prove that its events stay");
    AddSessionOptions(*pScrub, *arguments);
    pScrub
        ->add_option("OUT", arguments->output,
                     "the session to write: a capture or a recording, as the input is")
        ->required();
    verbs.push_back({pScrub, [arguments] { return Scrub(*arguments); }});
}
