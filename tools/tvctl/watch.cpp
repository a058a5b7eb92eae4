// watch.cpp - tvctl watch: a keyboard's events as they come, a line each.
#include "tvctl.h"

#include "interrupt.h"
#include "watch.h"

#include <fmt/format.h>

namespace
{

constexpr uint32_t TicksOfSecond = 10000; // of the driver's clock

void Tell(const Session& session, const NotifyRecord& record, const std::string& name)
{
    bool bHotkey = record.ucSource == NOTIFY_SOURCE_HOTKEY && record.ulValue <= 1;
    Line line("event");
    line.Number("time", record.ulTime).Number("id", record.ulId).Text("name", name);
    line.Number("value", record.ulValue)
        .Number("source", record.ucSource)
        .Number("esc_abort", record.ulEscAbort);
    std::string what =
        bHotkey ? record.ulValue == 1 ? "down" : "up" : fmt::format("key 0x{:02X}", record.ulValue);
    session.Tell(line, fmt::format("{}.{:04}  {} {}{}{}", record.ulTime / TicksOfSecond,
                                   record.ulTime % TicksOfSecond, record.ulId, what,
                                   name.empty() ? "" : "  " + name, record.ulEscAbort ? "  (Esc)" : ""));
}

} // namespace

void WatchLimits::AddTo(CLI::App* pVerb)
{
    pVerb->add_option("--events", ulEvents, "end after so many events");
    pVerb->add_option("--seconds", ulSeconds, "end after so many seconds")->check(CLI::Range(0, 400000));
}

void Watch(Session& session, const tvusb::Keyboard& keyboard, const std::vector<NamedDefinition>& names,
           const WatchLimits& limits)
{
    auto listener = keyboard.Events().Listen();
    if (listener.Error() == tvusb::Status::Unsuccessful)
        throw Failure(Refused,
                      "another application is told this keyboard's events, and the driver tells only one");
    Must(listener.Error());
    NoteInterrupts();
    const uint32_t ulStart = Must(session.Driver().GetTime());
    for (uint32_t ulTold = 0; !IsInterrupted();) {
        auto records = listener->Wait(WAIT_TURN_MS);
        Must(records.Error());
        for (const NotifyRecord& record : *records) {
            Tell(session, record, NameOf(names, record.ulId));
            if (++ulTold == limits.ulEvents)
                return;
        }
        if (limits.ulSeconds != 0 &&
            Must(session.Driver().GetTime()) - ulStart >= limits.ulSeconds * TicksOfSecond)
            return;
    }
}

void AddWatchVerb(CLI::App& app, ControlVerbs& verbs)
{
    struct Arguments {
        std::string file;
        WatchLimits limits;
    };
    auto arguments = std::make_shared<Arguments>();
    CLI::App* pWatch = app.add_subcommand("watch", "Tell a keyboard's events as they come, until Ctrl+C");
    pWatch->add_option("FILE", arguments->file, "a configuration (TOML), whose names the events get");
    arguments->limits.AddTo(pWatch);
    verbs.push_back({pWatch, [arguments](Session& session) {
                         Configuration names;
                         if (!arguments->file.empty())
                             names = ReadConfiguration(arguments->file);
                         Watch(session, session.Keyboard(), names.definitions, arguments->limits);
                         return Done;
                     }});
}
