// json.cpp - the replay as JSON lines.
//
// The members and their order are a format that programs read; new members go to the end of a line.
#include "output.h"
#include "tools/common/text.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{

char* Put(char* p, std::string_view text)
{
    return std::copy(text.begin(), text.end(), p);
}

char* Put(char* p, const fmt::format_int& number)
{
    return std::copy_n(number.data(), number.size(), p);
}

// Formats each line in one buffer and hands it on with its end.
class JsonPrinter final : public ReplayPrinter
{
public:
    explicit JsonPrinter(JsonTaker take) : m_take(std::move(take)) {}

    void Keyboard(uint64_t ullUs, unsigned uKeyboard, uint32_t ulIndex, unsigned uType,
                  const ScriptKeyboard& keyboard) override
    {
        Print("{{\"type\":\"keyboard\",\"t_us\":{},\"kbd\":{},\"index\":{},\"kbdtype\":{},\"vendor\":{},"
              "\"product\":{},\"name\":{}}}\n",
              ullUs, uKeyboard, ulIndex, uType, keyboard.usVendor, keyboard.usProduct,
              QuotedJson(keyboard.name));
    }

    void Definition(uint64_t ullUs, unsigned uKeyboard, uint32_t ulId, uint32_t ulStatus,
                    const std::string&) override
    {
        Print("{{\"type\":\"definition\",\"t_us\":{},\"kbd\":{},\"id\":{},\"status\":\"0x{:08x}\"}}\n", ullUs,
              uKeyboard, ulId, ulStatus);
    }

    void Report(uint64_t ullUs, unsigned uKeyboard, const std::optional<Bytes>& sent,
                const Bytes& seen) override
    {
        constexpr size_t Around = 128; // at most, of all that is no report
        m_line.resize(Around + 2 * seen.size() + (sent ? 2 * sent->size() : 0));
        char* p = Put(m_line.data(), "{\"type\":\"report\",\"t_us\":");
        p = Put(p, fmt::format_int(ullUs));
        p = Put(p, ",\"kbd\":");
        p = Put(p, fmt::format_int(uKeyboard));
        if (sent)
            p = Put(PutHex(Put(p, ",\"in\":\""), *sent), "\",\"out\":\"");
        else
            p = Put(p, ",\"in\":null,\"out\":\"");
        p = Put(PutHex(p, seen), "\"}\n");
        m_line.resize(static_cast<size_t>(p - m_line.data()));
        Hand();
    }

    void Event(uint64_t ullUs, unsigned uKeyboard, const NotifyRecord& record) override
    {
        Print("{{\"type\":\"event\",\"t_us\":{},\"kbd\":{},\"id\":{},\"value\":{},\"esc_abort\":{},"
              "\"source\":{}}}\n",
              ullUs, uKeyboard, record.ulId, record.ulValue, record.ulEscAbort, record.ucSource);
    }

    void Macro(uint64_t ullUs, const MacroRecord& record) override
    {
        Bytes report(record.ucReport,
                     record.ucReport + std::min<size_t>(record.ucLength, sizeof(record.ucReport)));
        Print("{{\"type\":\"macro\",\"t_us\":{},\"record\":{},\"mode\":{},\"report\":\"{}\"}}\n", ullUs,
              record.usType, record.ucMode, HexOf(report));
    }

    void Led(uint64_t ullUs, unsigned uKeyboard, uint8_t ucReport) override
    {
        Print("{{\"type\":\"led\",\"t_us\":{},\"kbd\":{},\"report\":{},\"flags\":{}}}\n", ullUs, uKeyboard,
              ucReport, LedFlagsOf(ucReport));
    }

    void Note(uint64_t ullUs, int iKeyboard, const std::string& text) override
    {
        Print("{{\"type\":\"note\",\"t_us\":{},\"kbd\":{},\"text\":{}}}\n", ullUs,
              iKeyboard < 0 ? "null" : std::to_string(iKeyboard), QuotedJson(text));
    }

    void End(uint64_t ullUs, const ReplayTotals& totals) override
    {
        Print("{{\"type\":\"end\",\"t_us\":{},\"keyboards\":{},\"reports\":{},\"events\":{},\"leaks\":{}}}\n",
              ullUs, totals.uKeyboards, totals.uReports, totals.uEvents, totals.uLeaks);
    }

private:
    template <typename... Arguments> void Print(const char* pFormat, const Arguments&... arguments)
    {
        fmt::format_to(std::back_inserter(m_line), fmt::runtime(pFormat), arguments...);
        Hand();
    }
    void Hand()
    {
        m_take(m_line);
        m_line.clear();
    }

    JsonTaker m_take;
    std::string m_line;
};

} // namespace

uint8_t LedFlagsOf(uint8_t ucReport)
{
    return static_cast<uint8_t>((ucReport & 4 ? 1 : 0) | (ucReport & 1 ? 2 : 0) | (ucReport & 2 ? 4 : 0));
}

std::unique_ptr<ReplayPrinter> MakeJsonPrinter(FILE* pOut)
{
    // nobody else prints meanwhile
    return MakeJsonLines(
        [pOut](const std::string& line) { fwrite_unlocked(line.data(), 1, line.size(), pOut); });
}

std::unique_ptr<ReplayPrinter> MakeJsonLines(JsonTaker take)
{
    return std::make_unique<JsonPrinter>(std::move(take));
}
