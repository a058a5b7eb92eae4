// image.cpp - Intel HEX, read and written.
//
//   :LLAAAATT<data>CC    length, address, type, data, checksum: all bytes of a record add up to 0
//
// Types: 00 data, 01 the end, 02 and 04 the address's upper part, 03 and 05 a start address, which a memory has not.
#include "image.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>

namespace
{

enum : uint8_t { Data = 0, End = 1, Segment = 2, StartSegment = 3, Linear = 4, StartLinear = 5 };
constexpr size_t HeadBytes = 4, RecordBytes = 16;
constexpr uint32_t MostAddress = 0xFFFF; // that a request holds

class HexReader
{
public:
    HexReader(const std::string& file, std::string_view text) : m_file(file), m_text(text) {}

    Image Read()
    {
        while (!m_text.empty() && !m_bEnd) {
            size_t cEnd = std::min(m_text.find('\n'), m_text.size());
            std::string_view line = Trim(m_text.substr(0, cEnd));
            m_text.remove_prefix(std::min(cEnd + 1, m_text.size()));
            m_uLine++;
            if (!line.empty())
                Take(BytesOf(line));
        }
        if (!m_bEnd)
            Fail("the file ends without its last record, :00000001FF");
        return std::move(m_image);
    }

private:
    [[noreturn]] void Fail(const std::string& what) const
    {
        throw InputError(fmt::format("{}:{}: {}", m_file, m_uLine, what), m_uLine);
    }

    std::vector<uint8_t> BytesOf(std::string_view line) const
    {
        if (line[0] != ':')
            Fail("a record begins with a colon");
        std::vector<uint8_t> bytes;
        for (size_t i = 1; i < line.size(); i += 2) {
            std::string pair(line.substr(i, 2));
            size_t cRead = 0;
            bool bHex = pair.size() == 2 && isxdigit(static_cast<unsigned char>(pair[0])) &&
                        isxdigit(static_cast<unsigned char>(pair[1]));
            if (!bHex)
                Fail(fmt::format("'{}' is no byte", pair));
            bytes.push_back(static_cast<uint8_t>(std::stoul(pair, &cRead, 16)));
        }
        if (bytes.size() < HeadBytes + 1 || bytes.size() != HeadBytes + 1 + bytes[0])
            Fail("the record is not as long as its first byte says");
        if (std::accumulate(bytes.begin(), bytes.end(), 0u) % 256 != 0)
            Fail("the checksum is wrong");
        return bytes;
    }

    void Take(const std::vector<uint8_t>& record)
    {
        const uint32_t ulAddress = record[1] << 8 | record[2];
        switch (record[3]) {
        case Data:
            for (size_t i = 0; i < record[0]; i++)
                Put(m_ulBase + ulAddress + static_cast<uint32_t>(i), record[HeadBytes + i]);
            break;
        case End:
            m_bEnd = true;
            break;
        case Segment:
        case Linear:
            if (record[0] != 2)
                Fail("the record holds an upper part of two bytes");
            m_ulBase = (record[4] << 8 | record[5]) << (record[3] == Segment ? 4 : 16);
            break;
        case StartSegment:
        case StartLinear:
            break;
        default:
            Fail(fmt::format("there is no record of type {:02X}", record[3]));
        }
    }

    void Put(uint32_t ulAddress, uint8_t ucByte)
    {
        if (ulAddress > MostAddress)
            Fail(fmt::format("address 0x{:X} is above 0x{:X}", ulAddress, MostAddress));
        if (!m_image.emplace(ulAddress, ucByte).second)
            Fail(fmt::format("address 0x{:X} is told twice", ulAddress));
    }

    std::string m_file;
    std::string_view m_text;
    Image m_image;
    uint32_t m_ulBase = 0;
    unsigned m_uLine = 0;
    bool m_bEnd = false;
};

std::string RecordOf(uint8_t ucType, uint32_t ulAddress, const std::vector<uint8_t>& data)
{
    std::vector<uint8_t> bytes = {static_cast<uint8_t>(data.size()), static_cast<uint8_t>(ulAddress >> 8),
                                  static_cast<uint8_t>(ulAddress), ucType};
    bytes.insert(bytes.end(), data.begin(), data.end());
    bytes.push_back(static_cast<uint8_t>(-std::accumulate(bytes.begin(), bytes.end(), 0)));
    std::string text = ":";
    for (uint8_t ucByte : bytes)
        text += fmt::format("{:02X}", ucByte);
    return text + "\n";
}

} // namespace

bool IsHexName(const std::string& file)
{
    std::string end = LowerCase(file.substr(std::min(file.rfind('.'), file.size())));
    return end == ".hex" || end == ".ihex" || end == ".ihx";
}

Image ReadHex(const std::string& file, std::string_view text)
{
    return HexReader(file, text).Read();
}

Image ReadImage(const std::string& file, uint32_t ulAt)
{
    if (IsHexName(file))
        return ReadHex(file, ReadWholeText(file));
    std::vector<uint8_t> bytes = ReadWholeFile(file);
    if (bytes.size() > MostAddress + 1 - std::min(ulAt, MostAddress + 1))
        throw InputError(fmt::format("{}: {} bytes reach above 0x{:X}", file, bytes.size(), MostAddress));
    return ImageOf(bytes, ulAt);
}

std::string HexText(const Image& image)
{
    std::string text;
    for (auto at = image.begin(); at != image.end();) {
        const uint32_t ulStart = at->first;
        std::vector<uint8_t> data;
        for (; at != image.end() && at->first == ulStart + data.size() && data.size() < RecordBytes; ++at)
            data.push_back(at->second);
        text += RecordOf(Data, ulStart, data);
    }
    return text + RecordOf(End, 0, {});
}

std::vector<uint8_t> ContentFor(const std::string& file, const Image& image)
{
    std::vector<uint8_t> bytes;
    if (IsHexName(file)) {
        std::string text = HexText(image);
        bytes.assign(text.begin(), text.end());
    } else {
        for (const auto& [ulAddress, ucByte] : image)
            bytes.push_back(ucByte);
    }
    return bytes;
}

Image ImageOf(const std::vector<uint8_t>& bytes, uint32_t ulAt)
{
    Image image;
    for (size_t i = 0; i < bytes.size(); i++)
        image.emplace_hint(image.end(), ulAt + static_cast<uint32_t>(i), bytes[i]);
    return image;
}
