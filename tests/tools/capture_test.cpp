// capture_test.cpp - reading capture files: each link type and container, and what is wrong with broken ones.
#include "captures.h"

#include "tools/replay/capture.h"
#include "tools/common/failure.h"

#include <gtest/gtest.h>
#include <zlib.h>

namespace
{

const Bytes CtrlF1 = {1, 0, 0x3A, 0, 0, 0, 0, 0};

UsbmonRecord ReportRecord(const Bytes& report)
{
    UsbmonRecord record;
    record.data = report;
    return record;
}

std::vector<Packet> Read(const Bytes& file)
{
    return ReadCapture(TestFile(file).Path());
}

// The message that reading fails with, without the file's name.
std::string FailureOf(const Bytes& content)
{
    TestFile file(content);
    try {
        ReadCapture(file.Path());
    } catch (const InputError& error) {
        std::string line = error.what();
        EXPECT_EQ(0u, line.find(file.Path() + ": ")) << line;
        EXPECT_EQ(std::string::npos, line.find('\n')) << line;
        line = line.substr(std::min(line.size(), file.Path().size() + 2));
        size_t cByte = line.find(" (byte ");
        EXPECT_NE(std::string::npos, cByte) << line;
        return line.substr(0, cByte);
    }
    return "read without complaint";
}

} // namespace

TEST(Capture, ReadsUsbmonWithEitherHeaderInEitherContainer)
{
    for (uint16_t usLink : {uint16_t(189), uint16_t(220)}) {
        size_t cHeader = usLink == 189 ? 48 : 64;
        UsbmonRecord request;
        request.type = 'S';
        request.ucTransfer = 2;
        request.ucEndpoint = 0;
        request.ullId = 0xFFFF888012345678;
        request.setup = {0x21, 9, 0, 2, 0, 0, 1, 0};
        request.data = {5};
        std::vector<TestRecord> records = {{100, request.Encode(cHeader)},
                                           {2000350, ReportRecord(CtrlF1).Encode(cHeader)}};
        for (const Bytes& file : {PcapFile(usLink, records), PcapngFile(usLink, records)}) {
            SCOPED_TRACE(usLink);
            std::vector<Packet> packets = Read(file);
            ASSERT_EQ(2u, packets.size());
            EXPECT_EQ(0u, packets[0].ullUs);
            EXPECT_TRUE(packets[0].bSubmit);
            EXPECT_EQ(TransferType::Control, packets[0].type);
            EXPECT_EQ(request.ullId, packets[0].ullTransfer);
            EXPECT_EQ((std::array<uint8_t, 8>{0x21, 9, 0, 2, 0, 0, 1, 0}), packets[0].setup);
            EXPECT_EQ(Bytes{5}, packets[0].data);
            EXPECT_EQ(2000250u, packets[1].ullUs);
            EXPECT_EQ(2u, packets[1].uNumber);
            EXPECT_FALSE(packets[1].bSubmit);
            EXPECT_EQ(TransferType::Interrupt, packets[1].type);
            EXPECT_EQ(1u, packets[1].usBus);
            EXPECT_EQ(3u, packets[1].usDevice);
            EXPECT_EQ(0x81, packets[1].ucEndpoint);
            EXPECT_EQ(CtrlF1, packets[1].data);
            EXPECT_EQ(Outcome::Ok, packets[1].outcome);
        }
    }
}

TEST(Capture, TakesCapturedLengthsThatCountTheHeader)
{
    Bytes report = ReportRecord(CtrlF1).Encode(64);
    report[36] = 72;
    UsbmonRecord submission;
    submission.type = 'S';
    Bytes read = submission.Encode(64);
    read[36] = 64;
    std::vector<Packet> packets = Read(PcapFile(220, {{0, read}, {1, report}}));
    ASSERT_EQ(2u, packets.size());
    EXPECT_TRUE(packets[0].data.empty());
    EXPECT_EQ(CtrlF1, packets[1].data);
}

TEST(Capture, TellsHowTransfersEnded)
{
    const std::pair<int32_t, Outcome> usbmon[] = {
        {0, Outcome::Ok},     {-32, Outcome::Stalled}, {-2, Outcome::Cancelled}, {-104, Outcome::Cancelled},
        {-19, Outcome::Gone}, {-108, Outcome::Gone},   {-71, Outcome::Failed}};
    for (auto [lStatus, outcome] : usbmon) {
        UsbmonRecord record;
        record.lStatus = lStatus;
        EXPECT_EQ(outcome, Read(PcapFile(220, {{0, record.Encode(64)}})).at(0).outcome) << lStatus;
    }
    const std::pair<uint32_t, Outcome> windows[] = {{0, Outcome::Ok},
                                                    {0xC0000004, Outcome::Stalled},
                                                    {0xC0010000, Outcome::Cancelled},
                                                    {0xC0007000, Outcome::Gone},
                                                    {0x80000200, Outcome::Failed}};
    for (auto [ulStatus, outcome] : windows) {
        WindowsRecord record;
        record.ulStatus = ulStatus;
        EXPECT_EQ(outcome, Read(PcapFile(249, {{0, record.Encode()}})).at(0).outcome) << ulStatus;
    }
}

TEST(Capture, FoldsTheStagesOfWindowsControlTransfers)
{
    WindowsRecord setup, data, status;
    setup.ucTransfer = data.ucTransfer = status.ucTransfer = 2;
    setup.ucEndpoint = data.ucEndpoint = status.ucEndpoint = 0x80;
    setup.bUp = false;
    setup.data = {0x80, 6, 0, 1, 0, 0, 18, 0};
    data.ucStage = 1;
    data.data = DeviceDescriptorOf(0x1234, 0x5678);
    status.ucStage = 2;

    // Three records of the older form: the answer arrives with the data stage, the status stage adds nothing.
    std::vector<Packet> older =
        Read(PcapFile(249, {{0, setup.Encode()}, {5, data.Encode()}, {6, status.Encode()}}));
    // Two records of the newer form.
    data.ucStage = 3;
    std::vector<Packet> newer = Read(PcapngFile(249, {{0, setup.Encode()}, {5, data.Encode()}}));
    for (const std::vector<Packet>& packets : {older, newer}) {
        ASSERT_EQ(2u, packets.size());
        EXPECT_TRUE(packets[0].bSubmit);
        EXPECT_EQ(18, packets[0].setup[6]);
        EXPECT_TRUE(packets[0].data.empty());
        EXPECT_FALSE(packets[1].bSubmit);
        EXPECT_EQ(5u, packets[1].ullUs);
        EXPECT_EQ(data.data, packets[1].data);
    }

    // Data going out, in the setup record itself or in a data stage of its own, which older writers mark as coming
    // back up.
    setup.data = {0x21, 9, 0, 2, 0, 0, 1, 0};
    status.data.clear();
    WindowsRecord out = setup;
    out.ucStage = 1;
    out.data = {2};
    std::vector<Packet> apart =
        Read(PcapFile(249, {{0, setup.Encode()}, {1, out.Encode()}, {2, status.Encode()}}));
    out.bUp = true;
    std::vector<Packet> marked =
        Read(PcapFile(249, {{0, setup.Encode()}, {1, out.Encode()}, {2, status.Encode()}}));
    setup.data.push_back(2);
    std::vector<Packet> together = Read(PcapFile(249, {{0, setup.Encode()}, {2, status.Encode()}}));
    for (const std::vector<Packet>& packets : {apart, marked, together}) {
        ASSERT_EQ(2u, packets.size());
        EXPECT_EQ(Bytes{2}, packets[0].data);
        EXPECT_EQ(0x21, packets[0].setup[0]);
        EXPECT_EQ(2u, packets[1].ullUs);
    }
}

TEST(Capture, NamesThePacketThatIsBroken)
{
    Bytes good = ReportRecord(CtrlF1).Encode(64);
    Bytes cutHeader(good.begin(), good.begin() + 63);
    Bytes cutData(good.begin(), good.end() - 1);
    Bytes windows = WindowsRecord().Encode();
    EXPECT_EQ("packet 2: truncated: 63 of 64 header bytes",
              FailureOf(PcapFile(220, {{0, good}, {1, cutHeader}})));
    EXPECT_EQ("packet 2: truncated: 7 of 8 data bytes", FailureOf(PcapFile(220, {{0, good}, {1, cutData}})));
    EXPECT_EQ("packet 1: truncated: 26 of 27 header bytes",
              FailureOf(PcapFile(249, {{0, Bytes(windows.begin(), windows.begin() + 26)}})));

    WindowsRecord promised;
    promised.data = CtrlF1;
    Bytes cut = promised.Encode();
    cut.pop_back();
    EXPECT_EQ("packet 1: truncated: 7 of 8 data bytes", FailureOf(PcapFile(249, {{0, cut}})));
    Bytes noStage = promised.Encode();
    noStage[22] = 2; // a control transfer without a stage
    EXPECT_EQ("packet 1: a header of 27 bytes is too short", FailureOf(PcapFile(249, {{0, noStage}})));

    Bytes file = PcapFile(220, {{0, good}, {1, good}});
    file.resize(file.size() - 3); // the file ends within its second record
    EXPECT_NE(std::string::npos, FailureOf(file).find("packet 2: truncated")) << FailureOf(file);
    file.resize(20); // within the file's own header
    EXPECT_NE(std::string::npos, FailureOf(file).find("packet 0: truncated")) << FailureOf(file);
}

TEST(Capture, TakesTheUsbInterfacesOfAFileWithOthers)
{
    // Ethernet beside both usbmon headers, and a second look at the first report: left out and counted.
    UsbmonRecord report = ReportRecord(CtrlF1);
    UsbmonRecord later = report;
    later.ullId = 2;
    Bytes file = PcapngFile({{1, 64}, {189, 65535}, {220, 128}},
                            {{5, {1, 2, 3}, 0},
                             {100, report.Encode(48), 1},
                             {900, report.Encode(64), 2}, // within a millisecond: a copy
                             {5000, later.Encode(64), 2},
                             {5500, later.Encode(64), 2},    // of the same interface: none
                             {8000, report.Encode(64), 2}}); // too late to be one
    TestFile onDisk(file, ".pcapng");
    CaptureReader reader(std::make_shared<InputFile>(onDisk.Path()));
    std::vector<uint64_t> times;
    for (Packet packet; reader.Next(packet);)
        times.push_back(packet.ullUs);
    EXPECT_EQ((std::vector<uint64_t>{0, 4900, 5400, 7900}), times);
    EXPECT_EQ(1u, reader.Copies());
    EXPECT_EQ((std::map<uint16_t, unsigned>{{1, 1}}), reader.LeftOut());
}

TEST(Capture, ReadsCompressedFiles)
{
    Bytes plain = PcapFile(220, {{0, ReportRecord(CtrlF1).Encode(64)}});
    TestFile file({}, ".pcap.gz");
    gzFile packed = gzopen(file.Path().c_str(), "wb");
    gzwrite(packed, plain.data(), static_cast<unsigned>(plain.size()));
    gzclose(packed);
    EXPECT_EQ(1u, ReadCapture(file.Path()).size());
    std::filesystem::resize_file(file.Path(), std::filesystem::file_size(file.Path()) - 12);
    EXPECT_THROW(ReadCapture(file.Path()), InputError);
}

TEST(Capture, ReadsTheOtherByteOrder)
{
    // By hand: the head, one record with a short usbmon header and one byte of data.
    Bytes file = {0xA1, 0xB2, 0xC3, 0xD4, 0, 2, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0,  0, 0, 0xFF, 0xFF,
                  0,    0,    0,    189,  0, 0, 0, 9, 0, 0, 0, 0, 0, 0, 0, 49, 0, 0, 0,    49};
    Bytes record = {0, 0, 0, 0, 0, 0, 0, 7, 'C', 1, 0x81, 3, 0, 2, '-', 0};
    record.resize(28);
    record.insert(record.end(), {0xFF, 0xFF, 0xFF, 0xE0, 0, 0, 0, 1, 0, 0, 0, 1});
    record.resize(48);
    record.push_back(4);
    std::vector<Packet> packets = Read(Joined(file, record));
    ASSERT_EQ(1u, packets.size());
    EXPECT_EQ(7u, packets[0].ullTransfer);
    EXPECT_EQ(2u, packets[0].usBus);
    EXPECT_EQ(Outcome::Stalled, packets[0].outcome);
    EXPECT_EQ(Bytes{4}, packets[0].data);
}

TEST(Capture, HoldsTheClockWhenItStepsBack)
{
    Bytes report = ReportRecord(CtrlF1).Encode(64);
    std::vector<Packet> packets =
        Read(PcapFile(220, {{500, report}, {900, report}, {700, report}, {100, report}}));
    ASSERT_EQ(4u, packets.size());
    EXPECT_EQ(400u, packets[1].ullUs);
    EXPECT_EQ(400u, packets[2].ullUs);
    EXPECT_EQ(400u, packets[3].ullUs);
}
