// macro.cpp - nanoseconds per completed report of a keyboard that takes part in the macro mode.
//
//   RoadMacro/off    the mode is off: a report is searched for the mode hotkey and goes on
//   RoadMacro/on     the mode is on: its key is also compared with so many macros, none of which it is
//   RoadMacro/play   its key is the last of so many macros, which plays two reports without a pace, read at once
//
// Each iteration is a press and a release, whose macros play once.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "driver/context.h"
#include "driver/driver.h"
#include "emu/app/application.h"
#include "emu/app/machine.h"
#include "tests/macro_file.h"

namespace
{
const EmuBytes Release = {0, 0, 0, 0, 0, 0, 0, 0};
const EmuBytes ModeKey = {0, 0, 0x39, 0, 0, 0, 0, 0};
const EmuBytes Typing = {0, 0, 0x04, 0, 0, 0, 0, 0};
const EmuBytes MacroKey = {0, 0, 0x3A, 0, 0, 0, 0, 0};

void Require(bool bHolds, const char* pszWhat)
{
    if (!bHolds) {
        fprintf(stderr, "bench-report: %s\n", pszWhat);
        abort();
    }
}

struct MacroBench {
    MacroBench(int macros, bool bMode)
    {
        FileBytes file = MacroFileHead();
        for (int i = 0; i < macros; i++) { // the last one is on F1, all others on F12
            AppendMacro(file, i + 1 == macros ? 0x3A : 0x45, {{0, 0, 0x0B}, {}});
        }
        Drive.Write("m", file);
        EmuMachineOptions options;
        options.Entry = DriverEntry;
        options.FileRoot = Drive.Path();
        options.Settings["KorvexHotkey"] = ULONG{0x00010039};
        options.Settings["KorvexLEDDisabled"] = ULONG{1};
        options.Settings["KorvexDelay"] = ULONG{1};
        options.Settings["KorvexConfigFile"] = "\\??\\C:\\m";
        Machine = std::make_unique<EmuMachine>(options);
        EmuPlugOptions plug;
        plug.Record = false;
        plug.OnReceived = [this](const EmuReceived&) { Received++; };
        Keyboard = Machine->Plug(EmuBootKeyboard, plug);
        Require(Keyboard->StartStatus() == STATUS_SUCCESS, "the keyboard did not start");
        if (bMode) {
            Keyboard->Report(ModeKey);
            Keyboard->Report(Release);
        }
        WriteShared(Settings.ulKorvexDelay,
                    0u); // no pace; absent in the registry, the file would not be read
    }
    ~MacroBench() { Machine->Unload(); }

    DriveFolder Drive;
    std::unique_ptr<EmuMachine> Machine;
    EmuKeyboard* Keyboard;
    unsigned long long Received = 0;
};

// So many reads come back for each report of the key; a release lies between two of them.
void RoadMacro(benchmark::State& state, bool bMode, const EmuBytes& key, unsigned uReads)
{
    MacroBench bench(static_cast<int>(state.range(0)), bMode);
    bench.Received = 0;
    unsigned long long ullExpected = 0;
    for (auto _ : state) {
        bench.Keyboard->Report(key);
        bench.Keyboard->Report(Release);
        ullExpected += uReads + 1;
    }
    Require(bench.Received == ullExpected, "not the reads of this run");
    state.SetItemsProcessed(state.iterations() * 2);
}

BENCHMARK_CAPTURE(RoadMacro, off, false, Typing, 1)->Arg(1);
BENCHMARK_CAPTURE(RoadMacro, on, true, Typing, 1)->Arg(1)->Arg(10)->Arg(100);
BENCHMARK_CAPTURE(RoadMacro, play, true, MacroKey, 3)->Arg(1)->Arg(10)->Arg(100);
} // namespace
