// worker.cpp - waits for keyboards, for signals, and for the end of a keyboard.
//
// Ending takes a moment that may become long when something hangs. A last resort then gives the keyboard back from the
// alarm's handler: the guardian, who would see to it, may be the one that is gone.
#include "worker.h"
#include "filtered.h"
#include "guard/giveback.h"
#include "usb/keyboard.h"

#include "tools/verbs.h"

#include <fmt/format.h>

#include <algorithm>
#include <csignal>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace
{

constexpr unsigned EndSeconds = 2;
// A keyboard that was had before may be refused at first: when the machine wakes up the kernel takes it as well.
constexpr unsigned MostRefused = 20;

// What the last resort gives back. Set while no alarm is due.
int iNodeOfLastResort = -1;
uint8_t aucOfLastResort[32];
size_t cOfLastResort;

void LastResort(int)
{
    GiveBack(iNodeOfLastResort, aucOfLastResort, cOfLastResort);
    _exit(ExitFailed);
}

class Worker
{
public:
    Worker(const LiveArguments& arguments, GuardChannel& guardian)
        : m_Guardian(guardian), m_Panic(arguments.panic), m_bLatency(arguments.bLatency),
          m_Service(arguments), m_iOver(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    {
        sigset_t signals;
        sigemptyset(&signals);
        for (int iSignal : {SIGINT, SIGTERM, SIGHUP})
            sigaddset(&signals, iSignal);
        m_iSignals = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
        signal(SIGALRM, LastResort);
    }

    ~Worker()
    {
        Release();
        close(m_iSignals);
        close(m_iOver);
    }

    int Run()
    {
        while (!m_bEnd) {
            pollfd waits[] = {
                {m_iSignals, POLLIN, 0}, {m_Guardian.Socket(), POLLIN, 0}, {m_iOver, POLLIN, 0}};
            poll(waits, 3, -1);
            if (waits[2].revents != 0)
                TakeOver();
            if (waits[0].revents != 0)
                TakeSignals();
            if (!m_bEnd && waits[1].revents != 0)
                TakeKeyboard();
        }
        alarm(EndSeconds);
        Release();
        int iStatus = m_Service.End();
        alarm(0);
        if (m_bLatency)
            fmt::print(stderr, "tvusb: {}\n", m_Latency.Text().empty() ? "no reports" : m_Latency.Text());
        return m_bFailed ? ExitFailed : iStatus;
    }

private:
    void TakeSignals()
    {
        for (signalfd_siginfo signal; read(m_iSignals, &signal, sizeof(signal)) == sizeof(signal);)
            if (signal.ssi_signo == SIGHUP)
                m_Service.Reload();
            else
                m_bEnd = true;
    }

    // The guardian's end of the channel closes with it, and a signal comes for that.
    void TakeKeyboard()
    {
        GuardWord word;
        OpenKeyboard keyboard;
        if (!m_Guardian.Take(&word, &keyboard)) {
            m_bEnd = true;
            return;
        }
        Release();
        m_Open = keyboard;
        iNodeOfLastResort = m_Open.iNode;
        cOfLastResort = std::min(m_Open.found.interfaces.size(), sizeof(aucOfLastResort));
        std::copy_n(m_Open.found.interfaces.begin(), cOfLastResort, aucOfLastResort);
        FilteredTold told;
        told.Panic = [this] { m_Guardian.Tell(GuardWord::Panic); };
        told.Beat = [this] { m_Guardian.Tell(GuardWord::Beat); };
        told.Over = [this](const std::string& why) { Over(why); };
        try {
            m_Keyboard = std::make_unique<FilteredKeyboard>(
                m_Service.Machine(), m_Open.found,
                std::make_unique<UsbKeyboard>(m_Open.iNode, m_Open.found.interfaces),
                FilteredAbove{&m_Open.uhids, m_Service.Exports()}, m_Panic, told,
                m_bLatency ? &m_Latency : nullptr);
        } catch (const std::runtime_error&) {
            if (!IsThere(m_Open.found))
                return PulledOut();
            if (m_uRefused++ == m_uMayRefuse)
                throw;
            return LookAgain();
        }
        m_uRefused = 0;
        m_uMayRefuse = MostRefused;
        fmt::print(stderr, "tvusb: live: {}{}\n", WordsOf(m_Open.found),
                   m_Service.Exports() ? ", offered as 1-1" : "");
    }

    // The system may learn a moment later than the bus that a keyboard is gone.
    static bool IsThere(const UsbFound& wanted)
    {
        auto isIt = [&](const UsbFound& found) { return found.node == wanted.node; };
        for (int i = 0; i < 10; i++) {
            const std::vector<UsbFound> all = FindUsbKeyboards();
            if (std::none_of(all.begin(), all.end(), isIt))
                return false;
            usleep(20000);
        }
        return true;
    }

    void PulledOut()
    {
        fmt::print(stderr, "tvusb: {} was pulled out\n", WordsOf(m_Open.found));
        LookAgain();
    }

    // The guardian finds it, or its twin, again. It is told first: it waits for no beat then, and the kernel may take its
    // time with a keyboard that is released.
    void LookAgain()
    {
        m_Guardian.Tell(GuardWord::PulledOut);
        Release();
    }

    // From any thread.
    void Over(const std::string& why)
    {
        {
            std::lock_guard<std::mutex> lock(m_Lock);
            m_Why = why;
        }
        uint64_t ullOne = 1;
        (void)!write(m_iOver, &ullOne, sizeof(ullOne));
    }

    void TakeOver()
    {
        uint64_t ullCount;
        (void)!read(m_iOver, &ullCount, sizeof(ullCount));
        std::string why;
        {
            std::lock_guard<std::mutex> lock(m_Lock);
            why = m_Why;
        }
        if (!why.empty()) {
            fmt::print(stderr, "tvusb: {}\n", why);
            m_bEnd = m_bFailed = true;
            return;
        }
        if (m_Keyboard)
            PulledOut();
    }

    void Release()
    {
        m_Keyboard.reset();
        m_Open.Close();
    }

    GuardChannel& m_Guardian;
    const PanicChord m_Panic;
    const bool m_bLatency;
    Latency m_Latency;
    LiveService m_Service;
    int m_iSignals = -1, m_iOver;
    bool m_bEnd = false, m_bFailed = false;
    unsigned m_uRefused = 0, m_uMayRefuse = 0; // how often in a row
    std::mutex m_Lock;
    std::string m_Why; // guarded by m_Lock
    OpenKeyboard m_Open;
    std::unique_ptr<FilteredKeyboard> m_Keyboard;
};

} // namespace

int LiveWork(const LiveArguments& arguments, GuardChannel& guardian)
{
    return Worker(arguments, guardian).Run();
}
