// changed.cpp - leaves out of a replay what went through as it came and caused nothing.
//
// A report that was not rewritten waits until the next thing happens: what is told at its moment brings it along.
#include "output.h"

#include <utility>

namespace
{

class ChangedPrinter final : public ReplayPrinter
{
public:
    explicit ChangedPrinter(std::unique_ptr<ReplayPrinter> inner) : m_inner(std::move(inner)) {}

    void Keyboard(uint64_t ullUs, unsigned uKeyboard, uint32_t ulIndex, unsigned uType,
                  const ScriptKeyboard& keyboard) override
    {
        m_inner->Keyboard(ullUs, uKeyboard, ulIndex, uType, keyboard);
    }
    void Definition(uint64_t ullUs, unsigned uKeyboard, uint32_t ulId, uint32_t ulStatus,
                    const std::string& why) override
    {
        m_inner->Definition(ullUs, uKeyboard, ulId, ulStatus, why);
    }
    void Report(uint64_t ullUs, unsigned uKeyboard, const std::optional<Bytes>& sent,
                const Bytes& seen) override
    {
        m_waiting.reset();
        if (sent && *sent == seen)
            m_waiting = Waiting{ullUs, uKeyboard, seen};
        else
            m_inner->Report(ullUs, uKeyboard, sent, seen);
    }
    void Event(uint64_t ullUs, unsigned uKeyboard, const NotifyRecord& record) override
    {
        Bring(ullUs);
        m_inner->Event(ullUs, uKeyboard, record);
    }
    void Macro(uint64_t ullUs, const MacroRecord& record) override
    {
        Bring(ullUs);
        m_inner->Macro(ullUs, record);
    }
    void Led(uint64_t ullUs, unsigned uKeyboard, uint8_t ucReport) override
    {
        m_inner->Led(ullUs, uKeyboard, ucReport);
    }
    void Note(uint64_t ullUs, int iKeyboard, const std::string& text) override
    {
        m_inner->Note(ullUs, iKeyboard, text);
    }
    void Pause() override { m_inner->Pause(); }
    void End(uint64_t ullUs, const ReplayTotals& totals) override { m_inner->End(ullUs, totals); }

private:
    struct Waiting {
        uint64_t ullUs;
        unsigned uKeyboard;
        Bytes report;
    };

    void Bring(uint64_t ullUs)
    {
        if (m_waiting && m_waiting->ullUs == ullUs)
            m_inner->Report(ullUs, m_waiting->uKeyboard, m_waiting->report, m_waiting->report);
        m_waiting.reset();
    }

    std::unique_ptr<ReplayPrinter> m_inner;
    std::optional<Waiting> m_waiting;
};

} // namespace

std::unique_ptr<ReplayPrinter> MakeChangedPrinter(std::unique_ptr<ReplayPrinter> inner)
{
    return std::make_unique<ChangedPrinter>(std::move(inner));
}
