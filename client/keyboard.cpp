// keyboard.cpp - the requests about one keyboard, but for its memory.
#include "client/keyboard.h"

#include <string.h>

#include <algorithm>

#include "client/find.h"
#include "client/typing.h"

namespace tvusb
{
namespace
{
const QueueCodes NotifyCodes = {
    IOCTL_TVUSB_REGISTER_NOTIFY_EVENT, IOCTL_TVUSB_RELEASE_NOTIFY_EVENT, IOCTL_TVUSB_GET_NOTIFY_COUNT,
    IOCTL_TVUSB_CLEAR_NOTIFY,          IOCTL_TVUSB_PEEK_NOTIFY,          IOCTL_TVUSB_TAKE_NOTIFY,
    IOCTL_TVUSB_TAKE_MANY_NOTIFY,
};
constexpr size_t QUEUE_REPORTS = 16; // the driver's queue of inserted reports
} // namespace

KeyDefinition MakeHotkey(uint32_t ulId, uint32_t ulModifiers, const std::vector<uint8_t>& scans,
                         bool bSwallow)
{
    KeyDefinition definition = {};
    definition.ulId = ulId;
    definition.ulSwallow = bSwallow;
    definition.ulType = DEFINITION_HOTKEY;
    definition.ulModifiers = ulModifiers;
    definition.usScanCount = static_cast<uint16_t>(std::min<size_t>(scans.size(), 0xFFFF));
    std::copy_n(scans.begin(), std::min(scans.size(), sizeof(definition.ucScans)), definition.ucScans);
    return definition;
}

FifoEntry MakeReport(const std::vector<uint8_t>& bytes)
{
    FifoEntry entry = {};
    entry.usLength = static_cast<uint16_t>(std::min<size_t>(bytes.size(), 0xFFFF));
    std::copy_n(bytes.begin(), std::min(bytes.size(), sizeof(entry.ucData)), entry.ucData);
    return entry;
}

Status Keyboard::FindAgain()
{
    if (!m_Channel.IsOpen()) {
        return {Status::NotOpen, 0, "keyboard " + std::to_string(m_ulIndex)};
    }
    auto found = m_Name.empty() ? FindListed(m_Channel, m_ulIndex) : FindName(m_Channel.Free(), m_Name);
    if (found) {
        *this = std::move(*found);
    }
    return found.Error();
}

Status Keyboard::AddDefinition(const KeyDefinition& definition) const
{
    return m_Channel.SendRecord(IOCTL_TVUSB_ADD_DEFINITION, m_ulIndex, BytesOf(definition));
}

Status Keyboard::RemoveDefinition(uint32_t ulId) const
{
    return m_Channel.SendRecord(IOCTL_TVUSB_REMOVE_DEFINITION, m_ulIndex, BytesOf(ulId));
}

Status Keyboard::StartProcessing() const
{
    return m_Channel.SendRecord(IOCTL_TVUSB_START_PROCESSING, m_ulIndex);
}

Status Keyboard::StopProcessing() const
{
    return m_Channel.SendRecord(IOCTL_TVUSB_STOP_PROCESSING, m_ulIndex);
}

NotifyQueue Keyboard::Events() const
{
    return NotifyQueue(m_Channel, m_ulIndex, NotifyCodes);
}

Status Keyboard::InsertScans(const std::vector<uint8_t>& scans, bool bWait) const
{
    InsertScansPayload payload = {};
    if (scans.size() > sizeof(payload.ucScans)) {
        return Refused(Status::InvalidParameter, IOCTL_TVUSB_INSERT_SCANS);
    }
    payload.ulWait = bWait;
    payload.usCount = static_cast<uint16_t>(scans.size());
    std::copy(scans.begin(), scans.end(), payload.ucScans);
    return m_Channel.SendRecord(IOCTL_TVUSB_INSERT_SCANS, m_ulIndex, BytesOf(payload));
}

// The last entry says whether to wait.
Status Keyboard::InsertPackets(const std::vector<FifoEntry>& reports, bool bWait) const
{
    InsertPacketsPayload payload = {};
    if (reports.empty() || reports.size() > sizeof(payload.Entries) / sizeof(payload.Entries[0])) {
        return Refused(Status::InvalidParameter, IOCTL_TVUSB_INSERT_PACKETS);
    }
    payload.usCount = static_cast<uint16_t>(reports.size());
    std::copy(reports.begin(), reports.end(), payload.Entries);
    payload.Entries[reports.size() - 1].ulFlags = bWait;
    return m_Channel.SendRecord(IOCTL_TVUSB_INSERT_PACKETS, m_ulIndex, BytesOf(payload));
}

// As many at a time as the driver's queue holds, which drops what does not fit: what was inserted before is let run out
// first, behind a report that lets go of everything.
Status Keyboard::TypeText(const std::string& text) const
{
    std::vector<FifoEntry> reports;
    for (char c : text) {
        std::optional<KeyReport> press = ReportOfCharacter(c);
        if (!press) {
            const int iByte = static_cast<unsigned char>(c);
            return {Status::InvalidParameter, IOCTL_TVUSB_INSERT_PACKETS,
                    "keyboard " + std::to_string(m_ulIndex) + ", character " + std::to_string(iByte)};
        }
        reports.push_back(MakeReport({press->begin(), press->end()}));
        reports.push_back(MakeReport(std::vector<uint8_t>(press->size())));
    }
    Status status = reports.empty() ? Status() : InsertPackets({reports[1]}, true);
    for (size_t at = 0; status.Ok() && at < reports.size(); at += QUEUE_REPORTS) {
        size_t end = std::min(at + QUEUE_REPORTS, reports.size());
        status = InsertPackets({reports.begin() + at, reports.begin() + end}, true);
    }
    return status;
}

Result<uint16_t> Keyboard::GetLeds() const
{
    return m_Channel.AskRecord<uint16_t>(IOCTL_TVUSB_GET_LEDS, m_ulIndex);
}

Status Keyboard::SetLeds(uint16_t usLedFlags) const
{
    return m_Channel.SendRecord(IOCTL_TVUSB_SET_LEDS, m_ulIndex, BytesOf(usLedFlags));
}

Result<Typematic> Keyboard::GetTypematic() const
{
    return m_Channel.AskRecord<Typematic>(IOCTL_TVUSB_GET_TYPEMATIC, m_ulIndex);
}

Status Keyboard::SetTypematic(uint16_t usRate, uint16_t usDelayIndex) const
{
    const uint16_t usWords[2] = {usRate, usDelayIndex};
    return m_Channel.SendRecord(IOCTL_TVUSB_SET_TYPEMATIC, m_ulIndex, BytesOf(usWords));
}

Status Keyboard::SendKeyCommand(uint32_t ulCommand, uint16_t usScanCode) const
{
    const KeyCommand command = {ulCommand, 0, usScanCode};
    return m_Channel.SendRecord(IOCTL_TVUSB_SEND_KEY_COMMAND, m_ulIndex, BytesOf(command));
}

Result<uint8_t> Keyboard::GetReservedStatus() const
{
    return m_Channel.AskRecord<uint8_t>(IOCTL_TVUSB_GET_RESERVED_STATUS, m_ulIndex);
}

Result<uint32_t> Keyboard::GetControlPipe() const
{
    return m_Channel.AskRecord<uint32_t>(IOCTL_TVUSB_GET_CONTROL_PIPE, m_ulIndex);
}
} // namespace tvusb
