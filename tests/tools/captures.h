// captures.h - captures that a test builds byte by byte: records of each kind, and the files around them.
#pragma once

#include "tools/replay/packet.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

inline void Put(Bytes& bytes, uint64_t ullValue, size_t cWidth)
{
    for (size_t i = 0; i < cWidth; ++i)
        bytes.push_back(i < 8 ? static_cast<uint8_t>(ullValue >> (8 * i)) : 0);
}

inline Bytes Joined(Bytes first, const Bytes& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// One record of a capture file with its time.
struct TestRecord {
    uint64_t ullUs;
    Bytes content;
    unsigned uInterface = 0; // pcapng
};

// A usbmon record. type 'S', 'C' or 'E'; ucTransfer 1 interrupt, 2 control.
struct UsbmonRecord {
    char type = 'C';
    uint8_t ucTransfer = 1;
    uint8_t ucEndpoint = 0x81;
    uint8_t ucDevice = 3;
    uint16_t usBus = 1;
    uint64_t ullId = 1;
    int32_t lStatus = 0;
    uint32_t ulLength = 0; // 0 = the data's
    Bytes setup;           // 8 bytes, or empty
    Bytes data;

    Bytes Encode(size_t cHeader) const
    {
        Bytes bytes;
        Put(bytes, ullId, 8);
        bytes.insert(bytes.end(), {static_cast<uint8_t>(type), ucTransfer, ucEndpoint, ucDevice});
        Put(bytes, usBus, 2);
        bytes.push_back(setup.empty() ? '-' : 0);
        bytes.push_back(data.empty() ? '<' : 0);
        Put(bytes, 0, 12); // the time, which the record around it tells too
        Put(bytes, static_cast<uint32_t>(lStatus), 4);
        Put(bytes, ulLength ? ulLength : data.size(), 4);
        Put(bytes, data.size(), 4);
        bytes.insert(bytes.end(), setup.begin(), setup.end());
        bytes.resize(cHeader);
        return Joined(std::move(bytes), data);
    }
};

// A record with the Windows capture header. ucTransfer 1 interrupt, 2 control; ucStage for control only.
struct WindowsRecord {
    bool bUp = true;
    uint8_t ucTransfer = 1;
    uint8_t ucEndpoint = 0x81;
    uint16_t usDevice = 3;
    uint16_t usBus = 1;
    uint64_t ullId = 1;
    uint32_t ulStatus = 0;
    uint8_t ucStage = 0;
    Bytes data;

    Bytes Encode() const
    {
        Bytes bytes;
        Put(bytes, ucTransfer == 2 ? 28 : 27, 2);
        Put(bytes, ullId, 8);
        Put(bytes, ulStatus, 4);
        Put(bytes, 9, 2);
        bytes.push_back(bUp ? 1 : 0);
        Put(bytes, usBus, 2);
        Put(bytes, usDevice, 2);
        bytes.insert(bytes.end(), {ucEndpoint, ucTransfer});
        Put(bytes, data.size(), 4);
        if (ucTransfer == 2)
            bytes.push_back(ucStage);
        return Joined(std::move(bytes), data);
    }
};

constexpr uint64_t TestEpochUs = 1700000000u * 1000000ull; // captures begin at some time of day

inline Bytes PcapFile(uint32_t ulLink, const std::vector<TestRecord>& records)
{
    Bytes file;
    Put(file, 0xA1B2C3D4, 4);
    Put(file, 2, 2);
    Put(file, 4, 2);
    Put(file, 0, 8);
    Put(file, 65535, 4);
    Put(file, ulLink, 4);
    for (const TestRecord& record : records) {
        Put(file, (TestEpochUs + record.ullUs) / 1000000, 4);
        Put(file, (TestEpochUs + record.ullUs) % 1000000, 4);
        Put(file, record.content.size(), 4);
        Put(file, record.content.size(), 4);
        file = Joined(std::move(file), record.content);
    }
    return file;
}

// interfaces: link type and snap length of each; a snap length cuts the records.
inline Bytes PcapngFile(const std::vector<std::pair<uint16_t, uint32_t>>& interfaces,
                        const std::vector<TestRecord>& records)
{
    Bytes file;
    auto block = [&](uint32_t ulType, Bytes body) {
        body.resize((body.size() + 3) / 4 * 4);
        Put(file, ulType, 4);
        Put(file, body.size() + 12, 4);
        file = Joined(std::move(file), body);
        Put(file, body.size() + 12, 4);
    };
    Bytes section;
    Put(section, 0x1A2B3C4D, 4);
    Put(section, 1, 4);
    Put(section, ~0ull, 8);
    block(0x0A0D0D0A, section);
    for (auto [usLink, ulSnap] : interfaces) {
        Bytes interface;
        Put(interface, usLink, 4);
        Put(interface, ulSnap, 4);
        block(1, interface);
    }
    for (const TestRecord& record : records) {
        Bytes packet;
        Bytes held = record.content;
        held.resize(std::min<size_t>(held.size(), interfaces[record.uInterface].second));
        Put(packet, record.uInterface, 4);
        Put(packet, (TestEpochUs + record.ullUs) >> 32, 4);
        Put(packet, (TestEpochUs + record.ullUs) & 0xFFFFFFFF, 4);
        Put(packet, held.size(), 4);
        Put(packet, record.content.size(), 4);
        block(6, Joined(packet, held));
    }
    return file;
}

inline Bytes PcapngFile(uint16_t usLink, const std::vector<TestRecord>& records)
{
    return PcapngFile({{usLink, 65535}}, records);
}

// A file in the temporary folder that goes away with the object.
class TestFile
{
public:
    explicit TestFile(const Bytes& content, const std::string& suffix = ".pcap")
        : m_path(std::filesystem::temp_directory_path() /
                 ("tvusb-test-" + std::to_string(getpid()) + "-" + std::to_string(s_uCount++) + suffix))
    {
        std::ofstream(m_path, std::ios::binary)
            .write(reinterpret_cast<const char*>(content.data()),
                   static_cast<std::streamsize>(content.size()));
    }
    ~TestFile() { std::filesystem::remove(m_path); }
    TestFile(const TestFile&) = delete;
    TestFile& operator=(const TestFile&) = delete;

    std::string Path() const { return m_path.string(); }

private:
    static inline unsigned s_uCount = 0;
    std::filesystem::path m_path;
};

inline Bytes BytesOf(const std::string& text)
{
    return Bytes(text.begin(), text.end());
}

// A configuration descriptor of interfaces with one interrupt-IN endpoint each: 0x81, 0x82, ...
struct TestInterface {
    uint8_t ucClass, ucSubClass, ucProtocol;
    uint8_t ucPacketBytes = 8;
};

inline Bytes ConfigurationOf(const std::vector<TestInterface>& interfaces)
{
    Bytes bytes = {9, 2, 0, 0, static_cast<uint8_t>(interfaces.size()), 1, 0, 0xA0, 50};
    uint8_t ucNumber = 0;
    for (const TestInterface& i : interfaces) {
        bytes = Joined(std::move(bytes), {9, 4, ucNumber, 0, 1, i.ucClass, i.ucSubClass, i.ucProtocol, 0});
        bytes = Joined(std::move(bytes), {9, 0x21, 0x11, 1, 0, 1, 0x22, 63, 0});
        bytes = Joined(std::move(bytes),
                       {7, 5, static_cast<uint8_t>(0x81 + ucNumber), 3, i.ucPacketBytes, 0, 10});
        ++ucNumber;
    }
    bytes[2] = static_cast<uint8_t>(bytes.size());
    bytes[3] = static_cast<uint8_t>(bytes.size() >> 8);
    return bytes;
}

inline Bytes DeviceDescriptorOf(uint16_t usVendor, uint16_t usProduct)
{
    Bytes bytes = {18, 1, 0, 2, 0, 0, 0, 8};
    Put(bytes, usVendor, 2);
    Put(bytes, usProduct, 2);
    return Joined(std::move(bytes), {0, 1, 1, 2, 0, 1});
}

// A capture (usbmon, long header) written as a device's story.
class UsbmonStory
{
public:
    UsbmonStory& At(uint64_t ullUs)
    {
        m_ullUs = ullUs;
        return *this;
    }
    UsbmonStory& Device(uint8_t ucDevice)
    {
        m_ucDevice = ucDevice;
        return *this;
    }

    // A control transfer and, 10 us later, its completion.
    UsbmonStory& Control(const Bytes& setup, const Bytes& data, int32_t lStatus = 0)
    {
        UsbmonRecord record;
        record.type = 'S';
        record.ucTransfer = 2;
        record.ucEndpoint = setup[0] & 0x80;
        record.ucDevice = m_ucDevice;
        record.ullId = ++m_ullId;
        record.setup = setup;
        record.ulLength = static_cast<uint32_t>(setup[6] | setup[7] << 8);
        if (!(setup[0] & 0x80))
            record.data = data;
        Add(record);
        record.type = 'C';
        record.lStatus = lStatus;
        record.setup.clear();
        record.data = setup[0] & 0x80 ? data : Bytes();
        record.ulLength = 0;
        m_ullUs += 10;
        return Add(record);
    }

    UsbmonStory& Enumerate(uint16_t usVendor, uint16_t usProduct, const Bytes& configuration)
    {
        Bytes head(configuration.begin(), configuration.begin() + 9);
        Control({0x80, 6, 0, 1, 0, 0, 18, 0}, DeviceDescriptorOf(usVendor, usProduct));
        Control({0x80, 6, 0, 2, 0, 0, 9, 0}, head);
        return Control({0x80, 6, 0, 2, 0, 0, configuration[2], configuration[3]}, configuration);
    }

    UsbmonStory& Report(const Bytes& report, uint8_t ucEndpoint = 0x81, int32_t lStatus = 0)
    {
        UsbmonRecord record;
        record.ucEndpoint = ucEndpoint;
        record.ucDevice = m_ucDevice;
        record.ullId = 0x1000u + ucEndpoint;
        record.lStatus = lStatus;
        record.data = report;
        return Add(record);
    }

    Bytes File() const { return PcapFile(220, m_records); }
    Bytes FileOfSnapLength(uint32_t ulBytes) const { return PcapngFile({{220, ulBytes}}, m_records); }

private:
    UsbmonStory& Add(const UsbmonRecord& record)
    {
        m_records.push_back({m_ullUs, record.Encode(64)});
        return *this;
    }

    uint64_t m_ullUs = 0;
    uint8_t m_ucDevice = 3;
    uint64_t m_ullId = 0;
    std::vector<TestRecord> m_records;
};
