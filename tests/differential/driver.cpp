// driver.cpp - the driver's side of the comparison.
#include "driver.h"

#include <cstring>
#include <stdexcept>

#include "control/control.h"
#include "driver/context.h"
#include "driver/driver.h"
#include "hotkeys/hotkeys.h"
#include "log/log.h"
#include "report/report.h"

namespace
{
DeviceContext* ContextOf(EmuKeyboard* pKeyboard)
{
    return FilterContextOf(pKeyboard->Filter());
}

std::vector<uint8_t> Bytes(const UCHAR* pFirst, size_t count)
{
    return {pFirst, pFirst + count};
}

// The words in which there is anybody are marked and no others; who is ready is held.
bool AreBitsSound(const DeviceContext* pContext)
{
    const HotkeyBits &held = pContext->HeldHotkeys, &ready = pContext->ReadyHotkeys;
    bool bSound = true;
    for (ULONG i = 0; i < HOTKEY_SET_WORDS; i++) {
        bSound = bSound && (held.ullWords[i] != 0) == (held.ucWords >> i & 1) &&
                 (ready.ullWords[i] != 0) == (ready.ucWords >> i & 1) &&
                 (ready.ullWords[i] & ~held.ullWords[i]) == 0;
    }
    return bSound;
}
} // namespace

const reference::Kind Driver::Kinds[KEYBOARDS] = {reference::Normal, reference::Power, reference::Jaalaa,
                                                  reference::Chic};

Driver::Driver()
{
    EmuMachineOptions options;
    options.Entry = DriverEntry;
    m_Machine = std::make_unique<EmuMachine>(options);
    const EmuDescriptors* kinds[KEYBOARDS] = {&EmuBootKeyboard, &EmuPowerKeyboard, &EmuJaalaaKeyboard,
                                              &EmuChicKeyboard};
    for (int i = 0; i < KEYBOARDS; i++) {
        m_Keyboards[i] = m_Machine->Plug(*kinds[i]);
        if (m_Keyboards[i]->Filter() == nullptr || ContextOf(m_Keyboards[i])->KbdType != Kinds[i]) {
            throw std::logic_error("a keyboard is not of its kind");
        }
    }
    // A log without a drain, so that the text is still there after each report.
    Globals.pLogBuffer = static_cast<char*>(AllocateZeroed(NonPagedPoolNx, LOG_BUFFER_BYTES));
}

Driver::~Driver()
{
    Reset();
    SetLog(false, 0);
    if (m_Machine->Unload() != 0) {
        abort(); // the host has told what is left
    }
}

void Driver::Reset()
{
    Globals.ulModifierFlags = Globals.ulPrefixReleased = Globals.ulPrefixUnmatched = 0;
    Globals.ucHotkeyComplete = Globals.ucEscAbort = Globals.ucSwallowPending = 0;
    for (int i = 0; i < KEYBOARDS; i++) {
        RemoveAll(i);
        SetKind(i, Kinds[i]);
        DeviceContext* pContext = ContextOf(m_Keyboards[i]);
        memset(pContext->ucOldPacket, 0, sizeof(pContext->ucOldPacket));
        memset(pContext->ucOldPowerPacket, 0, sizeof(pContext->ucOldPowerPacket));
        memset(pContext->SwallowBuf, 0, sizeof(pContext->SwallowBuf));
        memset(pContext->InsertBuf, 0, sizeof(pContext->InsertBuf));
        pContext->usSwallowCount = pContext->usInsertCount = 0;
        pContext->ucHotkeyActive = 0;
        pContext->ulActiveHotkeyId = 0;
    }
    (void)TakeLog();
}

void Driver::SetLog(bool bOn, uint32_t ulLevel)
{
    Settings.LogFileName.Buffer[0] = bOn ? 'x' : UNICODE_NULL;
    Settings.ulLogLevel = ulLevel;
}

void Driver::SetKind(int keyboard, uint32_t ulKind)
{
    ContextOf(m_Keyboards[keyboard])->KbdType = ulKind;
}

void Driver::SetSettings(int keyboard, bool bUpAtOnce, bool bSimple)
{
    ContextOf(m_Keyboards[keyboard])->ucSendUpEventImmediately = bUpAtOnce;
    ContextOf(m_Keyboards[keyboard])->ucRunDiagNormalPacket02 = bSimple;
}

bool Driver::Add(int keyboard, const KeyDefinition& definition)
{
    return NT_SUCCESS(AddKeyDefinition(m_Keyboards[keyboard]->Filter(), &definition));
}

bool Driver::Remove(int keyboard, uint32_t ulId)
{
    return NT_SUCCESS(RemoveKeyDefinition(m_Keyboards[keyboard]->Filter(), ulId));
}

void Driver::RemoveAll(int keyboard)
{
    FreeKeyDefinitions(m_Keyboards[keyboard]->Filter());
}

Outcome Driver::Report(int keyboard, std::vector<uint8_t> report, bool bModifiersFirst)
{
    PDEVICE_OBJECT device = m_Keyboards[keyboard]->Filter();
    DeviceContext* pContext = ContextOf(m_Keyboards[keyboard]);
    const ULONG ulLen = static_cast<ULONG>(report.size());
    Outcome outcome;
    KIRQL oldIrql;
    KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
    if (bModifiersFirst) {
        UpdateModifierFlags(device, report.data(), ulLen, 1);
    }
    outcome.Taken = NT_SUCCESS(DiagUSBPacket(device, ulLen, report.data()));
    outcome.Log = TakeLog();
    KeLowerIrql(oldIrql);
    outcome.Report = std::move(report);
    for (ULONG i = 0; i < pContext->ulNotifyCount; i++) {
        outcome.Events.push_back(pContext->NotifyQueue[(pContext->ulNotifyRead + i) % NOTIFY_QUEUE_SIZE]);
    }
    pContext->ulNotifyRead = pContext->ulNotifyWrite;
    pContext->ulNotifyCount = 0;
    outcome.Swallowed = Bytes(pContext->SwallowBuf, pContext->usSwallowCount);
    outcome.Inserted = Bytes(pContext->InsertBuf, pContext->usInsertCount);
    outcome.OldPacket = Bytes(pContext->ucOldPacket, sizeof(pContext->ucOldPacket));
    outcome.OldPowerPacket = Bytes(pContext->ucOldPowerPacket, sizeof(pContext->ucOldPowerPacket));
    outcome.Flags = {Globals.ulModifierFlags,  Globals.ulPrefixReleased,   Globals.ulPrefixUnmatched,
                     Globals.ucHotkeyComplete, Globals.ucEscAbort,         Globals.ucSwallowPending,
                     pContext->ucHotkeyActive, pContext->ulActiveHotkeyId, AreBitsSound(pContext)};
    return outcome;
}

std::string Driver::TakeLog()
{
    std::string text(Globals.pLogBuffer, Globals.ulLogLength);
    Globals.ulLogLength = 0;
    Globals.ucLogCut = 0;
    return text;
}

uint32_t Driver::Now()
{
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    return static_cast<uint32_t>(now.QuadPart / 1000);
}

std::string Driver::LogHead()
{
    LARGE_INTEGER now;
    TIME_FIELDS time;
    KeQuerySystemTime(&now);
    RtlTimeToTimeFields(&now, &time);
    char head[64];
    snprintf(head, sizeof(head), "%02d/%02d/%04d %02d:%02d:%02d:%03d -- ", time.Day, time.Month, time.Year,
             time.Hour, time.Minute, time.Second, time.Milliseconds);
    return head;
}
