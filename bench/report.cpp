// report.cpp - nanoseconds per completed report.
//
//   Road…     the whole road: the read goes down, the keyboard completes it, the engine rewrites it, the stack
//             above takes it and reads again. The emulated keyboard and stack are part of the time.
//   Engine…   DiagUSBPacket alone, on a buffer.
//
// Each pair of iterations is a press and a release; the log is off. The argument is the number of hotkeys,
// none of which is pressed while typing; the hotkey runs press the last of them.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "control/control.h"
#include "driver/driver.h"
#include "emu/app/application.h"
#include "emu/app/machine.h"
#include "report/report.h"

namespace
{
// A run that does not do what its name says is not timed.
void Require(bool bHolds, const char* pszWhat)
{
    if (!bHolds) {
        fprintf(stderr, "bench-report: %s\n", pszWhat);
        abort();
    }
}

const EmuBytes TypePress = {0, 0, 0x04, 0, 0, 0, 0, 0};
const EmuBytes TypeRelease = {0, 0, 0, 0, 0, 0, 0, 0};
const EmuBytes HotkeyPress = {1, 0, 0x3A, 0, 0, 0, 0, 0};
const EmuBytes HotkeyRelease = {1, 0, 0, 0, 0, 0, 0, 0};

// A keyboard with so many hotkeys: Ctrl and one key each, told apart by their ids.
struct Bench {
    explicit Bench(int hotkeys)
    {
        EmuMachineOptions options;
        options.Entry = DriverEntry;
        Machine = std::make_unique<EmuMachine>(options);
        EmuPlugOptions plug;
        plug.Record = false;
        Keyboard = Machine->Plug(EmuBootKeyboard, plug);
        Application = std::make_unique<EmuApplication>();
        Application->StartReportProcessing(Keyboard->Index());
        for (int i = 0; i < hotkeys; i++) {
            KeyDefinition definition = {};
            definition.ulId = static_cast<uint32_t>(i + 1);
            definition.ulSwallow = 1;
            definition.ulType = 1;
            definition.ulModifiers = 0x400;
            definition.usScanCount = 1;
            definition.ucScans[0] = i + 1 == hotkeys ? 0x3B : 0x58; // the last one is F1, all others F12
            Require(Application->AddDefinition(Keyboard->Index(), definition) == STATUS_SUCCESS,
                    "a hotkey was refused");
        }
        if (hotkeys == 0) { // the report engine runs all the same
            KeyDefinition definition = {};
            definition.ulType = 1;
            Application->AddDefinition(Keyboard->Index(), definition);
        }
    }

    ~Bench()
    {
        Application->Close();
        Machine->Unload();
    }

    // The pair of reports once: a hotkey is told down and up, typing tells nothing.
    void Try(const EmuBytes& press, const EmuBytes& release)
    {
        Keyboard->Report(press);
        Keyboard->Report(release);
        const size_t expected = press == HotkeyPress ? 2 : 0;
        Require(Application->TakeRecords(Keyboard->Index()).size() == expected, "not the events of this run");
    }

    void DropEvents() { ClearNotifyQueue(Keyboard->Index()); }

    std::unique_ptr<EmuMachine> Machine;
    EmuKeyboard* Keyboard;
    std::unique_ptr<EmuApplication> Application;
};

void Road(benchmark::State& state, const EmuBytes& press, const EmuBytes& release)
{
    Bench bench(static_cast<int>(state.range(0)));
    bench.Try(press, release);
    unsigned reports = 0;
    for (auto _ : state) {
        bench.Keyboard->Report(++reports % 2 ? press : release);
        if (reports % 512 == 0) {
            state.PauseTiming();
            bench.DropEvents();
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(state.iterations());
}

void Engine(benchmark::State& state, const EmuBytes& press, const EmuBytes& release)
{
    Bench bench(static_cast<int>(state.range(0)));
    bench.Try(press, release);
    KIRQL oldIrql;
    KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
    unsigned reports = 0;
    for (auto _ : state) {
        UCHAR ucReport[8];
        memcpy(ucReport, (++reports % 2 ? press : release).data(), sizeof(ucReport));
        DiagUSBPacket(bench.Keyboard->Filter(), sizeof(ucReport), ucReport);
        benchmark::DoNotOptimize(ucReport);
        if (reports % 512 == 0) {
            state.PauseTiming();
            bench.DropEvents();
            state.ResumeTiming();
        }
    }
    KeLowerIrql(oldIrql);
    state.SetItemsProcessed(state.iterations());
}

#define HOTKEY_COUNTS ->Arg(0)->Arg(1)->Arg(10)->Arg(100)->Arg(511)

BENCHMARK_CAPTURE(Road, typing, TypePress, TypeRelease) HOTKEY_COUNTS;
BENCHMARK_CAPTURE(Road, hotkey, HotkeyPress, HotkeyRelease)->Arg(1)->Arg(10)->Arg(100)->Arg(511);
BENCHMARK_CAPTURE(Engine, typing, TypePress, TypeRelease) HOTKEY_COUNTS;
BENCHMARK_CAPTURE(Engine, hotkey, HotkeyPress, HotkeyRelease)->Arg(1)->Arg(10)->Arg(100)->Arg(511);
} // namespace

BENCHMARK_MAIN();
