// output.h - what a replay tells: one call for each thing that happens, in the order in which it happens.
//
// Two printers: JSON objects for programs, one a line, and a table for people. They format and print; what
// happened and when is the replay's to say.
#pragma once

#include "script.h"
#include "words.h"

#include "sys/control/requests.h"
#include "tools/common/terminal.h"

#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>

struct ReplayTotals {
    unsigned uKeyboards = 0;
    unsigned uReports = 0;
    unsigned uEvents = 0;
    unsigned uLeaks = 0;
    unsigned uUnread = 0; // reports that keyboards sent and nobody received: no read was there for them
};

class ReplayPrinter
{
public:
    virtual ~ReplayPrinter() = default;
    virtual void Keyboard(uint64_t ullUs, unsigned uKeyboard, uint32_t ulIndex, unsigned uType,
                          const ScriptKeyboard& keyboard) = 0;
    virtual void Definition(uint64_t ullUs, unsigned uKeyboard, uint32_t ulId, uint32_t ulStatus,
                            const std::string& why) = 0; // in words, "" when it is taken
    // sent: what the keyboard sent, or nothing when the driver answered the read itself.
    virtual void Report(uint64_t ullUs, unsigned uKeyboard, const std::optional<Bytes>& sent,
                        const Bytes& seen) = 0;
    virtual void Event(uint64_t ullUs, unsigned uKeyboard, const NotifyRecord& record) = 0;
    virtual void Macro(uint64_t ullUs, const MacroRecord& record) = 0;
    virtual void Led(uint64_t ullUs, unsigned uKeyboard, uint8_t ucReport) = 0;
    // Something to know of the input or of a keyboard (-1: none of them alone).
    virtual void Note(uint64_t, int /*iKeyboard*/, const std::string&) {}
    // What the keyboard answers when it is asked what it is: told where no input has it.
    virtual void Descriptors(uint64_t, unsigned /*uKeyboard*/, const Bytes& /*device*/,
                             const Bytes& /*configuration*/)
    {
    }
    virtual void Pause() {} // more is waited for: what was told shall be seen
    virtual void End(uint64_t ullUs, const ReplayTotals& totals) = 0;
};

// The LEDs of an output report as indicator flags: Scroll Lock 1, Num Lock 2, Caps Lock 4.
uint8_t LedFlagsOf(uint8_t ucReport);

// json.cpp: to a file, or each line with its end to somebody.
using JsonTaker = std::function<void(const std::string& line)>;
std::unique_ptr<ReplayPrinter> MakeJsonPrinter(FILE* pOut);
std::unique_ptr<ReplayPrinter> MakeJsonLines(JsonTaker take);
// table.cpp; bColour only when the output is a terminal.
std::unique_ptr<ReplayPrinter> MakeTablePrinter(FILE* pOut, const Terminal& terminal, EventKinds kinds = {});
// changed.cpp: passes on what was rewritten or told, and leaves reports out that went on as they came.
std::unique_ptr<ReplayPrinter> MakeChangedPrinter(std::unique_ptr<ReplayPrinter> inner);
