// person.cpp - words to chords and text.
#include "person.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <iterator>
#include <sstream>

using tvusb::KeyReport;

namespace
{
const char* const Modifiers[8] = {"ctrl", "shift", "alt", "win", "rctrl", "rshift", "ralt", "rwin"};

// "0x3A", or one character. Usage 0 is no key.
bool AddKey(const std::string& Name, KeyReport* pPress)
{
    if (Name.rfind("0x", 0) == 0) {
        size_t length = Name.size() - 2;
        unsigned long ulUsage = strtoul(Name.c_str(), nullptr, 16);
        (*pPress)[2] = (uint8_t)ulUsage;
        return strspn(Name.c_str() + 2, "0123456789abcdefABCDEF") == length && length <= 2 && ulUsage != 0;
    }
    auto typed = Name.size() == 1 ? tvusb::ReportOfCharacter(Name[0]) : std::nullopt;
    if (typed) {
        (*pPress)[0] |= (*typed)[0];
        (*pPress)[2] = (*typed)[2];
    }
    return typed.has_value();
}

bool AddChord(const std::string& Word, std::vector<KeyReport>* pReports)
{
    KeyReport press = {};
    size_t at = 0;
    for (size_t plus; (plus = Word.find('+', at)) != Word.npos && plus > at; at = plus + 1) {
        auto name = std::find(std::begin(Modifiers), std::end(Modifiers), Word.substr(at, plus - at));
        if (name == std::end(Modifiers)) {
            return false;
        }
        press[0] = (uint8_t)(press[0] | 1 << (name - std::begin(Modifiers)));
    }
    if (!AddKey(Word.substr(at), &press)) {
        return false;
    }
    const KeyReport modifiers = {press[0]};
    if (press[0] != 0) {
        pReports->push_back(modifiers);
    }
    pReports->push_back(press);
    if (press[0] != 0) {
        pReports->push_back(modifiers);
    }
    pReports->push_back({});
    return true;
}

bool AddText(const std::string& Word, std::vector<KeyReport>* pReports)
{
    for (char c : Word) {
        auto press = tvusb::ReportOfCharacter(c);
        if (!press) {
            return false;
        }
        pReports->insert(pReports->end(), {*press, KeyReport()});
    }
    return true;
}
} // namespace

std::vector<KeyReport> ReportsOfWords(const std::string& Words, std::string* pBad)
{
    std::vector<KeyReport> reports;
    std::istringstream stream(Words);
    for (std::string word; stream >> word;) {
        bool bChord = word.rfind("0x", 0) == 0 || (word.size() > 1 && word.find('+') != word.npos);
        if (bChord ? !AddChord(word, &reports) : !AddText(word, &reports)) {
            *pBad = word;
            return {};
        }
    }
    return reports;
}
