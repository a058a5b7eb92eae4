// doctor.cpp - tvctl doctor: is the driver there, what does it filter, what is wrong, what to do.
#include "findings.h"
#include "tvctl.h"

#include <fmt/format.h>

namespace
{

using Findings = std::vector<Finding>;

void ExamineMacroMode(tvusb::Driver& driver, Findings& findings)
{
    auto capture = driver.Macros().GetCapture();
    if (capture && *capture == 1)
        findings.push_back({Finding::Warning,
                            "reports are recorded as macros: while a mode hotkey is set, what is typed "
                            "does not reach the system",
                            "tvctl macro record --off, unless an application records"});
    auto mode = driver.Macros().IsOn();
    if (mode && *mode)
        findings.push_back({Finding::Good, "the macro mode is on", ""});
}

void ExamineKeyboards(Session& session, Findings& findings)
{
    std::vector<KeyboardFacts> keyboards = session.Keyboards();
    for (const KeyboardFacts& facts : keyboards) {
        findings.push_back({Finding::Good, TextOf(facts), ""});
        if (!facts.device)
            findings.push_back(
                {Finding::Warning,
                 fmt::format("keyboard {} does not answer for its descriptor", facts.keyboard.Index()),
                 "plug it in again, at another port"});
        if (facts.name.empty())
            findings.push_back({Finding::Warning,
                                fmt::format("keyboard {} has no device interface that the system tells",
                                            facts.keyboard.Index()),
                                "plug it in again"});
    }
    if (keyboards.empty())
        findings.push_back({Finding::Fault, "the driver filters no keyboard", "plug one in"});
}

// The driver and its keyboards; what cannot be asked is a finding.
void ExamineDriver(Session& session, const DriverRegistry& registry, Findings& findings)
{
    try {
        tvusb::Driver& driver = session.Driver();
        uint32_t ulVersion = Must(driver.GetVersion());
        findings.push_back(
            {Finding::Good, fmt::format("the driver is loaded, version {}", VersionText(ulVersion)), ""});
        if (VersionText(ulVersion) != TV64USB_VERSION)
            findings.push_back({Finding::Warning, fmt::format("this is tvctl of version {}", TV64USB_VERSION),
                                "take the tvctl that came with the driver"});
        ExamineKeyboards(session, findings);
        ExamineMacroMode(driver, findings);
    } catch (const Failure& failure) {
        bool bAbsent = failure.Said() == tvusb::Status::NameNotFound;
        const char* pAdvice =
            !bAbsent ? ""
            : registry.bThere && !registry.bInstalled
                ? "install it: install.cmd of the package"
                : "plug in a keyboard that it knows; in the device manager look at that of the keyboard";
        findings.push_back({Finding::Fault, failure.what(), pAdvice});
    }
}

void ExamineRegistry(const DriverRegistry& registry, Findings& findings)
{
    if (!registry.bThere)
        return;
    if (!registry.bInstalled)
        findings.push_back(
            {Finding::Fault, "the driver's service is not installed", "install.cmd of the package"});
    if (!registry.bReadable)
        findings.push_back({Finding::Warning, "the driver's settings cannot be read", "be an administrator"});
    for (Finding& finding : FindingsOf(registry.values))
        findings.push_back(std::move(finding));
    if (registry.bReadable)
        findings.push_back({Finding::Good,
                            fmt::format("{} value{} of the driver in the registry", registry.values.size(),
                                        registry.values.size() == 1 ? "" : "s"),
                            ""});
}

ExitStatus Doctor(Session& session)
{
    const char* const kinds[] = {"good", "warning", "fault"};
    DriverRegistry registry = ReadDriverRegistry();
    Findings findings;
    ExamineDriver(session, registry, findings);
    ExamineRegistry(registry, findings);
    bool bGood = true;
    for (const Finding& finding : findings) {
        std::string text = fmt::format("{:<8} {}", kinds[finding.kind], finding.what);
        text += finding.advice.empty() ? "" : "\n         → " + finding.advice;
        session.Tell(Line("finding")
                         .Text("kind", kinds[finding.kind])
                         .Text("what", finding.what)
                         .Text("advice", finding.advice),
                     text);
        bGood = bGood && finding.kind == Finding::Good;
    }
    return bGood ? Done : Refused;
}

} // namespace

void AddDoctorVerb(CLI::App& app, ControlVerbs& verbs)
{
    verbs.push_back({app.add_subcommand(
                         "doctor", "Tell what is wrong with driver, keyboards and settings, and what to do"),
                     Doctor});
}
