// memory.cpp - what a keyboard keeps: its descriptors, its EEPROM and the two other kinds of memory.
#include "client/keyboard.h"

#include <stddef.h>
#include <string.h>

namespace tvusb
{
namespace
{
constexpr uint32_t STRING_BYTES = 256;  // the longest string descriptor, rounded up
constexpr uint32_t EEPROM_BYTES = 8192; // above the largest size that a keyboard can tell
constexpr size_t PREFIX_BYTES = 2;      // of the address that goes before written bytes
} // namespace

// The driver hides a failure: the request succeeds without bytes then.
Result<DeviceDescriptor> Keyboard::ReadDeviceDescriptor() const
{
    auto descriptor = m_Channel.AskRecord<DeviceDescriptor>(IOCTL_TVUSB_READ_DEVICE_DESCRIPTOR, m_ulIndex);
    if (descriptor.Error() == Status::DeviceDataError) {
        return Refused(Status::Unsuccessful, IOCTL_TVUSB_READ_DEVICE_DESCRIPTOR);
    }
    return descriptor;
}

// Here too. The length that is told counts the final 0.
Result<std::u16string> Keyboard::ReadString(uint8_t ucIndex, uint16_t usLanguage) const
{
    const DescriptorIndex which = {ucIndex, usLanguage};
    std::vector<uint8_t> out(STRING_BYTES);
    Status status = m_Channel.SendRecord(IOCTL_TVUSB_READ_STRING_DESCRIPTOR, m_ulIndex, BytesOf(which), &out);
    if (status.Ok() && out.empty()) {
        status = Refused(Status::Unsuccessful, status.Request());
    }
    if (!status.Ok()) {
        return status;
    }
    std::u16string text(out.size() / sizeof(char16_t), u'\0');
    memcpy(text.data(), out.data(), text.size() * sizeof(char16_t));
    text.resize(text.empty() ? 0 : text.size() - 1);
    return {std::move(text), status};
}

// The size is the number of bytes reported.
Result<uint32_t> Keyboard::GetEepromSize() const
{
    const uint16_t usAddressLength[2] = {0, 0};
    std::vector<uint8_t> out(EEPROM_BYTES);
    Status status = m_Channel.SendRecord(IOCTL_TVUSB_READ_EEPROM, m_ulIndex, BytesOf(usAddressLength), &out);
    if (!status.Ok()) {
        return status;
    }
    return {static_cast<uint32_t>(out.size()), status};
}

Result<std::vector<uint8_t>> Keyboard::Read(uint32_t ulCode, uint16_t usAddress, uint16_t usLength) const
{
    const uint16_t usAddressLength[2] = {usAddress, usLength};
    std::vector<uint8_t> out(usLength);
    Status status = m_Channel.SendRecord(ulCode, m_ulIndex, BytesOf(usAddressLength), &out);
    if (status.Ok() && out.size() != usLength) {
        status = Refused(Status::DeviceDataError, ulCode);
    }
    if (!status.Ok()) {
        return status;
    }
    return {std::move(out), status};
}

// Address and length stand before the bytes; a long write makes the input longer than a record.
Status Keyboard::Write(uint32_t ulCode, uint16_t usAddress, const std::vector<uint8_t>& data) const
{
    if (data.size() > 0xFFFF - PREFIX_BYTES) {
        return Refused(Status::InvalidParameter, ulCode);
    }
    const uint16_t usAddressLength[2] = {usAddress, static_cast<uint16_t>(data.size())};
    std::vector<uint8_t> payload(sizeof(usAddressLength) + data.size());
    memcpy(payload.data(), usAddressLength, sizeof(usAddressLength));
    if (!data.empty()) {
        memcpy(payload.data() + offsetof(MemoryAccess, ucData), data.data(), data.size());
    }
    return m_Channel.SendRecord(ulCode, m_ulIndex, {payload.data(), static_cast<uint32_t>(payload.size())});
}

// Length 0 would ask for the size; of the address the driver sends the low byte only.
Result<std::vector<uint8_t>> Keyboard::ReadEeprom(uint16_t usAddress, uint16_t usLength) const
{
    if (usLength == 0 || usAddress > 0xFF) {
        return Refused(Status::InvalidParameter, IOCTL_TVUSB_READ_EEPROM);
    }
    return Read(IOCTL_TVUSB_READ_EEPROM, usAddress, usLength);
}

Status Keyboard::WriteEeprom(uint16_t usAddress, const std::vector<uint8_t>& data) const
{
    if (data.empty()) {
        return Refused(Status::InvalidParameter, IOCTL_TVUSB_WRITE_EEPROM);
    }
    return Write(IOCTL_TVUSB_WRITE_EEPROM, usAddress, data);
}

Result<std::vector<uint8_t>> Keyboard::ReadDescriptorMemory(uint16_t usAddress, uint16_t usLength) const
{
    return Read(IOCTL_TVUSB_READ_DESCRIPTOR_MEMORY, usAddress, usLength);
}

Status Keyboard::WriteDescriptorMemory(uint16_t usAddress, const std::vector<uint8_t>& data) const
{
    return Write(IOCTL_TVUSB_WRITE_DESCRIPTOR_MEMORY, usAddress, data);
}

Result<std::vector<uint8_t>> Keyboard::ReadVendorMemory(uint16_t usAddress, uint16_t usLength) const
{
    return Read(IOCTL_TVUSB_READ_VENDOR_MEMORY, usAddress, usLength);
}

Status Keyboard::WriteVendorMemory(uint16_t usAddress, const std::vector<uint8_t>& data) const
{
    return Write(IOCTL_TVUSB_WRITE_VENDOR_MEMORY, usAddress, data);
}
} // namespace tvusb
