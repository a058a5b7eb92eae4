// commandline.cpp - what was wrong with a command line, in one line.
#include "commandline.h"
#include "nearest.h"

#include <fmt/format.h>

namespace
{

std::vector<const CLI::App*> VerbsOf(const CLI::App& app)
{
    return app.get_subcommands([](const CLI::App* pVerb) { return !pVerb->get_name().empty(); });
}

// The option of that name, of the verb or of those above it; null for none.
const CLI::Option* FindOption(const CLI::App* pApp, const std::string& name)
{
    for (; pApp; pApp = pApp->get_parent())
        if (const CLI::Option* pOption = pApp->get_option_no_throw(name))
            return pOption;
    return nullptr;
}

std::string UnknownOption(const CLI::App* pApp, const std::string& name, const std::string& path)
{
    std::vector<std::string> known;
    for (const CLI::App* p = pApp; p; p = p->get_parent())
        for (const CLI::Option* pOption : p->get_options())
            for (const std::string& longName : pOption->get_lnames())
                known.push_back("--" + longName);
    return fmt::format("there is no option {}{}; {} --help lists them", name, DidYouMean(name, known), path);
}

std::string UnknownVerb(const CLI::App& app, const std::string& name, const std::string& path)
{
    std::vector<std::string> known;
    for (const CLI::App* pVerb : VerbsOf(app))
        known.push_back(pVerb->get_name());
    return fmt::format("there is no verb '{}'{}; {} --help lists them", name, DidYouMean(name, known), path);
}

// The first word that names nothing, or "".
std::string WrongName(const CLI::App& app, int argc, const char* const* argv)
{
    const CLI::App* pApp = &app;
    std::string path = app.get_name();
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        if (word == "--")
            break;
        if (word.size() > 1 && word[0] == '-' && !isdigit(static_cast<unsigned char>(word[1]))) {
            const size_t cEqual = word.find('=');
            const CLI::Option* pOption = FindOption(pApp, word.substr(0, cEqual));
            if (!pOption)
                return UnknownOption(pApp, word.substr(0, cEqual), path);
            i += cEqual == word.npos && pOption->get_items_expected_max() > 0;
            continue;
        }
        if (VerbsOf(*pApp).empty())
            continue; // an argument
        const CLI::App* pVerb = nullptr;
        for (const CLI::App* pOne : VerbsOf(*pApp))
            if (pOne->get_name() == word)
                pVerb = pOne;
        if (!pVerb)
            return UnknownVerb(*pApp, word, path);
        pApp = pVerb;
        path += " " + word;
    }
    return VerbsOf(*pApp).empty() ? "" : fmt::format("a verb is missing; {} --help lists them", path);
}

} // namespace

std::optional<int> ParseCommandLine(CLI::App& app, int argc, const char* const* argv, int iBad)
{
    const std::string version = app.version();
    const std::string only = argc == 2 ? argv[1] : "";
    if (only == "--man" || only == "--completion") {
        fmt::print("{}", only == "--man" ? ManPageOf(app, version) : CompletionOf(app));
        return 0;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0)
            return app.exit(error);
        std::string what = WrongName(app, argc, argv);
        if (what.empty())
            what = error.what();
        fmt::print(stderr, "{}: {}\n", app.get_name(), what);
        return iBad;
    }
    return std::nullopt;
}
