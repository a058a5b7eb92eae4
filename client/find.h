// find.h - which index has the keyboard that is looked for?
#pragma once

#include "client/keyboard.h"

namespace tvusb
{
// The index of a search; ulIndex is the one that a search by index begins with. Fails: Unsuccessful, none.
Result<uint32_t> FindIndex(const Channel& channel, const KeyboardSearch& search, uint32_t ulIndex);

Result<KeyboardInfo> AskInfo(const Channel& channel, uint16_t usPosition);
Result<std::vector<KeyboardInfo>> AskInfos(const Channel& channel); // oldest first
Result<std::vector<KeyboardListEntry>> AskList(const Channel& channel);
Result<uint32_t> AskName(const Channel& channel, const std::u16string& Name);
} // namespace tvusb
