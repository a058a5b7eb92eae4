// hotkeymodifiers.cpp - what the modifier word means to the hotkeys: which are armed, and those that
// consist of modifiers only. Also the event that the simple handlers send.
//
// Runs at every standard report, before its keys are looked at.
#include "report/report.h"

#include "hotkeys/hotkeys.h"

// Arms the hotkeys whose mask matches now. A latched prefix that no hotkey uses is marked for the reset.
// IRQL <= DISPATCH. Fails: never.
void UpdateHotkeyModifierMatch(PDEVICE_OBJECT device)
{
    ULONG ulFlags = ReadShared(Globals.ulModifierFlags);
    bool bPrefixUsed = false;
    for (HotkeyEntry& entry : HotkeyWalk(FilterContextOf(device))) {
        entry.ucModMatch = IsModifierMaskMatched(entry.ulModifiers, ulFlags) ? 1 : 0;
        if (entry.ulModifiers & ulFlags & MODIFIER_PREFIXES) {
            bPrefixUsed = true;
        }
    }
    if (!bPrefixUsed && (ulFlags & MODIFIER_PREFIXES)) {
        WriteShared(Globals.ulPrefixReleased, 0u);
        WriteShared(Globals.ulPrefixUnmatched, 1u);
    }
}

// Hotkeys without keys: down while all their modifier bits are set in byte 0, whose bits they take out when
// their definition says so. A definition that is gone leaves the swallow value of the hotkey before.
// IRQL <= DISPATCH. Owns: nothing; pBuf[0] is rewritten. Fails: never.
NTSTATUS CheckModifierOnlyHotkeys(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf)
{
    UNREFERENCED_PARAMETER(ulLen);
    DeviceContext* pContext = FilterContextOf(device);
    UCHAR ucSwallow = 1;
    for (HotkeyEntry& entry : HotkeyWalk(pContext)) {
        if (entry.ucKeys[0] != 0) {
            continue;
        }
        UCHAR ucBits = ReportBitsOf(entry.ulModifiers);
        if ((pBuf[0] & ucBits) == ucBits) {
            if (!entry.ucDown) {
                entry.ucDown = 1;
                NotifyHotkeyEvent(device, entry.ulId, 1);
                if (pContext->ucSendUpEventImmediately) {
                    NotifyHotkeyEvent(device, entry.ulId, 0);
                }
            }
            (void)GetSwallowOf(device, entry.ulId, &ucSwallow);
            if (ucSwallow) {
                pBuf[0] = static_cast<UCHAR>(pBuf[0] & ~ucBits);
            }
        } else if (entry.ucDown) {
            if (!pContext->ucSendUpEventImmediately) {
                NotifyHotkeyEvent(device, entry.ulId, 0);
            }
            entry.ucDown = 0;
        }
    }
    return STATUS_SUCCESS;
}

// Sends one hotkey event with the Esc-abort flag, which it uses up.
// IRQL <= DISPATCH. Fails: a full queue drops the event.
void NotifyHotkeyEvent(PDEVICE_OBJECT device, ULONG ulId, UCHAR ucDown)
{
    SendHotkeyEvent(device, ulId, ucDown, ReadShared(Globals.ucEscAbort));
    WriteShared(Globals.ucEscAbort, 0);
}
