// socket.h - reading from a peer that may be slow, silent or gone.
#pragma once

#include <cstddef>

// So many bytes. The first may come whenever it comes (bPatient), the rest within the patience. False: the peer is gone, or
// was too slow.
bool TakeBytes(int iSocket, void* pTo, size_t bytes, bool bPatient, int iPatienceMs);
