// against.cpp - the same session under two configurations, report by report.
//
//   this process:  the first configuration ──► courses ──┐
//                                                        ├──► keyboard by keyboard, one with one ──► differences
//   a copy of it:  the other one ──► courses ── lines ───┘
//
// A course is what a keyboard's report led to: what the system saw, what the driver answered by itself until the
// keyboard's next report, what the application was told. Each is told when it is over; what one side told first waits for
// the other.
#include "audit.h"
#include "beside.h"
#include "tools/common/text.h"

#include <fmt/format.h>

#include <deque>

namespace
{

struct Course {
    unsigned uKeyboard;
    uint64_t ullUs;
    unsigned uReport; // as `replay` counts its report lines, from 1
    std::string sent, came;
};
using CourseTaker = std::function<void(Course&&)>;

std::string LineOf(const Course& course)
{
    return fmt::format("{}\t{}\t{}\t{}\t{}", course.uKeyboard, course.ullUs, course.uReport, course.sent,
                       course.came);
}

Course CourseIn(const std::string& line)
{
    std::array<std::string, 5> parts;
    size_t cPart = 0;
    for (char c : line)
        c == '\t' && cPart + 1 < parts.size() ? void(++cPart) : void(parts[cPart] += c);
    return {static_cast<unsigned>(std::stoul(parts[0])), std::stoull(parts[1]),
            static_cast<unsigned>(std::stoul(parts[2])), parts[3], parts[4]};
}

// Plays the session. The first course of a keyboard is what came before any report.
void TellCourses(const Script& script, const ReplaySetup& setup, const ReplayConfig& config,
                 const CourseTaker& take)
{
    Session session;
    unsigned uReports = 0;
    std::map<unsigned, Course> open; // by keyboard
    WalkSession(session, script, {setup.pEntry, setup.kinds, config}, [&](SessionLine&& line) {
        if (line.kind == LineKind::Definition)
            return;
        const bool bReport = line.kind == LineKind::Report;
        uReports += bReport;
        if (line.kind == LineKind::Keyboard || line.sent) {
            if (auto before = open.extract(line.uKeyboard))
                take(std::move(before.mapped()));
            open[line.uKeyboard] = {line.uKeyboard, line.ullUs, uReports,
                                    line.sent ? HexOf(*line.sent, " ") : "", ""};
        }
        if (line.kind == LineKind::Keyboard)
            return;
        std::string& came = open[line.uKeyboard].came;
        came += came.empty() ? "" : ", ";
        came += bReport ? (line.sent ? "seen " : "answered ") + HexOf(line.seen, " ")
                        : WordsOf(session.kinds, line);
    });
    for (auto& [uKeyboard, course] : open)
        take(std::move(course));
}

class Comparison
{
public:
    Comparison(const Side& one, const Side& other, const FindingTaker& take)
        : m_one(one), m_other(other), m_take(take)
    {
    }

    void AddToOne(Course&& course) { Add(m_waiting[course.uKeyboard].one, std::move(course)); }
    void AddToOther(Course&& course) { Add(m_waiting[course.uKeyboard].other, std::move(course)); }
    // True when the other side is behind there.
    bool WaitsForOther(unsigned uKeyboard) { return !m_waiting[uKeyboard].one.empty(); }
    void End()
    {
        for (auto& [uKeyboard, waiting] : m_waiting) {
            for (const Course& course : waiting.one)
                Compare(course, CameOf(course), "not read");
            for (const Course& course : waiting.other)
                Compare(course, "not read", CameOf(course));
        }
    }

private:
    struct Waiting {
        std::deque<Course> one, other; // one of them is empty
    };

    void Add(std::deque<Course>& own, Course&& course)
    {
        Waiting& waiting = m_waiting[course.uKeyboard];
        own.push_back(std::move(course));
        if (waiting.one.empty() || waiting.other.empty())
            return;
        Compare(waiting.one.front(), CameOf(waiting.one.front()), CameOf(waiting.other.front()));
        waiting.one.pop_front();
        waiting.other.pop_front();
    }

    static std::string CameOf(const Course& course) { return course.came.empty() ? "nothing" : course.came; }

    void Compare(const Course& course, const std::string& came, const std::string& otherCame) const
    {
        if (came != otherCame)
            m_take({FindingKind::Difference,
                    course.ullUs,
                    course.uKeyboard,
                    fmt::format("report {}, sent {}", course.uReport, course.sent),
                    {m_one.name + ": " + came, m_other.name + ": " + otherCame}});
    }

    const Side& m_one;
    const Side& m_other;
    const FindingTaker& m_take;
    std::map<unsigned, Waiting> m_waiting; // by keyboard
};

} // namespace

void FindDifferences(const Script& script, const ReplaySetup& setup, const Side& one, const Side& other,
                     const FindingTaker& take)
{
    Beside beside([&](const LineTeller& tell) {
        TellCourses(script, setup, other.config, [&](Course&& course) { tell(LineOf(course)); });
    });
    Comparison comparison(one, other, take);
    std::string line;
    TellCourses(script, setup, one.config, [&](Course&& course) {
        const unsigned uKeyboard = course.uKeyboard;
        comparison.AddToOne(std::move(course));
        while (comparison.WaitsForOther(uKeyboard) && beside.Next(line))
            comparison.AddToOther(CourseIn(line));
    });
    while (beside.Next(line))
        comparison.AddToOther(CourseIn(line));
    comparison.End();
}
