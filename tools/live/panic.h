// panic.h - the keys that end everything when they are held together.
//
// They are looked for in what the keyboard itself sends, before the driver sees it: so it does not matter what has
// become of the driver.
#pragma once

#include "tools/replay/packet.h"

#include <string>

class PanicChord
{
public:
    // "Backspace+Escape+Enter". Fails (InputError): a name of no key, fewer than two keys, more than a report holds.
    explicit PanicChord(const std::string& keys);
    // True when a report of the boot keyboard's layout, behind its ID where it has one, has all the keys down.
    bool IsIn(const Bytes& report, bool bNumbered) const;

private:
    uint8_t m_ucModifiers = 0;
    Bytes m_Keys; // usages
};
