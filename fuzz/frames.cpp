// The control socket: whatever a process sends there.
#include "peer.h"
#include "tools/live/peer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pBytes, size_t cBytes)
{
    LastingKeyboard();
    FuzzedPeer process;
    static const PeerReload reload = [](std::string* pWords) {
        *pWords = "nothing";
        return true;
    };
    Peer peer(process.Other(), FuzzedPeer::Wake(), reload, 50);
    process.Play({pBytes, pBytes + cBytes});
    return 0;
}
