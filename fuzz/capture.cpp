// Captures and recordings: any file content, read as the tool reads it and, when it can be read, played.
#include <stdexcept>

#include "driver/driver.h"
#include "scene.h"
#include "tools/replay/input.h"
#include "tools/replay/replay.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pBytes, size_t cBytes)
{
    static FILE* pNowhere = fopen("/dev/null", "w");
    FuzzInput input(pBytes, cBytes);
    bool bTable = input.Flag();
    WriteFuzzFile("capture", input.Rest());
    unsigned uLeft = 0;
    try {
        Script script = ReadInput(FuzzFolder() + "/capture");
        ReplayConfig config;
        auto pPrinter = bTable ? MakeTablePrinter(pNowhere, {true}) : MakeJsonPrinter(pNowhere);
        uLeft = RunReplay(script, {DriverEntry, {&EmuBootKeyboard, &EmuPowerKeyboard}, config}, *pPrinter);
    } catch (const std::runtime_error&) { // no input that can be read, or a keyboard that cannot be started
    }
    if (uLeft != 0) {
        abort();
    }
    return 0;
}
