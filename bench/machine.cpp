// machine.cpp - drivers, keyboards and hotkeys for the scenes.
#include "machine.h"

#include <cstdio>
#include <cstdlib>

#include "hotkeys/hotkeys.h"

void Require(bool bHolds, const char* pszWhat)
{
    if (!bHolds) {
        fprintf(stderr, "bench-ratios: %s\n", pszWhat);
        abort();
    }
}

// Letters from Y on, digits and signs; with the extended controllers keys that both have.
static Scans KeyOf(const Hotkeys& hotkeys, unsigned number)
{
    static const uint8_t Others[] = {0x15, 0x2C, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B,
                                     0x0C, 0x0D, 0x1A, 0x1B, 0x27, 0x28, 0x29, 0x2B, 0x33, 0x34, 0x35, 0x39,
                                     0x3B, 0x3C, 0x3D, 0x3E, 0x3F, 0x40, 0x41, 0x42, 0x43, 0x44, 0x56, 0x45};
    if (hotkeys.Kind != &EmuBootKeyboard) {
        return {0xE0, 0x6C};
    }
    return {Others[number % sizeof(Others)]};
}

std::vector<KeyDefinition> DefinitionsOf(const Hotkeys& hotkeys)
{
    std::vector<KeyDefinition> definitions;
    for (unsigned i = 0; i < hotkeys.Count; i++) {
        KeyDefinition definition = {};
        definition.ulId = i + 1;
        definition.ulSwallow = 1;
        definition.ulType = 1;
        definition.ulModifiers = hotkeys.Modifiers;
        Scans scans;
        if (hotkeys.AllHoldTheFirstOfLast) {
            scans = hotkeys.Last;
        }
        for (unsigned key = static_cast<unsigned>(scans.size()); key < hotkeys.KeysEach; key++) {
            const Scans one = KeyOf(hotkeys, i + key);
            scans.insert(scans.end(), one.begin(), one.end());
        }
        if (i + 1 == hotkeys.Count && !hotkeys.Last.empty() && !hotkeys.AllHoldTheFirstOfLast) {
            scans = hotkeys.Last;
        }
        for (uint8_t scan : scans) {
            definition.ucScans[definition.usScanCount++] = scan;
        }
        definitions.push_back(definition);
    }
    return definitions;
}

Stage::Stage(const Hotkeys& hotkeys, unsigned keyboards, uint32_t ulLogLevel)
{
    EmuMachineOptions options;
    options.Entry = DriverEntry;
    if (ulLogLevel != 0) {
        char folder[] = "/tmp/bench-ratios-XXXXXX";
        Require(mkdtemp(folder) != nullptr, "there is no folder for the log");
        m_Folder = folder;
        options.FileRoot = m_Folder;
        options.Settings["LogFile"] = "\\??\\C:\\log.txt";
        options.Settings["LogLevel"] = ULONG{ulLogLevel};
    }
    m_Machine = std::make_unique<EmuMachine>(options);
    EmuPlugOptions plug;
    plug.Record = false;
    m_Keyboard = m_Machine->Plug(*hotkeys.Kind, plug);
    for (unsigned i = 1; i < keyboards; i++) {
        m_Machine->Plug(*hotkeys.Kind, plug);
    }
    for (const KeyDefinition& definition : DefinitionsOf(hotkeys)) {
        Define(definition);
    }
}

DeviceContext* Stage::Context() const
{
    return FilterContextOf(m_Keyboard->Filter());
}

void Stage::Define(const KeyDefinition& definition)
{
    Require(AddKeyDefinition(m_Keyboard->Filter(), &definition) == STATUS_SUCCESS,
            "a definition was refused");
}

void Stage::Process()
{
    WriteShared(Context()->ucReportProcessing, 1);
}

// Their queue never runs full; nobody else runs now.
void Stage::DropEvents() WITHOUT_LOCK_ANALYSIS
{
    Context()->ulNotifyRead = Context()->ulNotifyWrite;
    Context()->ulNotifyCount = 0;
}
