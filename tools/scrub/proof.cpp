// proof.cpp - what a session and its scrubbed form have in common, line by line.
//
// A key that may be replaced is written as its class, so the lines of both are the same if, and only if, the driver did
// the same with both.
#include "scrub.h"
#include "tools/replay/keys.h"

#include <fmt/format.h>

namespace
{

std::string Key(int iClass, unsigned uByte)
{
    return iClass >= 0 ? fmt::format("[{}]", iClass) : fmt::format("{:02x}", uByte);
}

std::string TextOf(const Bytes& report, const SessionKeyboard& keyboard, const KeySet& named)
{
    if (IsOpaque(report, keyboard.uType, keyboard.script.bMouse))
        return fmt::format("{:02x} and {} bytes", report.empty() ? 0 : report[0], report.size());
    const size_t cFirst = FirstUsageOf(report, keyboard.uType);
    std::string text;
    for (size_t i = 0; i < report.size(); ++i)
        text += Key(i < cFirst ? -1 : ClassOf(report[i], named), report[i]);
    return text;
}

std::string TextOf(const NotifyRecord& record, bool bScan, const KeySet& named)
{
    std::string value = std::to_string(record.ulValue);
    if (bScan && record.ulValue <= 0xFF)
        value = (record.ulValue & 0x80 ? "break " : "make ") +
                Key(ClassOfScan(static_cast<uint8_t>(record.ulValue), named), record.ulValue & 0x7F);
    return fmt::format("event id={} value={} esc_abort={} source={}", record.ulId, value, record.ulEscAbort,
                       record.ucSource);
}

std::string TextOf(const SessionLine& line, const Session& session, const KeySet& named)
{
    const SessionKeyboard& keyboard = session.keyboards.at(line.uKeyboard);
    switch (line.kind) {
    case LineKind::Keyboard:
        return fmt::format("keyboard {:04x}:{:04x} of kind {}", keyboard.script.usVendor,
                           keyboard.script.usProduct, keyboard.uType);
    case LineKind::Report:
        return fmt::format("report {} -> {}",
                           line.sent ? TextOf(*line.sent, keyboard, named) : "(the driver)",
                           TextOf(line.seen, keyboard, named));
    case LineKind::Event:
        return TextOf(line.record, session.kinds.IsScan(line.record), named);
    case LineKind::Macro:
        if (line.macro.usType == MACRO_RECORD_REPORT) {
            const size_t cBytes = std::min<size_t>(line.macro.ucLength, sizeof(line.macro.ucReport));
            return "captured " +
                   TextOf(Bytes(line.macro.ucReport, line.macro.ucReport + cBytes), keyboard, named);
        }
        break;
    default:
        break;
    }
    return WordsOf(session.kinds, line);
}

} // namespace

void WriteProof(FILE* pOut, const Script& script, const ReplaySetup& setup, const KeySet& named,
                Session& session)
{
    WalkSession(session, script, setup, [&](SessionLine&& line) {
        fmt::print(pOut, "{}.{:06} keyboard {}: {}\n", line.ullUs / 1000000, line.ullUs % 1000000,
                   line.uKeyboard, TextOf(line, session, named));
    });
    fmt::print(pOut, "end at {}: {} keyboards, {} reports, {} events, {} left behind\n", session.ullEndUs,
               session.totals.uKeyboards, session.totals.uReports, session.totals.uEvents,
               session.totals.uLeaks);
}
