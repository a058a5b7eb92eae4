// findings.cpp - each value of the driver's parameters, by the rules by which the driver reads it.
//
// Numbers are REG_DWORD of four bytes. LogLevel and LogFileSize are read behind a LogFile that could be, the macro
// mode's settings in their order up to the first that is absent.
#include "findings.h"
#include "tools/common/nearest.h"
#include "tools/common/settings.h"
#include "tools/common/text.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{

constexpr uint32_t RefuseFrom = 2;
constexpr size_t MostLogFileChars = 126, MostMacroFileChars = 93;

constexpr char GuardValue[] = "ErrorCount"; // the driver's own, of any type

const char* const MacroValues[] = {"KorvexHotkey", "KorvexLEDDisabled", "KorvexDelay", "KorvexConfigFile"};

std::string TypeName(uint32_t ulType)
{
    const char* const names[] = {"REG_NONE",   "REG_SZ",    "REG_EXPAND_SZ",
                                 "REG_BINARY", "REG_DWORD", "REG_DWORD_BIG_ENDIAN"};
    return ulType < std::size(names) ? names[ulType] : fmt::format("type {}", ulType);
}

// Up to its first end.
std::string TextOf(const RegistryValue& value)
{
    size_t cBytes = 0;
    while (cBytes + 1 < value.data.size() && (value.data[cBytes] != 0 || value.data[cBytes + 1] != 0))
        cBytes += 2;
    return TextOfUtf16(value.data.data(), cBytes);
}

size_t CharsOf(const RegistryValue& value)
{
    size_t cChars = 0;
    while (2 * cChars + 1 < value.data.size() &&
           (value.data[2 * cChars] != 0 || value.data[2 * cChars + 1] != 0))
        cChars++;
    return cChars;
}

// Short values count as if zeros followed.
uint32_t NumberOf(const RegistryValue& value)
{
    uint32_t ulNumber = 0;
    for (size_t i = 0; i < std::min<size_t>(4, value.data.size()); i++)
        ulNumber |= static_cast<uint32_t>(value.data[i]) << 8 * i;
    return ulNumber;
}

class Doctor
{
public:
    explicit Doctor(const std::vector<RegistryValue>& values) : m_values(values) {}

    std::vector<Finding> Examine()
    {
        for (const RegistryValue& value : m_values)
            ExamineType(value);
        ExamineGuard();
        ExamineLog();
        ExamineMacros();
        return std::move(m_findings);
    }

private:
    const RegistryValue* Find(const std::string& name) const
    {
        auto at = std::find_if(m_values.begin(), m_values.end(), [&](const RegistryValue& value) {
            return LowerCase(value.name) == LowerCase(name);
        });
        return at == m_values.end() ? nullptr : &*at;
    }

    void Warn(const std::string& what, const std::string& advice)
    {
        m_findings.push_back({Finding::Warning, what, advice});
    }

    void ExamineType(const RegistryValue& value)
    {
        auto same = [&](std::string_view name) { return LowerCase(name) == LowerCase(value.name); };
        auto known = std::find_if(std::begin(KnownSettings), std::end(KnownSettings),
                                  [&](const KnownSetting& setting) { return same(setting.pName); });
        if (same(GuardValue))
            return;
        if (known == std::end(KnownSettings)) {
            std::vector<std::string> names = {GuardValue};
            for (const KnownSetting& setting : KnownSettings)
                names.emplace_back(setting.pName);
            return Warn(
                fmt::format("the driver knows no value '{}'{}", value.name, DidYouMean(value.name, names)),
                "give it the right name, or delete it");
        }
        bool bText = known->kind == SettingKind::FileName;
        uint32_t ulType = bText ? TypeText : TypeNumber;
        if (value.ulType != ulType || (!bText && value.data.size() != 4))
            Warn(fmt::format("{} is not read: it is {} of {} bytes", value.name, TypeName(value.ulType),
                             value.data.size()),
                 fmt::format("make it {}", TypeName(ulType)));
    }

    void ExamineGuard()
    {
        const RegistryValue* pCount = Find(GuardValue);
        uint32_t ulCount = pCount ? NumberOf(*pCount) : 0;
        if (ulCount >= RefuseFrom)
            m_findings.push_back({Finding::Fault,
                                  fmt::format("ErrorCount is {}: so many starts of the driver did not end, "
                                              "and it refuses every keyboard "
                                              "that is plugged in now",
                                              ulCount),
                                  "as an administrator: reg delete "
                                  "HKLM\\SYSTEM\\CurrentControlSet\\Services\\Tv64USB\\TolvenParams /v "
                                  "ErrorCount /f, then plug the keyboard in again"});
        else if (ulCount != 0)
            Warn("ErrorCount is 1: a start of the driver did not end; with a second one it refuses keyboards",
                 "when the machine starts well now: delete ErrorCount");
    }

    void ExamineLog()
    {
        const RegistryValue* pFile = Find("LogFile");
        bool bLong = pFile && pFile->ulType == TypeText && CharsOf(*pFile) > MostLogFileChars;
        if (bLong)
            Warn(fmt::format("LogFile is not read: {} characters, and at most {} can be", CharsOf(*pFile),
                             MostLogFileChars),
                 "give the log a shorter name");
        if (!pFile || (pFile->ulType == TypeText && !bLong))
            return;
        for (const char* pName : {"LogLevel", "LogFileSize"})
            if (Find(pName))
                Warn(fmt::format("{} is not read, as LogFile is not", pName), "mend LogFile");
    }

    void ExamineMacros()
    {
        const char* pAbsent = nullptr;
        for (const char* pName : MacroValues) {
            if (Find(pName) && pAbsent)
                Warn(fmt::format("{} is not read, as {}, which comes before, is absent", pName, pAbsent),
                     fmt::format("set {}", pAbsent));
            if (!Find(pName) && !pAbsent)
                pAbsent = pName;
        }
        const RegistryValue* pFile = Find("KorvexConfigFile");
        if (!pFile || pFile->ulType != TypeText)
            return;
        std::string name = TextOf(*pFile);
        if (CharsOf(*pFile) > MostMacroFileChars)
            Warn(fmt::format("KorvexConfigFile is not read: {} characters, and at most {} can be",
                             CharsOf(*pFile), MostMacroFileChars),
                 "give the macro file a shorter name");
        else if (name.size() >= 3 && name[1] == ':')
            Warn(fmt::format("KorvexConfigFile: the driver opens nothing by the plain path {}", name),
                 "write \\??\\" + name);
        else if (name.empty())
            Warn("KorvexConfigFile is empty: there are no macros",
                 "name the macro file, or delete the value");
    }

    const std::vector<RegistryValue>& m_values;
    std::vector<Finding> m_findings;
};

} // namespace

std::vector<Finding> FindingsOf(const std::vector<RegistryValue>& values)
{
    return Doctor(values).Examine();
}
