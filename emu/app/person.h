// person.h - what someone at a keyboard does, told in words.
//
// "ctrl+0x3A Hello ctrl+c": a word with a plus sign, or a key's usage, is a chord: modifiers (ctrl, shift, alt, win;
// rctrl, … for the right ones), then the key, as a usage (tvusb keys lists them) or as a character of the US layout.
// Any other word is typed, a press and a release a character.
#pragma once

#include <string>
#include <vector>

#include "client/typing.h"

// The reports of these words: each chord's modifiers go down first and up last. Empty when a word is no key and no
// text; the word goes to *pBad then.
std::vector<tvusb::KeyReport> ReportsOfWords(const std::string& Words, std::string* pBad);
