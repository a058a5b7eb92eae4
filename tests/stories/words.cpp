// words.cpp - reads the parts of a story's line.
#include "words.h"

#include <map>
#include <sstream>

Words SplitWords(const std::string& text)
{
    std::istringstream stream(text);
    Words words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

static std::string CutAt(std::string& text, const std::string& mark)
{
    size_t at = text.find(mark);
    if (at == std::string::npos) {
        return "";
    }
    std::string behind = text.substr(at + mark.size());
    text.resize(at);
    return behind;
}

Parts SplitParts(std::string text)
{
    Parts parts;
    parts.Events = CutAt(text, "|");
    parts.Right = CutAt(text, "->");
    parts.Left = text;
    return parts;
}

unsigned long Number(const std::string& word, int base)
{
    size_t used = 0;
    unsigned long value = 0;
    try {
        value = std::stoul(word, &used, base);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != word.size() || used == 0) {
        throw BadLine("not a number: " + word);
    }
    return value;
}

ULONG Number32(const std::string& word, int base)
{
    return static_cast<ULONG>(Number(word, base));
}

ULONG Milliseconds(const std::string& word)
{
    if (word.size() < 3 || word.substr(word.size() - 2) != "ms") {
        throw BadLine("a time in milliseconds is wanted: 250ms");
    }
    return Number32(word.substr(0, word.size() - 2), 10);
}

EmuBytes Bytes(const Words& words, size_t from)
{
    EmuBytes bytes;
    for (size_t i = from; i < words.size(); i++) {
        bytes.push_back(static_cast<UCHAR>(Number(words[i], 16)));
    }
    return bytes;
}

EmuBytes Bytes(const std::string& text)
{
    return Bytes(SplitWords(text));
}

std::string Text(const EmuBytes& bytes)
{
    std::string text;
    char hex[4];
    for (UCHAR ucByte : bytes) {
        snprintf(hex, sizeof(hex), "%02X ", ucByte);
        text += hex;
    }
    return text;
}

static const std::map<std::string, ULONG> ModifierWords = {
    {"-", 0},
    {"lctrl", 0x2},
    {"rctrl", 0x4},
    {"lshift", 0x8},
    {"rshift", 0x10},
    {"lalt", 0x20},
    {"ralt", 0x40},
    {"lwin", 0x80},
    {"rwin", 0x100},
    {"context", 0x200},
    {"ctrl", 0x400},
    {"shift", 0x800},
    {"alt", 0x1000},
    {"win", 0x2000},
    {"poskey", 0x8000000},
    {"prefix1", 0x10000000},
    {"prefix2", 0x20000000},
    {"fn", 0x80000000},
};

ULONG Modifiers(const std::string& word)
{
    ULONG ulMask = 0;
    std::istringstream stream(word);
    for (std::string name; std::getline(stream, name, '+');) {
        auto found = ModifierWords.find(name);
        if (found == ModifierWords.end()) {
            throw BadLine("unknown modifier: " + name);
        }
        ulMask |= found->second;
    }
    return ulMask;
}

std::string EventText(const NotifyRecord& record)
{
    std::string text;
    if (record.ucSource == NOTIFY_SOURCE_HOTKEY) {
        text = record.ulValue == 1   ? "down "
               : record.ulValue == 0 ? "up "
                                     : "repeat " + Text({static_cast<UCHAR>(record.ulValue)});
    } else {
        text = "key " + Text({static_cast<UCHAR>(record.ulValue)});
    }
    text += std::to_string(record.ulId);
    return record.ulEscAbort ? text + " abort" : text;
}

std::string EventText(const MacroRecord& record)
{
    if (record.usType == MACRO_RECORD_MODE) {
        return "mode " + std::to_string(record.ucMode);
    }
    std::string text = "captured " + Text(EmuBytes(record.ucReport, record.ucReport + record.ucLength));
    text.pop_back(); // the space behind the last byte
    return text;
}
