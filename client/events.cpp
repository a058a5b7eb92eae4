// events.cpp - event objects, queues and listeners.
#include "client/events.h"

#include <string.h>

#include <algorithm>
#include <type_traits>

namespace tvusb
{
namespace
{
constexpr uint32_t GLANCE_MS = 500; // so often a listener looks whether its keyboard is still there

// A slot that no record was put into is zero.
bool IsFilled(const NotifyRecord& record)
{
    return record.ucValid != 0;
}

bool IsFilled(const MacroRecord& record)
{
    return record.usType != 0;
}
} // namespace

Event::Event(Event&& other) noexcept
    : m_Channel(std::move(other.m_Channel)), m_hEvent(std::exchange(other.m_hEvent, 0))
{
}

Event& Event::operator=(Event&& other) noexcept
{
    if (this != &other) {
        Close();
        m_Channel = std::move(other.m_Channel);
        m_hEvent = std::exchange(other.m_hEvent, 0);
    }
    return *this;
}

Result<Event> Event::Make(const Channel& channel)
{
    if (channel.System() == nullptr) {
        return Status(Status::NotOpen, 0, "an event object");
    }
    Event event;
    event.m_Channel = channel;
    event.m_hEvent = channel.System()->NewEvent();
    if (event.m_hEvent == 0) {
        return Status(Status::InsufficientResources, 0, "an event object");
    }
    return {std::move(event), Status::Success};
}

Status Event::Wait(uint32_t ulTimeoutMs) const
{
    return m_hEvent != 0 ? m_Channel.System()->WaitEvent(m_hEvent, ulTimeoutMs)
                         : Status(Status::NotOpen, 0, "an event object");
}

void Event::Close()
{
    if (m_hEvent != 0) {
        m_Channel.System()->FreeEvent(m_hEvent);
    }
    m_hEvent = 0;
}

template <class Record> Status RecordQueue<Record>::Register(const Event& event) const
{
    return m_Channel.SendHandle(m_Codes.ulRegister, m_ulIndex, event.Handle());
}

template <class Record> Status RecordQueue<Record>::Release() const
{
    return m_Channel.SendRecord(m_Codes.ulRelease, m_ulIndex);
}

template <class Record> Result<uint32_t> RecordQueue<Record>::Count() const
{
    return m_Channel.AskRecord<uint32_t>(m_Codes.ulCount, m_ulIndex);
}

template <class Record> Status RecordQueue<Record>::Clear() const
{
    return m_Channel.SendRecord(m_Codes.ulClear, m_ulIndex);
}

template <class Record> Result<Record> RecordQueue<Record>::Peek() const
{
    return m_Channel.AskRecord<Record>(m_Codes.ulPeek, m_ulIndex);
}

template <class Record> Result<Record> RecordQueue<Record>::Take() const
{
    return m_Channel.AskRecord<Record>(m_Codes.ulTake, m_ulIndex);
}

// Even for no record the driver wants room for one.
template <class Record> Result<std::vector<Record>> RecordQueue<Record>::TakeMany(uint16_t usCount) const
{
    std::vector<uint8_t> out(std::max<size_t>(usCount, 1) * sizeof(Record));
    Status status = m_Channel.SendRecord(m_Codes.ulTakeMany, m_ulIndex, BytesOf(usCount), &out);
    std::vector<Record> records;
    for (size_t at = 0; status.Ok() && at + sizeof(Record) <= out.size(); at += sizeof(Record)) {
        Record record;
        memcpy(&record, out.data() + at, sizeof(record));
        if (IsFilled(record)) {
            records.push_back(record);
        }
    }
    return {std::move(records), status};
}

template <class Record> Result<std::vector<Record>> RecordQueue<Record>::TakeAll() const
{
    Result<uint32_t> count = Count();
    if (!count) {
        return count.Error();
    }
    return *count == 0 ? Result<std::vector<Record>>({}, count.Error())
                       : TakeMany(static_cast<uint16_t>(*count));
}

// A keyboard's queue goes with it. The macro queue stays, but when no keyboard is left nothing comes any more.
template <class Record> Result<std::vector<Record>> RecordQueue<Record>::TakeOrGone() const
{
    Result<std::vector<Record>> records = TakeAll();
    if (records.Error() == Status::Unsuccessful) {
        return Status::OfRequest(Status::KeyboardGone, m_Codes.ulCount, m_ulIndex);
    }
    if (std::is_same_v<Record, MacroRecord> && records && records->empty()) {
        auto count = m_Channel.Ask<uint16_t>(IOCTL_TVUSB_GET_KEYBOARD_COUNT);
        if (count && *count == 0) {
            return Status(Status::KeyboardGone, m_Codes.ulCount, "every keyboard");
        }
    }
    return records;
}

template <class Record> Result<Listener<Record>> RecordQueue<Record>::Listen() const
{
    Result<Event> event = Event::Make(m_Channel);
    if (!event) {
        return event.Error();
    }
    Status status = Register(*event);
    if (!status.Ok()) {
        return status;
    }
    return {Listener<Record>(*this, std::move(*event)), status};
}

template <class Record>
Listener<Record>::Listener(RecordQueue<Record> queue, Event event)
    : m_Queue(std::move(queue)), m_Event(std::move(event))
{
}

template <class Record> Listener<Record>& Listener<Record>::operator=(Listener&& other) noexcept
{
    if (this != &other) {
        Stop();
        m_Queue = std::move(other.m_Queue);
        m_Event = std::move(other.m_Event);
    }
    return *this;
}

// What the event was set for may have been taken meanwhile, so it is reset before the queue is looked at. Nothing
// sets it when the keyboard goes: the queue is asked again and again.
template <class Record> Result<std::vector<Record>> Listener<Record>::Wait(uint32_t ulTimeoutMs) const
{
    (void)m_Event.Wait(0);
    Result<std::vector<Record>> records = m_Queue.TakeOrGone();
    while (records && records->empty()) {
        uint32_t ulMs = std::min(ulTimeoutMs, GLANCE_MS);
        Status status = m_Event.Wait(ulMs);
        ulTimeoutMs -= ulTimeoutMs != WAIT_FOREVER ? ulMs : 0;
        if (!status.Ok()) {
            return status;
        }
        records = m_Queue.TakeOrGone();
        if (status == Status::Success || ulTimeoutMs == 0) {
            break;
        }
    }
    return records && records->empty() ? Result<std::vector<Record>>({}, Status::Timeout)
                                       : std::move(records);
}

template <class Record> void Listener<Record>::Stop()
{
    if (m_Event.Handle() != 0) {
        (void)m_Queue.Release(); // the keyboard may be gone, and its registration with it
    }
    m_Event.Close();
}

template class RecordQueue<NotifyRecord>;
template class RecordQueue<MacroRecord>;
template class Listener<NotifyRecord>;
template class Listener<MacroRecord>;
} // namespace tvusb
