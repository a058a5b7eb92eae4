// lines.h - what a printer was told, as JSON lines.
#pragma once

#include "tools/replay/output.h"

#include <mutex>

// One that prints nothing.
class NoPrinter : public ReplayPrinter
{
public:
    void Keyboard(uint64_t, unsigned, uint32_t, unsigned, const ScriptKeyboard&) override {}
    void Definition(uint64_t, unsigned, uint32_t, uint32_t, const std::string&) override {}
    void Report(uint64_t, unsigned, const std::optional<Bytes>&, const Bytes&) override {}
    void Event(uint64_t, unsigned, const NotifyRecord&) override {}
    void Macro(uint64_t, const MacroRecord&) override {}
    void Led(uint64_t, unsigned, uint8_t) override {}
    void End(uint64_t, const ReplayTotals&) override {}
};

class Lines
{
public:
    std::shared_ptr<ReplayPrinter> Printer() { return m_Printer; }

    std::vector<std::string> All()
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        return m_Lines;
    }
    // "in" and "out" of that keyboard's reports.
    std::vector<std::string> ReportsOf(unsigned uKeyboard)
    {
        std::vector<std::string> reports;
        for (const std::string& line : All())
            if (line.find("\"report\"") != line.npos && IsOf(line, uKeyboard))
                reports.push_back(line.substr(line.find("\"in\"")));
        return reports;
    }
    // What the driver takes it for.
    std::string KindOf(unsigned uKeyboard)
    {
        for (const std::string& line : All())
            if (size_t at = line.find("\"kbdtype\""); at != line.npos && IsOf(line, uKeyboard))
                return line.substr(at, line.find(',', at) - at);
        return "";
    }

private:
    static bool IsOf(const std::string& line, unsigned uKeyboard)
    {
        return line.find("\"kbd\":" + std::to_string(uKeyboard) + ",") != line.npos;
    }

    std::mutex m_Lock;
    std::vector<std::string> m_Lines;
    std::shared_ptr<ReplayPrinter> m_Printer = MakeJsonLines([this](const std::string& line) {
        std::lock_guard<std::mutex> lock(m_Lock);
        m_Lines.push_back(line);
    });
};
