// panic.cpp - finds the panic chord in a report.
#include "panic.h"

#include "tools/common/failure.h"
#include "tools/keynames.h"

#include <algorithm>
#include <sstream>

constexpr size_t FirstKey = 2, BootReport = 8;
constexpr uint16_t FirstModifier = 0xE0, LastModifier = 0xE7;

PanicChord::PanicChord(const std::string& keys)
{
    std::istringstream stream(keys);
    size_t cKeys = 0;
    for (std::string name; std::getline(stream, name, '+'); ++cKeys) {
        const KeyName* pKey = FindKeyByName(name);
        if (!pKey || pKey->bConsumer)
            throw InputError("--panic: '" + name + "' is no key; tvusb keys lists them");
        if (pKey->usUsage >= FirstModifier && pKey->usUsage <= LastModifier)
            m_ucModifiers |= static_cast<uint8_t>(1 << (pKey->usUsage - FirstModifier));
        else
            m_Keys.push_back(static_cast<uint8_t>(pKey->usUsage));
    }
    if (cKeys < 2 || m_Keys.size() > BootReport - FirstKey)
        throw InputError(
            "--panic: two keys or more, with + between them, and at most six besides the modifiers");
}

bool PanicChord::IsIn(const Bytes& report, bool bNumbered) const
{
    const size_t cHead = bNumbered ? 1 : 0;
    if (report.size() != cHead + BootReport || (report[cHead] & m_ucModifiers) != m_ucModifiers)
        return false;
    auto first = report.begin() + static_cast<ptrdiff_t>(cHead + FirstKey);
    return std::all_of(m_Keys.begin(), m_Keys.end(),
                       [&](uint8_t ucKey) { return std::find(first, report.end(), ucKey) != report.end(); });
}
