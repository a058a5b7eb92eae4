// recording.cpp - a HID recording line by line.
//
// A device of the recording is a keyboard when it has reports; the keyboards are numbered as their devices
// appear. Times begin at the first report of the recording; a line whose time steps back is held still.
//
// Two passes: the first one learns the devices, the second one hands out the reports. Of a recording that still comes
// the first pass ends where it ends for now, once there is a report; a device that reports later comes up then.
#include "recording.h"
#include "tools/common/failure.h"
#include "tools/common/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <memory>
#include <optional>
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
        while (!m_rest.empty() && IsBlank(m_rest.front()))
            m_rest.remove_prefix(1);
        auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
        auto cEnd = static_cast<size_t>(std::find_if(m_rest.begin(), m_rest.end(), isBlank) - m_rest.begin());
        std::string_view word = m_rest.substr(0, cEnd);
        m_rest.remove_prefix(cEnd);
        return word;
    }

    // The next word as a byte; nearly always two hexadecimal digits.
    uint8_t Byte()
    {
        std::string_view word = Word();
        auto digit = [](char c) {
            return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        };
        int iHigh = word.size() == 2 ? digit(word[0]) : -1, iLow = word.size() == 2 ? digit(word[1]) : -1;
        if (iHigh >= 0 && iLow >= 0)
            return static_cast<uint8_t>(iHigh << 4 | iLow);
        return static_cast<uint8_t>(NumberOf(word, 16, 0xFF, "byte (two hexadecimal digits)"));
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

constexpr size_t LongestLine = 1 << 16;
constexpr uint32_t LiveReadBytes = 64; // of a device whose longest report has not come yet

struct RecordedDevice {
    ScriptKeyboard keyboard;
    bool bReports = false;
};

// Reads the lines of a recording, one report after the other.
class RecordingReader
{
public:
    RecordingReader(const SharedInput& pInput, Reading reading)
        : m_input(pInput, reading), m_file(pInput->Name())
    {
        m_bPresent = reading == Reading::Present;
    }

    // The next report, with its device's number. False at the end. Fails (InputError): a line that cannot be read.
    bool Next(ScriptStep& step)
    {
        std::string line;
        while (NextLine(line)) {
            m_bReport = false;
            Read(++m_uLines, line);
            if (m_bReport) {
                step = std::move(m_step);
                return true;
            }
        }
        return false;
    }

    // Devices in the order in which they appear.
    const std::vector<unsigned>& Order() const { return m_order; }
    RecordedDevice& Device(unsigned uDevice) { return m_devices.at(uDevice); }
    unsigned Lines() const { return std::max(m_uLines, 1u); }
    bool IsRecording() const { return m_bRecording && !m_bBinary; }

private:
    // A line without its end. One that the end of the input cuts counts, unless more may come.
    bool NextLine(std::string& line)
    {
        line.clear();
        while (true) {
            size_t cEnd = m_text.find('\n', m_cAt);
            if (cEnd != m_text.npos) {
                line.assign(m_text, m_cAt, cEnd - m_cAt);
                m_cAt = cEnd + 1;
                return true;
            }
            m_text.erase(0, m_cAt);
            m_cAt = 0;
            if (m_text.size() > LongestLine)
                throw InputError(
                    fmt::format("{}:{}: a line of more than {} bytes", m_file, m_uLines + 1, LongestLine));
            uint8_t buffer[1 << 14];
            size_t cNow = m_input.ReadSome(buffer, sizeof(buffer));
            m_bBinary = m_bBinary || std::count(buffer, buffer + cNow, 0) != 0;
            m_text.append(reinterpret_cast<const char*>(buffer), cNow);
            if (cNow != 0)
                continue;
            line.swap(m_text);
            m_text.clear();
            return !line.empty() && !m_bPresent;
        }
    }

    void Read(unsigned uNumber, std::string_view text)
    {
        text = Trim(text);
        if (text.size() < 2 || text[1] != ':')
            return;
        m_bRecording = m_bRecording || std::string_view("DRNPIE").find(text[0]) != text.npos;
        if (m_bBinary)
            return;
        Line line(m_file, uNumber, text.substr(2));
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
        bytes.reserve(ullCount);
        while (bytes.size() < ullCount)
            bytes.push_back(line.Byte());
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
        m_step = {};
        m_step.ullUs = m_ullLatest;
        m_step.uKeyboard = m_uDevice;
        m_step.data = std::move(report);
        m_bReport = true;
    }

    InputReader m_input;
    const std::string& m_file;
    std::string m_text; // read, and taken up to m_cAt
    size_t m_cAt = 0;
    std::map<unsigned, RecordedDevice> m_devices;
    std::vector<unsigned> m_order;
    ScriptStep m_step;
    bool m_bReport = false;
    unsigned m_uDevice = 0;
    unsigned m_uLines = 0;
    bool m_bTimed = false, m_bPresent = false, m_bRecording = false, m_bBinary = false;
    uint64_t m_ullFirst = 0, m_ullLatest = 0;
};

// The second pass: gives reports the numbers of their keyboards.
class StepNumberer
{
public:
    StepNumberer(const SharedInput& pInput, std::map<unsigned, unsigned> numbers, bool bComes,
                 const ScriptChoice& choice)
        : m_reader(pInput, choice.bFollow ? Reading::Following : Reading::Whole),
          m_numbers(std::move(numbers)), m_uKeyboards(static_cast<unsigned>(m_numbers.size())),
          m_bComes(bComes), m_choice(choice)
    {
    }

    bool Next(ScriptStep& step)
    {
        if (m_waiting) { // whose keyboard has just come up
            step = std::move(*m_waiting);
            m_waiting.reset();
            return true;
        }
        while (NextReport(step)) {
            if (step.ullUs > m_choice.ullToUs)
                return false;
            auto number = m_numbers.find(step.uKeyboard);
            if (step.ullUs < m_choice.ullFromUs || (number == m_numbers.end() && !ComesUp(step)))
                continue;
            if (number == m_numbers.end())
                return true;
            step.uKeyboard = number->second;
            return true;
        }
        return false;
    }

private:
    bool NextReport(ScriptStep& step)
    {
        try {
            return m_reader.Next(step);
        } catch (const InputError&) {
            if (m_choice.bFollow || (m_choice.bPartial && !m_bComes))
                return false; // the first pass kept what is wrong
            throw;
        }
    }

    // Makes of a device's first report the step that its keyboard comes with.
    bool ComesUp(ScriptStep& step)
    {
        const unsigned uDevice = step.uKeyboard;
        auto keyboard = std::make_shared<ScriptKeyboard>(m_reader.Device(uDevice).keyboard);
        if (!m_bComes || !IsChosen(*keyboard, m_choice.devices))
            return false;
        keyboard->ulReadBytes = std::max(keyboard->ulReadBytes, LiveReadBytes);
        step.uKeyboard = m_numbers[uDevice] = m_uKeyboards++;
        m_waiting = step;
        step.kind = StepKind::Keyboard;
        step.pKeyboard = std::move(keyboard);
        return true;
    }

    RecordingReader m_reader;
    std::map<unsigned, unsigned> m_numbers; // of keyboards, by device
    unsigned m_uKeyboards;
    const bool m_bComes;
    const ScriptChoice m_choice;
    std::optional<ScriptStep> m_waiting;
};

// The first pass: the keyboards, in the order in which their devices appear; those without a report fall out.
std::map<unsigned, unsigned> LearnKeyboards(RecordingReader& reader, Script& script,
                                            const ScriptChoice& choice, bool bComes)
{
    try {
        for (ScriptStep step; reader.Next(step);) {
        }
    } catch (const InputError& error) {
        if (!choice.bPartial && !bComes)
            throw;
        if (!bComes)
            script.cut = error.what();
    }
    std::map<unsigned, unsigned> numbers;
    for (unsigned uDevice : reader.Order()) {
        const RecordedDevice& device = reader.Device(uDevice);
        if (!device.bReports || !IsChosen(device.keyboard, choice.devices))
            continue;
        numbers[uDevice] = static_cast<unsigned>(script.keyboards.size());
        script.keyboards.push_back(device.keyboard);
        if (bComes)
            script.keyboards.back().ulReadBytes = std::max(device.keyboard.ulReadBytes, LiveReadBytes);
    }
    return numbers;
}

// False when nothing more can come. The end of a pipe is looked at once more.
bool WaitForMore(InputFile& input)
{
    if (!input.IsPipe())
        return WaitToFollow();
    input.TakeMore();
    return true;
}

} // namespace

Script ScriptOfRecording(const SharedInput& pInput, const ScriptChoice& choice)
{
    Script script;
    std::map<unsigned, unsigned> numbers;
    bool bComes, bMore;
    do {
        if (MayCome(*pInput, choice))
            pInput->Gather();
        bComes = MayCome(*pInput, choice);
        RecordingReader reader(pInput, bComes ? Reading::Present : Reading::Whole);
        numbers = LearnKeyboards(reader, script, choice, bComes);
        if (!bComes && !reader.IsRecording())
            throw InputError(
                fmt::format("{}:1: neither a USB capture (pcap, pcapng) nor a HID recording (hid-recorder)",
                            pInput->Name()));
        bMore = numbers.empty() && bComes && WaitForMore(*pInput);
        if (numbers.empty() && !bMore)
            throw InputError(fmt::format("{}:{}: the recording ends without a report (an E: line)",
                                         pInput->Name(), reader.Lines()));
    } while (bMore);
    script.Open = [pInput, numbers, bComes, choice]() -> StepReader {
        auto pNumberer = std::make_shared<StepNumberer>(pInput, numbers, bComes, choice);
        return [pNumberer](ScriptStep& step) { return pNumberer->Next(step); };
    };
    return script;
}
