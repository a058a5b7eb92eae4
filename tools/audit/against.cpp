// against.cpp - the same session under two configurations, report by report.
//
// What is compared is what a keyboard's report led to: what the system saw, what the driver answered by itself until
// the keyboard's next report, what the application was told. It is kept as one line of text a report.
#include "audit.h"
#include "tools/common/text.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{

struct Course {
    uint64_t ullUs;
    unsigned uReport; // as `replay` counts its report lines, from 1
    std::string sent, came;
};
using Courses =
    std::map<unsigned, std::vector<Course>>; // by keyboard; the first is what came before any report

Courses CoursesOf(const Script& script, const ReplaySetup& setup, const ReplayConfig& config)
{
    Courses courses;
    Session session;
    unsigned uReports = 0;
    WalkSession(session, script, {setup.pEntry, setup.kinds, config}, [&](SessionLine&& line) {
        std::vector<Course>& own = courses[line.uKeyboard];
        const bool bReport = line.kind == LineKind::Report;
        uReports += bReport;
        if (line.kind == LineKind::Definition)
            return;
        if (line.kind == LineKind::Keyboard || line.sent)
            own.push_back({line.ullUs, uReports, line.sent ? HexOf(*line.sent, " ") : "", ""});
        if (line.kind == LineKind::Keyboard)
            return;
        std::string& came = own.back().came;
        came += came.empty() ? "" : ", ";
        came += bReport ? (line.sent ? "seen " : "answered ") + HexOf(line.seen, " ")
                        : WordsOf(session.kinds, line);
    });
    return courses;
}

std::string Came(const std::vector<Course>& courses, size_t i)
{
    return i >= courses.size() ? "not read" : courses[i].came.empty() ? "nothing" : courses[i].came;
}

} // namespace

std::vector<Finding> DifferencesOf(const Script& script, const ReplaySetup& setup, const Side& one,
                                   const Side& other)
{
    const Courses first = CoursesOf(script, setup, one.config);
    Courses second = CoursesOf(script, setup, other.config);
    std::vector<Finding> differences;
    for (const auto& [uKeyboard, courses] : first)
        for (size_t i = 0; i < std::max(courses.size(), second[uKeyboard].size()); ++i) {
            const std::string a = Came(courses, i), b = Came(second[uKeyboard], i);
            if (a == b)
                continue;
            const Course& course = i < courses.size() ? courses[i] : second[uKeyboard][i];
            differences.push_back({FindingKind::Difference,
                                   course.ullUs,
                                   uKeyboard,
                                   fmt::format("report {}, sent {}", course.uReport, course.sent),
                                   {one.name + ": " + a, other.name + ": " + b}});
        }
    std::stable_sort(differences.begin(), differences.end(),
                     [](const Finding& a, const Finding& b) { return a.ullUs < b.ullUs; });
    return differences;
}
