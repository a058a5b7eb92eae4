// guest-stories - plays stories of an ordinary keyboard: its reports are written to the gadget, what the system receives is
// read from hidraw, and the application is at the control socket.
//
//   guest-stories FILE...     TVUSB_CONTROL names the socket. A line a story: 'played TITLE', 'left out: TITLE | why'
//
// All stories are played on one driver, so each ends with the keyboard released and the definitions removed. The first
// line that does not come out as told ends it all.
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "client/client.h"
#include "client/socket_transport.h"
#include "tests/stories/story.h"
#include "tests/stories/words.h"

std::unique_ptr<tvusb::Transport> tvusb::SystemTransport()
{
    return SocketTransport(ControlPath());
}

namespace
{
constexpr int LimitMs = 5000;

// Why a story is not played here: a line that begins so. Others have verbs that Player knows, or no reason at all.
const std::map<std::string, const char*> LeftOut = {
    {"setting", "settings are read when the driver is loaded"},
    {"class", "the key repeat is this kernel's own"},
    {"typematic", "the key repeat is this kernel's own"},
    {"mouse", "there are no other drivers of the family"},
    {"macro", "settings are read when the driver is loaded"},
    {"capture", "the macro mode is told to one application"},
    {"wait", "the clock is the machine's"},
    {"unplug", "the gadget stays plugged in"},
    {"pull", "the gadget stays plugged in"},
    {"answers", "the gadget answers as it does"},
    {"read", "the gadget has no memory"},
    {"size", "the gadget has no memory"},
    {"string", "its strings are others"},
    {"descriptor", "its descriptor is another"},
    {"command", "the gadget knows no commands"},
    {"keyboards", "the gadget stays plugged in"},
};

struct Failed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

void Equal(const std::string& seen, const std::string& expected, const char* pWhat)
{
    if (seen != expected) {
        throw Failed(std::string(pWhat) + ": '" + seen + "', not '" + expected + "'");
    }
}

// Asks until the answer is the expected one, or the limit is over.
void UntilEqual(const std::function<std::string()>& ask, const std::string& expected, const char* pWhat)
{
    std::string seen = ask();
    for (int i = 0; i < LimitMs && seen != expected; i++) {
        usleep(1000);
        seen = ask();
    }
    Equal(seen, expected, pWhat);
}

int Open(const std::string& path)
{
    int iFile = open(path.c_str(), O_RDWR | O_NONBLOCK);
    if (iFile < 0) {
        throw Failed(path + ": " + strerror(errno));
    }
    return iFile;
}

// The hidraw device of the filtered keyboard's interface.
int OpenFiltered(size_t interface)
{
    const std::string end = "/input" + std::to_string(interface) + "\n";
    for (int i = 0; i < 16; i++) {
        std::string name = "hidraw" + std::to_string(i), text(1024, 0);
        FILE* pFile = fopen(("/sys/class/hidraw/" + name + "/device/uevent").c_str(), "r");
        if (pFile == nullptr) {
            continue;
        }
        text.resize(fread(text.data(), 1, text.size(), pFile));
        fclose(pFile);
        if (text.find("(filtered)") != std::string::npos && text.find(end) != std::string::npos) {
            return Open("/dev/" + name);
        }
    }
    throw Failed("there is no filtered keyboard");
}

// One report that can be read now, or comes within the time.
EmuBytes ReadReport(int iFile, int iTimeoutMs)
{
    pollfd wait = {iFile, POLLIN, 0};
    EmuBytes report(64);
    poll(&wait, 1, iTimeoutMs);
    report.resize(static_cast<size_t>(std::max<ssize_t>(read(iFile, report.data(), report.size()), 0)));
    return report;
}

struct Interface {
    int iGadget, iSystem;
    tvusb::Keyboard keyboard;
    tvusb::NotifyListener listener;
    bool bOn = false; // report processing
};

class Player
{
public:
    Player()
    {
        Check(m_Driver.Open());
        auto infos = m_Driver.GetKeyboards();
        Check(infos.Error());
        for (size_t i = 0; i < infos->size(); i++) {
            auto keyboard = m_Driver.FindByIndex((*infos)[i].ulDeviceIndex);
            auto listener = keyboard->Events().Listen();
            Check(listener.Error());
            m_All.push_back(
                {Open("/dev/hidg" + std::to_string(i)), OpenFiltered(i), *keyboard, std::move(*listener)});
        }
    }

    // Why the story is not played; empty when it is.
    std::string Reason(const Story& story) const
    {
        size_t keyboards = 0;
        for (const StoryLine& line : story.Lines) {
            Parts parts = SplitParts(line.Text);
            Words words = SplitWords(parts.Left);
            if (auto found = LeftOut.find(words[0]); found != LeftOut.end()) {
                return found->second;
            }
            if (words[0] == "keyboard" && (++keyboards > 1 || words.size() > 2)) {
                return "one keyboard is there, and is read as the system likes";
            }
            if (words[0] == "keyboard" && words[1] != "normal" && words[1] != "normal+consumer") {
                return "the gadget is an ordinary keyboard with media keys";
            }
        }
        return "";
    }

    void Play(const Story& story)
    {
        for (const StoryLine& line : story.Lines) {
            try {
                PlayLine(line.Text);
            } catch (const std::exception& error) {
                throw Failed(story.File + ":" + std::to_string(line.uNumber) + ": " + line.Text + ": " +
                             error.what());
            }
        }
        try {
            End();
        } catch (const std::exception& error) {
            throw Failed(story.File + ": " + story.Title + ": at the end: " + error.what());
        }
    }

private:
    void PlayLine(const std::string& text)
    {
        Parts parts = SplitParts(text);
        Words words = SplitWords(parts.Left);
        bool bRefused = words[0] == "refused";
        words.erase(words.begin(), words.begin() + bRefused);
        Deed(words, parts, bRefused);
        if (!m_All.empty()) {
            ExpectEvents(parts.Events);
        }
    }

    void Deed(const Words& words, const Parts& parts, bool bRefused)
    {
        const std::string& verb = words.at(0);
        if (verb == "keyboard") {
            m_Current = 0;
            for (size_t i = 0; i < (words.at(1) == "normal" ? 1 : 2); i++) {
                Processing(m_All.at(i), true);
            }
        } else if (verb == "on") {
            m_Current = Number(words.at(1), 10);
        } else if (verb == "report") {
            Send(Bytes(words, 1));
            Equal(Received(), Text(Bytes(parts.Right)), "the system received");
        } else if (verb == "answer") {
            Equal(Received(), Text(Bytes(parts.Right)), "the system received");
        } else if (verb == "hotkey" || verb == "define") {
            Define(words, verb == "hotkey", bRefused);
        } else if (verb == "remove") {
            ExpectStatus(Current().keyboard.RemoveDefinition(Number32(words.at(1), 10)), bRefused);
        } else if (verb == "processing") {
            Processing(Current(), words.at(1) == "on");
        } else if (verb == "scans") {
            ExpectStatus(Current().keyboard.InsertScans(Bytes(words, 1), false), bRefused);
        } else if (verb == "packet") {
            ExpectStatus(Current().keyboard.InsertPackets({tvusb::MakeReport(Bytes(words, 1))}, false),
                         bRefused);
        } else if (verb == "modifiers") {
            UntilEqual([this] { return std::to_string(*m_Driver.GetModifiers()); },
                       std::to_string(Modifiers(words.at(1))), "the modifiers");
        } else if (verb == "led" || verb == "leds" || verb == "setled") {
            Leds(verb, words, parts);
        } else if (verb != "quiet") { // nothing follows: the next line, or the end, sees to that
            throw Failed("unknown verb");
        }
    }

    void Define(const Words& words, bool bHotkey, bool bRefused)
    {
        KeyDefinition definition = {};
        definition.ulId = Number32(words.at(1), 10);
        definition.ulType = bHotkey ? 1 : Number32(words.at(2), 10);
        definition.ulModifiers = bHotkey ? Modifiers(words.at(2)) : 0;
        for (size_t i = 3; i < words.size(); i++) {
            if (words[i] == "swallow") {
                definition.ulSwallow = 1;
            } else {
                definition.ucScans[definition.usScanCount++ % 32] =
                    static_cast<uint8_t>(Number(words[i], 16));
            }
        }
        m_Defined.emplace_back(m_Current, definition.ulId);
        ExpectStatus(Current().keyboard.AddDefinition(definition), bRefused);
    }

    // The system's LEDs go down through hidraw, with a report number 0 in front; the gadget reads what reached it.
    void Leds(const std::string& verb, const Words& words, const Parts& parts)
    {
        uint8_t ucValue = static_cast<uint8_t>(Number(words.at(1), 16));
        while (!ReadReport(Current().iGadget, 0).empty()) {
        }
        if (verb == "led") {
            const uint8_t report[] = {0, ucValue};
            (void)!write(Current().iSystem, report, sizeof report);
            Equal(Text(ReadReport(Current().iGadget, LimitMs)), Text({ucValue}), "the keyboard's LED report");
        } else if (verb == "setled") {
            ExpectStatus(Current().keyboard.SetLeds(ucValue), false);
            Equal(Text(ReadReport(Current().iGadget, LimitMs)), Text(Bytes(parts.Right)),
                  "the keyboard's LED report");
            return;
        }
        uint8_t ucFlags = verb == "led" ? Bytes(parts.Right).at(0) : ucValue;
        UntilEqual([this] { return std::to_string(*Current().keyboard.GetLeds()); }, std::to_string(ucFlags),
                   "the LEDs");
    }

    void ExpectEvents(const std::string& expected)
    {
        std::string wanted, told;
        for (const std::string& word : SplitWords(expected)) {
            wanted += (wanted.empty() ? "" : " ") + word;
        }
        UntilEqual(
            [&] {
                auto records = Current().keyboard.Events().TakeAll();
                for (const NotifyRecord& record : *records) {
                    told += (told.empty() ? "" : ", ") + EventText(record);
                }
                return told;
            },
            wanted, "events");
    }

    // A report that nothing changes comes next, and no event: so nothing else came. Then all is as before the story.
    void End()
    {
        for (size_t i = 0; i < m_All.size(); i++) {
            m_Current = i;
            Processing(Current(), false);
            for (const char* pReport : i == 0 ? Marks : MediaMarks) {
                Send(Bytes(pReport));
                Equal(Received(), Text(Bytes(pReport)), "the system also received");
            }
            ExpectEvents("");
        }
        for (auto [interface, ulId] : m_Defined) {
            (void)m_All[interface].keyboard.RemoveDefinition(ulId);
        }
        m_Defined.clear();
        m_Current = 0;
        Forget();
    }

    // A hotkey that was held when it went, a prefix key, an Escape, a cashier's last report: they are remembered until keys
    // are looked at for the same reason again.
    void Forget()
    {
        KeyDefinition keys = {};
        keys.ulType = KEYS;
        keys.ulId = 1;
        for (const KeyDefinition& own : {tvusb::MakeHotkey(1, MODIFIER_ANY_CONTROL, {0x58}, false), keys}) {
            Check(Current().keyboard.AddDefinition(own));
            Processing(Current(), true);
            for (const char* pReport : Marks) {
                Send(Bytes(pReport));
                Received();
            }
            Processing(Current(), false);
            Check(Current().keyboard.RemoveDefinition(own.ulId));
        }
        Check(Current().keyboard.Events().Clear());
    }

    Interface& Current() { return m_All.at(m_Current); }

    void Processing(Interface& interface, bool bOn)
    {
        if (interface.bOn != bOn) {
            Check(bOn ? interface.keyboard.StartProcessing() : interface.keyboard.StopProcessing());
        }
        interface.bOn = bOn;
    }

    // The gadget takes one report at a time.
    void Send(const EmuBytes& report)
    {
        pollfd wait = {Current().iGadget, POLLOUT, 0};
        if (poll(&wait, 1, LimitMs) != 1 ||
            write(Current().iGadget, report.data(), report.size()) != static_cast<ssize_t>(report.size())) {
            throw Failed("the gadget takes no report");
        }
    }

    std::string Received() { return Text(ReadReport(Current().iSystem, LimitMs)); }

    static void Check(const tvusb::Status& status)
    {
        if (!status.Ok()) {
            throw Failed(status.Text());
        }
    }

    static void ExpectStatus(const tvusb::Status& status, bool bRefused)
    {
        Equal(status.Ok() ? "done" : "refused", bRefused ? "refused" : "done", "the request was");
    }

    static constexpr uint32_t KEYS = 5; // the type of a definition by which the application gets every key
    static constexpr const char* Marks[] = {"00 00 63 00 00 00 00 00", "00 00 00 00 00 00 00 00"};
    static constexpr const char* MediaMarks[] = {"01 B8 00", "01 00 00"};

    tvusb::Driver m_Driver;
    std::vector<Interface> m_All;
    size_t m_Current = 0;
    std::vector<std::pair<size_t, uint32_t>> m_Defined; // by the story
};
} // namespace

int main(int argc, char** argv)
{
    try {
        Player player;
        for (int i = 1; i < argc; i++) {
            for (const Story& story : ReadStories(argv[i])) {
                std::string reason = player.Reason(story);
                if (reason.empty()) {
                    player.Play(story);
                    printf("played %s: %s\n", story.File.c_str(), story.Title.c_str());
                } else {
                    printf("left out: %s: %s | %s\n", story.File.c_str(), story.Title.c_str(),
                           reason.c_str());
                }
            }
        }
    } catch (const std::exception& error) {
        printf("FAILED %s\n", error.what());
        return 1;
    }
    return 0;
}
