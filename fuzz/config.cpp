// The tool's configuration: any text.
#include <string_view>

#include "scene.h"
#include "tools/replay/config.h"
#include "tools/replay/failure.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pBytes, size_t cBytes)
{
    try {
        ParseConfig("config.toml", std::string_view(reinterpret_cast<const char*>(pBytes), cBytes));
    } catch (const InputError&) { // one clear line
    }
    return 0;
}
