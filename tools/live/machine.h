// machine.h - the driver running live: the threaded host, its keyboards, and the configuration's application.
#pragma once

#include "emu/app/application.h"
#include "emu/app/machine.h"
#include "tools/replay/config.h"
#include "tools/replay/output.h"

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

struct LiveOptions {
    PDRIVER_INITIALIZE pEntry = nullptr;
    ReplayConfig config;
    ReplayPrinter* pWatch = nullptr; // told of every keyboard, report and LED as it happens, from any thread
};

// What a change of the definitions came to.
struct Taken {
    unsigned uAdded = 0, uRemoved = 0, uKept = 0;
    std::vector<std::string> refused; // a line each
};

// A keyboard comes with Add and Start and goes with Unplug and Forget; it keeps its number, which no other gets. The
// definitions of the configuration are each keyboard's, also of one that comes later.
class LiveMachine
{
public:
    // Fails (std::runtime_error): the driver does not load.
    explicit LiveMachine(const LiveOptions& options);
    ~LiveMachine();

    // Makes a keyboard with the driver's and the HID stack's devices, which are not started. The descriptors must
    // outlive it; OnReceived hears before the watch does. Returns its number. Fails (std::runtime_error).
    unsigned Add(const EmuDescriptors& kind, EmuPlugOptions plug, const ScriptKeyboard& who);
    // Starts it, and gives it the definitions. Fails (std::runtime_error): the driver refuses it, or one of them.
    void Start(unsigned uKeyboard);
    // Pulled out, or removed in order; what uses its handle is told so from then on. Then the handle goes.
    void Unplug(unsigned uKeyboard, bool bPulled);
    void Forget(unsigned uKeyboard);

    // The keyboard sends a report; one thread at a time for each keyboard. False: it is lost, as nobody reads.
    bool Report(unsigned uKeyboard, const EmuBytes& report);
    EmuKeyboard* At(unsigned uKeyboard);
    // Takes the definitions of a configuration over in the place of the present ones, as a difference: new and
    // changed ones are added before old ones are removed, but for those that differ in what is swallowed alone; those
    // that stay the same are not touched.
    Taken TakeOver(const std::vector<KeyDefinition>& definitions);
    // Takes everything down. Returns how many things were left behind.
    unsigned End();

private:
    struct Slot {
        EmuKeyboard* pKeyboard = nullptr;
        ScriptKeyboard who;
        bool bStarted = false;
        std::deque<Bytes> sent; // reports that the stack above has not received yet
        std::thread::id sender; // who is about to send the last of them
    };

    std::vector<EmuKeyboard*> Started();
    bool OpenApplication(Taken& taken);
    void GiveDefinitions(EmuKeyboard& keyboard, Taken& taken);
    void Received(unsigned uKeyboard, const EmuReceived& received);
    uint64_t NowUs() const;

    LiveOptions m_Options;
    std::chrono::steady_clock::time_point m_Begin = std::chrono::steady_clock::now();
    std::unique_ptr<EmuMachine> m_Machine;
    std::mutex m_Lock; // guards the keyboards and the printer; nothing of the driver is called under it
    std::map<unsigned, Slot> m_Keyboards;
    unsigned m_uNext = 0;
    std::mutex m_DefinitionLock; // guards what follows; may be held while the driver is called
    std::unique_ptr<EmuApplication> m_Application; // holds the definitions of the configuration
    std::vector<KeyDefinition> m_Definitions;
};
