// classes.cpp - letters, digits of either kind, and signs; on other layouts than the US one signs are letters too.
#include "scrub.h"
#include "tools/keynames.h"

#include <algorithm>

namespace
{

const std::vector<uint8_t> Classes[] = {
    [] {
        std::vector<uint8_t> letters;
        for (uint8_t uc = 0x04; uc <= 0x1D; ++uc)
            letters.push_back(uc);
        return letters;
    }(),
    {0x1E, 0x1F, 0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27}, // 1 to 0
    {0x59, 0x5A, 0x5B, 0x5C, 0x5D, 0x5E, 0x5F, 0x60, 0x61, 0x62}, // the same of the keypad
    {0x2D, 0x2E, 0x2F, 0x30, 0x31, 0x32, 0x33, 0x34, 0x35, 0x36, 0x37, 0x38, 0x64, 0x87,
     0x89}, // - = [ ] and so on
};

} // namespace

int ClassOf(uint8_t ucUsage, const KeySet& named)
{
    for (size_t i = 0; i < std::size(Classes) && !named[ucUsage]; ++i)
        if (std::find(Classes[i].begin(), Classes[i].end(), ucUsage) != Classes[i].end())
            return static_cast<int>(i);
    return -1;
}

int ClassOfScan(uint8_t ucByte, const KeySet& named)
{
    for (const KeyName& key : AllKeyNames())
        if (!key.bConsumer && key.MakeCode() == (ucByte & 0x7Fu))
            return ClassOf(static_cast<uint8_t>(key.usUsage), named);
    return -1;
}

std::vector<uint8_t> KeysOfClass(int iClass, const KeySet& named)
{
    std::vector<uint8_t> keys = Classes[iClass];
    keys.erase(std::remove_if(keys.begin(), keys.end(), [&](uint8_t uc) { return named[uc]; }), keys.end());
    return keys;
}
