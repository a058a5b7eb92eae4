// peer.cpp - reads a process's frames and does for it what they ask.
#include "peer.h"

#include "client/host_transport.h"
#include "client/status.h"
#include "sys/control/requests.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>

using tvusb::Frame;
using tvusb::FrameKind;
using tvusb::Status;

Peer::Peer(int iSocket, int iWake, const PeerReload& reload, int iPatienceMs)
    : Caller(iSocket, iWake, iPatienceMs), m_Reload(reload)
{
    timeval patience = {iPatienceMs / 1000, iPatienceMs % 1000 * 1000};
    setsockopt(iSocket, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
    Start();
}

Peer::~Peer()
{
    Stop();
}

void Peer::End()
{
    Caller::End();
    EndWaiters();
}

void Peer::EndWaiters()
{
    std::lock_guard<std::mutex> lock(m_Lock);
    for (auto& waiter : m_Waiters)
        HostEndThreadWaits(waiter->Thread);
}

// The driver hears of the close when nobody waits any more.
void Peer::Serve()
{
    Frame head;
    Bytes body;
    if (TakeFrame(&head, &body) && (head.Kind == FrameKind::Reload ? Reload(head) : Open(head)))
        while (TakeFrame(&head, &body) && Answer(head, body))
            JoinWaiters(false);
    EndConnection(); // no wait begins any more
    EndWaiters();
    JoinWaiters(true);
    m_Events.clear();
    if (m_Driver)
        m_Driver->Close();
}

bool Peer::TakeFrame(Frame* pHead, Bytes* pBody)
{
    if (!Take(pHead, sizeof(*pHead), m_Driver != nullptr) || pHead->ulBytes > tvusb::FRAME_MOST)
        return false;
    pBody->resize(pHead->ulBytes);
    return Take(pBody->data(), pBody->size(), false);
}

bool Peer::Put(const Frame& request, uint32_t ulStatus, uint32_t ulMore, const Bytes& body)
{
    Frame head = {static_cast<uint32_t>(body.size()), FrameKind::Answer, request.ulTag, ulStatus, ulMore};
    Bytes bytes(sizeof(head));
    memcpy(bytes.data(), &head, sizeof(head));
    bytes.insert(bytes.end(), body.begin(), body.end());
    std::lock_guard<std::mutex> lock(m_WriteLock);
    for (size_t done = 0; done < bytes.size();) {
        ssize_t sent = send(Socket(), bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent <= 0 && errno != EINTR) {
            shutdown(Socket(), SHUT_RDWR); // an answer that nobody takes
            return false;
        }
        done += sent > 0 ? static_cast<size_t>(sent) : 0;
    }
    return true;
}

// A connection for this alone.
bool Peer::Reload(const Frame& head)
{
    if (head.ulValue != tvusb::FRAME_VERSION || !m_Reload)
        return false;
    std::string words;
    uint32_t ulStatus = m_Reload(&words) ? Status::Success : Status::InvalidParameter;
    Put(head, ulStatus, 0, Bytes(words.begin(), words.end()));
    return false;
}

bool Peer::Open(const Frame& head)
{
    if (head.Kind != FrameKind::Open || head.ulValue != tvusb::FRAME_VERSION || head.ulMore > 1)
        return false;
    m_b32 = head.ulMore == 1;
    m_Driver = tvusb::HostTransport(m_b32 ? tvusb::ProcessSize::Bits32 : tvusb::ProcessSize::Bits64);
    uint32_t ulStatus = m_Driver->Open();
    return Put(head, ulStatus, 0) && Status(ulStatus).Ok();
}

bool Peer::Answer(const Frame& head, Bytes& body)
{
    switch (head.Kind) {
    case FrameKind::Control:
        return head.ulMore <= tvusb::FRAME_MOST && Control(head, body);
    case FrameKind::NewEvent:
        return NewEvent(head);
    case FrameKind::WaitEvent:
        return Wait(head);
    case FrameKind::FreeEvent:
        return FreeEvent(head);
    case FrameKind::Interfaces:
        return Interfaces(head);
    default:
        return false;
    }
}

// An event's number means what it means in this process: the driver gets the host's handle for it. A number of
// nothing becomes a handle of nothing, so that no process reaches another's events.
void Peer::OwnHandle(uint32_t ulCode, Bytes& in) const
{
    bool bHandle = ulCode == IOCTL_TVUSB_REGISTER_NOTIFY_EVENT ||
                   ulCode == IOCTL_TVUSB_REGISTER_MACRO_EVENT ||
                   ulCode == IOCTL_TVUSB_REGISTER_APPLICATION_EVENT;
    size_t at = m_b32 ? offsetof(ControlRequest32, Payload) : offsetof(ControlRequest64, hEvent);
    size_t bytes = m_b32 ? 4 : 8;
    if (!bHandle || in.size() < at + bytes)
        return;
    uint64_t ullEvent = 0;
    memcpy(&ullEvent, &in[at], bytes);
    constexpr uint64_t Nothing = 0x7FFFFFF0;
    auto found = ullEvent <= UINT32_MAX ? m_Events.find(static_cast<uint32_t>(ullEvent)) : m_Events.end();
    uint64_t hEvent = found != m_Events.end() ? found->second->hEvent : ullEvent == 0 ? 0 : Nothing;
    memcpy(&in[at], &hEvent, bytes);
}

bool Peer::Control(const Frame& head, Bytes& in)
{
    OwnHandle(head.ulValue, in);
    Bytes out(head.ulMore);
    uint32_t ulReported = 0;
    uint32_t ulStatus = m_Driver->Send(head.ulValue, in.data(), static_cast<uint32_t>(in.size()), out.data(),
                                       head.ulMore, &ulReported);
    out.resize(std::min(ulReported, head.ulMore));
    return Put(head, ulStatus, ulReported, out);
}

bool Peer::NewEvent(const Frame& head)
{
    uint64_t hEvent = m_Events.size() < PeerMostEvents ? m_Driver->NewEvent() : 0;
    if (hEvent == 0)
        return Put(head, Status::InsufficientResources, 0);
    uint32_t ulEvent = m_ulNextEvent;
    m_ulNextEvent += 4;
    m_Events[ulEvent] = std::shared_ptr<Event>(new Event{*m_Driver, hEvent});
    return Put(head, Status::Success, ulEvent);
}

// A look at an event is answered at once, a wait by a thread of its own.
bool Peer::Wait(const Frame& head)
{
    auto found = m_Events.find(head.ulValue);
    if (found == m_Events.end())
        return Put(head, Status::InvalidHandle, 0);
    std::shared_ptr<Event> event = found->second;
    if (head.ulMore == 0)
        return Put(head, m_Driver->WaitEvent(event->hEvent, 0), 0);
    std::lock_guard<std::mutex> lock(m_Lock);
    if (Ending())
        return false;
    if (m_Waiters.size() >= PeerMostWaits)
        return Put(head, Status::InsufficientResources, 0);
    m_Waiters.push_back(std::make_unique<Waiter>());
    Waiter* pWaiter = m_Waiters.back().get();
    pWaiter->Thread = HostStartThread([this, head, pWaiter, event]() mutable {
        Put(head, m_Driver->WaitEvent(event->hEvent, head.ulMore), 0);
        event.reset();
        pWaiter->bDone = true;
    });
    return true;
}

bool Peer::FreeEvent(const Frame& head)
{
    bool bThere = m_Events.erase(head.ulValue) != 0;
    return Put(head, bThere ? Status::Success : Status::InvalidHandle, 0);
}

bool Peer::Interfaces(const Frame& head)
{
    Bytes body;
    for (const std::u16string& name : m_Driver->ListInterfaces()) {
        const auto* pBytes = reinterpret_cast<const uint8_t*>(name.c_str());
        body.insert(body.end(), pBytes, pBytes + (name.size() + 1) * sizeof(char16_t));
    }
    return Put(head, Status::Success, 0, body);
}

void Peer::JoinWaiters(bool bAll)
{
    std::vector<std::unique_ptr<Waiter>> ended;
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        for (auto& waiter : m_Waiters)
            if (bAll || waiter->bDone)
                ended.push_back(std::move(waiter));
        m_Waiters.erase(std::remove(m_Waiters.begin(), m_Waiters.end(), nullptr), m_Waiters.end());
    }
    for (auto& waiter : ended)
        HostJoinThread(waiter->Thread);
}
