// Reports of every length, from every kind of keyboard, in every mode, between all that an application and a
// person do meanwhile; with two macros, and with a log when the settings say so.
#include "scene.h"
#include "tests/macro_file.h"

static FileBytes MacroFile()
{
    FileBytes file = MacroFileHead();
    AppendMacro(file, 0x3A, {{2, 0, 0x0B, 0, 0, 0, 0, 0}, {0}});
    AppendMacro(file, 0x0102, {{0, 0, 4, 5, 0, 0, 0, 0}});
    return file;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pBytes, size_t cBytes)
{
    EmptyFuzzFolder();
    WriteFuzzFile("macros.bin", MacroFile());
    FuzzInput input(pBytes, cBytes);
    FuzzScene scene(input, FuzzFolder());
    scene.Play(input);
    return 0;
}
