// events.h - being told: event objects, and the two kinds of queue that they announce.
//
// An event only says that there is something to ask for; the records wait in the driver's queue, which holds
// 1024 and drops what comes when it is full.
#pragma once

#include "client/channel.h"

namespace tvusb
{
// An event object of this process; closed with the object. Setting it is the driver's part.
class Event
{
public:
    Event() = default; // none
    ~Event() { Close(); }
    Event(Event&& other) noexcept;
    Event& operator=(Event&& other) noexcept;

    // Makes one. Fails: NotOpen when the channel was moved from, InsufficientResources.
    static Result<Event> Make(const Channel& channel);

    // Waits at most ulTimeoutMs milliseconds; WAIT_FOREVER has no end. Gives Success when it was set (which
    // resets it) or Timeout. Fails: NotOpen for none, Cancelled when the process ends.
    Status Wait(uint32_t ulTimeoutMs) const;
    void Close();
    uint64_t Handle() const { return m_hEvent; } // 0: none

private:
    Channel m_Channel;
    uint64_t m_hEvent = 0;
};

// The codes of a queue's requests.
struct QueueCodes {
    uint32_t ulRegister, ulRelease, ulCount, ulClear, ulPeek, ulTake, ulTakeMany;
};

template <class Record> class Listener;

// A queue of the driver: a keyboard's events (Record is NotifyRecord) or the macro records (MacroRecord).
// For events every call fails with Unsuccessful when the keyboard is gone, but TakeMany, which gives none.
template <class Record> class RecordQueue
{
public:
    RecordQueue(Channel channel, uint32_t ulIndex, const QueueCodes& codes)
        : m_Channel(std::move(channel)), m_ulIndex(ulIndex), m_Codes(codes)
    {
    }

    // The event is set with every new record. One at a time. Fails: Unsuccessful, one is registered already.
    Status Register(const Event& event) const;
    // Fails: Unsuccessful, none is registered. Closing the driver's last handle releases it as well.
    Status Release() const;
    // How many records wait.
    Result<uint32_t> Count() const;
    // Drops them.
    Status Clear() const;
    // The oldest one; Take removes it. Fails: Unsuccessful, there is none.
    Result<Record> Peek() const;
    Result<Record> Take() const;
    // Takes up to usCount, oldest first; fewer come when fewer are queued.
    Result<std::vector<Record>> TakeMany(uint16_t usCount) const;
    // Takes all.
    Result<std::vector<Record>> TakeAll() const;
    // The same. Fails: KeyboardGone when nothing will come any more.
    Result<std::vector<Record>> TakeOrGone() const;
    // Registers an event of its own, for as long as the listener lives. Fails: as Register.
    Result<Listener<Record>> Listen() const;

private:
    Channel m_Channel;
    uint32_t m_ulIndex;
    QueueCodes m_Codes;
};

// A queue with its event: waits for records and takes them. Its end releases the registration.
template <class Record> class Listener
{
public:
    Listener() = default; // of nothing
    Listener(RecordQueue<Record> queue, Event event);
    ~Listener() { Stop(); }
    Listener(Listener&&) noexcept = default;
    Listener& operator=(Listener&& other) noexcept;

    // Gives what is queued, or waits for it at most ulTimeoutMs milliseconds. Empty: nothing came in time.
    // Fails: KeyboardGone within a second when the keyboard was removed (of macro records: every keyboard), which
    // the system does not before a registered application event was heard, or 5 seconds; NotOpen for none.
    Result<std::vector<Record>> Wait(uint32_t ulTimeoutMs) const;
    // Releases the registration and closes the event.
    void Stop();

private:
    RecordQueue<Record> m_Queue{Channel(), 0, {}};
    Event m_Event;
};

using NotifyQueue = RecordQueue<NotifyRecord>;
using MacroQueue = RecordQueue<MacroRecord>;
using NotifyListener = Listener<NotifyRecord>;
using MacroListener = Listener<MacroRecord>;
} // namespace tvusb
