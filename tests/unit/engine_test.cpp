// engine_test.cpp - the closed parts of the report engine: key table, conversion, hotkey list, key buffers,
// FIFO, descriptors.
#include "machine.h"

#include "hotkeys/hotkeys.h"
#include "report/keytable.h"
#include "report/report.h"
#include "usb/usb.h"

// FNV-1a, 64 bits.
static unsigned long long SumOf(const std::string& text)
{
    unsigned long long ullSum = 0xcbf29ce484222325;
    for (unsigned char ucByte : text) {
        ullSum = (ullSum ^ ucByte) * 0x100000001b3;
    }
    return ullSum;
}

// The whole table as text, by its sum: it was counted from the lists that the table was written from.
TEST(KeyTable, HoldsEveryRowAsItWasGiven)
{
    std::string rows, beside;
    char line[128];
    const auto add = [&line](std::string& text, auto... values) {
        snprintf(line, sizeof(line), values...);
        text += line;
    };
    for (const KeyTableRow& row : KeyTable) {
        add(rows, "%x %x %x %x %x %x %x %s\n", row.ulHIDChic, row.ulHIDJaalaa, row.usUsage, row.usUsageBytes,
            row.ucHasBreak, row.ucTypematic, row.ulScanCode, row.pszName);
    }
    for (const TypematicPeriod& period : TypematicPeriodTable) {
        add(beside, "%llu %.1f\n", static_cast<unsigned long long>(period.ullPeriodMs),
            period.dCharactersPerSecond);
    }
    for (USHORT usDelayMs : TypematicDelayTable) {
        add(beside, "%u\n", usDelayMs);
    }
    for (const char* pszName : ModifierNames) {
        add(beside, "%s\n", pszName);
    }
    EXPECT_EQ(0x9153139f6cd5ea2e, SumOf(rows)) << rows;
    EXPECT_EQ(0x180102f5978ca47a, SumOf(beside)) << beside;
}

TEST(KeyTable, ScanCodesAndUsagesFindEachOther)
{
    struct {
        ULONG ulScanCode;
        NTSTATUS status;
        USHORT usUsage, usBytes;
    } byScan[] = {
        {0x7D, STATUS_SUCCESS, 0x89, 1},       {0x7B, STATUS_SUCCESS, 0x8B, 1},
        {0x79, STATUS_SUCCESS, 0x8A, 1},       {0xE02AE037, STATUS_SUCCESS, 0x46, 1},
        {0xE11D45, STATUS_SUCCESS, 0x48, 1},   {0xE032, STATUS_SUCCESS, 0x223, 2},
        {0xFFFFFFFF, STATUS_SUCCESS, 0x03, 1}, {0x7F, STATUS_UNSUCCESSFUL, 0x5555, 0x55},
    };
    for (const auto& row : byScan) {
        USHORT usUsage = 0x5555, usBytes = 0x55;
        EXPECT_EQ(row.status, PS2ToHID(row.ulScanCode, &usUsage, &usBytes)) << std::hex << row.ulScanCode;
        EXPECT_EQ(row.usUsage, usUsage);
        EXPECT_EQ(row.usBytes, usBytes);
    }
    ULONG ulScanCode;
    UCHAR ucBreak, ucRepeat;
    EXPECT_EQ(STATUS_SUCCESS, HIDToPS2(0x48, &ulScanCode, &ucBreak, &ucRepeat));
    EXPECT_EQ(0xE11D45u, ulScanCode);
    EXPECT_EQ(0, ucBreak | ucRepeat);
    EXPECT_EQ(STATUS_UNSUCCESSFUL, HIDToPS2(0xA6, &ulScanCode, &ucBreak, &ucRepeat));
    EXPECT_EQ(RESERVED_SCAN_CODE, ulScanCode);
    EXPECT_EQ(STATUS_SUCCESS, HIDToPS2Ex(0xE9, 1, &ulScanCode, &ucBreak, &ucRepeat));
    EXPECT_EQ(0xE030u, ulScanCode);
    EXPECT_EQ(1, ucBreak & ucRepeat);
    EXPECT_EQ(STATUS_SUCCESS, HIDToPS2Ex(0xE2, 1, &ulScanCode, &ucBreak, &ucRepeat));
    EXPECT_EQ(0x38u, ulScanCode); // the keyboard row comes first
    EXPECT_EQ(STATUS_SUCCESS, HIDToPS2Ex(0xB5, 1, &ulScanCode, &ucBreak, &ucRepeat));
    EXPECT_EQ(0xE019u, ulScanCode); // its keyboard row is reserved
    EXPECT_EQ(STATUS_UNSUCCESSFUL, HIDToPS2Ex(0x194, 1, &ulScanCode, &ucBreak, &ucRepeat));
}

TEST(Modifiers, MaskMatchesTheWord)
{
    struct {
        ULONG ulMask, ulFlags;
        bool bMatched;
    } cases[] = {
        {0, 0, true},
        {0, 0x402, false},
        {0x400, 0x402, true},
        {0x400, 0x404, true},
        {0x402, 0x404, false},
        {0x400, 0xC0A, true}, // extra keys may be held
        {0x10000000, 0x10000000, true},
        {0x10000000, 0x30000000, false},
        {0x10000400, 0x10000402, true},
        {0x400, 0x10000402, false},
        {0x10000000, 0x10000402, false}, // a prefix alone is no other bit
    };
    for (const auto& row : cases) {
        EXPECT_EQ(row.bMatched, IsModifierMaskMatched(row.ulMask, row.ulFlags))
            << std::hex << row.ulMask << " " << row.ulFlags;
    }
}

using Engine = KeyboardTest;

// Behind its last key a buffer is empty, so that a dump shows no key that has gone.
TEST_F(Engine, KeysThatLeaveABufferLeaveNothingBehind)
{
    UCHAR ucKey;
    for (UCHAR ucGiven : {4, 5}) {
        ASSERT_TRUE(AddDataToInsertBuffer(Filter(), &ucGiven));
    }
    for (UCHAR ucWanted : {4, 5}) {
        ASSERT_TRUE(GetDataFromInsertBuffer(Filter(), &ucKey));
        EXPECT_EQ(ucWanted, ucKey);
        const USHORT usLeft = Context()->usInsertCount;
        EXPECT_EQ(0, Context()->InsertBuf[usLeft]);
    }
}

// "Any" of a pair stands for both sides, which are dropped; no other bit of a mask is.
TEST_F(Engine, MasksKeepWhatIsNoSideOfAPair)
{
    const struct {
        ULONG ulGiven, ulKept;
    } masks[] = {{~0u, ~0x1FEu}, {0x5FF, 0x5F9}, {0x9FF, 0x9E7}, {0x11FF, 0x119F}, {0x21FF, 0x207F}};
    for (const auto& mask : masks) {
        KeyDefinition definition = Hotkey(7, mask.ulGiven, {0x3B});
        ASSERT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), &definition));
        EXPECT_EQ(mask.ulKept, (*HotkeyWalk(*Context()).begin()).ulModifiers) << std::hex << mask.ulGiven;
        ASSERT_EQ(STATUS_SUCCESS, RemoveKeyDefinition(Filter(), 7));
    }
}

TEST_F(Engine, ScanCodesBecomeKeyBytes)
{
    struct {
        std::vector<uint8_t> scans;
        NTSTATUS status;
        std::vector<UCHAR> keys;
    } cases[] = {
        {{0x1D, 0x2E}, STATUS_SUCCESS, {0xE0, 0x06}},
        {{0xE0, 0x2A, 0xE0, 0x37}, STATUS_SUCCESS, {0x46}},
        {{0xE1, 0x1D, 0x45}, STATUS_SUCCESS, {0x48}},
        {{0xE1, 0x1D, 0x45, 0x1E}, STATUS_SUCCESS, {0x48, 0x04}},
        {{0xE0, 0x32}, STATUS_SUCCESS, {0x02, 0x23}}, // a wide usage, high byte first
        {{0xE0, 0x1D, 0x1E}, STATUS_SUCCESS, {0xE4, 0x04}},
        {{}, STATUS_SUCCESS, {}},
        {{0xE0}, STATUS_UNSUCCESSFUL, {}},
        {{0x1E, 0xE0}, STATUS_UNSUCCESSFUL, {}},
        {{0x1E, 0xE1, 0x1D}, STATUS_UNSUCCESSFUL, {}},
        {{0x7F}, STATUS_UNSUCCESSFUL, {}},
        {{0xE0, 0x2A, 0xE0, 0x38}, STATUS_UNSUCCESSFUL, {}}, // not the print key
        {{0xE0, 0x2A, 0x1E, 0x37}, STATUS_UNSUCCESSFUL, {}},
        {{0x1E, 0xE0, 0x2A, 0xE0}, STATUS_UNSUCCESSFUL, {}},
    };
    for (const auto& row : cases) {
        KeyDefinition definition = Hotkey(1, 0, {});
        definition.usScanCount = static_cast<uint16_t>(row.scans.size());
        std::copy(row.scans.begin(), row.scans.end(), definition.ucScans);
        HotkeyEntry entry;
        EXPECT_EQ(row.status, ConvertPS2ToHID(Filter(), &definition, &entry));
        if (NT_SUCCESS(row.status)) {
            EXPECT_EQ(std::vector<UCHAR>(entry.ucKeys, entry.ucKeys + entry.ulKeyCount), row.keys);
        }
    }
}

TEST_F(Engine, DefinitionsAreBounded)
{
    KeyDefinition definition = Hotkey(1, 0x200, {});
    definition.usScanCount = 32;
    memset(definition.ucScans, 0x1E, 32);
    EXPECT_EQ(STATUS_UNSUCCESSFUL, AddKeyDefinition(Filter(), &definition)); // no room for ContextKey's byte
    definition.ulModifiers = 0x400;
    EXPECT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), &definition));
    definition.usScanCount = 33;
    EXPECT_EQ(STATUS_UNSUCCESSFUL, AddKeyDefinition(Filter(), &definition));
    HostFailNth("pool", 1);
    definition.usScanCount = 1;
    EXPECT_EQ(STATUS_UNSUCCESSFUL, AddKeyDefinition(Filter(), &definition));
    HostFailNth(nullptr, 0);
    EXPECT_EQ(Context()->ulKeyDefTypes, static_cast<ULONG>(KEYDEF_HOTKEY) | KEYDEF_MACRO_MODE);

    FreeKeyDefinitions(Filter());
    EXPECT_EQ(Context()->ulKeyDefTypes, static_cast<ULONG>(KEYDEF_MACRO_MODE));
    for (uint32_t ulId = 1; ulId <= 511; ulId++) {
        definition = Hotkey(ulId, 0, {0x1E});
        ASSERT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), &definition));
    }
    definition.ulId = 512;
    EXPECT_EQ(STATUS_UNSUCCESSFUL, AddKeyDefinition(Filter(), &definition));
    EXPECT_EQ(STATUS_SUCCESS, RemoveKeyDefinition(Filter(), 100));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, RemoveKeyDefinition(Filter(), 100));
    EXPECT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), &definition));
}

TEST_F(Engine, HotkeyListIsMadeFromTheDefinitions)
{
    KeyDefinition plain = Hotkey(1, 0x406, {0x1E});
    KeyDefinition swallowing = plain;
    swallowing.ulSwallow = 1;
    KeyDefinition nameless = Hotkey(0, 0, {0x1E});
    KeyDefinition prefixed = Hotkey(2, 0x10000200, {0x7D, 0x30, 0x7B});
    for (const KeyDefinition* pDefinition : {&plain, &swallowing, &nameless, &prefixed}) {
        EXPECT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), pDefinition));
    }
    std::vector<HotkeyEntry> entries;
    for (const HotkeyEntry& entry : HotkeyWalk(*Context())) {
        entries.push_back(entry);
    }
    ASSERT_EQ(2u, entries.size()); // alike but for the swallow byte: one entry; no id: none
    EXPECT_EQ(0x400u, entries[0].ulModifiers);
    EXPECT_EQ(0x10000200u, entries[1].ulModifiers);
    ASSERT_EQ(2u, entries[1].ulKeyCount); // the prefix keys are modifiers here, ContextKey is a key too
    EXPECT_EQ(0x05, entries[1].ucKeys[0]);
    EXPECT_EQ(USAGE_CONTEXT_KEY, entries[1].ucKeys[1]);
    // One id, and other keys, more keys or other modifiers: other hotkeys.
    KeyDefinition otherKey = Hotkey(1, 0x406, {0x1F}), moreKeys = Hotkey(1, 0x406, {0x1E, 0x1F}),
                  otherModifiers = Hotkey(1, 0x800, {0x1E});
    EXPECT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), &otherKey));
    EXPECT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), &moreKeys));
    EXPECT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), &otherModifiers));
    ULONG ulEntries = 0;
    for (const HotkeyEntry& entry : HotkeyWalk(*Context())) {
        ulEntries += entry.ulId != 0;
    }
    EXPECT_EQ(5u, ulEntries);
    USHORT usIndex;
    EXPECT_EQ(FindKeyDefinitionById(Filter(), 2, &usIndex)->ulModifiers, prefixed.ulModifiers);
    EXPECT_EQ(3, usIndex);
    EXPECT_EQ(nullptr, FindKeyDefinitionByType(Filter(), 5, &usIndex));
    EXPECT_EQ(usIndex, Context()->usDefinitions) << "the first free slot";
}

// A walk on the report road sees the list that it began with to its end, however often the list is made anew.
TEST_F(Engine, AWalkedListStaysAsItIs)
{
    KeyDefinition first = Hotkey(1, 0, {0x1E}), second = Hotkey(2, 0, {0x1F}), third = Hotkey(3, 0, {0x20});
    ASSERT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), &first));
    HostThread thread;
    {
        HotkeyWalk walk(*Context());
        thread = HostStartThread([&] {
            for (const KeyDefinition* pDefinition : {&second, &third}) {
                EXPECT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), pDefinition));
            }
        });
        HostAdvanceToUs(HostNowUs() + 50000);
        EXPECT_NE(nullptr, FindKeyDefinitionById(Filter(), 3, nullptr)) << "the rebuild waits for the walk";
        ULONG ulEntries = 0;
        for (const HotkeyEntry& entry : walk) {
            EXPECT_EQ(1u, entry.ulId);
            ulEntries++;
        }
        EXPECT_EQ(1u, ulEntries);
    }
    HostJoinThread(thread);
    ULONG ulEntries = 0;
    for (const HotkeyEntry& entry : HotkeyWalk(*Context())) {
        EXPECT_EQ(entry.ulId, ++ulEntries);
    }
    EXPECT_EQ(3u, ulEntries);
}

// Fn is a modifier of keyboards with power keys, the prefixes of standard ones; elsewhere both are keys.
TEST_F(Engine, TrackedKeysAreNoKeysOfAHotkey)
{
    const struct {
        ULONG ulKbdType;
        std::vector<UCHAR> keys;
    } cases[] = {{POWERKbdType, {0x89, 0x04}}, {NORMALKbdType, {0xA5, 0x04}}, {0, {0xA5, 0x89, 0x04}}};
    KeyDefinition definition = Hotkey(1, 0, {0xE0, 0x0E, 0x7D, 0x1E});
    for (const auto& row : cases) {
        WriteShared(Context()->KbdType, row.ulKbdType);
        ASSERT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), &definition));
        for (const HotkeyEntry& entry : HotkeyWalk(*Context())) {
            EXPECT_EQ(std::vector<UCHAR>(entry.ucKeys, entry.ucKeys + entry.ulKeyCount), row.keys);
        }
        ASSERT_EQ(STATUS_SUCCESS, RemoveKeyDefinition(Filter(), 1));
    }
    WriteShared(Context()->KbdType, static_cast<ULONG>(NORMALKbdType));
}

TEST_F(Engine, KeyBuffersHold1024Keys)
{
    UCHAR ucKey = 0x77;
    EXPECT_FALSE(GetDataFromSwallowBuffer(Filter(), &ucKey));
    EXPECT_EQ(0x77, ucKey);
    for (ULONG i = 0; i < KEY_BUFFER_SIZE; i++) {
        UCHAR ucReport[8] = {0, 0, static_cast<UCHAR>(i % 200 + 4), 5, 6};
        ASSERT_EQ(7u, SwallowScan(Filter(), ucReport, 8, 2));
        ucKey = static_cast<UCHAR>(i % 200 + 4);
        ASSERT_TRUE(AddDataToInsertBuffer(Filter(), &ucKey));
    }
    UCHAR ucReport[8] = {0, 0, 4, 5, 6};
    EXPECT_EQ(8u, SwallowScan(Filter(), ucReport, 8, 2)); // full: the key stays
    EXPECT_EQ(4, ucReport[2]);
    EXPECT_FALSE(AddDataToInsertBuffer(Filter(), &ucKey));
    for (ULONG i = 0; i < KEY_BUFFER_SIZE; i++) {
        ASSERT_TRUE(GetDataFromInsertBuffer(Filter(), &ucKey));
        ASSERT_EQ(ucKey, i % 200 + 4);
    }
    DiscardSwallowBuffer(Filter());
    EXPECT_EQ(0, Context()->usSwallowCount);
    EXPECT_EQ(7u, RemoveKeyFromBuffer(ucReport, 8, 3));
    EXPECT_EQ(6, ucReport[3]);
    EXPECT_EQ(8u, RemoveKeyFromBuffer(ucReport, 8, 8));
    EXPECT_EQ(8u, RemoveKeyFromBuffer(ucReport, 8, ~0u));
}

TEST_F(Engine, AFullSwallowBufferDoesNotHoldTheWalkUp)
{
    KeyDefinition definition = Hotkey(7, 0, {0x1E, 0x30});
    ASSERT_EQ(STATUS_SUCCESS, AddKeyDefinition(Filter(), &definition));
    for (ULONG i = 0; i < KEY_BUFFER_SIZE; i++) {
        UCHAR ucFill[8] = {0, 0, 0x20};
        SwallowScan(Filter(), ucFill, 8, 2);
    }
    UCHAR ucReport[8] = {0, 0, 4};
    ULONG ulIndex = 2, ulLen = 8;
    UCHAR ucReleased = 0;
    HotkeyPass pass(Filter());
    UpdateHotkeyModifierMatch(pass);
    ProcessHotkeyScan(pass, 4, 0, ucReport, &ulIndex, &ulLen, &ucReleased);
    EXPECT_EQ(2u, ulIndex);
    EXPECT_EQ(8u, ulLen);
    EXPECT_EQ(4, ucReport[2]);
    EXPECT_EQ(0, Globals.ucSwallowPending);
}

TEST_F(Engine, QueuedKeysTakeTheReportsPlaces)
{
    for (UCHAR ucKey = 0x10; ucKey < 0x18; ucKey++) {
        AddDataToInsertBuffer(Filter(), &ucKey);
    }
    UCHAR ucReport[8] = {0, 0, 4};
    EXPECT_EQ(STATUS_SUCCESS, DiagUSBPacket(Filter(), 8, ucReport));
    const UCHAR ucFull[8] = {0, 0, 0x10, 0x11, 0x12, 0x13, 0x14, 0x15};
    EXPECT_EQ(0, memcmp(ucReport, ucFull, 8));
    EXPECT_EQ(3, Context()->usInsertCount); // two old ones, and the report's own key behind them
    UCHAR ucThree[3] = {9, 0, 0};
    EXPECT_EQ(STATUS_SUCCESS, DiagUSBPacket(Filter(), 3, ucThree));
    EXPECT_EQ(0x16, ucThree[1]);
    EXPECT_EQ(0x17, ucThree[2]);
    UCHAR ucRollover[8] = {1, 1, 1, 1, 1, 1, 1, 1};
    EXPECT_EQ(STATUS_UNSUCCESSFUL, DiagUSBPacket(Filter(), 8, ucRollover));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, DiagUSBPacket(Filter(), 8, nullptr));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, DiagUSBPacket(Filter(), 0, ucReport));
}

TEST_F(Engine, FifoIsARingOfSixteen)
{
    Keyboard->Unplug(false);
    EmuPlugOptions options;
    options.Manual = true;
    Keyboard = Machine->Plug(EmuBootKeyboard, options);
    Application = std::make_unique<EmuApplication>();
    FifoEntry entry = {0, 11, {}};
    EXPECT_EQ(STATUS_UNSUCCESSFUL, InsertUSBPacketFifin(Filter(), &entry));
    ULONG ulIndex = Keyboard->Index();
    for (UCHAR round = 0; round < 3; round++) {
        for (UCHAR i = 0; i < 10; i++) {
            entry = {0, 8, {round, i}};
            ASSERT_EQ(STATUS_SUCCESS, InsertUSBPacketFifin(Filter(), &entry));
        }
        for (UCHAR i = 0; i < 10; i++) {
            ASSERT_EQ(STATUS_SUCCESS, GetUSBPacketFifo(ulIndex, &entry));
            ASSERT_EQ(entry.ucData[1], i);
        }
    }
    EXPECT_EQ(STATUS_UNSUCCESSFUL, GetUSBPacketFifo(ulIndex, &entry));
    std::vector<FifoEntry> seventeen(17, FifoEntry{0, 8, {1}});
    EXPECT_EQ(STATUS_SUCCESS, Application->InsertUSBPackets(ulIndex, seventeen));
    ULONG ulCount = 0;
    EXPECT_EQ(STATUS_SUCCESS, GetFifoCount(ulIndex, &ulCount));
    EXPECT_EQ(16u, ulCount);
    EXPECT_EQ(STATUS_UNSUCCESSFUL,
              Application->RequestRecord(IOCTL_TVUSB_INSERT_PACKETS, ulIndex, nullptr, 0));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, GetFifoCount(99, &ulCount));
}

// The type is learnt once, from whole and completed descriptors alone.
TEST_F(Engine, DescriptorsDecideTheType)
{
    struct {
        const char* pszWhat;
        std::vector<UCHAR> bytes;
        UCHAR ucCompleted;
        ULONG ulKbdType;
    } cases[] = {
        {"nine bytes of a longer one", {9, 2, 34, 0, 1, 1, 0, 0xA0, 50}, 1, 0},
        {"no interface behind", {9, 2, 34, 0, 1, 1, 0, 0xA0, 50, 7, 5, 0x81, 3, 8, 0, 10, 0, 0}, 1, 0},
        {"cut within the interface", {9, 2, 34, 0, 1, 1, 0, 0xA0, 50, 9, 4, 0, 0, 1, 3, 1}, 1, 0},
        {"on its way down", {9, 2, 34, 0, 1, 1, 0, 0xA0, 50, 9, 4, 0, 0, 1, 3, 1, 1, 0}, 0, 0},
        {"boot keyboard", {9, 2, 34, 0, 1, 1, 0, 0xA0, 50, 9, 4, 0, 0, 1, 3, 1, 1, 0}, 1, NORMALKbdType},
        {"power", {9, 2, 34, 0, 1, 1, 0, 0xA0, 50, 9, 4, 0, 0, 1, 3, 0, 0, 0}, 1, POWERKbdType},
        {"extended", {9, 2, 34, 0, 1, 1, 0, 0xA0, 50, 9, 4, 0, 0, 1, 3, 1, 2, 0}, 1, JaalaaEXTENDEDKbdType},
        {"mass storage", {9, 2, 34, 0, 1, 1, 0, 0xA0, 50, 9, 4, 0, 0, 1, 8, 6, 80, 0}, 1, OTHERKbdType},
        {"lone interface", {9, 4, 0, 0, 1, 3, 1, 1, 0}, 1, NORMALKbdType},
        {"lone extended interface", {9, 4, 0, 0, 1, 3, 1, 2, 0}, 1, OTHERKbdType},
        {"lone interface on its way down", {9, 4, 0, 0, 1, 3, 1, 1, 0}, 0, 0},
        {"a report descriptor that looks like one", {5, 4, 9, 6, 0xA1, 3, 1, 1, 0}, 1, 0},
        {"one byte", {9}, 1, 0},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.pszWhat);
        WriteShared(Context()->KbdType, 0u);
        DiagDescriptor(Filter(), row.bytes.data(), static_cast<ULONG>(row.bytes.size()), row.ucCompleted);
        EXPECT_EQ(row.ulKbdType, Context()->KbdType);
    }
    WriteShared(Context()->KbdType, 0u);
    std::vector<UCHAR> device = {18, 1, 0, 2, 0, 0, 0, 8, 0x3C, 0x7A, 0x65, 0, 0, 1, 1, 2, 0, 1};
    DiagDescriptor(Filter(), device.data(), 18, 1);
    DiagDescriptor(Filter(), cases[6].bytes.data(), 18, 1);
    EXPECT_EQ(Context()->KbdType, static_cast<ULONG>(ChicEXTENDEDKbdType));
    DiagDescriptor(Filter(), cases[4].bytes.data(), 18, 1);
    EXPECT_EQ(Context()->KbdType, static_cast<ULONG>(ChicEXTENDEDKbdType)); // decided for good
    DiagDescriptor(Filter(), nullptr, 18, 1);
}
