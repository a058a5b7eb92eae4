// replay.cpp - the loop of a replay.
//
//   for each step of the script:   move the clock there (timers on the way go first)
//                                  the keyboard reports, or a control request goes down
//   after whatever happened:       the report's line -> its events -> macro records -> LED lines -> next read
//
// The stack above has one read at each keyboard and sends the next one when all that the last one caused has
// been told. A read that completes although the keyboard sent nothing was answered by the driver. Everything
// runs in the calling thread, at PASSIVE_LEVEL, on the virtual clock.
#include "replay.h"
#include "kbdtype.h"
#include "player.h"

#include "emu/app/application.h"
#include "tools/check/check.h"
#include "tools/common/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <deque>
#include <stdexcept>

namespace
{

constexpr uint64_t RunOnUs = 2000000;        // the clock runs on for so long after the last step
constexpr uint64_t LongestGapUs = 600000000; // without steps; what is longer is skipped
constexpr unsigned ProgressSteps = 4096;

// What came to pass and has not been told yet.
struct Received {
    unsigned uKeyboard;
    std::optional<Bytes> sent;
    Bytes seen;
};

class Replay
{
public:
    Replay(const Script& script, const ReplaySetup& setup, ReplayPrinter& printer)
        : m_script(script), m_setup(setup), m_printer(printer)
    {
    }

    unsigned Run()
    {
        StartMachine();
        for (const ScriptKeyboard& keyboard : m_script.keyboards)
            PlugKeyboard(keyboard);
        OpenApplication();
        for (const ScriptNote& note : m_script.notes)
            if (note.iKeyboard < 0 || !m_players[static_cast<size_t>(note.iKeyboard)].bEmulated)
                m_printer.Note(Now(), note.iKeyboard, note.text);
        for (unsigned k = 0; k < m_players.size(); ++k)
            if (m_players[k].bEmulated)
                Announce(k);
        TellAll();

        uint64_t ullEnd = RunOnUs;
        unsigned uSteps = 0;
        StepReader read = m_script.Open();
        bool bEnough = false;
        for (ScriptStep step; !(bEnough = IsEnough()) && read(step);) {
            MoveClock(step.ullUs);
            Play(step);
            TellAll();
            ullEnd = step.ullUs + RunOnUs;
            if (++uSteps % ProgressSteps == 0 && m_setup.Progress)
                m_setup.Progress(Now(), m_totals);
        }
        if (!bEnough || m_setup.pTrial)
            MoveClock(ullEnd);
        return Finish();
    }

private:
    bool IsEnough() const { return m_setup.IsEnough && m_setup.IsEnough(); }

    void StartMachine()
    {
        EmuMachineOptions options;
        options.BeforeLoad = m_setup.BeforeLoad;
        options.Entry = m_setup.pEntry;
        options.FileRoot = m_setup.config.fileRoot;
        for (const auto& [name, value] : m_setup.config.settings)
            std::visit([&, &key = name](const auto& content) { options.Settings[key] = content; }, value);
        m_machine = std::make_unique<EmuMachine>(options);
        if (!NT_SUCCESS(m_machine->LoadStatus()))
            throw std::runtime_error("the driver does not load: " + StatusText(m_machine->LoadStatus()));
    }

    // A keyboard of a capture says nothing of its own at the start: its descriptors come with the captured
    // requests. One of a recording is enumerated by the stack above it.
    void PlugKeyboard(const ScriptKeyboard& script)
    {
        const auto uKeyboard = static_cast<unsigned>(m_players.size());
        Player& player = m_players.emplace_back();
        player.script = script;
        const EmuDescriptors& kind = KindOf(player.script);
        player.bEmulated = !player.script.bTold && (!m_script.bEnumerates || !m_setup.kinds.empty());
        EmuPlugOptions options;
        options.Manual = true;
        options.Patient = m_setup.pTrial != nullptr;
        options.Record = false;
        options.NoEnumeration = !player.bEmulated;
        options.PacketBytes = player.script.ulReadBytes;
        if (player.bEmulated)
            options.PacketBytes = std::max(options.PacketBytes, PacketBytesOf(kind));
        options.PacketBytes = std::min<ULONG>(options.PacketBytes, EmuHidMaximumPacket);
        options.Hook = [this, uKeyboard](const UCHAR* pSetup, EmuBytes& data) {
            return AnswerControl(m_players[uKeyboard], pSetup, data);
        };
        options.OnReceived = [this, uKeyboard](const EmuReceived& received) { Receive(uKeyboard, received); };
        options.OnLed = [this, uKeyboard](const EmuBytes& report) {
            if (auto leds = LedsOf(m_players[uKeyboard].pControl, report))
                m_leds.emplace_back(uKeyboard, *leds);
        };
        player.pKeyboard = m_machine->Plug(kind, options);
        NTSTATUS status = player.pKeyboard->AddStatus();
        if (NT_SUCCESS(status))
            status = player.pKeyboard->StartStatus();
        if (!NT_SUCCESS(status) || !player.pKeyboard->Filter())
            throw std::runtime_error(
                fmt::format("the driver does not start keyboard {}: {}", uKeyboard, StatusText(status)));
    }

    // What a keyboard answers with of which the input tells nothing.
    const EmuDescriptors& KindOf(const ScriptKeyboard& keyboard)
    {
        if (m_setup.kinds.empty())
            return *EmuMachine::FindKind("normal");
        size_t cKind = std::min(m_uUntold, m_setup.kinds.size() - 1);
        m_uUntold += !keyboard.bTold;
        return m_setup.kinds[cKind] ? *m_setup.kinds[cKind] : *EmuMachine::FindKind(keyboard.pGuess);
    }

    // Kinds are for keyboards of which the input does not tell it.
    void TellUnusedKinds()
    {
        if (m_setup.kinds.size() > m_uUntold)
            m_printer.Note(
                Now(), -1,
                fmt::format("--keyboard is used for {} keyboard{}: the input tells what the others are",
                            m_uUntold == 0 ? "no" : std::to_string(m_uUntold), m_uUntold <= 1 ? "" : "s"));
    }

    // The time of the input, which skips what the clock does not run through.
    uint64_t Now() const { return HostNowUs() + m_ullSkippedUs; }

    void OpenApplication()
    {
        m_application = std::make_unique<EmuApplication>();
        if (!NT_SUCCESS(m_application->OpenStatus()))
            throw std::runtime_error("the driver's control device does not open: " +
                                     StatusText(m_application->OpenStatus()));
        m_application->RegisterMacroEvent();
    }

    // The application takes a keyboard up, once its type is known or its first report is about to come.
    void Announce(unsigned uKeyboard)
    {
        Player& player = m_players[uKeyboard];
        if (player.bAnnounced)
            return;
        player.bAnnounced = true;
        if (!m_application)
            return;
        ULONG ulIndex = player.pKeyboard->Index();
        m_printer.Keyboard(Now(), uKeyboard, ulIndex, KbdTypeOf(player.pKeyboard->Filter()), player.script);
        m_application->RegisterNotifyEvent(ulIndex);
        if (m_setup.config.bReportProcessing)
            m_application->StartReportProcessing(ulIndex);
        for (const KeyDefinition& definition : m_setup.config.definitions) {
            NTSTATUS status = m_application->AddDefinition(ulIndex, definition);
            m_printer.Definition(Now(), uKeyboard, definition.ulId, static_cast<uint32_t>(status),
                                 NT_SUCCESS(status) ? "" : WhyRefused(definition, player));
        }
    }

    // What check says of it; what it does not look at is a matter of what is there already.
    std::string WhyRefused(const KeyDefinition& definition, const Player& player) const
    {
        auto kind = KeyboardKind{KbdTypeOf(player.pKeyboard->Filter())};
        std::string what = FaultOf(definition, m_setup.config, kind).what;
        return what.empty() ? "the keyboard has it already, or no room for it" : what;
    }

    // Moves the clock to that time, timer by timer: what one did is told, and the reads that follow from it
    // are sent, before the next one expires, be it at the same microsecond. A key that repeats through a gap of
    // years does so for ten minutes.
    void MoveClock(uint64_t ullUs)
    {
        uint64_t ullGap = ullUs > Now() ? ullUs - Now() : 0;
        uint64_t ullSkip = ullGap > LongestGapUs ? ullGap - LongestGapUs : 0;
        RunClock(ullUs - ullSkip);
        if (ullSkip) {
            m_ullSkippedUs += ullSkip;
            m_printer.Note(Now(), -1,
                           fmt::format("{} seconds without a report are skipped", ullSkip / 1000000));
        }
    }

    void RunClock(uint64_t ullUs)
    {
        uint64_t ullHostUs = ullUs - m_ullSkippedUs;
        while (HostExpireNext(ullHostUs))
            TellAll();
        if (HostNowUs() < ullHostUs) // nothing expires on the way
            HostAdvanceToUs(ullHostUs);
    }

    // Tells once of reports that the driver passes on as they are, because they are none of its kind's.
    void TellWhatIsNotLookedAt(Player& player, const ScriptStep& step)
    {
        if (player.bPlain)
            return;
        unsigned uType = KbdTypeOf(player.pKeyboard->Filter());
        size_t cBytes = step.data.size();
        bool bLookedAt = uType == 1 || uType == 2   ? cBytes == 8 || cBytes == 3 || cBytes == 2
                         : uType == 3 || uType == 4 ? cBytes <= 9
                                                    : true;
        if (bLookedAt || player.script.bMouse)
            return;
        player.bPlain = true;
        m_printer.Note(
            Now(), static_cast<int>(step.uKeyboard),
            fmt::format("the driver does not look at reports of {} bytes from a keyboard of this kind: "
                        "they go on as they are",
                        cBytes));
    }

    void Play(ScriptStep& step)
    {
        if (step.kind == StepKind::Keyboard) {
            PlugKeyboard(*step.pKeyboard);
            return;
        }
        Player& player = m_players[step.uKeyboard];
        if (player.bGone)
            return;
        if (step.kind == StepKind::Control) {
            SendControl(step.uKeyboard, step);
            return;
        }
        if (!player.bAnnounced) {
            Announce(step.uKeyboard);
            TellAll();
        }
        TellWhatIsNotLookedAt(player, step);
        player.sent.push_back(std::move(step.data));
        if (!player.pKeyboard->Report(
                player.sent.back())) { // too many wait for a read already: lost, as in a real keyboard
            player.sent.pop_back();
            ++m_totals.uUnread;
        }
    }

    // Sends a captured request down the stack, where the captured answer completes it.
    void SendControl(unsigned uKeyboard, const ScriptStep& step)
    {
        Player& player = m_players[uKeyboard];
        Bytes data = step.setup[0] & 0x80 ? Bytes() : step.data;
        data.resize(WordAt(step.setup.data(), 6));
        player.pControl = &step;
        NTSTATUS status = player.pKeyboard->Control(step.setup.data(), data,
                                                    IsDescriptorRequest(step.setup) ? EmuHidRouteDescriptor
                                                                                    : EmuHidRouteControl);
        player.pControl = nullptr;
        if (!NT_SUCCESS(status))
            return;
        if (KbdTypeOf(player.pKeyboard->Filter()) != 0)
            Announce(uKeyboard);
    }

    // A read completed. The keyboard's own reports come in the order in which it sent them; when as many are
    // still kept by the keyboard as have not been received, this one came from the driver.
    // IRQL <= DISPATCH: only notes what came.
    void Receive(unsigned uKeyboard, const EmuReceived& received)
    {
        Player& player = m_players[uKeyboard];
        player.bReading = false;
        if (!NT_SUCCESS(received.Status)) {
            player.bSilent |= received.Status != STATUS_CANCELLED && !m_setup.pTrial;
            return;
        }
        m_spare = received.Bytes;
        Received entry{uKeyboard, std::nullopt, std::move(m_spare)};
        if (player.sent.size() > player.pKeyboard->KeptReports()) {
            entry.sent = std::move(player.sent.front());
            player.sent.pop_front();
        }
        m_received.push_back(std::move(entry));
    }

    // Tells everything that has come to pass, and sends the reads that follow from it. What answers a
    // report's next read comes before what another keyboard received meanwhile.
    void TellAll()
    {
        HostSettle();
        if (m_received.empty())
            TellRecords();
        while (SendReads(), !m_received.empty()) {
            Received entry = std::move(m_received.front());
            m_received.pop_front();
            ++m_totals.uReports;
            m_printer.Report(Now(), entry.uKeyboard, entry.sent, entry.seen);
            Happen(&ReplayTrial::AtReport, entry.uKeyboard);
            TellRecords();
            size_t cOthers = m_received.size();
            SendRead(m_players[entry.uKeyboard]);
            Happen(&ReplayTrial::AtReport, entry.uKeyboard);
            std::rotate(m_received.begin(), m_received.begin() + static_cast<ptrdiff_t>(cOthers),
                        m_received.end());
            m_spare = std::move(entry.seen);
        }
    }

    void TellRecords()
    {
        for (unsigned k = 0; k < m_players.size(); ++k) {
            ULONG ulIndex = m_players[k].pKeyboard->Index();
            if (!m_application || !m_players[k].bAnnounced || !m_application->NotifySignalled(ulIndex))
                continue;
            for (const NotifyRecord& record : m_application->TakeRecords(ulIndex)) {
                ++m_totals.uEvents;
                m_printer.Event(Now(), k, record);
                Happen(&ReplayTrial::AtEvent, k);
            }
        }
        if (m_application && m_application->MacroSignalled())
            for (const MacroRecord& record : m_application->TakeMacroRecords()) {
                m_printer.Macro(Now(), record);
                Happen(&ReplayTrial::AtEvent, 0); // whose it is, is not known
            }
        for (; !m_leds.empty(); m_leds.pop_front())
            m_printer.Led(Now(), m_leds.front().first, m_leds.front().second);
    }

    // Sends the keyboard's next read, unless one is on its way or there is something to tell first.
    void SendRead(Player& player)
    {
        if (player.bReading || player.bSilent || player.bGone)
            return;
        player.bReading = true;
        NTSTATUS status = player.pKeyboard->Read();
        if (player.bReading && !NT_SUCCESS(status)) // it never went down
            player.bSilent = true;
        HostSettle();
    }

    // A read for every keyboard that has none, as long as there is nothing to tell.
    void SendReads()
    {
        for (Player& player : m_players)
            if (m_received.empty())
                SendRead(player);
    }

    // Something may go wrong at this moment.
    void Happen(Mishap (ReplayTrial::*pAsk)(unsigned), unsigned uKeyboard)
    {
        const Mishap mishap = m_setup.pTrial ? (m_setup.pTrial->*pAsk)(uKeyboard) : Mishap::None;
        Player& player = m_players[uKeyboard];
        if (mishap == Mishap::ApplicationGone)
            m_application.reset();
        if (mishap == Mishap::None || mishap == Mishap::ApplicationGone || player.bGone)
            return;
        player.bGone = true;
        if (mishap == Mishap::KeyboardPulled) {
            player.pKeyboard->SurpriseRemove();
            HostSettle();
            m_setup.pTrial->AfterPull(uKeyboard, *player.pKeyboard);
            player.pKeyboard->Remove();
        } else
            player.pKeyboard->Unplug(false);
    }

    // The end: the application leaves, the keyboards are removed in order, the driver is unloaded.
    unsigned Finish()
    {
        uint64_t ullNow = Now();
        TellUnusedKinds();
        std::vector<EmuKeyboard*> keyboards;
        for (const Player& player : m_players)
            keyboards.push_back(player.pKeyboard);
        if (m_setup.pTrial)
            m_setup.pTrial->BeforeEnd(*m_machine, keyboards);
        m_application.reset();
        for (Player& player : m_players) {
            m_totals.uUnread += static_cast<unsigned>(player.sent.size());
            player.pKeyboard->Unplug(false);
        }
        m_totals.uKeyboards = static_cast<unsigned>(m_players.size());
        m_totals.uLeaks = m_machine->Unload();
        m_printer.End(ullNow, m_totals);
        return m_totals.uLeaks;
    }

    const Script& m_script;
    const ReplaySetup& m_setup;
    ReplayPrinter& m_printer;
    std::deque<Player> m_players;
    std::deque<Received> m_received;
    Bytes m_spare; // its memory, for the next one
    std::deque<std::pair<unsigned, uint8_t>> m_leds;
    ReplayTotals m_totals;
    size_t m_uUntold = 0; // keyboards so far of which the input tells nothing
    uint64_t m_ullSkippedUs = 0;
    std::unique_ptr<EmuMachine> m_machine;         // its keyboards tell the members above what they receive
    std::unique_ptr<EmuApplication> m_application; // closes before the machine goes
};

} // namespace

unsigned RunReplay(const Script& script, const ReplaySetup& setup, ReplayPrinter& printer)
{
    return Replay(script, setup, printer).Run();
}
