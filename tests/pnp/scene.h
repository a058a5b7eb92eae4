// scene.h - what every scene begins and ends with: a driver that is not loaded, and one that left nothing behind.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/client.h"
#include "wine/pnp/keyboard.h"

class PlugAndPlay : public testing::Test
{
protected:
    // Pulls what is still plugged in and unloads the driver, which must have freed all that it allocated.
    void TearDown() override;

    // The first keyboard of a scene has the driver loaded.
    TestKeyboard& Plug(KeyboardKind kind = BOOT_KEYBOARD);
    // Waits until nothing is left of the keyboard; how many milliseconds that took.
    static unsigned WaitGone(const TestKeyboard& keyboard);
    // Unloads the driver while no keyboard is there.
    static void Unload();

private:
    enum : unsigned { GoneMs = 10000 };
    std::vector<std::unique_ptr<TestKeyboard>> m_Keyboards;
};

// An application of this process with one keyboard: it listens to its events and has them processed.
class Application
{
public:
    // Opens the driver and takes the keyboard of this index.
    explicit Application(uint32_t ulIndex);

    void Define(const KeyDefinition& definition) const;
    // What came since the last call: "down 7, up 7, key 1E 5"; waits up to so long for the first.
    std::string Events(uint32_t ulWaitMs = 0) const;

    tvusb::Driver driver;
    tvusb::Keyboard keyboard;

private:
    tvusb::NotifyListener m_Listener;
};

// The indexes of the keyboards that are there, oldest first: "0 1".
std::string Indexes(const tvusb::Driver& driver);
