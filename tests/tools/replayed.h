// replayed.h - the lines of whole replays through the driver, for tests.
#pragma once

#include "captures.h"

#include "tools/replay/input.h"
#include "tools/replay/replay.h"

#include "emu/app/application.h"

#include <gtest/gtest.h>

#include <list>

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

using Lines = std::vector<std::string>;

inline std::vector<std::string> LinesOf(const std::string& text)
{
    std::vector<std::string> lines;
    for (size_t cAt = 0, cEnd; (cEnd = text.find('\n', cAt)) != text.npos; cAt = cEnd + 1)
        lines.push_back(text.substr(cAt, cEnd - cAt));
    return lines;
}

// Prints through another printer and, when it is told of a report that the keyboard sent or of an LED report,
// lets a second application insert reports.
class InsertingPrinter final : public ReplayPrinter
{
public:
    explicit InsertingPrinter(FILE* pOut) : m_json(MakeJsonPrinter(pOut)) {}

    void Keyboard(uint64_t ullUs, unsigned uKeyboard, uint32_t ulIndex, unsigned uType,
                  const ScriptKeyboard& keyboard) override
    {
        m_json->Keyboard(ullUs, uKeyboard, ulIndex, uType, keyboard);
    }
    void Definition(uint64_t, unsigned, uint32_t, uint32_t, const std::string&) override {}
    void Report(uint64_t ullUs, unsigned uKeyboard, const std::optional<Bytes>& sent,
                const Bytes& seen) override
    {
        m_json->Report(ullUs, uKeyboard, sent, seen);
        if (sent && (*sent)[2] == 0x3A)
            Insert({{0, 8, {0, 0, 5}}, {0, 3, {1, 2, 3}}});
    }
    void Event(uint64_t ullUs, unsigned uKeyboard, const NotifyRecord& record) override
    {
        m_json->Event(ullUs, uKeyboard, record);
    }
    void Macro(uint64_t, const MacroRecord&) override {}
    void Led(uint64_t ullUs, unsigned uKeyboard, uint8_t ucReport) override
    {
        m_json->Led(ullUs, uKeyboard, ucReport);
        Insert({{0, 8, {0, 0, 6}}});
    }
    void End(uint64_t ullUs, const ReplayTotals& totals) override { m_json->End(ullUs, totals); }

private:
    static void Insert(const std::vector<FifoEntry>& entries)
    {
        EmuApplication application;
        EXPECT_EQ(STATUS_SUCCESS, application.InsertUSBPackets(0, entries));
    }

    std::unique_ptr<ReplayPrinter> m_json;
};

// The lines of one replay.
inline std::vector<std::string> Replayed(const Script& script, const std::string& config,
                                         const char* pKind = "normal",
                                         std::unique_ptr<ReplayPrinter> (*make)(FILE*) = MakeJsonPrinter)
{
    char* pText = nullptr;
    size_t cText = 0;
    FILE* pOut = open_memstream(&pText, &cText);
    ReplayConfig parsed = ParseConfig("my.toml", config);
    ReplaySetup setup{DriverEntry, {}, parsed};
    if (pKind)
        setup.kinds = {EmuMachine::FindKind(pKind)};
    unsigned uLeaks = RunReplay(script, setup, *make(pOut));
    fclose(pOut);
    std::string text(pText, cText);
    free(pText);
    EXPECT_EQ(0u, uLeaks);
    return LinesOf(text);
}

inline std::vector<std::string> ReplayedCapture(const UsbmonStory& story, const std::string& config,
                                                const char* pKind = nullptr)
{
    TestFile file(story.File());
    return Replayed(ReadInput(file.Path()), config, pKind);
}

// A script reads its file again each time it is played.
inline Script RecordingOf(const std::string& text)
{
    static std::list<TestFile> files;
    return ReadInput(files.emplace_back(BytesOf(text), ".hid").Path());
}

inline std::vector<std::string> ReplayedRecording(const std::string& text, const std::string& config,
                                                  const char* pKind)
{
    return Replayed(RecordingOf(text), config, pKind);
}

inline std::vector<std::string> Only(const std::vector<std::string>& lines, const std::string& part)
{
    std::vector<std::string> some;
    for (const std::string& line : lines)
        if (line.find(part) != line.npos)
            some.push_back(line);
    return some;
}
