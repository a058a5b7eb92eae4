// settings.cpp - the settings of a configuration: prefix keys, the macro mode and its file.
//
// The driver reads the macro mode's settings in one order and stops at the first that is absent.
#include "check.h"
#include "tools/macro/warnings.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{

const char* const MacroSettings[] = {"KorvexHotkey", "KorvexLEDDisabled", "KorvexDelay", "KorvexConfigFile"};

class Examiner
{
public:
    Examiner(const ReplayConfig& config, std::vector<Problem>& warnings)
        : m_config(config), m_warnings(warnings)
    {
    }

    void Examine()
    {
        for (const char* pName : {"Prefix1", "Prefix2", "PosKeyPrefix"})
            if (auto code = NumberSetting(m_config, pName); code && !HasKey(*code))
                Warn(pName, fmt::format("no key has the scan code 0x{:X}; the prefix is not set", *code));
        ExamineOrder();
        if (auto hotkey = NumberSetting(m_config, "KorvexHotkey"))
            ExamineHotkey(*hotkey);
        if (m_config.settings.count("KorvexConfigFile"))
            ExamineFile();
    }

private:
    void Warn(const char* pName, const std::string& what)
    {
        auto line = m_config.settingLines.find(pName);
        m_warnings.push_back(
            {line == m_config.settingLines.end() ? 0 : line->second, fmt::format("{}: {}", pName, what)});
    }

    void ExamineOrder()
    {
        const char* pAbsent = nullptr;
        for (const char* pName : MacroSettings) {
            bool bThere = m_config.settings.count(pName) != 0;
            if (!bThere && !pAbsent)
                pAbsent = pName;
            if (bThere && pAbsent)
                Warn(pName, fmt::format("the driver does not read it: {}, which it reads before, is absent",
                                        pAbsent));
        }
    }

    // Byte 2: how many bytes are looked for; byte 3: in a standard report, or one of 3 or 2 bytes.
    void ExamineHotkey(uint32_t ulHotkey)
    {
        unsigned uBytes = ulHotkey >> 16 & 0xFF, uPlace = ulHotkey >> 24;
        if (ulHotkey == 0)
            Warn("KorvexHotkey", "0 switches the macro mode off");
        else if (uPlace > 2)
            Warn("KorvexHotkey",
                 fmt::format("it never matches: byte 3 is {}, and there are the places 0, 1 and 2", uPlace));
        else if (uBytes > 2)
            Warn("KorvexHotkey",
                 fmt::format("it never matches: byte 2 is {}, and a hotkey has 1 or 2 bytes", uBytes));
        else if (uBytes == 0)
            Warn("KorvexHotkey", "byte 2 is 0: it matches every report");
    }

    // A path of a drive, as people write it on Windows: C:\macros.bin.
    static bool IsPlainPath(const std::string& path)
    {
        const size_t from = path.rfind('/') == std::string::npos ? 0 : path.rfind('/') + 1;
        return path.size() >= from + 3 && isalpha(static_cast<unsigned char>(path[from])) &&
               path[from + 1] == ':' && path[from + 2] == '\\';
    }

    void ExamineFile()
    {
        if (IsPlainPath(m_config.macroFile)) {
            const std::string path = m_config.macroFile.substr(m_config.macroFile.rfind('/') + 1);
            return Warn(
                "KorvexConfigFile",
                fmt::format("'{}' is a plain path, which the driver opens nowhere: it has no macros then "
                            "and says nothing; write '\\??\\{}'",
                            path, path));
        }
        const auto& name = std::get<std::string>(m_config.settings.at("KorvexConfigFile"));
        if (name.empty())
            Warn("KorvexConfigFile", "an empty name: the driver reads no macros");
        else if (auto what = WarnOfName(name))
            Warn("KorvexConfigFile", *what);
        if (m_config.macroFile.empty())
            return;
        const std::string& file =
            m_config.compiledMacros ? m_config.compiledMacros->Path() : m_config.macroFile;
        try {
            for (const MacroWarning& warning :
                 WarningsOf(ReadMacroFile(m_config.macroFile, ReadWholeFile(file))))
                Warn("KorvexConfigFile", fmt::format("{}: {}", m_config.macroFile, warning.what));
        } catch (const InputError& error) {
            Warn("KorvexConfigFile", error.what());
        }
    }

    const ReplayConfig& m_config;
    std::vector<Problem>& m_warnings;
};

} // namespace

void CheckSettings(const ReplayConfig& config, std::vector<Problem>& warnings)
{
    Examiner(config, warnings).Examine();
}
