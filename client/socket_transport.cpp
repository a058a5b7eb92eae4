// socket_transport.cpp - requests go out as frames, a thread of the connection's own takes the answers in.
//
//   Send, WaitEvent, … ── frame with a tag ──► socket       m_Waiting: tag ─► who waits for it
//                      ◄── answer with the tag ── reader thread
//
// When the connection is lost the reader ends, and everybody who waits is told.
#include "client/socket_transport.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "client/frames.h"
#include "client/status.h"

namespace tvusb
{
namespace
{
uint32_t StatusOfErrno(int iError)
{
    switch (iError) {
    case ENOENT:
    case ECONNREFUSED:
    case ENAMETOOLONG:
        return Status::NameNotFound;
    case EACCES:
    case EPERM:
        return Status::AccessDenied;
    default:
        return Status::Disconnected;
    }
}

// One call that waits for its answer.
struct Call {
    bool bAnswered = false;
    Frame Head = {0, FrameKind::Answer, 0, Status::Disconnected, 0};
    std::vector<uint8_t> Body;
};

class OnSocket : public Transport
{
public:
    OnSocket(std::string Path, bool b32) : m_Path(std::move(Path)), m_b32(b32) {}
    ~OnSocket() override { Close(); }

    uint32_t Open() override
    {
        Close();
        if (int iError = Connect()) {
            return StatusOfErrno(iError);
        }
        m_Reader = std::thread([this] { Read(); });
        uint32_t ulStatus = Ask(FrameKind::Open, FRAME_VERSION, m_b32 ? 1 : 0).Head.ulValue;
        if (!Status(ulStatus).Ok()) {
            Close();
        }
        return ulStatus;
    }

    uint32_t Reload(std::string* pWords) override
    {
        Close();
        if (int iError = Connect()) {
            return StatusOfErrno(iError);
        }
        m_Reader = std::thread([this] { Read(); });
        Call call = Ask(FrameKind::Reload, FRAME_VERSION, 0);
        pWords->assign(call.Body.begin(), call.Body.end());
        Close();
        return call.Head.ulValue;
    }

    void Close() override
    {
        if (m_iSocket < 0) {
            return;
        }
        shutdown(m_iSocket, SHUT_RDWR);
        m_Reader.join();
        close(m_iSocket);
        m_iSocket = -1;
    }

    uint32_t Send(uint32_t ulCode, const void* pIn, uint32_t ulIn, void* pOut, uint32_t ulOut,
                  uint32_t* pulReported) override
    {
        *pulReported = 0;
        if (ulIn > FRAME_MOST || ulOut > FRAME_MOST) {
            return Status::InvalidParameter;
        }
        Call call = Ask(FrameKind::Control, ulCode, ulOut, pIn, ulIn);
        size_t length = std::min<size_t>(call.Body.size(), ulOut);
        if (length != 0) {
            memcpy(pOut, call.Body.data(), length);
        }
        *pulReported = call.Head.ulMore;
        return call.Head.ulValue;
    }

    bool Is32() const override { return m_b32; }

    std::vector<std::u16string> ListInterfaces() override
    {
        std::vector<uint8_t> body = Ask(FrameKind::Interfaces, 0, 0).Body;
        std::vector<std::u16string> names;
        std::u16string name;
        for (size_t i = 0; i + 1 < body.size(); i += 2) {
            auto c = static_cast<char16_t>(body[i] | body[i + 1] << 8);
            if (c != 0) {
                name += c;
            } else {
                names.push_back(std::move(name));
                name.clear();
            }
        }
        return names;
    }

    uint64_t NewEvent() override
    {
        Call call = Ask(FrameKind::NewEvent, 0, 0);
        return Status(call.Head.ulValue).Ok() ? call.Head.ulMore : 0;
    }

    uint32_t WaitEvent(uint64_t hEvent, uint32_t ulTimeoutMs) override
    {
        return Ask(FrameKind::WaitEvent, static_cast<uint32_t>(hEvent), ulTimeoutMs).Head.ulValue;
    }

    void FreeEvent(uint64_t hEvent) override { Ask(FrameKind::FreeEvent, static_cast<uint32_t>(hEvent), 0); }

private:
    // 0, or the error.
    int Connect()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        if (m_Path.size() >= sizeof(address.sun_path)) {
            return ENAMETOOLONG;
        }
        memcpy(address.sun_path, m_Path.data(), m_Path.size());
        m_iSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (m_iSocket < 0) {
            return errno;
        }
        if (connect(m_iSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            int iError = errno;
            close(m_iSocket);
            m_iSocket = -1;
            return iError;
        }
        m_bLost = false;
        return 0;
    }

    // Sends a request and waits for its answer; a lost connection gives Disconnected.
    Call Ask(FrameKind Kind, uint32_t ulValue, uint32_t ulMore, const void* pBody = nullptr,
             uint32_t ulBytes = 0)
    {
        Call call;
        std::unique_lock<std::mutex> lock(m_Lock);
        if (m_iSocket < 0 || m_bLost) {
            return call;
        }
        uint32_t ulTag = m_ulTag++;
        m_Waiting[ulTag] = &call;
        lock.unlock();
        Frame head = {ulBytes, Kind, ulTag, ulValue, ulMore};
        if (!Put(head, pBody)) {
            shutdown(m_iSocket, SHUT_RDWR); // half a frame may be out: nobody can go on
        }
        lock.lock();
        m_Answered.wait(lock, [&] { return call.bAnswered || m_bLost; });
        m_Waiting.erase(ulTag);
        return call;
    }

    bool Put(const Frame& head, const void* pBody)
    {
        std::vector<uint8_t> bytes(sizeof(head) + head.ulBytes);
        memcpy(bytes.data(), &head, sizeof(head));
        if (head.ulBytes != 0) {
            memcpy(bytes.data() + sizeof(head), pBody, head.ulBytes);
        }
        std::lock_guard<std::mutex> lock(m_WriteLock);
        for (size_t done = 0; done < bytes.size();) {
            ssize_t sent = send(m_iSocket, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (sent <= 0 && errno != EINTR) {
                return false;
            }
            done += sent > 0 ? static_cast<size_t>(sent) : 0;
        }
        return true;
    }

    bool Take(void* pTo, size_t bytes) const
    {
        for (size_t done = 0; done < bytes;) {
            ssize_t got = recv(m_iSocket, static_cast<uint8_t*>(pTo) + done, bytes - done, 0);
            if (got == 0 || (got < 0 && errno != EINTR)) {
                return false;
            }
            done += got > 0 ? static_cast<size_t>(got) : 0;
        }
        return true;
    }

    // The reader: until the connection ends, or the server says what no server says.
    void Read()
    {
        Frame head;
        while (Take(&head, sizeof(head)) && head.Kind == FrameKind::Answer && head.ulBytes <= FRAME_MOST) {
            std::vector<uint8_t> body(head.ulBytes);
            if (!Take(body.data(), body.size())) {
                break;
            }
            std::lock_guard<std::mutex> lock(m_Lock);
            auto found = m_Waiting.find(head.ulTag);
            if (found == m_Waiting.end()) {
                break;
            }
            found->second->Head = head;
            found->second->Body = std::move(body);
            found->second->bAnswered = true;
            m_Answered.notify_all();
        }
        shutdown(m_iSocket, SHUT_RDWR);
        std::lock_guard<std::mutex> lock(m_Lock);
        m_bLost = true;
        m_Answered.notify_all();
    }

    std::string m_Path;
    bool m_b32;
    int m_iSocket = -1; // changed by Open and Close alone
    std::thread m_Reader;
    std::mutex m_WriteLock; // one frame at a time
    std::mutex m_Lock;      // guards what follows
    std::condition_variable m_Answered;
    std::map<uint32_t, Call*> m_Waiting; // by tag
    uint32_t m_ulTag = 0;
    bool m_bLost = true;
};
} // namespace

std::unique_ptr<Transport> SocketTransport(std::string Path, bool b32)
{
    return std::make_unique<OnSocket>(std::move(Path), b32);
}

std::string ControlPath()
{
    const char* pPath = getenv("TVUSB_CONTROL");
    return pPath != nullptr ? pPath : "";
}
} // namespace tvusb
