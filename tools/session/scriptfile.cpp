// scriptfile.cpp - from the steps of a script to the packets or lines that give them.
//
//   capture     a read of every keyboard at 0, which sets their order and the file's first time; then a request as
//               submission and completion at its step's time, a report as the completion of a read
#include "scriptfile.h"
#include "usbmonrecord.h"
#include "tools/common/text.h"

#include <fmt/format.h>

namespace
{

constexpr unsigned DevicesOfBus = 127;
constexpr uint64_t ReadTransfer = 1ull << 32; // and the keyboard's number: its reads

// The system's error numbers, as usbmon records have them.
int32_t StatusOf(Outcome outcome)
{
    switch (outcome) {
    case Outcome::Ok:
        return 0;
    case Outcome::Stalled:
        return -32; // EPIPE
    case Outcome::Cancelled:
        return -2; // ENOENT
    case Outcome::Gone:
        return -108; // ESHUTDOWN
    case Outcome::Failed:
        break;
    }
    return -71; // EPROTO
}

} // namespace

ScriptFile::ScriptFile(OutputFile& file, const Script& script)
    : m_file(file), m_script(script), m_reported(script.keyboards.size())
{
    if (!script.bEnumerates) {
        for (size_t k = 0; k < script.keyboards.size(); ++k)
            m_file.Write(fmt::format("D: {}\nN: {}\nI: 3 {:04x} {:04x}\n", k, script.keyboards[k].name,
                                     script.keyboards[k].usVendor, script.keyboards[k].usProduct));
        return;
    }
    Bytes head;
    PutNumber(head, 0xA1B2C3D4, 4);
    PutNumber(head, 2 | 4 << 16, 4); // version 2.4
    PutNumber(head, 0, 8);
    PutNumber(head, 65535, 4);
    PutNumber(head, 220, 4);
    m_file.Write(head);
    for (unsigned k = 0; k < script.keyboards.size(); ++k)
        Read(k, 0, script.keyboards[k].ulReadBytes);
}

void ScriptFile::Add(const ScriptStep& step)
{
    m_script.bEnumerates ? AddCaptured(step) : AddRecorded(step);
}

void ScriptFile::AddRecorded(const ScriptStep& step)
{
    if (m_uDevice != step.uKeyboard)
        m_file.Write(fmt::format("D: {}\n", step.uKeyboard));
    m_uDevice = step.uKeyboard;
    m_file.Write(fmt::format("E: {:06}.{:06} {} {}\n", step.ullUs / 1000000, step.ullUs % 1000000,
                             step.data.size(), HexOf(step.data, " ")));
}

void ScriptFile::AddCaptured(const ScriptStep& step)
{
    UsbmonRecord record = RecordOf(step.uKeyboard, step.ullUs);
    if (step.kind == StepKind::Report) {
        record.ullTransfer = ReadTransfer + step.uKeyboard;
        record.data = step.data;
        Put(record);
        if (!m_reported[step.uKeyboard]) // its readers learn the size of a read behind the first report
            Read(step.uKeyboard, step.ullUs, m_script.keyboards[step.uKeyboard].ulReadBytes);
        m_reported[step.uKeyboard] = true;
        return;
    }
    const bool bComesIn = (step.setup[0] & 0x80) != 0;
    record.ucTransfer = UsbmonRecord::Control;
    record.ucEndpoint = bComesIn ? 0x80 : 0;
    record.ullTransfer = ++m_ullTransfer;
    record.cType = 'S';
    record.setup.assign(step.setup.begin(), step.setup.end());
    record.cLength = WordAt(step.setup.data(), 6);
    if (!bComesIn)
        record.data = step.data;
    Put(record);
    record.cType = 'C';
    record.setup.clear();
    record.lStatus = StatusOf(step.outcome);
    record.cLength = 0;
    record.data = bComesIn ? step.data : Bytes();
    Put(record);
}

UsbmonRecord ScriptFile::RecordOf(unsigned uKeyboard, uint64_t ullUs) const
{
    UsbmonRecord record;
    record.ucDevice = static_cast<uint8_t>(1 + uKeyboard % DevicesOfBus);
    record.usBus = static_cast<uint16_t>(1 + uKeyboard / DevicesOfBus);
    record.ucEndpoint = m_script.keyboards[uKeyboard].ucEndpoint;
    record.ullUs = ullUs;
    return record;
}

void ScriptFile::Read(unsigned uKeyboard, uint64_t ullUs, uint32_t ulBytes)
{
    UsbmonRecord record = RecordOf(uKeyboard, ullUs);
    record.cType = 'S';
    record.ullTransfer = ReadTransfer + uKeyboard;
    record.cLength = ulBytes;
    Put(record);
}

void ScriptFile::Put(const UsbmonRecord& record)
{
    Bytes packet, content = record.Encode();
    PutNumber(packet, record.ullUs / 1000000, 4);
    PutNumber(packet, record.ullUs % 1000000, 4);
    PutNumber(packet, content.size(), 4);
    PutNumber(packet, content.size(), 4);
    packet.insert(packet.end(), content.begin(), content.end());
    m_file.Write(packet);
}
