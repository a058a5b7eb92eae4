// fakebus.h - a real keyboard's bus that does what a test wants: answers short, late, never, fails, loses the keyboard.
#pragma once

#include <host.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "tools/live/usb/bus.h"

// A keyboard of two interfaces: media keys with report ID 1, then a boot keyboard.
inline const Bytes FakeDevice = {18, 1, 0, 2, 0, 0, 0, 8, 0x3C, 0x7A, 1, 1, 0, 1, 1, 2, 0, 1};
inline const Bytes FakeConfiguration = {9,    2, 59, 0,  2,    1,  0, 0xA0, 50, 9,    4,  0, 0, 1, 3,
                                        0,    0, 0,  9,  0x21, 0,  1, 0,    1,  0x22, 23, 0, 7, 5, 0x82,
                                        3,    8, 0,  10, 9,    4,  1, 0,    1,  3,    1,  1, 0, 9, 0x21,
                                        0x11, 1, 13, 1,  0x22, 63, 0, 7,    5,  0x81, 3,  8, 0, 10};
inline const Bytes FakeMediaReport = {5, 0x0C, 9,    1, 0xA1, 1,    0x85, 1, 0x15, 0, 0x26, 0xFF, 3, 0x19,
                                      0, 0x2A, 0xFF, 3, 0x75, 0x10, 0x95, 1, 0x81, 0, 0xC0};

// What becomes of a request.
enum class Fate { Answered, Short, Late, Stalled, Failed, Never, Gone };

class FakeBus final : public UsbBus
{
public:
    using Plan = std::function<Fate(unsigned uNth, const uint8_t* pSetup)>; // the first is 1

    explicit FakeBus(Plan plan = {}) : m_Plan(std::move(plan))
    {
        m_Device = {FakeDevice, FakeConfiguration, 2};
        for (uint8_t ucNumber : {0, 1}) {
            m_Interfaces.push_back(InterfaceOf(FakeDevice, FakeConfiguration, ucNumber));
            m_Interfaces.back().report = ucNumber == 0 ? FakeMediaReport : Bytes(63, 0xC0);
        }
    }
    ~FakeBus() override { Stop(); }

    const UsbDevice& Device() const override { return m_Device; }
    const std::vector<UsbInterface>& Interfaces() const override { return m_Interfaces; }

    void Start(UsbSink& sink) override
    {
        m_pSink = &sink;
        for (int i = 0; i < 2; i++)
            m_Threads.push_back(HostStartThread([this] { HandleEvents(); }));
    }

    // What is out comes back.
    void Stop() override
    {
        {
            std::lock_guard<std::mutex> lock(m_Lock);
            m_bStopping = true;
            for (const Request& request : m_Out)
                AnswerLocked(request, Outcome::Cancelled, {});
            m_Out.clear();
        }
        m_Came.notify_all();
        for (HostThread thread : std::exchange(m_Threads, {}))
            HostJoinThread(thread);
    }

    void Recover(unsigned) override { ++uRecovered; }

    bool Send(unsigned uInterface, ULONG_PTR ulTicket, const uint8_t* pSetup, const Bytes& data) override
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        if (m_bStopping || m_bGone)
            return false;
        const Request request{uInterface, ulTicket,
                              std::chrono::steady_clock::now() + std::chrono::seconds(1)};
        m_setup.assign(pSetup, pSetup + 8);
        m_output = data;
        const Fate fate = m_Plan ? m_Plan(++m_uRequests, pSetup) : Fate::Answered;
        Bytes answer = AnswerOf(uInterface, pSetup);
        switch (fate) {
        case Fate::Never:
            m_Out.push_back(request);
            break;
        case Fate::Gone:
            m_Out.push_back(request);
            LoseLocked();
            break;
        case Fate::Stalled:
        case Fate::Failed:
            AnswerLocked(request, fate == Fate::Stalled ? Outcome::Stalled : Outcome::Failed, {});
            break;
        default:
            answer.resize(fate == Fate::Short ? answer.size() / 2 : answer.size());
            AnswerLocked(request, Outcome::Ok, answer, fate == Fate::Late ? 30 : 0);
        }
        return true;
    }

    void GiveUp(unsigned uInterface, ULONG_PTR ulTicket) override
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        for (size_t i = 0; i < m_Out.size(); i++)
            if (m_Out[i].uInterface == uInterface && m_Out[i].ulTicket == ulTicket) {
                AnswerLocked(m_Out[i], Outcome::Cancelled, {});
                m_Out.erase(m_Out.begin() + static_cast<long>(i));
                return;
            }
    }

    void Report(unsigned uInterface, const Bytes& report)
    {
        Tell([=] { m_pSink->Report(uInterface, report); });
    }
    void FailRead(unsigned uInterface)
    {
        Tell([=] { m_pSink->Failed(uInterface); });
    }
    // The keyboard is pulled out.
    void Lose()
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        LoseLocked();
    }

    // The latest request's setup packet, and what went out with it.
    Bytes LastSetup()
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        return m_setup;
    }
    Bytes LastOutput()
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        return m_output;
    }

    std::atomic<unsigned> uRecovered{0};

private:
    struct Request {
        unsigned uInterface;
        ULONG_PTR ulTicket;
        std::chrono::steady_clock::time_point due; // then the bus gives up
    };
    struct Event {
        std::function<void()> what;
        int iDelayMs;
    };

    Bytes AnswerOf(unsigned uInterface, const uint8_t* pSetup) const
    {
        const Bytes languages = {4, 3, 9, 4}, text = {10, 3, 'F', 0, 'a', 0, 'k', 0, 'e', 0};
        Bytes answer = pSetup[1] != 6      ? Bytes(8)
                       : pSetup[3] == 1    ? FakeDevice
                       : pSetup[3] == 2    ? FakeConfiguration
                       : pSetup[3] == 3    ? (pSetup[2] == 0 ? languages : text)
                       : pSetup[3] == 0x22 ? m_Interfaces[uInterface].report
                                           : Bytes();
        answer.resize(std::min<size_t>(answer.size(), static_cast<size_t>(pSetup[6] | pSetup[7] << 8)));
        return answer;
    }

    void Tell(std::function<void()> what, int iDelayMs = 0)
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        TellLocked(std::move(what), iDelayMs);
    }
    void TellLocked(std::function<void()> what, int iDelayMs)
    {
        m_Events.push_back({std::move(what), iDelayMs});
        m_Came.notify_one();
    }
    void AnswerLocked(const Request& request, Outcome outcome, const Bytes& data, int iDelayMs = 0)
    {
        TellLocked([=] { m_pSink->Answer(request.uInterface, request.ulTicket, outcome, data); }, iDelayMs);
    }
    void LoseLocked()
    {
        m_bGone = true;
        for (const Request& request : m_Out)
            AnswerLocked(request, Outcome::Gone, {});
        m_Out.clear();
        TellLocked([this] { m_pSink->Gone(); }, 0);
    }

    void GiveUpLate()
    {
        while (!m_Out.empty() && m_Out.front().due <= std::chrono::steady_clock::now()) {
            AnswerLocked(m_Out.front(), Outcome::Failed, {});
            m_Out.erase(m_Out.begin());
        }
    }

    // As the real one's: two threads that take turns.
    void HandleEvents()
    {
        for (bool bEnd = false; !bEnd;) {
            {
                std::lock_guard<std::mutex> turn(m_Turn);
                std::unique_lock<std::mutex> lock(m_Lock);
                m_Came.wait_for(lock, std::chrono::milliseconds(20),
                                [this] { return m_bStopping || !m_Events.empty(); });
                GiveUpLate();
                if (!m_Events.empty()) {
                    const Event event = std::move(m_Events.front());
                    m_Events.pop_front();
                    lock.unlock();
                    std::this_thread::sleep_for(std::chrono::milliseconds(event.iDelayMs));
                    event.what();
                    lock.lock();
                }
                bEnd = m_bStopping && m_Events.empty();
            }
            m_pSink->Round();
        }
    }

    const Plan m_Plan;
    UsbDevice m_Device;
    std::vector<UsbInterface> m_Interfaces;
    UsbSink* m_pSink = nullptr;
    std::vector<HostThread> m_Threads;
    std::mutex m_Turn;
    std::mutex m_Lock; // guards what follows
    std::condition_variable m_Came;
    std::deque<Event> m_Events;
    std::vector<Request> m_Out;
    Bytes m_setup = Bytes(8), m_output;
    unsigned m_uRequests = 0;
    bool m_bGone = false, m_bStopping = false;
};
