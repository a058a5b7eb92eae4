// json.cpp - the replay as JSON lines.
//
// The members and their order are a format that programs read; new members go to the end of a line.
#include "output.h"
#include "tools/common/text.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{

class JsonPrinter final : public ReplayPrinter
{
public:
    explicit JsonPrinter(FILE* pOut) : m_pOut(pOut) {}

    void Keyboard(uint64_t ullUs, unsigned uKeyboard, uint32_t ulIndex, unsigned uType,
                  const ScriptKeyboard& keyboard) override
    {
        fmt::print(m_pOut,
                   "{{\"type\":\"keyboard\",\"t_us\":{},\"kbd\":{},\"index\":{},\"kbdtype\":{},\"vendor\":{},"
                   "\"product\":{},\"name\":{}}}\n",
                   ullUs, uKeyboard, ulIndex, uType, keyboard.usVendor, keyboard.usProduct,
                   QuotedJson(keyboard.name));
    }

    void Definition(uint64_t ullUs, unsigned uKeyboard, uint32_t ulId, uint32_t ulStatus,
                    const std::string&) override
    {
        fmt::print(m_pOut,
                   "{{\"type\":\"definition\",\"t_us\":{},\"kbd\":{},\"id\":{},\"status\":\"0x{:08x}\"}}\n",
                   ullUs, uKeyboard, ulId, ulStatus);
    }

    void Report(uint64_t ullUs, unsigned uKeyboard, const std::optional<Bytes>& sent,
                const Bytes& seen) override
    {
        fmt::print(m_pOut, "{{\"type\":\"report\",\"t_us\":{},\"kbd\":{},\"in\":{},\"out\":\"{}\"}}\n", ullUs,
                   uKeyboard, sent ? "\"" + HexOf(*sent) + "\"" : "null", HexOf(seen));
    }

    void Event(uint64_t ullUs, unsigned uKeyboard, const NotifyRecord& record) override
    {
        fmt::print(m_pOut,
                   "{{\"type\":\"event\",\"t_us\":{},\"kbd\":{},\"id\":{},\"value\":{},\"esc_abort\":{},"
                   "\"source\":{}}}\n",
                   ullUs, uKeyboard, record.ulId, record.ulValue, record.ulEscAbort, record.ucSource);
    }

    void Macro(uint64_t ullUs, const MacroRecord& record) override
    {
        Bytes report(record.ucReport,
                     record.ucReport + std::min<size_t>(record.ucLength, sizeof(record.ucReport)));
        fmt::print(m_pOut, "{{\"type\":\"macro\",\"t_us\":{},\"record\":{},\"mode\":{},\"report\":\"{}\"}}\n",
                   ullUs, record.usType, record.ucMode, HexOf(report));
    }

    void Led(uint64_t ullUs, unsigned uKeyboard, uint8_t ucReport) override
    {
        fmt::print(m_pOut, "{{\"type\":\"led\",\"t_us\":{},\"kbd\":{},\"report\":{},\"flags\":{}}}\n", ullUs,
                   uKeyboard, ucReport, LedFlagsOf(ucReport));
    }

    void Note(uint64_t ullUs, int iKeyboard, const std::string& text) override
    {
        fmt::print(m_pOut, "{{\"type\":\"note\",\"t_us\":{},\"kbd\":{},\"text\":{}}}\n", ullUs,
                   iKeyboard < 0 ? "null" : std::to_string(iKeyboard), QuotedJson(text));
    }

    void End(uint64_t ullUs, const ReplayTotals& totals) override
    {
        fmt::print(
            m_pOut,
            "{{\"type\":\"end\",\"t_us\":{},\"keyboards\":{},\"reports\":{},\"events\":{},\"leaks\":{}}}\n",
            ullUs, totals.uKeyboards, totals.uReports, totals.uEvents, totals.uLeaks);
    }

private:
    FILE* m_pOut;
};

} // namespace

uint8_t LedFlagsOf(uint8_t ucReport)
{
    return static_cast<uint8_t>((ucReport & 4 ? 1 : 0) | (ucReport & 1 ? 2 : 0) | (ucReport & 2 ? 4 : 0));
}

std::unique_ptr<ReplayPrinter> MakeJsonPrinter(FILE* pOut)
{
    return std::make_unique<JsonPrinter>(pOut);
}
