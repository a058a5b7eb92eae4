// find.h - which keyboards are there, and which of them is the one that is looked for?
#pragma once

#include "client/keyboard.h"

namespace tvusb
{
Result<KeyboardInfo> AskInfo(const Channel& channel, uint16_t usPosition);
// Oldest first. Fails: Incomplete with those that could be asked.
Result<std::vector<KeyboardInfo>> AskInfos(const Channel& channel);
Result<std::vector<KeyboardListEntry>> AskList(const Channel& channel);
Result<uint32_t> AskName(const Channel& channel, const std::u16string& Name);

// The keyboard found in one of the four ways. Fails: NoSuchKeyboard, Ambiguous, Incomplete.
Result<Keyboard> FindName(const Channel& channel, const std::u16string& Name);
Result<Keyboard> FindHardwareId(const Channel& channel, const std::u16string& HardwareId);
Result<Keyboard> FindOne(const Channel& channel);
Result<Keyboard> FindListed(const Channel& channel, uint32_t ulIndex);
} // namespace tvusb
