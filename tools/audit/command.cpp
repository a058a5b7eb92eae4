// command.cpp - tvusb audit: what became of the presses and hotkeys of whole sessions.
//
// Exit status: 0 nothing is wrong, 1 something was found, 2 an input is bad.
#include "audit.h"
#include "tools/replay/command.h"
#include "tools/replay/input.h"
#include "tools/verbs.h"

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

namespace
{

struct AuditArguments {
    std::vector<std::string> inputs;
    std::string config, against;
    std::vector<std::string> keyboards;
    bool bJson = false;
};

ReplayConfig ConfigOf(const std::string& file)
{
    return file.empty() ? ReplayConfig() : ReadConfig(file);
}

int RunAudit(const AuditArguments& arguments)
{
    const ReplayConfig config = ConfigOf(arguments.config), other = ConfigOf(arguments.against);
    const ReplaySetup setup{DriverEntry, KindsNamed(arguments.keyboards), config};
    std::vector<Script> scripts; // all are opened before anything is printed
    for (const std::string& input : arguments.inputs)
        scripts.push_back(ReadInput(input));
    AuditPage page{{}, arguments.config, arguments.against, config};
    bool bWrong = false;
    for (size_t i = 0; i < scripts.size(); ++i) {
        Found found(arguments.inputs[i], arguments.bJson);
        const FindingTaker take = [&](const Finding& finding) { found.Add(finding); };
        Audit audit = AuditOf(arguments.inputs[i], scripts[i], setup, take);
        if (!arguments.against.empty())
            FindDifferences(scripts[i], setup,
                            {arguments.config.empty() ? "no configuration" : arguments.config, config},
                            {arguments.against, other}, take);
        bWrong |= found.Count() != 0;
        page.audits.push_back({std::move(audit), std::move(found)});
    }
    arguments.bJson ? PrintJson(page) : PrintPage(page);
    return bWrong ? ExitFailed : ExitGood;
}

} // namespace

void AddAuditVerb(CLI::App& app, Verbs& verbs)
{
    auto arguments = std::make_shared<AuditArguments>();
    CLI::App* pAudit = app.add_subcommand("audit", "Tell what became of the presses and hotkeys of sessions");
    pAudit->add_option("INPUT", arguments->inputs, "USB captures or HID recordings")->required();
    pAudit->add_option("--config", arguments->config, "settings and key definitions (TOML)");
    pAudit->add_option("--against", arguments->against,
                       "another configuration; tells each report that it changes");
    AddKeyboardOption(*pAudit, arguments->keyboards);
    pAudit->add_flag("--json", arguments->bJson, "print JSON objects, one a line");
    verbs.push_back({pAudit, [arguments] { return RunAudit(*arguments); }});
}
