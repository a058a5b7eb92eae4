// list.cpp - tvctl list, info, version: what there is.
#include "tvctl.h"

#include <fmt/format.h>

namespace
{

ExitStatus List(Session& session)
{
    for (const KeyboardFacts& facts : session.Keyboards())
        session.Tell(LineOf(facts, "keyboard"), TextOf(facts));
    return Done;
}

ExitStatus Version(Session& session)
{
    std::string driver = VersionText(Must(session.Driver().GetVersion()));
    session.Tell(Line("version").Text("tvctl", TV64USB_VERSION).Text("driver", driver),
                 fmt::format("tvctl {}\ndriver {}", TV64USB_VERSION, driver));
    return Done;
}

// Everything that is known of one keyboard, a line each.
ExitStatus Info(Session& session)
{
    KeyboardFacts facts = session.Chosen();
    uint32_t ulWaiting = Must(facts.keyboard.Events().Count());
    uint32_t ulModifiers = Must(session.Driver().GetModifiers());
    Line line = LineOf(facts, "info");
    line.Number("events_waiting", ulWaiting).Number("modifiers", ulModifiers);
    std::string text = fmt::format("index           {}\nid              {}\nhardware id     {}\n"
                                   "description     {}\nserial          {}\nname            {}\n"
                                   "device object   {}\n",
                                   facts.keyboard.Index(), facts.id, facts.hardwareId, facts.description,
                                   facts.serial, facts.name, facts.object);
    if (facts.device) {
        std::string release =
            fmt::format("{:x}.{:02x}", facts.device->bcdDevice >> 8, facts.device->bcdDevice & 0xFF);
        line.Text("firmware", release);
        text += fmt::format("firmware        {}\n", release);
    }
    text += fmt::format("events waiting  {}\nmodifiers       0x{:08X}", ulWaiting, ulModifiers);
    session.Tell(line, text);
    return Done;
}

} // namespace

std::string VersionText(uint32_t ulVersion)
{
    return fmt::format("{}.{}.{}", ulVersion >> 16, ulVersion >> 8 & 0xFF, ulVersion & 0xFF);
}

void AddListVerbs(CLI::App& app, ControlVerbs& verbs)
{
    verbs.push_back({app.add_subcommand("list", "List the keyboards that the driver filters"), List});
    verbs.push_back({app.add_subcommand("info", "Tell all about one keyboard"), Info});
    verbs.push_back({app.add_subcommand("version", "Tell the versions of tvctl and of the driver"), Version});
}
