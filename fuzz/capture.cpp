// Captures and recordings: any file content, read as the tool reads it and, when it can be read, played.
#include <stdexcept>

#include "driver/driver.h"
#include "scene.h"
#include "tools/replay/failure.h"
#include "tools/replay/input.h"
#include "tools/replay/replay.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pBytes, size_t cBytes)
{
    static FILE* pNowhere = fopen("/dev/null", "w");
    FuzzInput input(pBytes, cBytes);
    bool bTable = input.Flag();
    WriteFuzzFile("capture", input.Rest());
    Script script;
    try {
        script = ReadInput(FuzzFolder() + "/capture");
    } catch (const InputError&) {
        return 0;
    }
    ReplayConfig config;
    auto pPrinter = bTable ? MakeTablePrinter(pNowhere, true) : MakeJsonPrinter(pNowhere);
    if (RunReplay(script, {DriverEntry, &EmuBootKeyboard, config}, *pPrinter) != 0) {
        abort();
    }
    return 0;
}
