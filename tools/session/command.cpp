// command.cpp - tvusb show: a session as a page.
#include "session.h"
#include "tools/verbs.h"

namespace
{

struct ShowArguments : SessionArguments {
    std::string html;
};

int Show(const ShowArguments& arguments)
{
    SessionInput input(arguments);
    const std::string title = arguments.input + (arguments.config.empty() ? "" : " with " + arguments.config);
    return WritePage(arguments.html, title, input.script, input.setup) == 0 ? ExitGood : ExitFailed;
}

} // namespace

void AddShowVerb(CLI::App& app, Verbs& verbs)
{
    auto arguments = std::make_shared<ShowArguments>();
    CLI::App* pShow = app.add_subcommand("show", "Show a replayed session as a page for a browser");
    AddSessionOptions(*pShow, *arguments);
    pShow->add_option("--html", arguments->html, "the page to write; it needs no other file")->required();
    verbs.push_back({pShow, [arguments] { return Show(*arguments); }});
}
