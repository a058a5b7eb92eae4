// table.cpp - the replay as a table for people.
//
//      seconds  kbd  the keyboard sent                   the system sees           the application is told
//    14.301076    0  01 00 3a 00 00 00 00 00  LCtrl+F1 →  00 00 00 00 00 00 00 00  hotkey 7 down
//
// One line a report, with the events that it caused beside it; the line waits until the next thing happens.
// Below 100 columns the parts of a line stand below each other.
// What no report caused (a timer's event, an LED report from above) has a line of its own.
#include "keys.h"
#include "output.h"
#include "tools/common/text.h"

#include <fmt/format.h>

#include <map>

namespace
{

const char* const Plain = "";
const char* const Dim = "\x1b[2m";
const char* const Bold = "\x1b[1m";
const char* const Yellow = "\x1b[33m";
const char* const Green = "\x1b[32m";
const char* const Red = "\x1b[31m";

constexpr unsigned WideColumns = 100;             // below, each part of a report has a line of its own
const char* const Below = "\n                  "; // where it begins
constexpr size_t SideWidth = 40;                  // columns of "bytes  names" on either side of the arrow

std::string SideOf(const Bytes& report, unsigned uType)
{
    return HexOf(report, " ") + "  " + KeysOfReport(report, uType);
}

const char* TypeName(unsigned uType)
{
    static const char* const names[] = {"of unknown type", "normal", "power", "Jaalaa", "Chic", "other"};
    return uType < 6 ? names[uType] : "?";
}

class TablePrinter final : public ReplayPrinter
{
public:
    TablePrinter(FILE* pOut, const Terminal& terminal, EventKinds kinds)
        : m_pOut(pOut), m_terminal(terminal), m_bNarrow(terminal.uColumns < WideColumns),
          m_kinds(std::move(kinds))
    {
    }

    void Keyboard(uint64_t ullUs, unsigned uKeyboard, uint32_t ulIndex, unsigned uType,
                  const ScriptKeyboard& keyboard) override
    {
        m_types[uKeyboard] = uType;
        Line(ullUs, uKeyboard, Bold,
             fmt::format("{} {:04x}:{:04x}{}{}, {} (device {})", keyboard.bMouse ? "mouse" : "keyboard",
                         keyboard.usVendor, keyboard.usProduct, keyboard.name.empty() ? "" : " ",
                         Printable(keyboard.name), TypeName(uType), ulIndex));
    }

    void Definition(uint64_t ullUs, unsigned uKeyboard, uint32_t ulId, uint32_t ulStatus,
                    const std::string& why) override
    {
        Line(ullUs, uKeyboard, ulStatus ? Red : Plain, DefinitionWords(ulId, ulStatus, why));
    }

    void Report(uint64_t ullUs, unsigned uKeyboard, const std::optional<Bytes>& sent,
                const Bytes& seen) override
    {
        Flush();
        if (!m_bHead && !m_bNarrow) {
            std::string head =
                fmt::format("{:>11}  kbd  {:{}}    {:{}}  {}", "seconds", "the keyboard sent", SideWidth,
                            "the system sees", SideWidth, "the application is told");
            fmt::print(m_pOut, "\n{}\n", Painted(Dim, head));
            m_bHead = true;
        }
        std::string left = sent ? SideOf(*sent, m_types[uKeyboard]) : "(answered by the driver)";
        const char* pMark = !sent || *sent != seen ? Yellow : Plain;
        const size_t cWidth = m_bNarrow ? 0 : SideWidth;
        m_line = fmt::format("{:4}.{:06}  {:>3}  {:{}}{}{}", ullUs / 1000000, ullUs % 1000000, uKeyboard,
                             left, cWidth, m_bNarrow ? Below : " ",
                             Painted(pMark, fmt::format("{}  {:{}}", m_terminal.bUtf8 ? "→" : "->",
                                                        SideOf(seen, m_types[uKeyboard]), cWidth)));
        m_ullLine = ullUs;
        m_uLine = uKeyboard;
    }

    void Event(uint64_t ullUs, unsigned uKeyboard, const NotifyRecord& record) override
    {
        if (m_kinds.IsScan(record))
            Scan(ullUs, uKeyboard, record);
        else
            Beside(ullUs, uKeyboard, Green, HotkeyWords(record));
    }

    void Macro(uint64_t ullUs, const MacroRecord& record) override
    {
        Beside(ullUs, m_uLine, Green, MacroWords(record));
    }

    void Led(uint64_t ullUs, unsigned uKeyboard, uint8_t ucReport) override
    {
        Beside(ullUs, uKeyboard, Dim, LedWords(ucReport));
    }

    void Pause() override { Flush(); }

    void Note(uint64_t ullUs, int iKeyboard, const std::string& text) override
    {
        Flush();
        fmt::print(m_pOut, "{:4}.{:06}  {:>3}  {}\n", ullUs / 1000000, ullUs % 1000000,
                   iKeyboard < 0 ? "" : std::to_string(iKeyboard), Painted(Yellow, text));
    }

    void End(uint64_t ullUs, const ReplayTotals& totals) override
    {
        Flush();
        fmt::print(m_pOut,
                   "\n{:4}.{:06}  {} keyboard{}, {} reports, {} events; left behind by the driver: {}\n",
                   ullUs / 1000000, ullUs % 1000000, totals.uKeyboards, totals.uKeyboards == 1 ? "" : "s",
                   totals.uReports, totals.uEvents,
                   totals.uLeaks ? fmt::format("{} things", totals.uLeaks) : "nothing");
    }

private:
    // The text in that colour, when colours are on.
    std::string Painted(const char* pColour, const std::string& text) const
    {
        return m_terminal.bColour && *pColour ? pColour + text + "\x1b[0m" : text;
    }

    // A name from a device, without what could drive a terminal.
    static std::string Printable(std::string text)
    {
        for (char& c : text)
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
                c = '?';
        return text;
    }

    // Scan codes in a row of one definition are told together.
    void Scan(uint64_t ullUs, unsigned uKeyboard, const NotifyRecord& record)
    {
        if (!m_scans.empty() && (m_ullScans != ullUs || m_uScans != uKeyboard || m_ulScansId != record.ulId))
            FlushScans();
        m_scans += fmt::format(" {:02x}", record.ulValue);
        m_ullScans = ullUs;
        m_uScans = uKeyboard;
        m_ulScansId = record.ulId;
    }

    void FlushScans()
    {
        std::string scans;
        scans.swap(m_scans);
        if (!scans.empty())
            Beside(m_ullScans, m_uScans, Green, ScanWords(scans, m_ulScansId));
    }

    void Flush()
    {
        FlushScans();
        if (!m_line.empty()) {
            m_line.erase(m_line.find_last_not_of(' ') + 1);
            fmt::print(m_pOut, "{}\n", m_line);
        }
        m_line.clear();
    }

    void Line(uint64_t ullUs, unsigned uKeyboard, const char* pColour, const std::string& text)
    {
        Flush();
        fmt::print(m_pOut, "{:4}.{:06}  {:>3}  {}\n", ullUs / 1000000, ullUs % 1000000, uKeyboard,
                   Painted(pColour, text));
    }

    // Beside the report's line when that is the same moment and keyboard, else on a line of its own.
    void Beside(uint64_t ullUs, unsigned uKeyboard, const char* pColour, const std::string& text)
    {
        FlushScans();
        if (m_line.empty() || m_ullLine != ullUs || m_uLine != uKeyboard)
            Line(ullUs, uKeyboard, pColour, text);
        else
            m_line += (m_bNarrow ? Below : "  ") + Painted(pColour, text);
    }

    FILE* m_pOut;
    const Terminal m_terminal;
    const bool m_bNarrow;
    const EventKinds m_kinds;
    bool m_bHead = false;
    std::map<unsigned, unsigned> m_types; // of the keyboards
    std::string m_line;                   // of the latest report, not printed yet
    uint64_t m_ullLine = 0;
    unsigned m_uLine = 0;
    std::string m_scans; // of one moment, not told yet
    uint64_t m_ullScans = 0;
    unsigned m_uScans = 0;
    uint32_t m_ulScansId = 0;
};

} // namespace

std::unique_ptr<ReplayPrinter> MakeTablePrinter(FILE* pOut, const Terminal& terminal, EventKinds kinds)
{
    return std::make_unique<TablePrinter>(pOut, terminal, std::move(kinds));
}
