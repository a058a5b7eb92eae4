// guardian.cpp - finds, opens, watches, gives back.
//
//   searching ── the keyboard is there ──► guarding ── PulledOut ──► searching
//   guarding or searching ── signal, panic, no beat ──► ending ── the worker is over ──► given back
#include "guardian.h"
#include "giveback.h"
#include "rights.h"

#include "tools/common/failure.h"
#include "tools/live/usb/uevents.h"
#include "tools/verbs.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds FirstBeat{10000}; // the driver is loaded, the keyboard asked what it is
constexpr milliseconds NextBeat{500};
constexpr milliseconds LastWait{
    200}; // where the whole machine stood still, as in its sleep, a beat comes at once
constexpr milliseconds OwnDelay{
    100}; // who comes later than that was held up as the worker was: the machine stood still
constexpr milliseconds EndInOrder{3000}; // then it is ended by force
constexpr milliseconds EndInPanic{300};
constexpr milliseconds LookAgain{250}; // the system's rules may come later than the device
constexpr int LongWaitMs = 3600000;

void Say(const std::string& text)
{
    fmt::print(stderr, "tvusb: {}\n", text);
}

class Guardian
{
public:
    Guardian(const GuardOptions& options, const GuardedWork& work)
        : m_Options(options), m_Work(work), m_Wish(options.device)
    {
    }

    int Run()
    {
        if (!m_Options.user.empty())
            m_User = FindUser(m_Options.user);
        BlockSignals();
        if (!TakeFirst())
            return ExitGood;
        auto [own, workers] = GuardChannel::Make();
        m_pWorker = &own;
        StartWorker(own, workers);
        workers = {}; // so that its end is seen
        Hand();
        Watch();
        GiveBackKeyboard();
        return m_iStatus;
    }

private:
    void BlockSignals()
    {
        sigset_t signals;
        sigemptyset(&signals);
        for (int iSignal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD})
            sigaddset(&signals, iSignal);
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        m_iSignals = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    }

    // Waits for the keyboard when that is wished, and refuses what must not be taken. False: a signal came first.
    bool TakeFirst()
    {
        while (m_Options.bWait && MeantOf(FindUsbKeyboards(), m_Wish).empty()) {
            Sleep(LookAgain);
            for (signalfd_siginfo signal; read(m_iSignals, &signal, sizeof(signal)) == sizeof(signal);)
                if (signal.ssi_signo != SIGHUP)
                    return false;
        }
        m_Keyboard.found = ChooseKeyboard(FindUsbKeyboards(), m_Wish);
        RefuseTheOnlyOne();
        if (std::string why = Open(); !why.empty())
            throw InputError(why);
        m_Wish = fmt::format("{:04x}:{:04x}", m_Keyboard.found.usVendor, m_Keyboard.found.usProduct);
        return true;
    }

    void RefuseTheOnlyOne() const
    {
        const UsbFound& found = m_Keyboard.found;
        if (m_Options.bYes || !IsOnlyKeyboard(found))
            return;
        std::string back;
        for (uint8_t ucInterface : found.interfaces)
            back +=
                fmt::format("\n    echo {}:1.{} > /sys/bus/usb/drivers/usbhid/bind", found.name, ucInterface);
        throw InputError(
            fmt::format("{} is the only keyboard of this machine's terminal; --yes takes it all "
                        "the same. It comes back with Ctrl+C, "
                        "with {} held together, and whenever this program ends. If it should "
                        "not, plug it in anew, from elsewhere call tvusb live --give-back, or as root:{}",
                        WordsOf(found), m_Options.panic, back));
    }

    // Opens the node and, where it is wished, a /dev/uhid for each interface. Returns why that failed, or "".
    std::string Open()
    {
        auto why = [&](const std::string& path) {
            std::string text =
                fmt::format("{}: {}; docs/live.md tells how rights are given", path, strerror(errno));
            m_Keyboard.Close();
            return text;
        };
        m_Keyboard.iNode = open(m_Keyboard.found.node.c_str(), O_RDWR | O_CLOEXEC);
        if (m_Keyboard.iNode < 0)
            return why(m_Keyboard.found.node);
        for (size_t i = 0; m_Options.bUhid && i < m_Keyboard.found.interfaces.size(); i++) {
            m_Keyboard.uhids.push_back(open("/dev/uhid", O_RDWR | O_CLOEXEC));
            if (m_Keyboard.uhids.back() < 0)
                return why("/dev/uhid");
        }
        return "";
    }

    // The worker ends in order when this process is killed. The change of the user comes first, as it undoes that.
    void StartWorker(GuardChannel& own, GuardChannel& workers)
    {
        const pid_t self = getpid();
        fflush(nullptr);
        m_Pid = fork();
        if (m_Pid < 0)
            throw std::runtime_error(std::string("no worker: ") + strerror(errno));
        if (m_Pid != 0) {
            DropRights(!m_Options.user.empty());
            return;
        }
        int iStatus = ExitFailed;
        try {
            own = {};
            m_Keyboard.Close(); // it comes by the channel
            close(m_iSignals);
            if (!m_Options.user.empty())
                BecomeUser(m_User);
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            DropRights(false);
            iStatus = getppid() == self ? m_Work(workers) : ExitFailed;
        } catch (const std::exception& error) {
            Say(error.what());
        }
        fflush(nullptr);
        _exit(iStatus);
    }

    // The worker gets the keyboard. Copies of /dev/uhid that stay open would keep the HID device, and its keys, down.
    void Hand()
    {
        m_pWorker->TellKeyboard(m_Keyboard);
        m_Keyboard.CloseUhids();
        m_Deadline = Clock::now() + FirstBeat;
    }

    void Watch()
    {
        while (m_Pid > 0) {
            pollfd waits[] = {{m_iSignals, POLLIN, 0},
                              {m_pWorker->Socket(), POLLIN, 0},
                              {IsSearching() ? m_Uevents.Socket() : -1, POLLIN, 0}};
            poll(waits, 3, WaitMs());
            if (waits[2].revents != 0)
                m_Uevents.Take();
            HearWorker(); // first, what it said before it ended
            HearSignals();
            if (auto late = Clock::now() - m_Deadline; m_Pid > 0 && late >= Clock::duration::zero())
                TooLate(late);
            if (m_Pid > 0 && IsSearching())
                Search();
            if (waits[1].revents & POLLHUP)
                Sleep(milliseconds(1)); // its end follows
        }
    }

    bool IsSearching() const { return !m_bEnding && m_Keyboard.iNode < 0; }

    int WaitMs() const
    {
        if (IsSearching())
            return static_cast<int>(LookAgain.count());
        auto left = std::chrono::duration_cast<milliseconds>(m_Deadline - Clock::now()).count() + 1;
        return static_cast<int>(std::clamp<long>(left, 0, LongWaitMs));
    }

    void HearWorker()
    {
        for (GuardWord word; m_pWorker->Take(&word);) {
            if (word == GuardWord::Beat && !m_bEnding) {
                m_Deadline = Clock::now() + NextBeat;
                m_bOverdue = false;
            }
            if (word == GuardWord::Panic && !m_bEnding) {
                Say("the panic chord ends it");
                m_bPanic = true;
                EndWorker(EndInPanic);
            }
            if (word == GuardWord::PulledOut) {
                m_Keyboard.Close();
                m_Deadline = m_bEnding ? m_Deadline : Clock::time_point::max();
            }
        }
    }

    void HearSignals()
    {
        for (signalfd_siginfo signal; read(m_iSignals, &signal, sizeof(signal)) == sizeof(signal);) {
            if (signal.ssi_signo == SIGHUP)
                kill(m_Pid, SIGHUP);
            else if (signal.ssi_signo != SIGCHLD && !m_bEnding)
                EndWorker(EndInOrder);
        }
        int iStatus = 0;
        if (waitpid(m_Pid, &iStatus, WNOHANG) != m_Pid)
            return;
        m_Pid = 0;
        if (WIFSIGNALED(iStatus) && !m_bEnding)
            Say(fmt::format("the worker was ended by signal {}", WTERMSIG(iStatus)));
        bool bGood = m_bEnding || (WIFEXITED(iStatus) && WEXITSTATUS(iStatus) == ExitGood);
        if (WIFEXITED(iStatus) && WEXITSTATUS(iStatus) != ExitGood)
            bGood = false; // it told why
        m_iStatus = bGood && !m_bHung ? ExitGood : ExitFailed;
    }

    void EndWorker(milliseconds patience)
    {
        m_bEnding = true;
        kill(m_Pid, SIGTERM);
        m_Deadline = Clock::now() + patience;
    }

    void TooLate(Clock::duration late)
    {
        if (!m_bEnding && (late > OwnDelay || !m_bOverdue)) {
            m_bOverdue = late <= OwnDelay;
            m_Deadline = Clock::now() + (m_bOverdue ? LastWait : NextBeat);
            return;
        }
        if (!m_bPanic && !m_bHung) {
            Say("the worker hangs, and is ended");
            m_bHung = true;
        }
        m_bEnding = true;
        kill(m_Pid, SIGKILL);
        m_Deadline = Clock::now() + EndInOrder;
    }

    // The keyboard that was pulled out, or its twin, comes back.
    void Search()
    {
        for (const UsbFound& found : MeantOf(FindUsbKeyboards(), m_Wish)) {
            m_Keyboard.found = found;
            if (Open().empty())
                return Hand();
        }
    }

    void GiveBackKeyboard()
    {
        const UsbFound& found = m_Keyboard.found;
        if (m_Keyboard.iNode >= 0 &&
            !GiveBack(m_Keyboard.iNode, found.interfaces.data(), found.interfaces.size()))
            Say(fmt::format("{} may not be the system's again: plug it in anew", WordsOf(found)));
        m_Keyboard.Close();
    }

    static void Sleep(milliseconds time) { usleep(static_cast<useconds_t>(time.count() * 1000)); }

    const GuardOptions& m_Options;
    const GuardedWork& m_Work;
    std::string m_Wish;
    UserIds m_User{};
    Uevents m_Uevents;
    int m_iSignals = -1;
    OpenKeyboard m_Keyboard;
    const GuardChannel* m_pWorker = nullptr;
    pid_t m_Pid = 0;
    Clock::time_point m_Deadline = Clock::time_point::max();
    bool m_bOverdue = false; // a beat did not come
    bool m_bEnding = false, m_bPanic = false, m_bHung = false;
    int m_iStatus = ExitFailed;
};

} // namespace

int Guard(const GuardOptions& options, const GuardedWork& work)
{
    return Guardian(options, work).Run();
}

int GiveBackOnly(const std::string& device)
{
    const UsbFound found = ChooseKeyboard(FindUsbKeyboards(), device);
    const int iNode = open(found.node.c_str(), O_RDWR | O_CLOEXEC);
    if (iNode < 0)
        throw InputError(fmt::format("{}: {}", found.node, strerror(errno)));
    GiveBack(iNode, found.interfaces.data(), found.interfaces.size());
    close(iNode);
    const bool bBack = IsSystems(found);
    Say(WordsOf(found) + (bBack ? " is the system's" : " is another program's, or nobody's"));
    return bBack ? ExitGood : ExitFailed;
}
