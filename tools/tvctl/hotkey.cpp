// hotkey.cpp - tvctl hotkey add, remove, list-file and tvctl apply: definitions at the driver.
//
// The driver holds definitions until the last handle of any application is closed. So what a command adds stays only
// while another application has the driver open, and that is found out: the command closes its handle, opens the
// driver again and adds the same definition once more, which is refused when it is still there.
#include "definitions.h"
#include "tools/common/failure.h"
#include "tvctl.h"
#include "watch.h"

#include <fmt/format.h>

namespace
{

constexpr unsigned MostDefinitions = 512; // above what a keyboard holds

Line LineOf(const NamedDefinition& named, std::string_view type)
{
    const KeyDefinition& definition = named.definition;
    Line line(type);
    line.Number("id", definition.ulId).Text("name", named.name).Text("keys", KeysOf(definition));
    return line.Number("kind", definition.ulType).Truth("swallow", (definition.ulSwallow & 0xFF) == 1);
}

std::string TextOf(const NamedDefinition& named)
{
    std::string keys = KeysOf(named.definition);
    const uint32_t ulType = named.definition.ulType;
    std::string kind = ulType == DEFINITION_HOTKEY          ? ""
                       : ulType == DEFINITION_POINT_OF_SALE ? "  point of sale"
                       : ulType == DEFINITION_DISCARD       ? "  discard mode"
                                                            : fmt::format("  type {}", ulType);
    return fmt::format("{}{}{}{}{}", named.definition.ulId, keys.empty() ? "" : "  " + keys, kind,
                       (named.definition.ulSwallow & 0xFF) == 1 ? "  swallowed" : "",
                       named.name == keys || named.name.empty() ? "" : "  \"" + named.name + "\"");
}

// Returns how many there were.
unsigned RemoveAll(const tvusb::Keyboard& keyboard, uint32_t ulId)
{
    unsigned uRemoved = 0;
    while (uRemoved < MostDefinitions && keyboard.RemoveDefinition(ulId).Ok())
        uRemoved++;
    return uRemoved;
}

// Everything with the definitions' ids is removed first, so that doing it twice changes nothing. A definition that
// cannot be converted is refused and kept all the same by the driver; it is removed again.
// Fails (Failure): one is refused; those before it stay.
void Put(Session& session, const KeyboardFacts& facts, const Configuration& configuration)
{
    for (const NamedDefinition& named : configuration.definitions)
        RemoveAll(facts.keyboard, named.definition.ulId);
    for (const NamedDefinition& named : configuration.definitions) {
        tvusb::Status status = facts.keyboard.AddDefinition(named.definition);
        if (!status.Ok()) {
            RemoveAll(facts.keyboard, named.definition.ulId);
            throw Failure(Refused, fmt::format("definition {}: {}", named.definition.ulId, status.Text()));
        }
        Line line = LineOf(named, "added");
        line.Number("index", facts.keyboard.Index());
        session.Tell(line, fmt::format("keyboard {}: {}", facts.keyboard.Index(), TextOf(named)));
    }
    tvusb::Status status = facts.keyboard.StartProcessing();
    if (configuration.bReportProcessing &&
        status != tvusb::Status::Unsuccessful) // which is: it is on already
        Must(status);
    if (!configuration.bReportProcessing)
        (void)facts.keyboard.StopProcessing(); // it may be off already
}

// Fails (Failure): it went with the handle, or the keyboard did.
void MustBeKept(Session& session, const KeyboardFacts& facts, const KeyDefinition& definition)
{
    session.Close();
    auto keyboard = session.Driver().FindByIndex(facts.keyboard.Index());
    Must(keyboard.Error());
    if (keyboard->AddDefinition(definition).Ok()) // and goes with the command
        throw Failure(NotKept,
                      "no other application has the driver open, so the driver has dropped what was added; "
                      "--watch keeps it open and tells the events");
}

struct PutArguments {
    uint32_t ulId = 0;
    std::string words, file;
    bool bSwallow = false, bWatch = false;
    WatchLimits limits;
};

void AddWatchOptions(CLI::App* pVerb, PutArguments& arguments)
{
    CLI::Option* pWatch = pVerb->add_flag("--watch", arguments.bWatch,
                                          "keep the driver open and tell the events, until Ctrl+C");
    arguments.limits.AddTo(pVerb);
    for (const char* pName : {"--events", "--seconds"})
        pVerb->get_option(pName)->needs(pWatch);
}

ExitStatus AddHotkey(Session& session, const PutArguments& arguments)
{
    KeyDefinition definition = ReadChord(arguments.words, arguments.ulId);
    definition.ulSwallow = arguments.bSwallow;
    Configuration configuration;
    configuration.definitions = {{definition, KeysOf(definition)}};
    KeyboardFacts facts = session.Chosen();
    Put(session, facts, configuration);
    if (arguments.bWatch)
        Watch(session, facts.keyboard, configuration.definitions, arguments.limits);
    else
        MustBeKept(session, facts, definition);
    return Done;
}

ExitStatus RemoveHotkey(Session& session, uint32_t ulId)
{
    KeyboardFacts facts = session.Chosen();
    unsigned uRemoved = RemoveAll(facts.keyboard, ulId);
    if (uRemoved == 0)
        throw Failure(Refused, fmt::format("keyboard {} has no definition {}", facts.keyboard.Index(), ulId));
    session.Tell(
        Line("removed").Number("index", facts.keyboard.Index()).Number("id", ulId).Number("count", uRemoved),
        fmt::format("keyboard {}: removed {} definition{} {}", facts.keyboard.Index(), uRemoved,
                    uRemoved == 1 ? "" : "s", ulId));
    return Done;
}

ExitStatus ListFile(Session& session, const std::string& file)
{
    for (const NamedDefinition& named : ReadConfiguration(file).definitions)
        session.Tell(LineOf(named, "definition"), TextOf(named));
    return Done;
}

// The keyboard that is named, or all.
std::vector<KeyboardFacts> Meant(Session& session)
{
    if (!session.Given().keyboard.empty())
        return {session.Chosen()};
    return session.Keyboards();
}

ExitStatus Apply(Session& session, const PutArguments& arguments)
{
    Configuration configuration = ReadConfiguration(arguments.file);
    if (configuration.cSettings != 0)
        fmt::print(stderr, "tvctl: [settings] are values of the registry and are not applied\n");
    std::vector<KeyboardFacts> keyboards = Meant(session);
    if (arguments.bWatch && keyboards.size() != 1)
        session.Chosen(); // says so
    for (const KeyboardFacts& facts : keyboards)
        Put(session, facts, configuration);
    if (arguments.bWatch)
        Watch(session, keyboards[0].keyboard, configuration.definitions, arguments.limits);
    else if (!configuration.definitions.empty())
        MustBeKept(session, keyboards[0], configuration.definitions[0].definition);
    return Done;
}

} // namespace

void AddHotkeyVerbs(CLI::App& app, ControlVerbs& verbs)
{
    auto arguments = std::make_shared<PutArguments>();
    CLI::App* pHotkey = app.add_subcommand("hotkey", "Hotkeys: add, remove, list those of a file");
    pHotkey->require_subcommand(1);

    CLI::App* pAdd = pHotkey->add_subcommand("add", "Add a hotkey, in the place of all with its number");
    pAdd->add_option("ID", arguments->ulId, "the number that its events have")->required();
    pAdd->add_option("KEYS", arguments->words, "modifiers and keys: ctrl+F1")->required();
    pAdd->add_flag("--swallow", arguments->bSwallow, "the system does not see its keys");
    AddWatchOptions(pAdd, *arguments);
    verbs.push_back({pAdd, [arguments](Session& session) { return AddHotkey(session, *arguments); }});

    CLI::App* pRemove = pHotkey->add_subcommand("remove", "Remove all definitions with this number");
    pRemove->add_option("ID", arguments->ulId, "their number")->required();
    verbs.push_back(
        {pRemove, [arguments](Session& session) { return RemoveHotkey(session, arguments->ulId); }});

    CLI::App* pListFile = pHotkey->add_subcommand("list-file", "List the definitions of a configuration");
    pListFile->add_option("FILE", arguments->file, "a configuration (TOML)")->required();
    verbs.push_back(
        {pListFile, [arguments](Session& session) { return ListFile(session, arguments->file); }});

    CLI::App* pApply =
        app.add_subcommand("apply", "Put a configuration's definitions to the keyboard, or to all");
    pApply->add_option("FILE", arguments->file, "a configuration (TOML)")->required();
    AddWatchOptions(pApply, *arguments);
    verbs.push_back({pApply, [arguments](Session& session) { return Apply(session, *arguments); }});
}
