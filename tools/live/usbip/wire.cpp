// wire.cpp - reads what a peer sends, writes what it gets.
#include "wire.h"

#include <algorithm>

namespace usbip
{
namespace
{

constexpr uint16_t Version = 0x0111;
constexpr size_t PathBytes = 256;
enum Command : uint32_t { Submit = 1, Unlink = 2, Submitted = 3, UnlinkDone = 4 };

uint32_t Long(const uint8_t* pAt)
{
    return static_cast<uint32_t>(pAt[0]) << 24 | static_cast<uint32_t>(pAt[1]) << 16 |
           static_cast<uint32_t>(pAt[2]) << 8 | pAt[3];
}

void Put16(Bytes& to, uint16_t usValue)
{
    to.push_back(static_cast<uint8_t>(usValue >> 8));
    to.push_back(static_cast<uint8_t>(usValue));
}

void Put32(Bytes& to, uint32_t ulValue)
{
    Put16(to, static_cast<uint16_t>(ulValue >> 16));
    Put16(to, static_cast<uint16_t>(ulValue));
}

void PutText(Bytes& to, const std::string& text, size_t bytes)
{
    const size_t end = to.size() + bytes;
    to.insert(to.end(), text.begin(), text.begin() + static_cast<long>(std::min(text.size(), bytes - 1)));
    to.resize(end);
}

Bytes AnswerHead(uint16_t usOperation, uint32_t ulStatus)
{
    Bytes answer;
    Put16(answer, Version);
    Put16(answer, usOperation);
    Put32(answer, ulStatus);
    return answer;
}

// A descriptor's word is little-endian.
uint16_t Word(const Bytes& descriptor, size_t at)
{
    return static_cast<uint16_t>(descriptor[at] | descriptor[at + 1] << 8);
}

void PutDevice(Bytes& to, const Device& device)
{
    PutText(to, "/sys/devices/tvusb/" + device.bus, PathBytes);
    PutText(to, device.bus, BusIdBytes);
    Put32(to, 1); // bus and device number are one number for the importer
    Put32(to, 1);
    Put32(to, device.ulSpeed);
    for (size_t at : {8, 10, 12}) // vendor, product, release
        Put16(to, Word(device.device, at));
    for (size_t at : {4, 5, 6}) // class, subclass, protocol
        to.push_back(device.device[at]);
    to.push_back(device.configuration[5]); // its value
    to.push_back(device.device[17]);       // how many there are
    to.push_back(device.configuration[4]); // its interfaces
}

void PutInterfaces(Bytes& to, const Bytes& configuration)
{
    constexpr uint8_t Interface = 4;
    for (size_t at = 0; at + 9 <= configuration.size() && configuration[at] >= 2; at += configuration[at])
        if (configuration[at + 1] == Interface && configuration[at + 3] == 0) { // its first setting
            to.insert(to.end(), configuration.begin() + static_cast<long>(at) + 5,
                      configuration.begin() + static_cast<long>(at) + 8);
            to.push_back(0);
        }
}

Bytes Answer(Command command, uint32_t ulSequence, Result result, uint32_t ulMoved)
{
    Bytes answer;
    Put32(answer, command);
    Put32(answer, ulSequence);
    answer.resize(20); // device, direction, endpoint: not told in answers
    Put32(answer, static_cast<uint32_t>(result));
    Put32(answer, ulMoved);
    answer.resize(HeadBytes);
    return answer;
}

} // namespace

std::optional<Operation> ReadOperation(const std::array<uint8_t, OperationBytes>& bytes)
{
    const auto operation = static_cast<Operation>(bytes[2] << 8 | bytes[3]);
    if ((bytes[0] << 8 | bytes[1]) != Version ||
        (operation != Operation::DeviceList && operation != Operation::Import))
        return {};
    return operation;
}

Bytes ListAnswer(const std::vector<const Device*>& devices)
{
    Bytes answer = AnswerHead(0x0005, 0);
    Put32(answer, static_cast<uint32_t>(devices.size()));
    for (const Device* pDevice : devices) {
        PutDevice(answer, *pDevice);
        PutInterfaces(answer, pDevice->configuration);
    }
    return answer;
}

Bytes ImportAnswer(const Device* pDevice)
{
    Bytes answer = AnswerHead(0x0003, pDevice ? 0 : 1);
    if (pDevice)
        PutDevice(answer, *pDevice);
    return answer;
}

std::optional<Request> ReadRequest(const std::array<uint8_t, HeadBytes>& bytes)
{
    const uint32_t ulCommand = Long(&bytes[0]), ulDirection = Long(&bytes[12]), ulEndpoint = Long(&bytes[16]);
    Request request;
    request.ulSequence = Long(&bytes[4]);
    if (ulCommand == Unlink) {
        request.bUnlink = true;
        request.ulUnlinked = Long(&bytes[20]);
        return request;
    }
    const uint32_t ulPackets = Long(&bytes[32]);
    request.ulBytes = Long(&bytes[24]);
    if (ulCommand != Submit || ulDirection > 1 || ulEndpoint > 15 || request.ulBytes > MostBytes ||
        (ulPackets != 0 && ulPackets != 0xFFFFFFFF))
        return {};
    request.bIn = ulDirection == 1;
    request.ucEndpoint = static_cast<uint8_t>(ulEndpoint);
    std::copy_n(&bytes[40], request.setup.size(), request.setup.begin());
    return request;
}

Bytes SubmitAnswer(const Request& request, Result result, const Bytes& data)
{
    Bytes answer = Answer(Submitted, request.ulSequence, result, static_cast<uint32_t>(data.size()));
    if (request.bIn)
        answer.insert(answer.end(), data.begin(), data.end());
    return answer;
}

Bytes UnlinkAnswer(const Request& request, Result result)
{
    return Answer(UnlinkDone, request.ulSequence, result, 0);
}

} // namespace usbip
