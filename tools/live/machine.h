// machine.h - the driver running live: the threaded host, its keyboards, and the configuration's application.
#pragma once

#include "emu/app/application.h"
#include "emu/app/machine.h"
#include "tools/replay/config.h"
#include "tools/replay/output.h"

#include <chrono>
#include <deque>
#include <memory>
#include <mutex>

struct LiveOptions {
    PDRIVER_INITIALIZE pEntry = nullptr;
    std::vector<const EmuDescriptors*> keyboards;
    ReplayConfig config;
    ReplayPrinter* pWatch = nullptr; // told of every report and LED as it happens
};

// What a change of the definitions came to.
struct Taken {
    unsigned uAdded = 0, uRemoved = 0, uKept = 0;
    std::vector<std::string> refused; // a line each
};

class LiveMachine
{
public:
    // Fails (std::runtime_error): the driver does not load, or does not start a keyboard.
    explicit LiveMachine(const LiveOptions& options);
    ~LiveMachine();

    // The keyboard sends a report.
    bool Report(unsigned uKeyboard, const EmuBytes& report);
    unsigned Keyboards() const { return static_cast<unsigned>(m_Keyboards.size()); }
    // Takes the definitions of a configuration over in the place of the present ones, as a difference: new and
    // changed ones are added before old ones are removed, but for those that differ in what is swallowed alone; those
    // that stay the same are not touched.
    Taken TakeOver(const std::vector<KeyDefinition>& definitions);
    // Takes everything down. Returns how many things were left behind.
    unsigned End();

private:
    void Plug(unsigned uKeyboard, const EmuDescriptors& kind);
    void Received(unsigned uKeyboard, const EmuReceived& received);
    uint64_t NowUs() const;

    LiveOptions m_Options;
    std::mutex m_Lock;                     // guards what is sent, and the printer
    std::vector<std::deque<Bytes>> m_Sent; // by keyboard: reports that the stack above has not received yet
    std::chrono::steady_clock::time_point m_Begin = std::chrono::steady_clock::now();
    std::unique_ptr<EmuMachine> m_Machine;
    std::vector<EmuKeyboard*> m_Keyboards;
    std::unique_ptr<EmuApplication> m_Application; // holds the definitions of the configuration
    std::vector<KeyDefinition> m_Definitions;
};
