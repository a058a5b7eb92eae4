// panic_test.cpp - the panic chord in the reports of a keyboard.
#include <gtest/gtest.h>

#include "tools/common/failure.h"
#include "tools/live/panic.h"

namespace
{
constexpr uint8_t Enter = 0x28, Escape = 0x29, Backspace = 0x2A, A = 0x04;

TEST(PanicChord, IsSeenWhenAllItsKeysAreDown)
{
    struct {
        const char* pName;
        const char* pKeys;
        Bytes report;
        bool bNumbered, bSeen;
    } const rows[] = {
        {"all", "Backspace+Escape+Enter", {0, 0, Escape, Enter, Backspace, 0, 0, 0}, false, true},
        {"and others", "Backspace+Escape+Enter", {2, 0, A, Backspace, A, Enter, A, Escape}, false, true},
        {"one missing", "Backspace+Escape+Enter", {0, 0, Escape, Enter, 0, 0, 0, 0}, false, false},
        {"none", "Backspace+Escape+Enter", {0, 0, 0, 0, 0, 0, 0, 0}, false, false},
        {"too many keys", "Backspace+Escape+Enter", {0, 0, 1, 1, 1, 1, 1, 1}, false, false},
        {"behind an ID", "escape+a", {Escape, 0, 0, A, Escape, 0, 0, 0, 0}, true, true},
        {"the ID is no key", "escape+a", {Escape, 0, 0, A, 0, 0, 0, 0, 0}, true, false},
        {"modifiers are no keys", "escape+a", {Escape, A, 0, 0, 0, 0, 0, 0}, false, false},
        {"with a modifier", "LCtrl+Escape", {1, 0, Escape, 0, 0, 0, 0, 0}, false, true},
        {"without it", "LCtrl+Escape", {0x10, 0, Escape, 0, 0, 0, 0, 0}, false, false},
        {"another report", "escape+a", {0, 0, A, Escape}, false, false},
        {"nothing", "escape+a", {}, true, false},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.bSeen, PanicChord(row.pKeys).IsIn(row.report, row.bNumbered)) << row.pName;
    for (const char* pKeys : {"", "Escape", "Escape+Nokey", "Escape+", "Escape+Volume Up", "a+b+c+d+e+f+g"})
        EXPECT_THROW(PanicChord{pKeys}, InputError) << pKeys;
}
} // namespace
