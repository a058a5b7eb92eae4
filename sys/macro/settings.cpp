// settings.cpp - the macro mode's settings, and which keyboards take part in it.
//
//   KorvexHotkey ─► KorvexLEDDisabled ─► KorvexDelay ─► KorvexConfigFile ─► file.cpp
//
// The four values are read in this order; the first one that is absent ends the reading. Only what could be
// read whole is there: an unreadable value is absent, one of another type or length is passed over.
// Runs in driver entry and whenever the application asks for it, at PASSIVE_LEVEL, one reading at a time.
#include "macro/macro.h"

#include "control/notification.h"
#include "hotkeys/fields.h"
#include "log/events.h"
#include "log/log.h"
#include "macro/fields.h"
#include "macro/parkedfields.h"

namespace
{
enum : ULONG { VALUE_BYTES = 200, FIRST_EXTENDED_HOTKEY = 0x1000000 };

// A registry value: the answer's head and at most 188 bytes of data.
struct RegistryValue {
    alignas(KEY_VALUE_PARTIAL_INFORMATION) UCHAR Answer[VALUE_BYTES];

    const KEY_VALUE_PARTIAL_INFORMATION* Info() const
    {
        return reinterpret_cast<const KEY_VALUE_PARTIAL_INFORMATION*>(Answer);
    }
    const UCHAR* Data() const { return Answer + offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data); }
    bool IsNumber() const { return Info()->Type == REG_DWORD && Info()->DataLength == sizeof(ULONG); }
    ULONG Number() const
    {
        ULONG ulNumber;
        RtlCopyMemory(&ulNumber, Data(), sizeof(ulNumber));
        return ulNumber;
    }
};

NTSTATUS OpenParametersKey(PHANDLE phKey)
{
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &GlobalFrame.ParametersPath,
                               OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    return ZwOpenKey(phKey, KEY_READ, &attributes);
}

// Returns false for a value that is absent or cannot be read whole.
bool QueryValue(HANDLE hKey, PCWSTR pszName, RegistryValue* pValue)
{
    UNICODE_STRING name;
    ULONG ulBytes = 0;
    RtlInitUnicodeString(&name, pszName);
    RtlZeroMemory(pValue, sizeof(*pValue));
    if (!NT_SUCCESS(ZwQueryValueKey(hKey, &name, KeyValuePartialInformation, pValue->Answer,
                                    sizeof(pValue->Answer), &ulBytes))) {
        return false;
    }
    LogHexDump("Contents:", pValue->Info()->DataLength, pValue->Data());
    return true;
}

// Marks the keyboards of the hotkey's interface; those of other kinds stay as they are while there is one.
void MarkKeyboards(ULONG ulHotkey)
{
    const bool bExtended = ulHotkey >= FIRST_EXTENDED_HOTKEY;
    for (PDEVICE_OBJECT device : AllKeyboards()) {
        const ULONG ulKbdType = ReadShared(FieldsOf<FrameFields>(device).KbdType);
        if (ulHotkey == 0) {
            SetKorvexKeyboard(device, 0);
        } else if (ulKbdType == NORMALKbdType) {
            SetKorvexKeyboard(device, !bExtended);
        } else if (ulKbdType == POWERKbdType) {
            SetKorvexKeyboard(device, bExtended);
        }
    }
}

// The macro feature was switched off: so is the mode, and the application and the LED tell.
void EndMode()
{
    WriteShared(GlobalMacro.ucKorvexMode, 0);
    MacroRecord record = {};
    record.usType = MACRO_RECORD_MODE;
    (void)QueueMacroRecord(&record); // the application sees a loss as a gap
    SignalMacroEvent();
    if (ReadShared(SettingsOfMacro.ucKorvexLEDDisabled) == 0) {
        (void)SetKorvexLed(0);
    }
}

void TakeHotkey(const RegistryValue& value)
{
    if (value.IsNumber()) {
        const ULONG ulHotkey = value.Number();
        WriteShared(SettingsOfMacro.ulKorvexHotkey, ulHotkey);
        MarkKeyboards(ulHotkey);
        if (ulHotkey == 0) {
            EndMode();
        }
    }
    Trace(ModeHotkey,
          ReadShared(SettingsOfMacro.ulKorvexHotkey) >= FIRST_EXTENDED_HOTKEY ? "extended" : "normal",
          ReadShared(SettingsOfMacro.ulKorvexHotkey));
}

// A pace of 0 means as fast as the timer goes; no pace at all is what an absent value stands for.
void TakeDelay(const RegistryValue& value)
{
    const ULONG ulDelayMs = value.IsNumber() ? value.Number() : ReadShared(SettingsOfPace.ulKorvexDelay);
    WriteShared(SettingsOfPace.ulKorvexDelay, ulDelayMs != 0 ? ulDelayMs : 1u);
}

// The path up to its NUL. Returns false for another type, or when there is no NUL.
bool PathOf(const RegistryValue& value, PUNICODE_STRING pPath)
{
    if (value.Info()->Type != REG_SZ) {
        return false;
    }
    auto pText = reinterpret_cast<WCHAR*>(const_cast<UCHAR*>(value.Data()));
    ULONG ulChars = 0;
    while (ulChars < value.Info()->DataLength / sizeof(WCHAR) && pText[ulChars] != UNICODE_NULL) {
        ulChars++;
    }
    if (ulChars == value.Info()->DataLength / sizeof(WCHAR)) {
        return false;
    }
    pPath->Buffer = pText;
    pPath->Length = static_cast<USHORT>(ulChars * sizeof(WCHAR));
    pPath->MaximumLength = static_cast<USHORT>(pPath->Length + sizeof(WCHAR));
    return true;
}

// Without a file that can be opened and understood the macros stay as they are.
void TakeFile(const RegistryValue& value)
{
    UNICODE_STRING path;
    if (!PathOf(value, &path)) {
        return;
    }
    HANDLE hFile;
    IO_STATUS_BLOCK ioStatus;
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &path, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    NTSTATUS status =
        ZwCreateFile(&hFile, GENERIC_READ, &attributes, &ioStatus, nullptr, FILE_ATTRIBUTE_NORMAL,
                     FILE_SHARE_READ, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    if (!NT_SUCCESS(status)) {
        Trace(MacroFileNotOpened, &path, status);
        return;
    }
    status = ReadKorvexConfigFile(hFile);
    Trace(MacroFileRead, &path, status);
    ZwClose(hFile);
}

// The values in their order. Fails: one of them is absent.
NTSTATUS TakeValues(HANDLE hKey)
{
    RegistryValue value;
    if (!QueryValue(hKey, L"KorvexHotkey", &value)) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    TakeHotkey(value);
    if (!QueryValue(hKey, L"KorvexLEDDisabled", &value)) {
        WriteShared(SettingsOfMacro.ucKorvexLEDDisabled, 0);
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (value.IsNumber()) {
        WriteShared(SettingsOfMacro.ucKorvexLEDDisabled, static_cast<UCHAR>(value.Number()));
    }
    if (!QueryValue(hKey, L"KorvexDelay", &value)) {
        WriteShared(SettingsOfPace.ulKorvexDelay, 0u);
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    TakeDelay(value);
    if (!QueryValue(hKey, L"KorvexConfigFile", &value)) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    TakeFile(value);
    return STATUS_SUCCESS;
}
} // namespace

// Reads the settings and the macros anew. A second reading waits for the first, so that the newest file stays.
// IRQL = PASSIVE. Lock: takes MacroSettingsMutex. Fails: no such key, a value is absent; what was read before
// it holds.
NTSTATUS ReadKorvexParameters(PUNICODE_STRING pRegistryPath)
{
    IRQL_AT_MOST(PASSIVE_LEVEL);
    HANDLE hKey;
    Trace(MacroSettings, pRegistryPath);
    MutexScope lock(GlobalMacro.MacroSettingsMutex);
    NTSTATUS status = OpenParametersKey(&hKey);
    if (NT_SUCCESS(status)) {
        status = TakeValues(hKey);
        ZwClose(hKey);
    }
    return status;
}

// Says whether a keyboard takes part in the macro mode; 1 says that it does. The other bits of the word may
// be recomputed meanwhile.
// IRQL <= DISPATCH. Fails: never.
NTSTATUS SetKorvexKeyboard(PDEVICE_OBJECT device, UCHAR ucOn)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    Trace(TakesPart, IndexOf(device), ucOn == 1);
    auto plTypes = reinterpret_cast<LONG volatile*>(&FieldsOf<HotkeyFields>(device).ulKeyDefTypes);
    if (ucOn == 1) {
        InterlockedOr(plTypes, static_cast<LONG>(KEYDEF_MACRO_MODE));
    } else {
        InterlockedAnd(plTypes, ~static_cast<LONG>(KEYDEF_MACRO_MODE));
    }
    return STATUS_SUCCESS;
}

// At driver entry, on zeroed state. IRQL = PASSIVE.
void InitializeMacros()
{
    KeInitializeSpinLock(&GlobalMacro.CaptureLock.Lock);
    KeInitializeSpinLock(&GlobalMacro.MacroTableLock.Lock);
    KeInitializeMutex(&GlobalMacro.MacroSettingsMutex.Object, 0);
}
