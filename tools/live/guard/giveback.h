// giveback.h - gives a keyboard's interfaces back to the system. No memory, no lock, no library: it also runs in a
// signal's handler.
#pragma once

#include <cstdint>
#include <cstddef>

// Through an open node of the keyboard's, whoever has claimed the interfaces through it; what is given back already stays
// so. True when the system's own driver has the keyboard now.
bool GiveBack(int iNode, const uint8_t* pInterfaces, size_t cInterfaces);
