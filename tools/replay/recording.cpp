// recording.cpp - a HID recording line by line.
//
// A device of the recording is a keyboard when it has reports; the keyboards are numbered as their devices
// appear. Times begin at the first report of the recording; a line whose time steps back is held still.
#include "recording.h"
#include "tools/common/failure.h"
#include "tools/common/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <memory>
#include <sstream>
#include <string_view>

namespace
{

// One line split into words, with the place to complain about.
class Line
{
public:
    Line(const std::string& file, unsigned uNumber, std::string_view text)
        : m_file(file), m_uNumber(uNumber), m_rest(text)
    {
    }

    std::string_view Word()
    {
        m_rest = Trim(m_rest);
        size_t cEnd = std::min(m_rest.find_first_of(" \t"), m_rest.size());
        std::string_view word = m_rest.substr(0, cEnd);
        m_rest.remove_prefix(cEnd);
        return word;
    }

    // The next word as a number that is at most ullMost.
    uint64_t Number(int iBase, uint64_t ullMost, const char* pWhat)
    {
        return NumberOf(Word(), iBase, ullMost, pWhat);
    }

    uint64_t NumberOf(std::string_view word, int iBase, uint64_t ullMost, const char* pWhat) const
    {
        uint64_t ullValue = 0;
        auto [pEnd, error] = std::from_chars(word.data(), word.data() + word.size(), ullValue, iBase);
        if (word.empty() || error != std::errc() || pEnd != word.data() + word.size() || ullValue > ullMost)
            Fail(fmt::format("'{}' is no {}", word, pWhat));
        return ullValue;
    }

    std::string_view Rest() const { return Trim(m_rest); }

    [[noreturn]] void Fail(const std::string& what) const
    {
        throw InputError(fmt::format("{}:{}: {}", m_file, m_uNumber, what));
    }

private:
    const std::string& m_file;
    unsigned m_uNumber;
    std::string_view m_rest;
};

struct RecordedDevice {
    ScriptKeyboard keyboard;
    bool bReports = false;
};

class RecordingReader
{
public:
    RecordingReader(const std::string& file, const ScriptChoice& choice) : m_file(file), m_choice(choice) {}

    void Read(unsigned uNumber, std::string_view text)
    {
        text = Trim(text);
        if (text.size() < 2 || text[1] != ':')
            return;
        Line line(m_file, uNumber, text.substr(2));
        m_uLines = uNumber;
        switch (text[0]) {
        case 'D':
            m_uDevice = static_cast<unsigned>(line.Number(10, 0xFFFF, "device number"));
            Current();
            break;
        case 'N':
            Current().keyboard.name = std::string(line.Rest());
            break;
        case 'I':
            line.Number(16, 0xFFFF, "bus");
            Current().keyboard.usVendor = static_cast<uint16_t>(line.Number(16, 0xFFFF, "vendor number"));
            Current().keyboard.usProduct = static_cast<uint16_t>(line.Number(16, 0xFFFF, "product number"));
            break;
        case 'R':
            ReadBytes(line, line.Number(10, 4096, "descriptor length"));
            break;
        case 'E':
            ReadReport(line);
            break;
        default: // P:, and whatever else there may be
            break;
        }
    }

    // The devices without a report fall out, and the rest keep their order.
    Script Finish()
    {
        std::map<unsigned, unsigned> numbers;
        Script script;
        for (unsigned uDevice : m_order) {
            RecordedDevice& device = m_devices[uDevice];
            if (!device.bReports || !IsChosen(device.keyboard, m_choice.devices))
                continue;
            numbers[uDevice] = static_cast<unsigned>(script.keyboards.size());
            script.keyboards.push_back(device.keyboard);
        }
        if (script.keyboards.empty())
            throw InputError(
                fmt::format("{}:{}: the recording ends without a report (an E: line)", m_file, m_uLines));
        auto isLeftOut = [&](const ScriptStep& step) {
            return !numbers.count(step.uKeyboard) || step.ullUs < m_choice.ullFromUs ||
                   step.ullUs > m_choice.ullToUs;
        };
        m_steps.erase(std::remove_if(m_steps.begin(), m_steps.end(), isLeftOut), m_steps.end());
        for (ScriptStep& step : m_steps)
            step.uKeyboard = numbers[step.uKeyboard];
        auto steps = std::make_shared<const std::vector<ScriptStep>>(std::move(m_steps));
        script.Open = [steps]() -> StepReader {
            return [steps, cAt = size_t(0)](ScriptStep& step) mutable {
                bool bMore = cAt < steps->size();
                if (bMore)
                    step = (*steps)[cAt++];
                return bMore;
            };
        };
        return script;
    }

private:
    RecordedDevice& Current()
    {
        if (!m_devices.count(m_uDevice)) {
            m_order.push_back(m_uDevice);
            m_devices[m_uDevice].keyboard.ulReadBytes = 0; // grows with its reports
        }
        return m_devices[m_uDevice];
    }

    static Bytes ReadBytes(Line& line, uint64_t ullCount)
    {
        Bytes bytes;
        while (bytes.size() < ullCount)
            bytes.push_back(static_cast<uint8_t>(line.Number(16, 0xFF, "byte (two hexadecimal digits)")));
        if (!line.Rest().empty())
            line.Fail(fmt::format("more than the {} bytes announced", ullCount));
        return bytes;
    }

    // Microseconds of "seconds.microseconds".
    static uint64_t ReadTime(Line& line)
    {
        std::string_view word = line.Word();
        size_t cDot = word.find('.');
        std::string_view fraction = cDot == std::string_view::npos ? "0" : word.substr(cDot + 1);
        if (fraction.size() > 6)
            line.Fail(fmt::format("'{}' has more than six digits of microseconds", word));
        uint64_t ullUs = line.NumberOf(word.substr(0, cDot), 10, 1ull << 40, "time") * 1000000u;
        uint64_t ullFraction = line.NumberOf(fraction, 10, 999999, "time");
        for (size_t i = fraction.size(); i < 6; ++i)
            ullFraction *= 10;
        return ullUs + ullFraction;
    }

    void ReadReport(Line& line)
    {
        uint64_t ullTime = ReadTime(line);
        Bytes report = ReadBytes(line, line.Number(10, 4096, "report length"));
        if (!m_bTimed)
            m_ullFirst = ullTime;
        m_bTimed = true;
        m_ullLatest = std::max(m_ullLatest, ullTime > m_ullFirst ? ullTime - m_ullFirst : 0);
        RecordedDevice& device = Current();
        if (report.empty())
            return;
        device.bReports = true;
        device.keyboard.ulReadBytes =
            std::max<uint32_t>(device.keyboard.ulReadBytes, static_cast<uint32_t>(report.size()));
        ScriptStep step;
        step.ullUs = m_ullLatest;
        step.uKeyboard = m_uDevice; // becomes the keyboard's number at the end
        step.data = std::move(report);
        m_steps.push_back(std::move(step));
    }

    const std::string& m_file;
    const ScriptChoice& m_choice;
    std::map<unsigned, RecordedDevice> m_devices;
    std::vector<unsigned> m_order;
    std::vector<ScriptStep> m_steps;
    unsigned m_uDevice = 0;
    unsigned m_uLines = 1;
    bool m_bTimed = false;
    uint64_t m_ullFirst = 0, m_ullLatest = 0;
};

// Calls visit(line number, line) for each line.
template <typename Visit> void WalkLines(const Bytes& content, Visit visit)
{
    std::string_view text(reinterpret_cast<const char*>(content.data()), content.size());
    for (unsigned uNumber = 1; !text.empty(); ++uNumber) {
        size_t cEnd = std::min(text.find('\n'), text.size());
        visit(uNumber, text.substr(0, cEnd));
        text.remove_prefix(std::min(cEnd + 1, text.size()));
    }
}

} // namespace

bool LooksLikeRecording(const Bytes& content)
{
    if (std::count(content.begin(), content.end(), 0))
        return false;
    bool bFound = false;
    WalkLines(content, [&](unsigned, std::string_view line) {
        line = Trim(line);
        bFound |= line.size() >= 2 && line[1] == ':' && std::string_view("DRNPIE").find(line[0]) != line.npos;
    });
    return bFound;
}

Script ScriptOfRecording(const std::string& file, const Bytes& content, const ScriptChoice& choice)
{
    RecordingReader reader(file, choice);
    std::string cut;
    try {
        WalkLines(content, [&](unsigned uNumber, std::string_view line) { reader.Read(uNumber, line); });
    } catch (const InputError& error) {
        if (!choice.bPartial)
            throw;
        cut = error.what();
    }
    Script script = reader.Finish();
    script.cut = cut;
    return script;
}
