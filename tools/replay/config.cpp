// config.cpp - the configuration file, table by table.
//
// Each table is read by naming the keys it may have; what is left over is unknown and refused. Numbers are
// range-checked against the field that they go to.
#include "config.h"
#include "tools/common/nearest.h"
#include "tools/common/settings.h"
#include "tools/keynames.h"
#include "tools/macro/readable.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <optional>

namespace
{

namespace fs = std::filesystem;

constexpr uint32_t StandardHotkey = 0x00010000; // one byte, looked for in a standard report

bool LeadsOut(const fs::path& path)
{
    return path.is_absolute() || (!path.empty() && *path.begin() == "..");
}

class ConfigReader : TomlReader
{
public:
    ConfigReader(const std::string& file, std::vector<Problem>* pProblems)
        : TomlReader(file, pProblems), m_folder(fs::absolute(file).parent_path().lexically_normal())
    {
    }

    ReplayConfig Read(std::string_view text)
    {
        toml::table root = ParseText(m_file, text);
        RefuseUnknownKeys(root, {"report_processing", "settings", "definition"}, "the file");
        if (const toml::node* pNode = root.get("report_processing"))
            Try([&] {
                if (!pNode->is_boolean())
                    Fail(*pNode, "report_processing is true or false");
                m_config.bReportProcessing = pNode->as_boolean()->get();
            });
        if (const toml::node* pNode = root.get("settings"))
            Try([&] { ReadSettings(*pNode); });
        if (const toml::node* pNode = root.get("definition"))
            Try([&] { ReadDefinitions(*pNode); });
        return std::move(m_config);
    }

private:
    // A setting that names a file.
    struct FileSetting {
        std::string name, text;
        fs::path path; // relative to the configuration's folder, or absolute
    };

    void ReadSettings(const toml::node& node)
    {
        if (!node.is_table())
            Fail(node, "settings is a table: [settings]");
        std::vector<FileSetting> files;
        for (const auto& [key, value] : *node.as_table()) {
            std::string name(key.str());
            unsigned uLine = key.source().begin.line;
            const toml::node& content = value;
            Try([&] { ReadSetting(name, uLine, content, files); });
        }
        NameFiles(files);
    }

    void ReadSetting(const std::string& name, unsigned uLine, const toml::node& value,
                     std::vector<FileSetting>& files)
    {
        auto known = std::find_if(std::begin(KnownSettings), std::end(KnownSettings),
                                  [&](const KnownSetting& setting) { return setting.pName == name; });
        if (known == std::end(KnownSettings)) {
            std::vector<std::string> names;
            for (const KnownSetting& setting : KnownSettings)
                names.emplace_back(setting.pName);
            Fail(uLine, fmt::format("unknown key '{}' in [settings]{}", name, DidYouMean(name, names)));
        }
        m_config.settingLines[name] = LineOf(value);
        if (known->kind == SettingKind::FileName)
            files.push_back(ReadFileName(name, value));
        else if (known->kind == SettingKind::Number || !value.is_string())
            m_config.settings[name] = NumberOf(value, name);
        else
            m_config.settings[name] = ReadKeySetting(known->kind, value);
    }

    // A key by its name where the setting is a key: its scan code, or the mode hotkey of a standard report.
    uint32_t ReadKeySetting(SettingKind kind, const toml::node& node) const
    {
        const KeyName& key = KeyOf(node, node.as_string()->get());
        if (kind == SettingKind::ScanCode)
            return key.MakeCode();
        if (key.bConsumer)
            Fail(node, fmt::format("'{}' is no key of the standard report; give the number",
                                   node.as_string()->get()));
        return StandardHotkey | key.usUsage;
    }

    FileSetting ReadFileName(const std::string& name, const toml::node& node)
    {
        FileSetting file{name, TextOf(node, name), {}};
        if (!std::all_of(file.text.begin(), file.text.end(), [](char c) { return c >= ' ' && c <= '~'; }))
            Fail(node, fmt::format("{} has characters that are not plain ASCII", name));
        file.path = fs::path(file.text).lexically_normal();
        if (name == "KorvexConfigFile" && !file.text.empty() && file.text[0] != '\\') {
            m_config.macroFile = (m_folder / file.path).string();
            if (file.path.extension() == ".toml")
                CompileMacroFile(node, file);
        }
        return file;
    }

    // Its mistakes are all told at the setting's line, each with its own place.
    void CompileMacroFile(const toml::node& node, FileSetting& file)
    {
        std::vector<Problem> mistakes;
        TryAt(LineOf(node), [&] {
            const std::string text = ReadWholeText(m_config.macroFile);
            MacroFile macros = CompileMacros(m_config.macroFile, text, TellsAll() ? &mistakes : nullptr);
            for (const Problem& mistake : mistakes)
                Tell({LineOf(node),
                      fmt::format("{}:{}: {}", m_config.macroFile, mistake.uLine, mistake.what)});
            if (!mistakes.empty())
                return;
            m_config.compiledMacros = std::make_shared<TemporaryFile>(BytesOf(macros));
            file.path = m_config.compiledMacros->Path();
        });
        if (!m_config.compiledMacros)
            m_config.macroFile.clear(); // there is nothing to look at further
    }

    // The driver knows files as the system's kernel does, on drive C, which is a host folder. That folder is
    // this file's own, which keeps the names short, unless a name leads out of it. An empty name stays empty.
    void NameFiles(const std::vector<FileSetting>& files)
    {
        bool bRoot = std::any_of(files.begin(), files.end(),
                                 [](const FileSetting& file) { return LeadsOut(file.path); });
        if (!files.empty())
            m_config.fileRoot = bRoot ? "/" : m_folder.string();
        for (const FileSetting& file : files) {
            bool bAsItIs = file.text.empty() || file.text[0] == '\\';
            fs::path path = bRoot ? m_folder / file.path : file.path;
            m_config.settings[file.name] = bAsItIs ? file.text : DriverFileName(path.string());
        }
    }

    void ReadDefinitions(const toml::node& node)
    {
        for (const toml::node& table : TablesOf(node, "definitions are tables: [[definition]]"))
            Try([&] {
                KeyDefinition definition = ReadDefinition(*table.as_table());
                const toml::node* pName = table.as_table()->get("name");
                m_config.definitionNames.push_back(pName ? TextOf(*pName, "name") : "");
                m_config.definitions.push_back(definition);
                m_config.definitionLines.push_back(LineOf(table));
            });
    }

    KeyDefinition ReadDefinition(const toml::table& table) const
    {
        RefuseUnknownKeys(table, {"id", "name", "type", "modifiers", "scans", "keys", "swallow"},
                          "[[definition]]");
        KeyDefinition definition{};
        if (!table.get("id"))
            Fail(table, "a definition needs an id");
        definition.ulId = NumberOf(*table.get("id"), "id");
        definition.ulType = table.get("type") ? NumberOf(*table.get("type"), "type") : 1;
        if (const toml::node* pNode = table.get("swallow"))
            definition.ulSwallow =
                pNode->is_boolean() ? pNode->as_boolean()->get() : NumberOf(*pNode, "swallow");
        definition.ulModifiers = table.get("modifiers") ? ReadModifiers(*table.get("modifiers")) : 0;

        std::vector<uint8_t> scans;
        if (table.get("scans") && table.get("keys"))
            Fail(*table.get("keys"), "a definition has scans or keys, not both");
        if (const toml::node* pNode = table.get("scans"))
            scans = ReadScans(*pNode);
        if (const toml::node* pNode = table.get("keys"))
            scans = ReadKeys(*pNode, definition.ulModifiers);
        // A count above the room is the driver's to refuse; the record carries what it has room for.
        definition.usScanCount = static_cast<uint16_t>(scans.size());
        std::copy_n(scans.begin(), std::min(scans.size(), sizeof(definition.ucScans)), definition.ucScans);
        return definition;
    }

    uint32_t ReadModifiers(const toml::node& node) const
    {
        if (node.is_integer())
            return NumberOf(node, "modifiers");
        uint32_t ulMask = 0;
        for (const toml::node& element : ArrayOf(node, "modifiers is a number, or names")) {
            const std::string& name = TextOf(element, "a modifier");
            std::optional<uint32_t> mask = FindModifierMask(name);
            if (!mask)
                Fail(element, fmt::format("unknown modifier name '{}'{}", name,
                                          DidYouMean(name, KnownModifierNames())));
            ulMask |= *mask;
        }
        return ulMask;
    }

    std::vector<uint8_t> ReadScans(const toml::node& node) const
    {
        std::vector<uint8_t> scans;
        const toml::array& array = ArrayOf(node, "scans is a list of bytes");
        if (array.size() > 0xFFFF)
            Fail(node, "scans has more than 65535 bytes");
        for (const toml::node& element : array)
            scans.push_back(static_cast<uint8_t>(NumberOf(element, "a scan code byte", 0xFF)));
        return scans;
    }

    // Each element is a key, or a chord: modifiers before the key, as in "ctrl+F1".
    std::vector<uint8_t> ReadKeys(const toml::node& node, uint32_t& ulModifiers) const
    {
        std::vector<uint8_t> scans;
        for (const toml::node& element : ArrayOf(node, "keys is a list of names")) {
            std::string_view name = TextOf(element, "a key");
            while (!FindKeyByName(name)) {
                size_t cPlus = name.find('+');
                auto mask = cPlus == name.npos ? std::nullopt : FindModifierMask(name.substr(0, cPlus));
                if (!mask)
                    break;
                ulModifiers |= *mask;
                name.remove_prefix(cPlus + 1);
            }
            for (uint8_t ucByte : MakeCodeBytes(KeyOf(element, name).MakeCode()))
                scans.push_back(ucByte);
        }
        if (scans.size() > 0xFFFF)
            Fail(node, "keys has too many names");
        return scans;
    }

    // A key by its name, which stands there.
    const KeyName& KeyOf(const toml::node& node, std::string_view name) const
    {
        const KeyName* pKey = FindKeyByName(name);
        if (!pKey)
            Fail(node, fmt::format("unknown key name '{}'{}", name, DidYouMean(name, KnownKeyNames(true))));
        if (pKey->MakeCode() == 0)
            Fail(node, fmt::format("the key '{}' has no PS/2 scan code", name));
        return *pKey;
    }

    fs::path m_folder;
    ReplayConfig m_config;
};

} // namespace

ReplayConfig ParseConfig(const std::string& file, std::string_view text, std::vector<Problem>* pProblems)
{
    return ConfigReader(file, pProblems).Read(text);
}

ReplayConfig ReadConfig(const std::string& file)
{
    return ParseConfig(file, ReadWholeText(file));
}
