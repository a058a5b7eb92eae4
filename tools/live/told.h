// told.h - what live tells while it runs: the watch on standard output, the capture of both sides.
//
//   the driver's threads ──► [queue] ──► a thread of its own ──► printers
//
// Whoever tells waits for nobody: a slow disk, or a reader that stands still, holds up this thread alone. What finds no room
// in the queue is left out and counted.
#pragma once

#include "tools/replay/output.h"

#include <chrono>
#include <vector>

class LiveTold final : public ReplayPrinter
{
public:
    using Printers = std::vector<std::shared_ptr<ReplayPrinter>>;

    explicit LiveTold(Printers printers, size_t cRoom = 1 << 16);
    ~LiveTold() override;
    LiveTold(const LiveTold&) = delete;
    LiveTold& operator=(const LiveTold&) = delete;

    // Waits until all has been told, and says what was left out. False when somebody takes nothing for so long; his thread
    // is left behind then.
    bool Finish(std::chrono::milliseconds patience = std::chrono::seconds(1));
    size_t LeftOut() const;

    void Keyboard(uint64_t ullUs, unsigned uKeyboard, uint32_t ulIndex, unsigned uType,
                  const ScriptKeyboard& keyboard) override;
    void Definition(uint64_t, unsigned, uint32_t, uint32_t, const std::string&) override {}
    void Report(uint64_t ullUs, unsigned uKeyboard, const std::optional<Bytes>& sent,
                const Bytes& seen) override;
    void Event(uint64_t, unsigned, const NotifyRecord&) override {}
    void Macro(uint64_t, const MacroRecord&) override {}
    void Led(uint64_t ullUs, unsigned uKeyboard, uint8_t ucReport) override;
    void Descriptors(uint64_t ullUs, unsigned uKeyboard, const Bytes& device,
                     const Bytes& configuration) override;
    void End(uint64_t, const ReplayTotals&) override {}

private:
    struct State;
    using Line = std::function<void(ReplayPrinter&)>;
    void Tell(Line line);
    static void Run(const std::shared_ptr<State>& state);

    std::shared_ptr<State> m_State; // null: all has been told
};

// capture.cpp: a capture that grows while it is written, whole blocks at a time: who is killed leaves a file that can be
// read. When it cannot be written any more, that is said once, and it ends with the last whole block.
// "-" is the standard output. Fails (InputError): it cannot be opened.
std::shared_ptr<ReplayPrinter> OpenLiveCapture(const std::string& file);
