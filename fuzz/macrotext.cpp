// Macro files in the tool: any file is read and shown, and gives the same bytes again by either way; any text is
// compiled or refused.
#include "scene.h"
#include "tools/common/failure.h"
#include "tools/macro/file.h"
#include "tools/macro/readable.h"
#include "tools/macro/warnings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pBytes, size_t cBytes)
{
    FuzzInput input(pBytes, cBytes);
    bool bBinary = input.Flag();
    std::vector<uint8_t> content = input.Rest();
    MacroFile macros;
    try {
        macros = bBinary ? ReadMacroFile("macros", content)
                         : CompileMacros("macros.toml", std::string(content.begin(), content.end()));
    } catch (const InputError&) { // one clear line
        return 0;
    }
    std::vector<uint8_t> bytes = BytesOf(macros);
    if (bBinary && bytes != content) {
        abort();
    }
    WarningsOf(macros);
    if (BytesOf(CompileMacros("shown.toml", ShowMacros("macros", macros))) != bytes) {
        abort();
    }
    return 0;
}
