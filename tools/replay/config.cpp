// config.cpp - the configuration file, table by table.
//
// Each table is read by naming the keys it may have; what is left over is unknown and refused. Numbers are
// range-checked against the field that they go to.
#include "config.h"
#include "failure.h"
#include "input.h"
#include "tools/keynames.h"

#include <fmt/format.h>
#include <toml++/toml.h>

#include <algorithm>
#include <filesystem>
#include <optional>

namespace
{

enum class SettingKind { Number, Text, FileName };

struct KnownSetting {
    const char* pName;
    SettingKind kind;
};

const KnownSetting KnownSettings[] = {
    {"Prefix1", SettingKind::Number},
    {"Prefix2", SettingKind::Number},
    {"PosKeyPrefix", SettingKind::Number},
    {"SendUpEventImmediately", SettingKind::Number},
    {"RunDiagNormalPacket02", SettingKind::Number},
    {"LogFile", SettingKind::FileName},
    {"LogLevel", SettingKind::Number},
    {"LogFileSize", SettingKind::Number},
    {"KorvexHotkey", SettingKind::Number},
    {"KorvexLEDDisabled", SettingKind::Number},
    {"KorvexDelay", SettingKind::Number},
    {"KorvexConfigFile", SettingKind::FileName},
};

class ConfigReader
{
public:
    explicit ConfigReader(const std::string& file) : m_file(file) {}

    ReplayConfig Read(const toml::table& root)
    {
        RefuseUnknownKeys(root, {"report_processing", "settings", "definition"}, "the file");
        if (const toml::node* pNode = root.get("report_processing")) {
            if (!pNode->is_boolean())
                Fail(*pNode, "report_processing is true or false");
            m_config.bReportProcessing = pNode->as_boolean()->get();
        }
        if (const toml::node* pNode = root.get("settings"))
            ReadSettings(*pNode);
        if (const toml::node* pNode = root.get("definition"))
            ReadDefinitions(*pNode);
        return std::move(m_config);
    }

private:
    [[noreturn]] void Fail(const toml::source_region& source, const std::string& what) const
    {
        throw InputError(fmt::format("{}:{}: {}", m_file, source.begin.line, what));
    }
    [[noreturn]] void Fail(const toml::node& node, const std::string& what) const
    {
        Fail(node.source(), what);
    }

    void RefuseUnknownKeys(const toml::table& table, std::initializer_list<std::string_view> known,
                           const char* pWhere) const
    {
        for (const auto& [key, node] : table)
            if (std::find(known.begin(), known.end(), key.str()) == known.end())
                Fail(key.source(), fmt::format("unknown key '{}' in {}", key.str(), pWhere));
    }

    uint32_t NumberOf(const toml::node& node, std::string_view name, uint32_t ulMost = 0xFFFFFFFF) const
    {
        const auto* pInteger = node.as_integer();
        if (!pInteger)
            Fail(node, fmt::format("{} is a number", name));
        int64_t llValue = pInteger->get();
        if (llValue < 0 || llValue > int64_t(ulMost))
            Fail(node, fmt::format("{} is a number from 0 to 0x{:X}, not {}", name, ulMost, llValue));
        return static_cast<uint32_t>(llValue);
    }

    const std::string& TextOf(const toml::node& node, std::string_view name) const
    {
        if (!node.is_string())
            Fail(node, fmt::format("{} is text in quotes", name));
        return node.as_string()->get();
    }

    void ReadSettings(const toml::node& node)
    {
        if (!node.is_table())
            Fail(node, "settings is a table: [settings]");
        std::vector<std::pair<std::string, const toml::node*>> files;
        for (const auto& [key, value] : *node.as_table()) {
            auto name = std::string(key.str());
            auto known = std::find_if(std::begin(KnownSettings), std::end(KnownSettings),
                                      [&](const KnownSetting& setting) { return setting.pName == name; });
            if (known == std::end(KnownSettings))
                Fail(key.source(), fmt::format("unknown key '{}' in [settings]", name));
            if (known->kind == SettingKind::Number)
                m_config.settings[name] = NumberOf(value, name);
            else
                files.emplace_back(name, &value);
        }
        ReadFileNames(files);
    }

    // The driver knows files as the system's kernel does, on drive C, which is a host folder. That folder is
    // this file's own, which keeps the names short, unless a name leads out of it. An empty name stays empty.
    void ReadFileNames(const std::vector<std::pair<std::string, const toml::node*>>& files)
    {
        namespace fs = std::filesystem;
        fs::path folder = fs::absolute(m_file).parent_path().lexically_normal();
        auto leadsOut = [](const fs::path& path) { return path.is_absolute() || *path.begin() == ".."; };
        bool bRoot = false;
        for (const auto& [name, pNode] : files) {
            const std::string& text = TextOf(*pNode, name);
            if (!std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; }))
                Fail(*pNode, fmt::format("{} has characters that are not plain ASCII", name));
            bRoot |= !text.empty() && leadsOut(fs::path(text).lexically_normal());
        }
        m_config.fileRoot = bRoot ? "/" : folder.string();
        for (const auto& [name, pNode] : files) {
            const std::string& text = TextOf(*pNode, name);
            fs::path path = fs::path(text).lexically_normal();
            m_config.settings[name] =
                text.empty() || text[0] == '\\' ? text : NtName(bRoot ? folder / path : path);
        }
    }

    static std::string NtName(const std::filesystem::path& path)
    {
        std::string name = path.lexically_normal().relative_path().string();
        std::replace(name.begin(), name.end(), '/', '\\');
        return "\\??\\C:\\" + name;
    }

    void ReadDefinitions(const toml::node& node)
    {
        const auto* pArray = node.as_array();
        if (!pArray ||
            !std::all_of(pArray->begin(), pArray->end(), [](const toml::node& n) { return n.is_table(); }))
            Fail(node, "definitions are tables: [[definition]]");
        for (const toml::node& table : *pArray)
            m_config.definitions.push_back(ReadDefinition(*table.as_table()));
    }

    KeyDefinition ReadDefinition(const toml::table& table) const
    {
        RefuseUnknownKeys(table, {"id", "type", "modifiers", "scans", "keys", "swallow"}, "[[definition]]");
        KeyDefinition definition{};
        if (!table.get("id"))
            Fail(table, "a definition needs an id");
        definition.ulId = NumberOf(*table.get("id"), "id");
        definition.ulType = table.get("type") ? NumberOf(*table.get("type"), "type") : 1;
        definition.ulSwallow = table.get("swallow") ? NumberOf(*table.get("swallow"), "swallow") : 0;
        definition.ulModifiers = table.get("modifiers") ? ReadModifiers(*table.get("modifiers")) : 0;

        std::vector<uint8_t> scans;
        if (table.get("scans") && table.get("keys"))
            Fail(*table.get("keys"), "a definition has scans or keys, not both");
        if (const toml::node* pNode = table.get("scans"))
            scans = ReadScans(*pNode);
        if (const toml::node* pNode = table.get("keys"))
            scans = ReadKeys(*pNode);
        // A count above the room is the driver's to refuse; the record carries what it has room for.
        definition.usScanCount = static_cast<uint16_t>(scans.size());
        std::copy_n(scans.begin(), std::min(scans.size(), sizeof(definition.ucScans)), definition.ucScans);
        return definition;
    }

    const toml::array& ArrayOf(const toml::node& node, const char* pWhat) const
    {
        if (!node.is_array())
            Fail(node, fmt::format("{} in brackets", pWhat));
        return *node.as_array();
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
                Fail(element, fmt::format("unknown modifier name '{}'", name));
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

    std::vector<uint8_t> ReadKeys(const toml::node& node) const
    {
        std::vector<uint8_t> scans;
        for (const toml::node& element : ArrayOf(node, "keys is a list of names")) {
            const std::string& name = TextOf(element, "a key");
            const KeyName* pKey = FindKeyByName(name);
            if (!pKey)
                Fail(element, fmt::format("unknown key name '{}'", name));
            if (pKey->ulMakeCode == 0)
                Fail(element, fmt::format("the key '{}' has no PS/2 scan code", name));
            for (uint8_t ucByte : MakeCodeBytes(pKey->ulMakeCode))
                scans.push_back(ucByte);
        }
        if (scans.size() > 0xFFFF)
            Fail(node, "keys has too many names");
        return scans;
    }

    std::string m_file;
    ReplayConfig m_config;
};

} // namespace

ReplayConfig ParseConfig(const std::string& file, std::string_view text)
{
    try {
        return ConfigReader(file).Read(toml::parse(text, file));
    } catch (const toml::parse_error& error) {
        throw InputError(fmt::format("{}:{}: {}", file, error.source().begin.line, error.description()));
    }
}

ReplayConfig ReadConfig(const std::string& file)
{
    Bytes content = ReadWholeFile(file);
    return ParseConfig(file, std::string_view(reinterpret_cast<const char*>(content.data()), content.size()));
}
