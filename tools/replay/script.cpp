// script.cpp - which keyboards of an input are asked for.
#include "script.h"
#include "inputfile.h"
#include "tools/common/text.h"

#include <fmt/format.h>

#include <algorithm>

bool MayCome(const InputFile& input, const ScriptChoice& choice)
{
    return input.IsPipe() ? input.IsOpen() && (choice.bLive || choice.bFollow) : choice.bFollow;
}

bool IsChosen(const ScriptKeyboard& keyboard, const std::vector<std::string>& devices)
{
    std::string ids = fmt::format("{:04x}:{:04x}", keyboard.usVendor, keyboard.usProduct);
    return devices.empty() || std::any_of(devices.begin(), devices.end(), [&](const std::string& wanted) {
               return LowerCase(wanted) == ids ||
                      LowerCase(keyboard.name).find(LowerCase(wanted)) != std::string::npos;
           });
}
