// driver.cpp - the requests about the driver as a whole, the macro mode and the reserved ones.
#include "client/driver.h"

#include "client/find.h"

namespace tvusb
{
namespace
{
const QueueCodes MacroCodes = {
    IOCTL_TVUSB_REGISTER_MACRO_EVENT, IOCTL_TVUSB_RELEASE_MACRO_EVENT, IOCTL_TVUSB_GET_MACRO_COUNT,
    IOCTL_TVUSB_CLEAR_MACRO,          IOCTL_TVUSB_PEEK_MACRO,          IOCTL_TVUSB_TAKE_MACRO,
    IOCTL_TVUSB_TAKE_MANY_MACRO,
};

} // namespace

Driver& Driver::operator=(Driver&& other) noexcept
{
    if (this != &other) {
        Close();
        m_Channel = std::move(other.m_Channel);
    }
    return *this;
}

Result<uint32_t> Driver::GetVersion() const
{
    return m_Channel.Ask<uint32_t>(IOCTL_TVUSB_GET_VERSION);
}

Result<uint32_t> Driver::GetTime() const
{
    return m_Channel.Ask<uint32_t>(IOCTL_TVUSB_GET_TIME);
}

Result<uint32_t> Driver::GetModifiers() const
{
    return m_Channel.Ask<uint32_t>(IOCTL_TVUSB_GET_MODIFIERS);
}

Result<uint16_t> Driver::GetKeyboardCount() const
{
    return m_Channel.Ask<uint16_t>(IOCTL_TVUSB_GET_KEYBOARD_COUNT);
}

Result<KeyboardInfo> Driver::GetKeyboardInfo(uint16_t usPosition) const
{
    return AskInfo(m_Channel, usPosition);
}

Result<std::vector<KeyboardInfo>> Driver::GetKeyboards() const
{
    return AskInfos(m_Channel);
}

Result<std::vector<KeyboardListEntry>> Driver::ListKeyboards() const
{
    return AskList(m_Channel);
}

Result<uint32_t> Driver::FindKeyboardIndex(const std::u16string& Name) const
{
    return AskName(m_Channel, Name);
}

Result<std::vector<std::u16string>> Driver::ListNames() const
{
    if (!m_Channel.IsOpen()) {
        return Status(Status::NotOpen);
    }
    return {m_Channel.System()->ListInterfaces(), Status()};
}

Result<Keyboard> Driver::FindByName(const std::u16string& Name) const
{
    return FindName(m_Channel, Name);
}

Result<Keyboard> Driver::FindByHardwareId(const std::u16string& HardwareId) const
{
    return FindHardwareId(m_Channel, HardwareId);
}

Result<Keyboard> Driver::FindOnly() const
{
    return FindOne(m_Channel);
}

Result<Keyboard> Driver::FindByIndex(uint32_t ulIndex) const
{
    return FindListed(m_Channel, ulIndex);
}

Status Driver::RegisterApplicationEvent(const Event& event) const
{
    return m_Channel.SendHandle(IOCTL_TVUSB_REGISTER_APPLICATION_EVENT, 0, event.Handle());
}

Result<bool> MacroMode::IsOn() const
{
    Result<uint32_t> mode = m_Channel.AskRecord<uint32_t>(IOCTL_TVUSB_GET_MACRO_MODE, 0);
    return {*mode != 0, mode.Error()};
}

Status MacroMode::Reload() const
{
    return m_Channel.SendRecord(IOCTL_TVUSB_RELOAD_MACROS, 0);
}

MacroQueue MacroMode::Records() const
{
    return MacroQueue(m_Channel, 0, MacroCodes);
}

Result<uint32_t> MacroMode::GetCapture() const
{
    return m_Channel.Ask<uint32_t>(IOCTL_TVUSB_GET_CAPTURE);
}

// The input is the value alone, not a record.
Status MacroMode::SetCapture(uint8_t ucValue) const
{
    const uint32_t ulValue = ucValue;
    std::vector<uint8_t> none;
    return m_Channel.Send(IOCTL_TVUSB_SET_CAPTURE, BytesOf(ulValue), &none);
}

Status Reserved::Nothing(uint32_t ulCode) const
{
    std::vector<uint8_t> none;
    return m_Channel.Send(ulCode, {}, &none);
}

Status Reserved::Fail() const
{
    return m_Channel.AskRecord<uint16_t>(IOCTL_TVUSB_FAIL, 0).Error();
}

Result<uint32_t> Reserved::CheckZero(uint32_t ulValue) const
{
    return m_Channel.AskRecord<uint32_t>(IOCTL_TVUSB_CHECK_ZERO, 0, BytesOf(ulValue));
}

std::string ToUtf8(const std::u16string& text)
{
    std::string bytes;
    for (size_t i = 0; i < text.size(); i++) {
        uint32_t ulChar = text[i];
        bool bPair = (ulChar & 0xFC00) == 0xD800 && i + 1 < text.size() && (text[i + 1] & 0xFC00) == 0xDC00;
        if (bPair) {
            ulChar = 0x10000 + ((ulChar & 0x3FF) << 10) + (text[++i] & 0x3FF);
        } else if ((ulChar & 0xF800) == 0xD800) {
            ulChar = 0xFFFD; // half a pair
        }
        auto append = [&bytes](uint32_t ulByte) { bytes += static_cast<char>(ulByte); };
        if (ulChar < 0x80) {
            append(ulChar);
        } else if (ulChar < 0x800) {
            append(0xC0 | ulChar >> 6);
            append(0x80 | (ulChar & 0x3F));
        } else if (ulChar < 0x10000) {
            append(0xE0 | ulChar >> 12);
            append(0x80 | (ulChar >> 6 & 0x3F));
            append(0x80 | (ulChar & 0x3F));
        } else {
            append(0xF0 | ulChar >> 18);
            append(0x80 | (ulChar >> 12 & 0x3F));
            append(0x80 | (ulChar >> 6 & 0x3F));
            append(0x80 | (ulChar & 0x3F));
        }
    }
    return bytes;
}
} // namespace tvusb
