// settings.h - the driver's settings by name: the registry values of its parameters key that people set.
//
// scripts/check-settings holds the list against the driver's sources, the INF and the README.
#pragma once

enum class SettingKind { Number, ScanCode, Hotkey, FileName };

struct KnownSetting {
    const char* pName;
    SettingKind kind;
};

inline constexpr KnownSetting KnownSettings[] = {
    {"Prefix1", SettingKind::ScanCode},
    {"Prefix2", SettingKind::ScanCode},
    {"PosKeyPrefix", SettingKind::ScanCode},
    {"SendUpEventImmediately", SettingKind::Number},
    {"RunDiagNormalPacket02", SettingKind::Number},
    {"LogFile", SettingKind::FileName},
    {"LogLevel", SettingKind::Number},
    {"LogFileSize", SettingKind::Number},
    {"KorvexHotkey", SettingKind::Hotkey},
    {"KorvexLEDDisabled", SettingKind::Number},
    {"KorvexDelay", SettingKind::Number},
    {"KorvexConfigFile", SettingKind::FileName},
};
