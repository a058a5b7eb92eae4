// keys.cpp - which keys a report tells of, kind by kind.
//
//   normal         8 bytes: modifier byte, reserved, six usages; 3 bytes: an ID, two usages
//   power          3 bytes: an ID, one media usage; 2 bytes: one media usage; low byte first
//   Jaalaa, Chic   key report: an ID, a bit for each key; power report: an ID, a bit for each key
#include "keys.h"
#include "sys/report/keytable.h"
#include "tools/common/text.h"
#include "tools/keynames.h"

#include <algorithm>

namespace
{

enum : unsigned { Power = 2, Jaalaa = 3, Chic = 4 };

using Names = std::vector<std::string>;

Names KeysOfUsages(const Bytes& report, size_t cFirst)
{
    Names names;
    if (report.size() == 8)
        names = ShownModifiers(report[0]);
    if (report.size() == 8 && std::count(report.begin() + 2, report.end(), 1) == 6)
        return {"(overrun)"};
    for (size_t i = cFirst; i < report.size(); ++i)
        if (report[i] != 0)
            names.push_back(ShownKeyName(report[i]));
    return names;
}

Names KeysOfMediaUsage(const Bytes& report)
{
    size_t cAt = report.size() - 2;
    auto usUsage = WordAt(report.data(), cAt);
    return usUsage ? Names{ShownMediaName(usUsage)} : Names{};
}

// A key of the power report has its ID and its bit in the pattern, a key of the key report only a bit.
Names KeysOfPatterns(const Bytes& report, unsigned uType)
{
    const uint8_t ucKeyReport = uType == Jaalaa ? 2 : 3, ucPowerReport = uType == Jaalaa ? 1 : 2;
    if (report.size() < 2 || (report[0] != ucKeyReport && report[0] != ucPowerReport))
        return {};
    bool bPower = report[0] == ucPowerReport;
    uint32_t ulWord = 0; // the bytes that patterns are made of, most significant first
    for (size_t i = 0; i < 4; ++i) {
        size_t cAt = bPower ? i : i + 1;
        ulWord = ulWord << 8 | (cAt < report.size() ? report[cAt] : 0);
    }
    Names names;
    for (const KeyTableRow& row : KeyTable) {
        uint32_t ulPattern = uType == Jaalaa ? row.ulHIDJaalaa : row.ulHIDChic;
        bool bOneBit = (ulPattern & (ulPattern - 1)) == 0;
        if (ulPattern != 0 && bOneBit != bPower && (ulWord & ulPattern) == ulPattern)
            names.push_back(ShownMediaName(row.usUsage));
    }
    return names;
}

} // namespace

size_t FirstUsageOf(const Bytes& report, unsigned uType)
{
    bool bPatterns = uType == Jaalaa || uType == Chic;
    return bPatterns                              ? report.size()
           : report.size() == 8                   ? 2
           : report.size() == 3 && uType != Power ? 1
                                                  : report.size();
}

std::vector<std::string> KeyListOfReport(const Bytes& report, unsigned uType)
{
    if (uType == Jaalaa || uType == Chic)
        return KeysOfPatterns(report, uType);
    if (uType == Power && (report.size() == 2 || report.size() == 3))
        return KeysOfMediaUsage(report);
    return KeysOfUsages(report, FirstUsageOf(report, uType));
}

std::string KeysOfReport(const Bytes& report, unsigned uType)
{
    std::string text;
    for (const std::string& name : KeyListOfReport(report, uType))
        text += (text.empty() ? "" : "+") + name;
    return text;
}
