// Captures and recordings: any file content, read as the tool reads it (packed, as the capture beside a umockdev text,
// in part, or as one that still grows) and, when it can be read, played.
#include <stdexcept>

#include "driver/driver.h"
#include "scene.h"
#include "tools/replay/input.h"
#include "tools/replay/inputfile.h"
#include "tools/replay/replay.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pBytes, size_t cBytes)
{
    static FILE* pNowhere = fopen("/dev/null", "w");
    FuzzInput input(pBytes, cBytes);
    const uint8_t ucHow = input.Byte();
    const bool bTable = ucHow & 1, bBeside = ucHow & 2;
    ScriptChoice choice;
    choice.bPartial = ucHow & 4;
    choice.bFollow = ucHow & 8;
    WriteFuzzFile(bBeside ? "umockdev.pcapng" : "capture", input.Rest());
    if (bBeside) {
        const char text[] = "P: /devices/usb1";
        WriteFuzzFile("umockdev", {text, text + sizeof(text) - 1});
    }
    StopFollowing(); // nobody waits for more than there is
    unsigned uLeft = 0;
    try {
        Script script = ReadInput(FuzzFolder() + (bBeside ? "/umockdev" : "/capture"), choice);
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
