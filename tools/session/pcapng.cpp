// pcapng.cpp - a session as blocks: two interfaces, with the driver between them.
//
//   interface "below", bus 1:  what the keyboards sent, and the LED reports that reached them
//   interface "above", bus 2:  what the system saw
//
// Keyboard n is device n + 1 of either bus, so filters can ask for one side by the bus or by the interface's
// name. Packets have the long usbmon header (link type 220). What was told between is a comment of the packet
// told before it, with its own time where that is another one.
#include "pcapng.h"
#include "tools/common/files.h"

#include <fmt/format.h>

namespace
{

constexpr uint32_t SectionBlock = 0x0A0D0D0A, InterfaceBlock = 1, PacketBlock = 6;
constexpr uint16_t CommentOption = 1, NameOption = 2;

void Pad(Bytes& bytes)
{
    bytes.resize((bytes.size() + 3) / 4 * 4);
}

void Append(Bytes& bytes, const Bytes& more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
}

void PutOption(Bytes& bytes, uint16_t usCode, std::string text)
{
    text.resize(std::min<size_t>(text.size(), 0xFFFF));
    PutNumber(bytes, usCode, 2);
    PutNumber(bytes, text.size(), 2);
    bytes.insert(bytes.end(), text.begin(), text.end());
    Pad(bytes);
}

constexpr unsigned Addresses = 127; // of a bus

} // namespace

PcapngWriter::PcapngWriter(const Session& session, Sink sink) : m_session(session), m_sink(std::move(sink))
{
    Bytes section;
    PutNumber(section, 0x1A2B3C4D, 4);
    PutNumber(section, 1, 4); // version 1.0
    PutNumber(section, ~0ull, 8);
    Block(SectionBlock, section);
    for (const char* pName : {"below", "above"}) {
        Bytes interface;
        PutNumber(interface, 220, 4);
        PutNumber(interface, 65535, 4);
        PutOption(interface, NameOption, pName);
        PutNumber(interface, 0, 4);
        Block(InterfaceBlock, interface);
    }
}

void PcapngWriter::Add(const SessionLine& line)
{
    if (line.kind == LineKind::Report) {
        if (line.sent)
            Packet(Below, line, *line.sent);
        Packet(Above, line, line.seen);
        if (!line.sent)
            m_pending.comments.emplace_back("answered by the driver");
        else if (*line.sent != line.seen)
            m_pending.comments.emplace_back("rewritten by the driver");
        return;
    }
    if (line.kind == LineKind::Descriptors)
        return Enumeration(line);
    if (line.kind == LineKind::Led)
        Transfer(line.ullUs, line.uKeyboard, {0x21, 9, 0, 2, 0, 0, 1, 0}, {line.ucLeds});
    std::string words = WordsOf(m_session.kinds, line);
    if (line.kind == LineKind::Keyboard) {
        const ScriptKeyboard& keyboard = m_session.keyboards[line.uKeyboard].script;
        words = fmt::format("keyboard {}: {:04x}:{:04x} {}", line.uKeyboard, keyboard.usVendor,
                            keyboard.usProduct, keyboard.name);
    }
    if (m_pending.content.empty() || m_pending.ullUs != line.ullUs)
        words = fmt::format("{}.{:06} s: {}", line.ullUs / 1000000, line.ullUs % 1000000, words);
    m_pending.comments.push_back(std::move(words));
}

// A replay of the capture learns the keyboard's kind from that.
void PcapngWriter::Enumeration(const SessionLine& line)
{
    for (const auto& [ucType, descriptor] : {std::pair(1, line.device), std::pair(2, line.configuration)})
        Transfer(line.ullUs, line.uKeyboard,
                 {0x80, 6, 0, static_cast<uint8_t>(ucType), 0, 0, static_cast<uint8_t>(descriptor.size()),
                  static_cast<uint8_t>(descriptor.size() >> 8)},
                 descriptor);
}

// A control transfer and its completion.
void PcapngWriter::Transfer(uint64_t ullUs, unsigned uKeyboard, const Bytes& setup, const Bytes& data)
{
    const bool bIn = (setup[0] & 0x80) != 0;
    UsbmonRecord record = RecordOf(Below, ullUs, uKeyboard);
    record.cType = 'S';
    record.ucTransfer = UsbmonRecord::Control;
    record.ucEndpoint = bIn ? 0x80 : 0;
    record.setup = setup;
    record.cLength = data.size();
    record.data = bIn ? Bytes() : data;
    Begin(Below, ullUs, record.Encode());
    record.cType = 'C';
    record.cLength = 0;
    record.setup.clear();
    record.data = bIn ? data : Bytes();
    Begin(Below, ullUs, record.Encode());
}

void PcapngWriter::Packet(Side side, const SessionLine& line, const Bytes& report)
{
    UsbmonRecord record = RecordOf(side, line.ullUs, line.uKeyboard);
    record.data = report;
    Begin(side, line.ullUs, record.Encode());
}

UsbmonRecord PcapngWriter::RecordOf(Side side, uint64_t ullUs, unsigned uKeyboard)
{
    UsbmonRecord record;
    record.ucDevice = static_cast<uint8_t>(uKeyboard % Addresses + 1);
    record.usBus = static_cast<uint16_t>(side + 1);
    record.ullTransfer = ++m_ullTransfer;
    record.ullUs = ullUs;
    return record;
}

void PcapngWriter::Begin(Side side, uint64_t ullUs, Bytes content)
{
    Flush();
    m_pending.side = side;
    m_pending.ullUs = ullUs;
    m_pending.content = std::move(content);
}

void PcapngWriter::Flush()
{
    if (m_pending.content.empty())
        return;
    Bytes packet;
    PutNumber(packet, m_pending.side, 4);
    PutNumber(packet, m_pending.ullUs >> 32, 4);
    PutNumber(packet, m_pending.ullUs & 0xFFFFFFFF, 4);
    PutNumber(packet, m_pending.content.size(), 4);
    PutNumber(packet, m_pending.content.size(), 4);
    Append(packet, m_pending.content);
    Pad(packet);
    for (std::string& comment : m_pending.comments)
        PutOption(packet, CommentOption, std::move(comment));
    if (!m_pending.comments.empty())
        PutNumber(packet, 0, 4);
    Block(PacketBlock, packet);
    m_pending = {};
}

void PcapngWriter::Block(uint32_t ulType, const Bytes& body)
{
    Bytes block;
    PutNumber(block, ulType, 4);
    PutNumber(block, body.size() + 12, 4);
    Append(block, body);
    PutNumber(block, body.size() + 12, 4);
    m_sink(block);
}

unsigned WritePcapng(const std::string& file, const Script& script, const ReplaySetup& setup)
{
    OutputFile output(file);
    Session session;
    PcapngWriter writer(session, [&](const Bytes& block) { output.Write(block); });
    WalkSession(session, script, setup, [&](SessionLine&& line) { writer.Add(line); });
    writer.Flush();
    output.Finish();
    return session.totals.uLeaks;
}
