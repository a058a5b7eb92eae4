// find.cpp - the look-ups behind Driver's ways to a keyboard and Keyboard::FindAgain. None of them guesses.
#include "client/find.h"

#include <string.h>

#include <algorithm>

#include "client/driver.h"

namespace tvusb
{
namespace
{
constexpr size_t PREFIX_CHARS = 4; // "\\?\" or "\??\"
constexpr unsigned TRIES = 20;     // a second in all
constexpr uint32_t PAUSE_MS = 50;

char16_t Upper(char16_t c)
{
    return c >= u'a' && c <= u'z' ? static_cast<char16_t>(c - u'a' + u'A') : c;
}

bool IsSameText(const std::u16string& a, const std::u16string& b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char16_t x, char16_t y) { return Upper(x) == Upper(y); });
}

// "USB\\VID_1234&PID_5678&REV_0100&MI_00" is the keyboard with "USB\\VID_1234&PID_5678&MI_00" too, as the system
// tells both and the driver only the longer.
bool IsSameId(const std::u16string& own, const std::u16string& wanted)
{
    size_t at = own.find(u"&REV_");
    size_t end = std::min(own.find(u'&', at + 1), own.size());
    return IsSameText(own, wanted) ||
           (at != own.npos && IsSameText(own.substr(0, at) + own.substr(end), wanted));
}

// A keyboard that was added and did not start has no texts yet; nor has a position that the list lost meanwhile.
bool IsStarted(const KeyboardInfo& info)
{
    return info.HardwareId[0] != 0 || info.DeviceObjectName[0] != 0 || info.Description[0] != 0;
}

// What the positions of the list hold now: a keyboard that moved while they were asked is taken once.
std::vector<KeyboardInfo> AskPositions(const Channel& channel, uint16_t usCount)
{
    std::vector<KeyboardInfo> infos;
    for (uint16_t usPosition = 0; usPosition < usCount; usPosition++) {
        auto info = AskInfo(channel, usPosition);
        if (info && IsStarted(*info)) {
            infos.push_back(*info);
        }
    }
    auto before = [](const KeyboardInfo& a, const KeyboardInfo& b) {
        return a.ulDeviceIndex < b.ulDeviceIndex;
    };
    auto same = [](const KeyboardInfo& a, const KeyboardInfo& b) {
        return a.ulDeviceIndex == b.ulDeviceIndex;
    };
    std::sort(infos.begin(), infos.end(), before);
    infos.erase(std::unique(infos.begin(), infos.end(), same), infos.end());
    return infos;
}

// The name by which the system tells this keyboard from all others; "" when it does not tell.
std::u16string NameOf(const Channel& channel, uint32_t ulIndex)
{
    for (const std::u16string& name : channel.System()->ListInterfaces()) {
        auto index = AskName(channel, name);
        if (index && *index == ulIndex) {
            return name;
        }
    }
    return {};
}

// The only one of those that fit, which were asked for as About.
Result<Keyboard> OnlyOne(const Channel& channel, const std::vector<KeyboardInfo>& fitting,
                         const std::string& About)
{
    if (fitting.size() != 1) {
        return Status(fitting.empty() ? Status::NoSuchKeyboard : Status::Ambiguous, 0, About);
    }
    uint32_t ulIndex = fitting[0].ulDeviceIndex;
    return {Keyboard(channel, ulIndex, NameOf(channel, ulIndex)), Status()};
}
} // namespace

Result<KeyboardInfo> AskInfo(const Channel& channel, uint16_t usPosition)
{
    auto info = channel.AskRecord<KeyboardInfo>(IOCTL_TVUSB_GET_KEYBOARD_INFO, 0, BytesOf(usPosition));
    if (!info) {
        return Status(info.Error().Value(), info.Error().Request(), "position " + std::to_string(usPosition));
    }
    return info;
}

// The driver answers for as many positions as keyboards are started, but counts in those that are only added; these
// start soon, or never.
Result<std::vector<KeyboardInfo>> AskInfos(const Channel& channel)
{
    for (unsigned uTry = 1;; uTry++) {
        auto count = channel.Ask<uint16_t>(IOCTL_TVUSB_GET_KEYBOARD_COUNT);
        if (!count) {
            return count.Error();
        }
        std::vector<KeyboardInfo> infos = AskPositions(channel, *count);
        if (infos.size() >= *count) {
            return {std::move(infos), count.Error()};
        }
        auto pause = Event::Make(channel); // nobody sets it
        if (uTry == TRIES || !pause || pause->Wait(PAUSE_MS) != Status::Timeout) {
            return {std::move(infos), Status(Status::Incomplete, IOCTL_TVUSB_GET_KEYBOARD_INFO)};
        }
    }
}

Result<std::vector<KeyboardListEntry>> AskList(const Channel& channel)
{
    auto list = channel.AskRecord<KeyboardList>(IOCTL_TVUSB_LIST_KEYBOARDS, 0);
    if (!list) {
        return list.Error();
    }
    size_t count = std::min<size_t>(list->usCount, sizeof(list->Entries) / sizeof(list->Entries[0]));
    return {std::vector<KeyboardListEntry>(list->Entries, list->Entries + count), list.Error()};
}

Result<uint32_t> AskName(const Channel& channel, const std::u16string& Name)
{
    bool bPrefix = Name.rfind(u"\\\\?\\", 0) == 0 || Name.rfind(u"\\??\\", 0) == 0;
    std::u16string name = Name.substr(bPrefix ? PREFIX_CHARS : 0);
    RequestPayload payload = {};
    std::string about = "name " + ToUtf8(Name);
    if (name.size() >= sizeof(payload.Name) / sizeof(payload.Name[0])) {
        return Status(Status::InvalidParameter, IOCTL_TVUSB_FIND_KEYBOARD, about);
    }
    memcpy(payload.Name, name.data(), name.size() * sizeof(char16_t));
    auto index = channel.AskRecord<uint32_t>(IOCTL_TVUSB_FIND_KEYBOARD, 0, BytesOf(payload.Name));
    return index ? index : Status(index.Error().Value(), IOCTL_TVUSB_FIND_KEYBOARD, about);
}

Result<Keyboard> FindName(const Channel& channel, const std::u16string& Name)
{
    auto index = AskName(channel, Name);
    if (!index) {
        bool bNone = index.Error() == Status::Unsuccessful;
        return Status(bNone ? Status::NoSuchKeyboard : index.Error().Value(), 0, "name " + ToUtf8(Name));
    }
    return {Keyboard(channel, *index, Name), index.Error()};
}

Result<Keyboard> FindHardwareId(const Channel& channel, const std::u16string& HardwareId)
{
    auto infos = AskInfos(channel);
    std::string about = "hardware id " + ToUtf8(HardwareId);
    if (!infos) {
        return Status(infos.Error().Value(), infos.Error().Request(), about);
    }
    std::vector<KeyboardInfo> fitting;
    for (const KeyboardInfo& info : *infos) {
        if (IsSameId(TextOf(info.HardwareId), HardwareId)) {
            fitting.push_back(info);
        }
    }
    return OnlyOne(channel, fitting, about);
}

Result<Keyboard> FindOne(const Channel& channel)
{
    auto infos = AskInfos(channel);
    return infos ? OnlyOne(channel, *infos, "any keyboard") : infos.Error();
}

Result<Keyboard> FindListed(const Channel& channel, uint32_t ulIndex)
{
    auto list = AskList(channel);
    if (!list) {
        return list.Error();
    }
    bool bListed = std::any_of(list->begin(), list->end(), [ulIndex](const KeyboardListEntry& entry) {
        return entry.ulDeviceIndex == ulIndex;
    });
    if (!bListed) {
        return Status(Status::NoSuchKeyboard, 0, "keyboard " + std::to_string(ulIndex));
    }
    return {Keyboard(channel, ulIndex, NameOf(channel, ulIndex)), list.Error()};
}
} // namespace tvusb
