// report.cpp - nanoseconds per completed report.
//
//   Road…     the whole road: the read goes down, the keyboard completes it, the engine rewrites it, the stack
//             above takes it and reads again. The emulated keyboard and stack are part of the time.
//   Engine…   DiagUSBPacket alone, on a buffer; for the cashier HandleOPOSPacket.
//
// Each pair of iterations is a press and a release; the log is off. The argument is the number of hotkeys,
// none of which is pressed while typing; the other runs press the last of them.
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

// What is done at which keyboard. The hotkeys are told apart by their ids; only the last of them is ucLast.
struct Scene {
    const EmuDescriptors* pKind;
    uint32_t ulModifiers;
    uint8_t ucPrefix, ucLast, ucOther; // scan codes of the hotkeys; no prefix: 0
    EmuBytes Press, Release;
    size_t EventsOfPair;
    uint32_t ulExtraType; // of one more definition, 0 = none
    ReportHandler* pHandler;
};

const EmuBytes Empty(8);
// clang-format off
const Scene Typing       = {&EmuBootKeyboard, 0x400, 0, 0x3B, 0x58, {0, 0, 0x04, 0, 0, 0, 0, 0}, Empty, 0, 0, DiagUSBPacket};
const Scene Hotkey       = {&EmuBootKeyboard, 0x400, 0, 0x3B, 0x58, {1, 0, 0x3A, 0, 0, 0, 0, 0}, {1, 0, 0, 0, 0, 0, 0, 0}, 2, 0, DiagUSBPacket};
const Scene Power        = {&EmuPowerKeyboard, 0, 0xE0, 0x30, 0x19, {0xE9, 0}, {0, 0}, 2, 0, DiagUSBPacket};
const Scene Jaalaa       = {&EmuJaalaaKeyboard, 0, 0xE0, 0x19, 0x6C, {2, 1, 0, 0, 0}, {2, 0, 0, 0, 0}, 2, 0, DiagUSBPacket};
const Scene Chic         = {&EmuChicKeyboard, 0, 0xE0, 0x32, 0x6C, {3, 0, 0, 4}, {3, 0, 0, 0}, 2, 0, DiagUSBPacket};
const Scene Cashier      = {&EmuBootKeyboard, 0, 0, 0, 0, {0, 0, 0x04, 0, 0, 0, 0, 0}, Empty, 2, 5, HandleOPOSPacket};
const Scene CashierMedia = {&EmuConsumerKeyboard, 0, 0, 0, 0, {1, 0xE9, 0}, {1, 0, 0}, 4, 5, HandleOPOSPacket};
// clang-format on

// A keyboard with so many hotkeys.
struct Bench {
    Bench(const Scene& scene, int hotkeys) : pScene(&scene)
    {
        EmuMachineOptions options;
        options.Entry = DriverEntry;
        Machine = std::make_unique<EmuMachine>(options);
        EmuPlugOptions plug;
        plug.Record = false;
        Keyboard = Machine->Plug(*scene.pKind, plug);
        Application = std::make_unique<EmuApplication>();
        Application->StartReportProcessing(Keyboard->Index());
        for (int i = 0; i < hotkeys; i++) {
            AddHotkey(static_cast<uint32_t>(i + 1), i + 1 == hotkeys ? scene.ucLast : scene.ucOther);
        }
        KeyDefinition definition = {};
        definition.ulType = scene.ulExtraType;
        definition.ulSwallow = 1;
        if (hotkeys == 0 && scene.ulExtraType == 0) {
            definition.ulType = 1; // the report engine runs all the same
        }
        if (definition.ulType != 0) {
            Add(definition);
        }
    }

    ~Bench()
    {
        Application->Close();
        Machine->Unload();
    }

    void Add(const KeyDefinition& definition)
    {
        Require(Application->AddDefinition(Keyboard->Index(), definition) == STATUS_SUCCESS,
                "a definition was refused");
    }

    void AddHotkey(uint32_t ulId, uint8_t ucScan)
    {
        KeyDefinition definition = {};
        definition.ulId = ulId;
        definition.ulSwallow = 1;
        definition.ulType = 1;
        definition.ulModifiers = pScene->ulModifiers;
        if (pScene->ucPrefix != 0) {
            definition.ucScans[definition.usScanCount++] = pScene->ucPrefix;
        }
        definition.ucScans[definition.usScanCount++] = ucScan;
        Add(definition);
    }

    const EmuBytes& ReportOf(unsigned number) const { return number % 2 ? pScene->Press : pScene->Release; }

    // The pair of reports once: it tells as many events as the scene says.
    void Try()
    {
        Keyboard->Report(pScene->Press);
        Keyboard->Report(pScene->Release);
        Require(Application->TakeRecords(Keyboard->Index()).size() == pScene->EventsOfPair,
                "not the events of this run");
    }

    void DropEvents() { ClearNotifyQueue(Keyboard->Index()); }

    const Scene* pScene;
    std::unique_ptr<EmuMachine> Machine;
    EmuKeyboard* Keyboard;
    std::unique_ptr<EmuApplication> Application;
};

// After so many reports the events are dropped, so that their queue never runs full.
enum { ReportsBetweenDrops = 256 };

void Road(benchmark::State& state, const Scene& scene)
{
    Bench bench(scene, static_cast<int>(state.range(0)));
    bench.Try();
    unsigned reports = 0;
    for (auto _ : state) {
        bench.Keyboard->Report(bench.ReportOf(++reports));
        if (reports % ReportsBetweenDrops == 0) {
            state.PauseTiming();
            bench.DropEvents();
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(state.iterations());
}

void Engine(benchmark::State& state, const Scene& scene)
{
    Bench bench(scene, static_cast<int>(state.range(0)));
    bench.Try();
    KIRQL oldIrql;
    KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
    unsigned reports = 0;
    for (auto _ : state) {
        UCHAR ucReport[8];
        const EmuBytes& report = bench.ReportOf(++reports);
        memcpy(ucReport, report.data(), report.size());
        scene.pHandler(bench.Keyboard->Filter(), static_cast<ULONG>(report.size()), ucReport);
        benchmark::DoNotOptimize(ucReport);
        if (reports % ReportsBetweenDrops == 0) {
            state.PauseTiming();
            bench.DropEvents();
            state.ResumeTiming();
        }
    }
    KeLowerIrql(oldIrql);
    state.SetItemsProcessed(state.iterations());
}

#define HOTKEY_COUNTS ->Arg(1)->Arg(10)->Arg(100)->Arg(511)

BENCHMARK_CAPTURE(Road, typing, Typing)->Arg(0) HOTKEY_COUNTS;
BENCHMARK_CAPTURE(Road, hotkey, Hotkey) HOTKEY_COUNTS;
BENCHMARK_CAPTURE(Road, power, Power) HOTKEY_COUNTS;
BENCHMARK_CAPTURE(Road, jaalaa, Jaalaa) HOTKEY_COUNTS;
BENCHMARK_CAPTURE(Road, chic, Chic) HOTKEY_COUNTS;
BENCHMARK_CAPTURE(Road, cashier, Cashier)->Arg(0);
BENCHMARK_CAPTURE(Road, cashier_media, CashierMedia)->Arg(0);
BENCHMARK_CAPTURE(Engine, typing, Typing)->Arg(0) HOTKEY_COUNTS;
BENCHMARK_CAPTURE(Engine, hotkey, Hotkey) HOTKEY_COUNTS;
BENCHMARK_CAPTURE(Engine, power, Power) HOTKEY_COUNTS;
BENCHMARK_CAPTURE(Engine, jaalaa, Jaalaa) HOTKEY_COUNTS;
BENCHMARK_CAPTURE(Engine, chic, Chic) HOTKEY_COUNTS;
BENCHMARK_CAPTURE(Engine, cashier, Cashier)->Arg(0);
BENCHMARK_CAPTURE(Engine, cashier_media, CashierMedia)->Arg(0);
} // namespace

BENCHMARK_MAIN();
