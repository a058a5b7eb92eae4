// readable.h - the macro file as people write it (TOML).
//
//   [[macro]]
//   key = "F1"                      a key by name or usage, or: modifiers = ["shift"]
//   play = ["ctrl+c", { text = "Hello\n" }, { report = "02 00 04 00 00 00 00 00" }]
//
// A chord and each character of a text become two reports, press and release; a raw report is one. What the
// driver passes over can be written too, so that every macro file has a readable form:
//
//   reserved = "16 bytes"   behind the header       mark = 5        the high byte of a modifier macro's key
//   tail = "bytes"          of a cut record         rest = "bytes"  behind a macro's last whole action
//   { report = "...", head = "00 08" }              the two bytes before a report
#pragma once

#include "file.h"
#include "tools/common/tomlreader.h"

#include <string>
#include <string_view>

// compile.cpp. Fails (InputError): a mistake, with its line.
// With a list of problems, mistakes go there and the reading goes on; the result is not to be used then.
MacroFile CompileMacros(const std::string& file, std::string_view text,
                        std::vector<Problem>* pProblems = nullptr);

// show.cpp: compiled again this gives the same bytes. name: of the file, for the comment at the top.
std::string ShowMacros(const std::string& name, const MacroFile& macros);
