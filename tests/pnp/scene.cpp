// scene.cpp - see scene.h.
#include "scene.h"

#include <stdexcept>

TestKeyboard& PlugAndPlay::Plug(KeyboardKind kind)
{
    m_Keyboards.push_back(std::make_unique<TestKeyboard>(kind));
    return *m_Keyboards.back();
}

unsigned PlugAndPlay::WaitGone(const TestKeyboard& keyboard)
{
    return WaitUntil("the system removes the keyboard", GoneMs, [&] { return !keyboard.IsThere(); });
}

void PlugAndPlay::Unload()
{
    EXPECT_EQ(0u, CountDevices());
    UnloadAnswer answer = UnloadDriver();
    EXPECT_EQ(0u, answer.ulStatus) << "unloading";
    EXPECT_EQ(0u, answer.ulBlocksLeft) << "blocks of memory left";
    EXPECT_EQ(1u, answer.ulGapsFilled) << "the memory was not counted";
}

void PlugAndPlay::TearDown()
{
    for (auto& pKeyboard : m_Keyboards) {
        if (!pKeyboard->IsPulled()) {
            pKeyboard->Pull();
        }
    }
    for (auto& pKeyboard : m_Keyboards) {
        WaitGone(*pKeyboard);
    }
    Unload();
}

static void Demand(const tvusb::Status& status)
{
    if (!status.Ok()) {
        throw std::runtime_error("an application's call failed: " + status.Text());
    }
}

Application::Application(uint32_t ulIndex)
{
    Demand(driver.Open());
    auto found = driver.FindByIndex(ulIndex);
    Demand(found.Error());
    keyboard = *found;
    auto listener = keyboard.Events().Listen();
    Demand(listener.Error());
    m_Listener = std::move(*listener);
    Demand(keyboard.StartProcessing());
}

void Application::Define(const KeyDefinition& definition) const
{
    Demand(keyboard.AddDefinition(definition));
}

static std::string TextOf(const NotifyRecord& record)
{
    char szValue[20];
    snprintf(szValue, sizeof(szValue), record.ucSource == NOTIFY_SOURCE_HOTKEY ? "repeat %02X " : "key %02X ",
             record.ulValue);
    const bool bHotkey = record.ucSource == NOTIFY_SOURCE_HOTKEY && record.ulValue <= 1;
    const std::string what = !bHotkey ? szValue : record.ulValue == 1 ? "down " : "up ";
    return what + std::to_string(record.ulId);
}

std::string Application::Events(uint32_t ulWaitMs) const
{
    std::string text;
    auto records = m_Listener.Wait(ulWaitMs);
    Demand(records.Error());
    for (const NotifyRecord& record : *records) {
        text += (text.empty() ? "" : ", ") + TextOf(record);
    }
    return text;
}

std::string Indexes(const tvusb::Driver& driver)
{
    std::string text;
    auto infos = driver.GetKeyboards();
    Demand(infos.Error());
    for (const KeyboardInfo& info : *infos) {
        text += (text.empty() ? "" : " ") + std::to_string(info.ulDeviceIndex);
    }
    return text;
}
