// regtext.cpp - the registry as .reg text, in and out.
//
//   [HKEY_LOCAL_MACHINE\System\...]     a key; [-...] takes it away
//   "Name"="text"  dword:0000007d  hex:01,02  hex(b):..  -     a value of it; @ is the unnamed one
//
// HKEY_LOCAL_MACHINE is \Registry\Machine, HKEY_USERS is \Registry\User. A line that is none of these
// stops the run: a seed that says less than it seems to say would be worse.
#include "core.h"

#include <cstdlib>

static const std::pair<const char*, const char16_t*> ROOTS[] = {
    {"HKEY_LOCAL_MACHINE", u"\\Registry\\Machine"},
    {"HKEY_USERS", u"\\Registry\\User"},
};

[[noreturn]] static void BadLine(unsigned uLine, const std::string& line)
{
    HostBug("BAD_REGISTRY_TEXT", "line %u: %s", uLine, line.c_str());
}

static void OpenSection(const std::string& line, unsigned uLine, HostKey** ppKey)
{
    bool bDelete = line.size() > 1 && line[1] == '-';
    std::string name = line.substr(bDelete ? 2 : 1, line.size() - (bDelete ? 3 : 2));
    *ppKey = nullptr;
    for (const auto& root : ROOTS) {
        size_t length = strlen(root.first);
        if (name.compare(0, length, root.first) == 0 && (name.size() == length || name[length] == '\\')) {
            HostText path = root.second + HostTextOf(name.substr(length));
            HostKey* pKey = HostFindKey(path, true, nullptr);
            if (!bDelete) {
                *ppKey = pKey;
                return;
            }
            pKey->Keys.clear();
            pKey->Values.clear();
            HostText parent = path.substr(0, path.find_last_of(u'\\'));
            HostFindKey(parent, true, nullptr)->Keys.erase(HostUpper(path.substr(parent.size() + 1)));
            return;
        }
    }
    BadLine(uLine, line);
}

// Reads a quoted text from `at`; leaves `at` behind the closing quote.
static bool ReadQuoted(const std::string& line, size_t& at, std::string& text)
{
    if (at >= line.size() || line[at] != '"') {
        return false;
    }
    for (at++; at < line.size() && line[at] != '"'; at++) {
        at += line[at] == '\\' && at + 1 < line.size();
        text.push_back(line[at]);
    }
    return at++ < line.size();
}

static bool ReadHex(const std::string& text, std::vector<UCHAR>& data)
{
    const char* p = text.c_str();
    while (*p != 0) {
        char* pEnd;
        unsigned long ul = strtoul(p, &pEnd, 16);
        if (pEnd == p || ul > 0xff) {
            return false;
        }
        data.push_back(static_cast<UCHAR>(ul));
        p = *pEnd == ',' ? pEnd + 1 : pEnd;
        if (p == pEnd && *p != 0) {
            return false;
        }
    }
    return true;
}

static bool ReadData(const std::string& text, HostValue& value)
{
    size_t at = 0;
    std::string quoted;
    if (text[0] == '"') {
        value.ulType = REG_SZ;
        if (!ReadQuoted(text, at, quoted) || at != text.size()) {
            return false;
        }
        HostText wide = HostTextOf(quoted);
        const UCHAR* p = reinterpret_cast<const UCHAR*>(wide.c_str());
        value.Data.assign(p, p + (wide.size() + 1) * sizeof(WCHAR));
        return true;
    }
    char* pEnd;
    if (text.compare(0, 6, "dword:") == 0) {
        ULONG ul = static_cast<ULONG>(strtoul(text.c_str() + 6, &pEnd, 16));
        const UCHAR* p = reinterpret_cast<const UCHAR*>(&ul);
        value.ulType = REG_DWORD;
        value.Data.assign(p, p + sizeof(ul));
        return pEnd == text.c_str() + text.size() && text.size() > 6;
    }
    if (text.compare(0, 4, "hex:") == 0) {
        value.ulType = REG_BINARY;
        return ReadHex(text.substr(4), value.Data);
    }
    if (text.compare(0, 4, "hex(") == 0) {
        value.ulType = static_cast<ULONG>(strtoul(text.c_str() + 4, &pEnd, 16));
        return pEnd[0] == ')' && pEnd[1] == ':' && ReadHex(pEnd + 2, value.Data);
    }
    return false;
}

static void ReadValue(const std::string& line, unsigned uLine, HostKey* pKey)
{
    size_t at = 0;
    std::string name;
    bool bNamed = line[0] == '@' ? (at = 1) != 0 : ReadQuoted(line, at, name);
    if (pKey == nullptr || !bNamed || at >= line.size() || line[at] != '=') {
        BadLine(uLine, line);
    }
    HostValue value = {HostTextOf(name), 0, {}};
    std::string data = line.substr(at + 1);
    if (data == "-") {
        pKey->Values.erase(HostUpper(value.Name));
        return;
    }
    if (data.empty() || !ReadData(data, value)) {
        BadLine(uLine, line);
    }
    pKey->Values[HostUpper(value.Name)] = value;
}

// Seeds the registry. Bytes are UTF-8; a backslash at a line's end joins the next line.
// IRQL: PASSIVE_LEVEL, before any driver. Fails: stops the run.
void HostParseRegistry(const std::string& text)
{
    HostLock lock(g->Lock);
    HostFindKey(u"\\Registry\\Machine\\System\\CurrentControlSet\\Services", true, nullptr);
    HostKey* pKey = nullptr;
    unsigned uLine = 0;
    for (size_t begin = 0; begin < text.size();) {
        std::string line;
        for (bool bMore = true; bMore && begin < text.size();) {
            size_t end = text.find('\n', begin);
            std::string piece = text.substr(begin, end == std::string::npos ? end : end - begin);
            begin = end == std::string::npos ? text.size() : end + 1;
            uLine++;
            while (!piece.empty() && isspace(static_cast<unsigned char>(piece.back()))) {
                piece.pop_back();
            }
            piece.erase(0, piece.find_first_not_of(" \t\r"));
            bMore = !piece.empty() && piece.back() == '\\' && piece[0] != '[';
            line += bMore ? piece.substr(0, piece.size() - 1) : piece;
        }
        if (line.empty() || line[0] == ';' || line.compare(0, 16, "Windows Registry") == 0 ||
            line.compare(0, 7, "REGEDIT") == 0) {
            continue;
        }
        if (line[0] == '[' && line.back() == ']') {
            OpenSection(line, uLine, &pKey);
        } else {
            ReadValue(line, uLine, pKey);
        }
    }
}

static std::string Quoted(const HostText& text)
{
    std::string quoted = "\"";
    for (char c : HostUtf8(text)) {
        if (c == '"' || c == '\\') {
            quoted.push_back('\\');
        }
        quoted.push_back(c);
    }
    return quoted + "\"";
}

static std::string DataText(const HostValue& value)
{
    char piece[32];
    const std::vector<UCHAR>& data = value.Data;
    if (value.ulType == REG_SZ && data.size() >= 2 && data.size() % 2 == 0) {
        HostText text(data.size() / 2, 0);
        memcpy(&text[0], data.data(), data.size());
        if (text.find(char16_t(0)) == text.size() - 1 && text.find_first_of(u"\r\n") == HostText::npos) {
            return Quoted(text.substr(0, text.size() - 1));
        }
    }
    if (value.ulType == REG_DWORD && data.size() == 4) {
        ULONG ul;
        memcpy(&ul, data.data(), 4);
        snprintf(piece, sizeof(piece), "dword:%08x", ul);
        return piece;
    }
    snprintf(piece, sizeof(piece), "hex(%x):", value.ulType);
    std::string text = value.ulType == REG_BINARY ? "hex:" : piece;
    for (size_t i = 0; i < data.size(); i++) {
        snprintf(piece, sizeof(piece), "%s%02x", i == 0 ? "" : ",", data[i]);
        text += piece;
    }
    return text;
}

static void Write(const HostKey& key, const std::string& path, std::string& text)
{
    if (!key.Values.empty() || key.Keys.empty()) {
        text += "\n[" + path + "]\n";
    }
    for (const auto& entry : key.Values) {
        const HostValue& value = entry.second;
        text += (value.Name.empty() ? "@" : Quoted(value.Name)) + "=" + DataText(value) + "\n";
    }
    for (const auto& child : key.Keys) {
        Write(*child.second, path + "\\" + HostUtf8(child.second->Name), text);
    }
}

std::string HostRegistryText()
{
    HostLock lock(g->Lock);
    std::string text = "Windows Registry Editor Version 5.00\n";
    for (const auto& root : ROOTS) {
        HostKey* pKey = HostFindKey(root.second, false, nullptr);
        if (pKey != nullptr) {
            Write(*pKey, root.first, text);
        }
    }
    return text;
}
