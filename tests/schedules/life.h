// life.h - one life of the driver: the machine, its keyboards, and what the seed draws for them.
//
// A scene is what happens in a life: threads that run at once, then, ten seconds after the last of them, what must
// hold. busy.cpp holds the scene in which everybody does everything; narrow.cpp those in which two or three do one
// thing over and over, at the same few bytes of the driver; checks.cpp what must hold after any of them.
#pragma once

#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "driver/context.h"
#include "driver/driver.h"
#include "emu/app/application.h"
#include "emu/app/machine.h"
#include "scenario.h"

struct Life {
    Life(unsigned long long ullSeed, const std::string& folder);
    unsigned Draw(unsigned uBelow) { return static_cast<unsigned>(Random() % uBelow); }
    void Pause();                                      // mostly none, 30 ms at most
    static void Sleep(unsigned uMs);                   // virtual time
    void Linger();                                     // without a wait: others may run, and may not
    void Begin(std::function<void()> body);            // one more thread
    void Expect(bool bHolds, const std::string& what); // the first that does not hold is kept
    bool Busy() const { return uScene == 0; }

    std::mt19937_64 Random; // threads take turns, so they share it
    unsigned uScene;        // 0: the busy one
    std::unique_ptr<EmuMachine> Machine;
    EmuKeyboard* pKeyboards[3] = {};
    const EmuDescriptors* pSecondKind = nullptr;
    EmuPlugOptions Plug;
    std::unique_ptr<EmuApplication> Application; // open from before the threads to after the checks, or none
    EmuSibling* pMouse = nullptr;
    std::vector<HostThread> Threads;
    std::string Wrong;
    unsigned long long ullDigest = 0xcbf29ce484222325;
    unsigned uReceived = 0;
    UCHAR ucLeds = 0; // what reached a keyboard last
};

struct Scene {
    void (*Begin)(Life& life); // starts the threads
    void (*Check)(Life& life); // ten seconds after the last has ended; null: nothing of its own
};

extern const Scene BusyScene;
enum { NARROW_SCENES = 8 };
extern const Scene NarrowScenes[NARROW_SCENES];
void CheckReads(Life& life);
void CheckRings(Life& life);
