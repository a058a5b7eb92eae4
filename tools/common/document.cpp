// document.cpp - the man page and the completion of a program, from what it declares of its verbs and options.
#include "commandline.h"

#include <fmt/format.h>

#include <functional>

namespace
{

// Text as the page's formatter takes it literally.
std::string Literal(const std::string& text)
{
    std::string out;
    for (char c : text)
        out += c == '\\' ? "\\e" : c == '-' ? "\\-" : c == '\n' ? "\n.br\n" : std::string(1, c);
    return !out.empty() && (out[0] == '.' || out[0] == '\'') ? "\\&" + out : out;
}

// Each verb that does something, behind the words that lead to it.
void ForEachVerb(const CLI::App& app, const std::string& path,
                 const std::function<void(const CLI::App&, const std::string&)>& visit)
{
    visit(app, path);
    for (const CLI::App* pVerb : app.get_subcommands([](const CLI::App*) { return true; }))
        ForEachVerb(*pVerb, path + " " + pVerb->get_name(), visit);
}

// The values that an option takes: what stands in braces behind its type.
std::vector<std::string> ValuesOf(const CLI::Option& option)
{
    std::string type = option.get_type_name();
    size_t cAt = type.find('{'), cEnd = type.find('}');
    std::vector<std::string> values;
    while (cAt != type.npos && cAt < cEnd) {
        size_t cNext = std::min(type.find(',', cAt + 1), cEnd);
        values.push_back(type.substr(cAt + 1, cNext - cAt - 1));
        cAt = cNext;
    }
    return values;
}

std::vector<std::string> NamesOf(const CLI::Option& option)
{
    std::vector<std::string> names;
    for (const std::string& name : option.get_snames())
        names.push_back("-" + name);
    for (const std::string& name : option.get_lnames())
        names.push_back("--" + name);
    return names;
}

std::string OptionText(const CLI::Option& option)
{
    std::string names = option.get_positional() ? option.get_name(true) : "";
    for (const std::string& name : NamesOf(option))
        names += (names.empty() ? "" : ", ") + name;
    std::string values;
    for (const std::string& value : ValuesOf(option))
        values += (values.empty() ? " " : "|") + value;
    return fmt::format(".TP\n.B {}{}\n{}\n", Literal(names), Literal(values),
                       Literal(option.get_description()));
}

std::string Joined(const std::vector<std::string>& words)
{
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

} // namespace

std::string ManPageOf(const CLI::App& app, const std::string& version)
{
    const std::string program = app.get_name();
    const std::string about = app.get_description();
    const size_t cDash = about.find(" - ");
    std::string page = fmt::format(
        ".TH {} 1 \"\" \"Tv64USB {}\"\n.SH NAME\n{} \\- {}\n.SH SYNOPSIS\n.B {}\n.I VERB\n[OPTION]...\n",
        program, version, program, Literal(cDash == about.npos ? about : about.substr(cDash + 3)), program);
    ForEachVerb(app, program, [&](const CLI::App& verb, const std::string& path) {
        page += &verb == &app ? ".SH OPTIONS\n"
                              : fmt::format(".SH {}\n{}.\n", Literal(path), Literal(verb.get_description()));
        for (const CLI::Option* pOption : verb.get_options())
            page += OptionText(*pOption);
    });
    return page + ".SH EXIT STATUS\n0 all went well, 1 something was found or failed, 2 the command line or "
                  "an input "
                  "is bad.\n";
}

// The words so far without options and arguments choose a line; what it lists may come next, or files.
std::string CompletionOf(const CLI::App& app)
{
    std::string cases, values;
    ForEachVerb(app, app.get_name(), [&](const CLI::App& verb, const std::string& path) {
        std::vector<std::string> words;
        for (const CLI::App* pVerb : verb.get_subcommands([](const CLI::App*) { return true; }))
            words.push_back(pVerb->get_name());
        for (const CLI::Option* pOption : verb.get_options()) {
            std::vector<std::string> names = NamesOf(*pOption);
            words.insert(words.end(), names.begin(), names.end());
            if (!names.empty() && !ValuesOf(*pOption).empty())
                values += fmt::format("    '{} {}') words='{}' ;;\n", path, names.back(),
                                      Joined(ValuesOf(*pOption)));
        }
        cases += fmt::format("    '{}') words='{}' ;;\n", path, Joined(words));
    });
    return fmt::format(R"(# bash completion of {0}; made by {0} --completion
_{0}() {{
    local path={0} word words= current=${{COMP_WORDS[COMP_CWORD]}}
    for word in "${{COMP_WORDS[@]:1:COMP_CWORD-1}}"; do
        case "$path $word" in
{1}        esac
    done
    words=
    case "$path" in
{2}    esac
    case "$path ${{COMP_WORDS[COMP_CWORD-1]}}" in
{3}    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}}
complete -o default -F _{0} {0}
)",
                       app.get_name(),
                       [&] {
                           std::string verbs;
                           ForEachVerb(app, app.get_name(),
                                       [&](const CLI::App& verb, const std::string& path) {
                                           if (&verb != &app)
                                               verbs += fmt::format("        '{0}') path='{0}' ;;\n", path);
                                       });
                           return verbs;
                       }(),
                       cases, values);
}
