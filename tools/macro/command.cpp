// command.cpp - tvusb macro compile, show, check.
//
// Warnings tell what the driver does silently with a file; the file is written all the same.
#include "readable.h"
#include "tools/common/files.h"
#include "tools/common/text.h"
#include "tools/verbs.h"
#include "warnings.h"

#include <fmt/format.h>

#include <filesystem>

namespace
{

// The place of a warning: a line of the readable form, a byte of the macro file.
std::string PlaceOf(const std::string& file, bool bReadable, const MacroWarning& warning)
{
    if (!bReadable)
        return fmt::format("{}: byte {}", file, warning.cOffset);
    return warning.pEntry ? fmt::format("{}:{}", file, warning.pEntry->uLine) : file;
}

// Prints the warnings for the file, whose driver's name is that of target. Returns how many.
size_t Tell(FILE* pOut, const std::string& file, bool bReadable, const MacroFile& macros,
            const std::string& target)
{
    size_t cTold = 0;
    for (const MacroWarning& warning : WarningsOf(macros)) {
        fmt::print(pOut, "{}: warning: {}\n", PlaceOf(file, bReadable, warning), warning.what);
        ++cTold;
    }
    if (auto what = WarnOfName(DriverFileName(std::filesystem::absolute(target).string()))) {
        fmt::print(pOut, "{}: warning: {}\n", target, *what);
        ++cTold;
    }
    return cTold;
}

// Fails (InputError): after all mistakes but the last were told.
MacroFile CompileAll(const std::string& file)
{
    std::vector<Problem> problems;
    MacroFile macros = CompileMacros(file, ReadWholeText(file), &problems);
    for (size_t i = 0; i < problems.size(); ++i) {
        std::string line = fmt::format("{}:{}: {}", file, problems[i].uLine, problems[i].what);
        if (i + 1 == problems.size())
            throw InputError(line, problems[i].uLine);
        fmt::print(stderr, "tvusb: {}\n", line);
    }
    return macros;
}

int Compile(const std::string& input, const std::string& output)
{
    MacroFile macros = CompileAll(input);
    WriteWholeFile(output, BytesOf(macros));
    Tell(stderr, input, true, macros, output);
    return ExitGood;
}

int Show(const std::string& file)
{
    fmt::print("{}", ShowMacros(file, ReadMacroFile(file, ReadWholeFile(file))));
    return ExitGood;
}

int Check(const std::string& file)
{
    bool bReadable = LowerCase(std::filesystem::path(file).extension().string()) == ".toml";
    MacroFile macros = bReadable ? CompileAll(file) : ReadMacroFile(file, ReadWholeFile(file));
    if (Tell(stdout, file, bReadable, macros, file) != 0)
        return ExitFailed;
    fmt::print("{}: {} macro{}, nothing to warn of\n", file, macros.macros.size(),
               macros.macros.size() == 1 ? "" : "s");
    return ExitGood;
}

} // namespace

void AddMacroVerbs(CLI::App& app, Verbs& verbs)
{
    struct Arguments {
        std::string input, output;
    };
    auto arguments = std::make_shared<Arguments>();
    CLI::App* pMacro = app.add_subcommand("macro", "Macro files: write, read, check");
    pMacro->require_subcommand(1);

    CLI::App* pCompile = pMacro->add_subcommand("compile", "Make a macro file of its readable form");
    pCompile->add_option("IN", arguments->input, "macros as text (TOML)")->required();
    pCompile->add_option("OUT", arguments->output, "the driver's macro file")->required();
    verbs.push_back({pCompile, [arguments] { return Compile(arguments->input, arguments->output); }});

    CLI::App* pShow = pMacro->add_subcommand("show", "Print a macro file in its readable form");
    pShow->add_option("FILE", arguments->input, "the driver's macro file")->required();
    verbs.push_back({pShow, [arguments] { return Show(arguments->input); }});

    CLI::App* pCheck =
        pMacro->add_subcommand("check", "Tell what the driver would do silently with a macro file");
    pCheck->add_option("FILE", arguments->input, "the driver's macro file, or its readable form (.toml)")
        ->required();
    verbs.push_back({pCheck, [arguments] { return Check(arguments->input); }});
}
