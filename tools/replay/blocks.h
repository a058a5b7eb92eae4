// blocks.h - the records of a pcap or pcapng file, whatever interfaces it has.
//
//   pcap      24 bytes of head, then records:  seconds, fraction, bytes held, bytes sent, content
//   pcapng    blocks: type, length, body, length again; sections (own byte order) with interfaces (own link type,
//             clock and snap length), packets of three kinds, and others, which are passed over
//
// Every interface keeps its link type, so a file may hold several kinds; who reads the records chooses.
#pragma once

#include "inputfile.h"

#include <string>
#include <vector>

struct BlockInterface {
    uint16_t usLink = 0;
    uint32_t ulSnap = 0;  // 0: none
    bool bBinary = false; // its clock's unit is 2^-uDigits seconds, not 10^-uDigits
    unsigned uDigits = 6;
    uint64_t ullOffset = 0; // seconds to add
};

// One record; the content lasts until the next one is read.
struct Block {
    const uint8_t* pBytes = nullptr;
    size_t cBytes = 0;
    size_t cOriginal = 0;    // before a snap length cut it
    uint64_t ullUs = 0;      // since the epoch
    unsigned uNumber = 0;    // from 1
    unsigned uInterface = 0; // of all sections, from 0
    bool bSwapped = false;   // the section has the other byte order
    uint64_t ullAt = 0;      // where the record stands in the (unpacked) file
};

class BlockReader
{
public:
    // Fails (InputError): no capture, or its head is cut.
    explicit BlockReader(SharedInput pInput, Reading reading = Reading::Whole);

    // False at the end. Fails (InputError): cut, or a length that cannot be.
    bool Next(Block& block);
    const BlockInterface& Interface(unsigned uInterface) const { return m_interfaces[uInterface]; }
    size_t Interfaces() const { return m_interfaces.size(); }
    const std::string& Name() const { return m_reader.Input().Name(); }
    const InputReader& Reader() const { return m_reader; }

private:
    bool NextPcap(Block& block);
    bool NextPcapng(Block& block);
    void ReadPcapHead();
    void AddInterface();
    bool TakePacket(uint32_t ulType, Block& block);
    bool Take(size_t cBytes, bool bMayEnd);
    uint32_t Word(size_t cAt) const;
    uint16_t Half(size_t cAt) const;
    [[noreturn]] void Fail(const std::string& what) const;

    InputReader m_reader;
    std::vector<uint8_t> m_buffer;
    size_t m_cTaken = 0;
    std::vector<BlockInterface> m_interfaces;
    unsigned m_uFirstInterface = 0; // of this section
    unsigned m_uNumber = 0;         // records so far
    uint64_t m_ullAt = 0;           // where this block begins
    uint64_t m_ullLatest = 0;
    bool m_bPcapng = false, m_bSwapped = false;
};

// True when the file begins like a pcap or pcapng file, complete or not.
bool LooksLikeCapture(const Bytes& start);
