// verbs_macro.cpp - a story's macro mode: the macro file, its settings and what the application asks for.
#include "driver/context.h"
#include "driver/driver.h"
#include "player.h"

// The registry of a driver that runs: what the story sets now is read with the next `reread`.
void Player::ChangeSetting(const std::string& name, const std::string& value)
{
    HANDLE hKey;
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &Globals.ParametersPath, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    ASSERT_EQ(STATUS_SUCCESS, ZwOpenKey(&hKey, KEY_SET_VALUE, &attributes));
    std::vector<WCHAR> wide(name.begin(), name.end());
    wide.push_back(0);
    UNICODE_STRING valueName;
    RtlInitUnicodeString(&valueName, wide.data());
    if (value == "-") {
        EXPECT_EQ(STATUS_SUCCESS, ZwDeleteValueKey(hKey, &valueName));
    } else {
        ULONG ulValue = Number32(value, 0);
        EXPECT_EQ(STATUS_SUCCESS, ZwSetValueKey(hKey, &valueName, 0, REG_DWORD, &ulValue, sizeof(ulValue)));
    }
    ZwClose(hKey);
}

// The file lies where the settings say; the driver sees it when it starts and with each `reread`.
void Player::WriteMacroFile()
{
    if (!m_Drive) {
        m_Drive = std::make_unique<DriveFolder>();
        m_Options.FileRoot = m_Drive->Path();
    }
    m_Options.Settings["KorvexConfigFile"] = "\\??\\C:\\macros.bin";
    m_Drive->Write("macros.bin", m_MacroFile);
}

// macro KEY REPORT [, REPORT]…
void Player::Macro(const Words& words, const Parts& parts)
{
    std::string text = parts.Left.substr(parts.Left.find(words.at(1)) + words[1].size());
    std::vector<FileBytes> reports;
    for (size_t from = 0; from < text.size();) {
        size_t to = std::min(text.find(',', from), text.size());
        reports.push_back(Bytes(text.substr(from, to - from)));
        from = to + 1;
    }
    if (m_MacroFile.empty()) {
        m_MacroFile = MacroFileHead();
    }
    AppendMacro(m_MacroFile, Number32(words[1], 16), reports);
    WriteMacroFile();
}

// macrofile empty, macrofile broken
void Player::MacroFile(const Words& words, const Parts&)
{
    if (words.at(1) != "empty" && words[1] != "broken") {
        throw BadLine("a macro file is empty or broken");
    }
    m_MacroFile = MacroFileHead();
    if (words[1] == "broken") {
        m_MacroFile.front() ^= 1;
    }
    WriteMacroFile();
}

// reread
void Player::Reread(const Words&, const Parts&)
{
    EXPECT_EQ(STATUS_SUCCESS, m_Application->RequestRecord(IOCTL_TVUSB_RELOAD_MACROS, 0, nullptr, 0));
}

// capture on, capture off
void Player::Capture(const Words& words, const Parts&)
{
    std::vector<UCHAR> value = {static_cast<UCHAR>(words.at(1) == "on"), 0, 0, 0};
    EXPECT_EQ(STATUS_SUCCESS, m_Application->Request(IOCTL_TVUSB_SET_CAPTURE, value, 0));
}

// classled BYTE
void Player::ClassLed(const Words& words, const Parts&)
{
    EXPECT_EQ(STATUS_SUCCESS, Current().SendLed(Bytes(words, 1).at(0), EmuHidRouteClass));
}

// shows BYTES, shows -
void Player::Shows(const Words& words, const Parts&)
{
    EXPECT_EQ(Text(*m_Leds.at(m_Current)), words.at(1) == "-" ? "" : Text(Bytes(words, 1)));
    m_Leds[m_Current]->clear();
}
