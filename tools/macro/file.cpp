// file.cpp - the driver's macro file, byte by byte.
#include "file.h"
#include "tools/common/failure.h"
#include "tools/common/text.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{

void AppendWord(std::vector<uint8_t>& content, size_t cValue)
{
    content.push_back(static_cast<uint8_t>(cValue));
    content.push_back(static_cast<uint8_t>(cValue >> 8));
}

// The record at that place, which lies whole in the content.
MacroEntry RecordAt(const std::vector<uint8_t>& content, size_t cAt)
{
    MacroEntry entry;
    entry.cOffset = cAt;
    entry.usKey = WordAt(content.data(), cAt);
    auto pAction = content.begin() + static_cast<ptrdiff_t>(cAt) + 4;
    size_t cLeft = WordAt(content.data(), cAt + 2);
    for (; cLeft >= MacroActionBytes; cLeft -= MacroActionBytes, pAction += MacroActionBytes) {
        MacroAction action;
        std::copy_n(pAction, 2, action.head.begin());
        std::copy_n(pAction + 2, 8, action.report.begin());
        entry.actions.push_back(action);
    }
    entry.rest.assign(pAction, pAction + static_cast<ptrdiff_t>(cLeft));
    return entry;
}

} // namespace

MacroFile ReadMacroFile(const std::string& file, const std::vector<uint8_t>& content)
{
    if (content.size() < MacroHeader.size() ||
        !std::equal(MacroHeader.begin(), MacroHeader.end(), content.begin()))
        throw InputError(fmt::format("{}: byte 0: no macro file: it does not begin with \"{}\", so the "
                                     "driver would keep its old macros",
                                     file, MacroHeader));
    MacroFile macros;
    size_t cAt = MacroHeader.size();
    size_t cUnread = std::min(MacroUnreadBytes, content.size() - cAt);
    auto from = [&](size_t cOffset) { return content.begin() + static_cast<ptrdiff_t>(cOffset); };
    macros.unread.assign(from(cAt), from(cAt + cUnread));
    cAt += cUnread;
    while (content.size() - cAt >= 4 && content.size() - cAt - 4 >= WordAt(content.data(), cAt + 2)) {
        macros.macros.push_back(RecordAt(content, cAt));
        cAt += 4 + macros.macros.back().ActionBytes();
    }
    macros.cTailOffset = cAt;
    macros.tail.assign(from(cAt), content.end());
    return macros;
}

std::vector<uint8_t> BytesOf(const MacroFile& macros)
{
    std::vector<uint8_t> content;
    auto append = [&](const auto& bytes) {
        for (auto byte : bytes)
            content.push_back(static_cast<uint8_t>(byte));
    };
    append(MacroHeader);
    append(macros.unread);
    for (const MacroEntry& entry : macros.macros) {
        AppendWord(content, entry.usKey);
        AppendWord(content, entry.ActionBytes());
        for (const MacroAction& action : entry.actions) {
            append(action.head);
            append(action.report);
        }
        append(entry.rest);
    }
    append(macros.tail);
    return content;
}
