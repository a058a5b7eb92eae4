// pcapng.h - a session as a capture that viewers open, block by block.
#pragma once

#include "session.h"
#include "usbmonrecord.h"

class PcapngWriter
{
public:
    using Sink = std::function<void(const Bytes& block)>; // takes whole blocks
    // The session's keyboards and kinds are looked up when a line tells of them; it must outlive this.
    PcapngWriter(const Session& session, Sink sink);
    void Add(const SessionLine& line);
    // The latest packet, which waits for what may still be told of it, goes out.
    void Flush();

private:
    enum Side : uint32_t { Below, Above };
    struct Pending {
        Side side = Below;
        uint64_t ullUs = 0;
        Bytes content; // empty: there is none yet
        std::vector<std::string> comments;
    };

    void Enumeration(const SessionLine& line);
    void Transfer(uint64_t ullUs, unsigned uKeyboard, const Bytes& setup, const Bytes& data);
    void Packet(Side side, const SessionLine& line, const Bytes& report);
    UsbmonRecord RecordOf(Side side, uint64_t ullUs, unsigned uKeyboard);
    void Begin(Side side, uint64_t ullUs, Bytes content);
    void Block(uint32_t ulType, const Bytes& body);

    const Session& m_session;
    const Sink m_sink;
    Pending m_pending;
    uint64_t m_ullTransfer = 0;
};
