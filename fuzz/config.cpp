// The tool's configuration: any text, read for a replay and looked through for mistakes.
#include <string_view>

#include "scene.h"
#include "tools/check/check.h"
#include "tools/common/failure.h"
#include "tools/replay/config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pBytes, size_t cBytes)
{
    std::string_view text(reinterpret_cast<const char*>(pBytes), cBytes);
    bool bGood = true;
    try {
        ParseConfig("config.toml", text);
    } catch (const InputError&) { // one clear line
        bGood = false;
    }
    std::vector<Problem> mistakes, warnings;
    try {
        ReplayConfig config = ParseConfig("config.toml", text, &mistakes);
        CheckDefinitions(config, std::nullopt, warnings);
        CheckDefinitions(config, KeyboardKind::Jaalaa, warnings);
        CheckSettings(config, warnings);
    } catch (const InputError&) { // no TOML at all
        return 0;
    }
    if (bGood != mistakes.empty()) {
        abort(); // a mistake that only one of the two sees
    }
    return 0;
}
