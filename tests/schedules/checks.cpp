// checks.cpp - what must hold ten seconds after the last key, whatever the scene was.
#include "life.h"

// Every read is at the keyboard; a keyboard that is gone holds none.
void CheckReads(Life& life)
{
    for (EmuKeyboard* pKeyboard : life.pKeyboards) {
        if (pKeyboard == nullptr) {
            continue;
        }
        const ULONG ulAbove = EmuHidOutstandingReads(pKeyboard->Hid());
        const ULONG ulBelow = pKeyboard->Plugged() ? pKeyboard->PendingReads() : 0;
        const std::string name = "keyboard " + std::to_string(pKeyboard->Index());
        life.Expect(ulAbove == ulBelow, name + ": the system waits for " + std::to_string(ulAbove) +
                                            " reads, the keyboard has " + std::to_string(ulBelow));
        life.Expect(!pKeyboard->Plugged() || ulAbove == life.Plug.Reads, name + " has lost a read");
    }
}

// A ring's count is the way from where it is read to where it is written; a full one's positions are equal.
static bool IsRing(ULONG ulCount, ULONG ulWrite, ULONG ulRead, ULONG ulSize)
{
    return ulCount <= ulSize && ulCount % ulSize == (ulWrite + ulSize - ulRead) % ulSize;
}

void CheckRings(Life& life)
{
    for (EmuKeyboard* pKeyboard : life.pKeyboards) {
        if (pKeyboard == nullptr || !pKeyboard->Plugged()) {
            continue;
        }
        const DeviceContext* pContext = FilterContextOf(pKeyboard->Filter());
        life.Expect(IsRing(pContext->ulDiscardCount, pContext->ulDiscardWrite, pContext->ulDiscardRead,
                           DISCARD_RING_SIZE),
                    "the ring of values held back is broken");
        life.Expect(IsRing(pContext->ulFifoCount, pContext->ulFifoWrite, pContext->ulFifoRead, FIFO_SIZE),
                    "the ring of reports to insert is broken");
        life.Expect(IsRing(pContext->ulNotifyCount, pContext->ulNotifyWrite, pContext->ulNotifyRead,
                           NOTIFY_QUEUE_SIZE),
                    "the ring of events is broken");
    }
    life.Expect(IsRing(Globals.ulMacroCount, Globals.ulMacroWrite, Globals.ulMacroRead, MACRO_QUEUE_SIZE),
                "the ring of macro records is broken");
}
