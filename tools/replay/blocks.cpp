// blocks.cpp - walks pcap and pcapng files.
#include "blocks.h"
#include "capture.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace
{

constexpr uint32_t MagicUs = 0xA1B2C3D4, MagicNs = 0xA1B23C4D, MagicPatched = 0xA1B2CD34;
constexpr uint32_t BlockSection = 0x0A0D0D0A, BlockInterfaceType = 1, BlockOldPacket = 2, BlockSimple = 3,
                   BlockPacket = 6;
constexpr uint32_t SectionOrder = 0x1A2B3C4D;
constexpr uint16_t OptionResolution = 9, OptionOffset = 14;
constexpr size_t MostBytes = 4 << 20; // of one block

uint32_t Swapped(uint32_t ulValue)
{
    return __builtin_bswap32(ulValue);
}

// Microseconds of a time in the interface's unit.
uint64_t MicrosecondsOf(uint64_t ullTime, const BlockInterface& interface)
{
    if (!interface.bBinary && interface.uDigits == 6) // nearly always
        return ullTime + interface.ullOffset * 1000000u;
    uint64_t ullUnit = 1;
    for (unsigned i = 0; i < interface.uDigits; ++i)
        ullUnit *= interface.bBinary ? 2 : 10;
    uint64_t ullSeconds = ullTime / ullUnit, ullRest = ullTime % ullUnit;
    auto ullFraction = static_cast<uint64_t>(static_cast<unsigned __int128>(ullRest) * 1000000u / ullUnit);
    return (ullSeconds + interface.ullOffset) * 1000000u + ullFraction;
}

} // namespace

bool LooksLikeCapture(const Bytes& start)
{
    if (start.size() < 4)
        return false;
    uint32_t ulMagic = 0;
    memcpy(&ulMagic, start.data(), 4);
    for (uint32_t ulKnown : {MagicUs, MagicNs, MagicPatched})
        if (ulMagic == ulKnown || ulMagic == Swapped(ulKnown))
            return true;
    return ulMagic == BlockSection;
}

BlockReader::BlockReader(SharedInput pInput, Reading reading) : m_reader(std::move(pInput), reading)
{
    Take(4, false);
    uint32_t ulMagic = Word(0);
    m_bPcapng = ulMagic == BlockSection;
    if (!m_bPcapng)
        ReadPcapHead();
}

uint32_t BlockReader::Word(size_t cAt) const
{
    uint32_t ulValue = 0;
    memcpy(&ulValue, &m_buffer[cAt], 4);
    return m_bSwapped ? Swapped(ulValue) : ulValue;
}

uint16_t BlockReader::Half(size_t cAt) const
{
    uint16_t usValue = 0;
    memcpy(&usValue, &m_buffer[cAt], 2);
    return m_bSwapped ? __builtin_bswap16(usValue) : usValue;
}

void BlockReader::Fail(const std::string& what) const
{
    FailAtPacket({nullptr, 0, 0, m_uNumber, Name(), m_ullAt}, what);
}

// Appends so many bytes to the buffer. False when the file ends right here and may.
bool BlockReader::Take(size_t cBytes, bool bMayEnd)
{
    if (m_buffer.size() < m_cTaken + cBytes)
        m_buffer.resize(m_cTaken + cBytes);
    size_t cRead = m_reader.Read(&m_buffer[m_cTaken], cBytes);
    if (cRead == 0 && bMayEnd)
        return false;
    if (cRead < cBytes)
        Fail(fmt::format("truncated: the file ends after {} of {} bytes", m_cTaken + cRead,
                         m_cTaken + cBytes));
    m_cTaken += cBytes;
    return true;
}

void BlockReader::ReadPcapHead()
{
    Take(20, false);
    m_bSwapped =
        Swapped(Word(0)) == MagicUs || Swapped(Word(0)) == MagicNs || Swapped(Word(0)) == MagicPatched;
    BlockInterface interface;
    interface.uDigits = Word(0) == MagicNs ? 9 : 6;
    interface.ulSnap = Word(0) == MagicPatched ? 1 : 0; // its records have eight bytes more
    interface.usLink = static_cast<uint16_t>(Word(20));
    m_interfaces.push_back(interface);
}

bool BlockReader::Next(Block& block)
{
    return m_bPcapng ? NextPcapng(block) : NextPcap(block);
}

bool BlockReader::NextPcap(Block& block)
{
    m_cTaken = 0;
    m_ullAt = m_reader.At();
    ++m_uNumber;
    size_t cHead = m_interfaces[0].ulSnap ? 24 : 16;
    if (!Take(cHead, true))
        return false;
    size_t cHeld = Word(8);
    if (cHeld > MostBytes)
        Fail(fmt::format("a record of {} bytes cannot be", cHeld));
    uint64_t ullFraction = Word(4);
    block.ullUs = Word(0) * 1000000ull + (m_interfaces[0].uDigits == 9 ? ullFraction / 1000 : ullFraction);
    block.cOriginal = Word(12);
    block.pBytes = m_reader.Look(cHeld);
    if (block.pBytes) {
        m_reader.Pass(cHeld);
    } else {
        Take(cHeld, false);
        block.pBytes = m_buffer.data() + cHead;
    }
    block.cBytes = cHeld;
    block.uNumber = m_uNumber;
    block.bSwapped = m_bSwapped;
    block.ullAt = m_ullAt;
    return true;
}

bool BlockReader::NextPcapng(Block& block)
{
    ++m_uNumber; // failures name the packet that would come
    while (true) {
        if (m_cTaken != 4 || m_ullAt != 0 || m_reader.At() != 4) { // the first type has been read already
            m_cTaken = 0;
            m_ullAt = m_reader.At();
            if (!Take(4, true))
                return false;
        }
        bool bSection = Word(0) == BlockSection;
        Take(bSection ? 8 : 4, false);
        if (bSection) {
            m_bSwapped = false;
            m_bSwapped = Word(8) != SectionOrder;
            if (Word(8) != SectionOrder)
                Fail("a section without its byte order");
        }
        size_t cBlock = Word(4);
        if (cBlock < 12 || cBlock % 4 != 0 || cBlock > MostBytes || (bSection && cBlock < 28))
            Fail(fmt::format("a block of {} bytes cannot be", cBlock));
        Take(cBlock - m_cTaken, false);
        if (Word(cBlock - 4) != cBlock)
            Fail("a block's two lengths differ");
        uint32_t ulType = Word(0);
        if (bSection)
            m_uFirstInterface = static_cast<unsigned>(m_interfaces.size());
        else if (ulType == BlockInterfaceType)
            AddInterface();
        else if ((ulType == BlockPacket || ulType == BlockOldPacket || ulType == BlockSimple) &&
                 TakePacket(ulType, block))
            return true;
    }
}

void BlockReader::AddInterface()
{
    if (m_cTaken < 20)
        Fail("an interface block that is too short");
    BlockInterface interface;
    interface.usLink = Half(8);
    interface.ulSnap = Word(12);
    for (size_t cAt = 16; cAt + 8 <= m_cTaken;) {
        uint16_t usOption = Half(cAt), usLength = Half(cAt + 2);
        if (usOption == 0 || cAt + 4 + usLength > m_cTaken - 4)
            break;
        if (usOption == OptionResolution && usLength == 1) {
            interface.bBinary = (m_buffer[cAt + 4] & 0x80) != 0;
            interface.uDigits = m_buffer[cAt + 4] & 0x7F;
            if (interface.uDigits > (interface.bBinary ? 63u : 19u))
                Fail("an interface's clock that cannot be");
        } else if (usOption == OptionOffset && usLength == 8) {
            interface.ullOffset = Word(cAt + 4) | static_cast<uint64_t>(Word(cAt + 8)) << 32;
            if (m_bSwapped)
                interface.ullOffset = interface.ullOffset << 32 | interface.ullOffset >> 32;
        }
        cAt += 4 + (usLength + 3u) / 4 * 4;
    }
    m_interfaces.push_back(interface);
}

// The packet of a block, if it has one.
bool BlockReader::TakePacket(uint32_t ulType, Block& block)
{
    size_t cHead = ulType == BlockSimple ? 12 : 28;
    if (m_cTaken < cHead + 4)
        Fail("a packet's block that is too short");
    unsigned uInterface = ulType == BlockSimple ? 0 : ulType == BlockPacket ? Word(8) : Half(8);
    if (uInterface >= m_interfaces.size() - m_uFirstInterface)
        Fail(fmt::format("interface {} was not told of", uInterface));
    const BlockInterface& interface = m_interfaces[m_uFirstInterface + uInterface];
    size_t cRoom = m_cTaken - cHead - 4;
    block.cOriginal = Word(cHead - 4);
    block.cBytes = ulType == BlockSimple ? std::min(block.cOriginal, cRoom) : Word(20);
    if (ulType == BlockSimple && interface.ulSnap)
        block.cBytes = std::min<size_t>(block.cBytes, interface.ulSnap);
    if (block.cBytes > cRoom)
        Fail(fmt::format("truncated: {} of {} bytes", cRoom, block.cBytes));
    if (ulType != BlockSimple)
        m_ullLatest = MicrosecondsOf(static_cast<uint64_t>(Word(12)) << 32 | Word(16), interface);
    block.ullUs = m_ullLatest;
    block.pBytes = m_buffer.data() + cHead;
    block.uNumber = m_uNumber;
    block.uInterface = m_uFirstInterface + uInterface;
    block.bSwapped = m_bSwapped;
    block.ullAt = m_ullAt;
    return true;
}
