// USB/IP: whatever a machine sends that looks at the offered keyboard or has imported it.
#include "peer.h"
#include "tools/live/usbip/offer.h"
#include "tools/live/usbip/session.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pBytes, size_t cBytes)
{
    EmuKeyboard* pKeyboard = LastingKeyboard();
    usbip::Exports exports;
    exports.Add(usbip::Offer("1-1", EmuBootKeyboard, *pKeyboard));
    FuzzedPeer peer;
    {
        usbip::Session session(peer.Other(), FuzzedPeer::Wake(), exports, 50);
        session.Input(1, {0, 0, 4, 0, 0, 0, 0, 0});
        peer.Play({pBytes, pBytes + cBytes});
    }
    if (!exports.All()[0]->Take(nullptr)) { // nobody could import it any more
        abort();
    }
    return 0;
}
