// scene.h - what the fuzzers share: a fresh driver, keyboards, an application, and deeds that an input tells.
//
// Each input is a scene of its own, from loading the driver to unloading it, so that it gives the same run
// whenever it is played. A scene ends like a day: keyboards that may hold requests are pulled, threads end,
// the application closes, the driver unloads; what is left over then stops the run, as a broken rule does.
#pragma once

#include "emu/app/application.h"
#include "emu/app/machine.h"
#include "input.h"

// A deed is one byte of the input, its operands follow. The numbers are part of the corpus: new ones go last.
enum FuzzDeed : uint8_t {
    DeedReport,        // Short: the report
    DeedOn,            // a byte: which keyboard the next deeds mean
    DeedPlug,          // a byte: the kind
    DeedUnplug,        // a byte: 1 = pulled
    DeedDefine,        // DefinitionOf
    DeedUndefine,      // a byte: the id
    DeedProcessing,    // a byte: 1 = on
    DeedScans,         // Short: scan codes of modifier keys
    DeedPacket,        // Short: a report to insert
    DeedLed,           // two bytes: LEDs, 1 = as a class request
    DeedWait,          // a word: milliseconds, at most 5000
    DeedTake,          // the application takes what is queued
    DeedCapture,       // a byte: 1 = on
    DeedReread,        // the macro settings and the macro file
    DeedFailRead,      // the bus reports an error
    DeedRules,         // a byte: how many, then RuleOf each
    DeedRegisterEvent, // the keyboard's event
    DeedReopen,        // a byte: 1 = as a 32-bit process; the application closes and opens again
    DeedPnp,           // a byte: which request that changes nothing for good
    DeedCount
};

class FuzzScene
{
public:
    enum { MaximumKeyboards = 4, MaximumThreads = 6 };

    // Loads the driver; the input tells the schedule and which settings it finds. Root: the folder of its files.
    FuzzScene(FuzzInput& input, const std::string& root = "");
    // The same with a registry of its own.
    explicit FuzzScene(const EmuMachineOptions& options);
    ~FuzzScene() { End(); }
    FuzzScene(const FuzzScene&) = delete;
    FuzzScene& operator=(const FuzzScene&) = delete;

    void Plug(unsigned uKind, const EmuPlugOptions& options = {});
    void Do(FuzzDeed deed, FuzzInput& input);
    // Deeds until the input is used up, at most that many.
    void Play(FuzzInput& input, unsigned uMost = 200);
    // Runs in a thread of the application's, so that it may wait for a keyboard that never answers.
    void Run(std::function<void()> body);
    void End();

    EmuKeyboard* Keyboard() const { return m_pCurrent; } // null when none was plugged yet
    EmuApplication& Application() { return *m_pApplication; }
    bool Is32() const { return m_b32; }
    ULONG Index() const { return m_pCurrent ? m_pCurrent->Index() : 0; }

private:
    void Open(bool b32);
    void Define(FuzzInput& input);
    void SetRules(FuzzInput& input);
    void JoinThreads(bool bOnlyDone);

    struct Thread {
        HostThread Handle;
        std::shared_ptr<bool> pDone; // one thread runs at a time
    };

    std::unique_ptr<EmuMachine> m_pMachine;
    std::unique_ptr<EmuApplication> m_pApplication;
    std::vector<EmuKeyboard*> m_Keyboards;
    std::vector<Thread> m_Threads;
    EmuKeyboard* m_pCurrent = nullptr;
    bool m_b32 = false;
};

// The bits of the settings that the text names, in the word that begins an input of deeds.
unsigned FuzzSettingBits(const std::string& text);
// A folder for this process's files; gone when the process ends.
const std::string& FuzzFolder();
// Takes away what an earlier input left there.
void EmptyFuzzFolder();
// Writes a file into it, whole.
void WriteFuzzFile(const std::string& name, const std::vector<uint8_t>& bytes);
