// told.cpp - the queue of what is told, and the thread that tells it.
#include "told.h"

#include <fmt/format.h>

#include <condition_variable>
#include <csignal>
#include <deque>
#include <mutex>
#include <pthread.h>
#include <thread>
#include <utility>

struct LiveTold::State {
    Printers printers;
    size_t cRoom;
    std::mutex Lock; // guards what follows
    std::condition_variable Came, Told;
    std::deque<Line> queue;
    size_t cLeftOut = 0;
    bool bEnd = false, bOver = false;
};

LiveTold::LiveTold(Printers printers, size_t cRoom) : m_State(std::make_shared<State>())
{
    m_State->printers = std::move(printers);
    m_State->cRoom = cRoom;
    std::thread([state = m_State] { Run(state); }).detach();
}

LiveTold::~LiveTold()
{
    Finish();
}

// A reader that is gone and a file that may not grow are errors of the write, and end nothing but the write.
void LiveTold::Run(const std::shared_ptr<State>& state)
{
    sigset_t broken;
    sigemptyset(&broken);
    sigaddset(&broken, SIGPIPE);
    sigaddset(&broken, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &broken, nullptr);
    std::unique_lock<std::mutex> lock(state->Lock);
    while (!state->bEnd || !state->queue.empty()) {
        state->Came.wait(lock, [&] { return state->bEnd || !state->queue.empty(); });
        const std::deque<Line> lines = std::exchange(state->queue, {});
        lock.unlock();
        for (const Line& line : lines)
            for (auto& printer : state->printers)
                line(*printer);
        lock.lock();
    }
    state->printers.clear();
    state->bOver = true;
    state->Told.notify_all();
}

void LiveTold::Tell(Line line)
{
    {
        std::lock_guard<std::mutex> lock(m_State->Lock);
        if (m_State->queue.size() >= m_State->cRoom) {
            ++m_State->cLeftOut;
            return;
        }
        m_State->queue.push_back(std::move(line));
    }
    m_State->Came.notify_one();
}

bool LiveTold::Finish(std::chrono::milliseconds patience)
{
    if (!m_State)
        return true;
    bool bOver = false;
    {
        std::unique_lock<std::mutex> lock(m_State->Lock);
        m_State->bEnd = true;
        m_State->Came.notify_one();
        bOver = m_State->Told.wait_for(lock, patience, [&] { return m_State->bOver; });
        if (const size_t cLeft = m_State->cLeftOut + m_State->queue.size(); cLeft != 0)
            fmt::print(stderr, "tvusb: {} lines were left out, as they were not taken in time\n", cLeft);
    }
    m_State.reset();
    return bOver;
}

size_t LiveTold::LeftOut() const
{
    std::lock_guard<std::mutex> lock(m_State->Lock);
    return m_State->cLeftOut;
}

void LiveTold::Keyboard(uint64_t ullUs, unsigned uKeyboard, uint32_t ulIndex, unsigned uType,
                        const ScriptKeyboard& keyboard)
{
    Tell([=](ReplayPrinter& printer) { printer.Keyboard(ullUs, uKeyboard, ulIndex, uType, keyboard); });
}

void LiveTold::Report(uint64_t ullUs, unsigned uKeyboard, const std::optional<Bytes>& sent, const Bytes& seen)
{
    Tell([=](ReplayPrinter& printer) { printer.Report(ullUs, uKeyboard, sent, seen); });
}

void LiveTold::Led(uint64_t ullUs, unsigned uKeyboard, uint8_t ucReport)
{
    Tell([=](ReplayPrinter& printer) { printer.Led(ullUs, uKeyboard, ucReport); });
}

void LiveTold::Descriptors(uint64_t ullUs, unsigned uKeyboard, const Bytes& device,
                           const Bytes& configuration)
{
    Tell([=](ReplayPrinter& printer) { printer.Descriptors(ullUs, uKeyboard, device, configuration); });
}
