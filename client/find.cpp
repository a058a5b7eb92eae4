// find.cpp - the look-ups behind Driver's ways to a keyboard and Keyboard::FindAgain.
#include "client/find.h"

#include <string.h>

#include <algorithm>

#include "client/driver.h"

namespace tvusb
{
namespace
{
constexpr size_t PREFIX_CHARS = 4; // "\\?\" or "\??\"

char16_t Upper(char16_t c)
{
    return c >= u'a' && c <= u'z' ? static_cast<char16_t>(c - u'a' + u'A') : c;
}

bool IsSameText(const std::u16string& a, const std::u16string& b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char16_t x, char16_t y) { return Upper(x) == Upper(y); });
}

Result<uint32_t> FindHardwareId(const Channel& channel, const KeyboardSearch& search)
{
    auto infos = AskInfos(channel);
    if (!infos) {
        return infos.Error();
    }
    uint32_t ulWhich = 0;
    for (const KeyboardInfo& info : *infos) {
        if (IsSameText(TextOf(info.HardwareId), search.Text) && ulWhich++ == search.ulWhich) {
            return {info.ulDeviceIndex, infos.Error()};
        }
    }
    return Status(Status::Unsuccessful);
}

bool IsListed(const Channel& channel, uint32_t ulIndex)
{
    auto list = AskList(channel);
    return std::any_of(list->begin(), list->end(),
                       [ulIndex](const KeyboardListEntry& entry) { return entry.ulDeviceIndex == ulIndex; });
}
} // namespace

Result<KeyboardInfo> AskInfo(const Channel& channel, uint16_t usPosition)
{
    return channel.AskRecord<KeyboardInfo>(IOCTL_TVUSB_GET_KEYBOARD_INFO, 0, BytesOf(usPosition));
}

// The list may change meanwhile: a position that is gone ends it, a keyboard that moved is taken once.
Result<std::vector<KeyboardInfo>> AskInfos(const Channel& channel)
{
    auto count = channel.Ask<uint16_t>(IOCTL_TVUSB_GET_KEYBOARD_COUNT);
    if (!count) {
        return count.Error();
    }
    std::vector<KeyboardInfo> infos;
    for (uint16_t usPosition = 0; usPosition < *count; usPosition++) {
        auto info = AskInfo(channel, usPosition);
        if (info && info->HardwareId[0] != 0) {
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
    return {std::move(infos), count.Error()};
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
    if (name.size() >= sizeof(payload.Name) / sizeof(payload.Name[0])) {
        return Status(Status::InvalidParameter, IOCTL_TVUSB_FIND_KEYBOARD);
    }
    memcpy(payload.Name, name.data(), name.size() * sizeof(char16_t));
    return channel.AskRecord<uint32_t>(IOCTL_TVUSB_FIND_KEYBOARD, 0, BytesOf(payload.Name));
}

Result<uint32_t> FindIndex(const Channel& channel, const KeyboardSearch& search, uint32_t ulIndex)
{
    if (!channel.IsOpen()) {
        return Status(Status::NotOpen);
    }
    switch (search.by) {
    case KeyboardSearch::By::Name:
        return AskName(channel, search.Text);
    case KeyboardSearch::By::HardwareId:
        return FindHardwareId(channel, search);
    case KeyboardSearch::By::Index:
        break;
    }
    if (IsListed(channel, ulIndex)) {
        return {ulIndex, Status()};
    }
    return search.Text.empty() ? Status(Status::Unsuccessful) : FindHardwareId(channel, search);
}
} // namespace tvusb
