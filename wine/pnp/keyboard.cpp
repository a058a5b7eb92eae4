// keyboard.cpp - requests to the test drivers. See keyboard.h.
#include "keyboard.h"

#include <stdexcept>

#include <windows.h>

namespace
{
// A test driver's device, opened with the first request after the driver was loaded.
class TestDevice
{
public:
    explicit TestDevice(const wchar_t* pszName) : m_pszName(pszName) {}

    // Fails: false, the driver is not there or refused it.
    bool Ask(uint32_t ulCode, const void* pIn, size_t in, void* pOut, size_t out)
    {
        if (m_hFile == INVALID_HANDLE_VALUE) {
            m_hFile = CreateFileW(m_pszName, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  nullptr, OPEN_EXISTING, 0, nullptr);
        }
        DWORD ulReported = 0;
        return DeviceIoControl(m_hFile, ulCode, const_cast<void*>(pIn), static_cast<DWORD>(in), pOut,
                               static_cast<DWORD>(out), &ulReported, nullptr) &&
               ulReported == out;
    }

private:
    const wchar_t* m_pszName;
    HANDLE m_hFile = INVALID_HANDLE_VALUE;
};
TestDevice bus(L"\\\\.\\TvBus");
TestDevice hid(L"\\\\.\\TvHid");

enum : unsigned { ReadMs = 500, StartMs = 15000, AllReads = 2 };

void Demand(bool bDone, const char* pszWhat)
{
    if (!bDone) {
        throw std::runtime_error(std::string(pszWhat) + " is refused: error " +
                                 std::to_string(GetLastError()));
    }
}

std::string TextOf(const KeyboardReport& report)
{
    std::string text;
    char szByte[4];
    for (uint32_t i = 0; i < report.ulLength; i++) {
        snprintf(szByte, sizeof(szByte), i ? " %02X" : "%02X", report.ucBytes[i]);
        text += szByte;
    }
    return text;
}
} // namespace

unsigned WaitUntil(const std::string& what, unsigned uLimitMs, const std::function<bool()>& condition)
{
    const ULONGLONG ullBegun = GetTickCount64();
    for (;;) {
        auto uPassed = static_cast<unsigned>(GetTickCount64() - ullBegun);
        if (condition()) {
            return uPassed;
        }
        if (uPassed > uLimitMs) {
            throw std::runtime_error("not within " + std::to_string(uLimitMs) + " ms: " + what);
        }
        Sleep(5);
    }
}

TestKeyboard::TestKeyboard(KeyboardKind kind)
{
    ULONG ulCount;
    WaitUntil("the system starts the bus", StartMs,
              [&] { return bus.Ask(BUS_COUNT, nullptr, 0, &ulCount, sizeof(ulCount)); });
    Demand(bus.Ask(BUS_PLUG, &kind, sizeof(kind), &m_Number, sizeof(m_Number)), "plugging a keyboard in");
    WaitUntil("the system starts the keyboard", StartMs, [this] {
        HidState state = State();
        return state.ulStarted && state.ulReads == AllReads;
    });
}

void TestKeyboard::Send(const std::string& report, unsigned uBytes) const
{
    KeyboardReport request = {m_Number, uBytes, {}};
    for (size_t i = 0; 3 * i < report.size(); i++) {
        request.ucBytes[i] = static_cast<uint8_t>(std::stoul(report.substr(3 * i, 2), nullptr, 16));
    }
    Demand(bus.Ask(BUS_REPORT, &request, sizeof(request), nullptr, 0), "a report of the keyboard");
}

std::string TestKeyboard::Read() const
{
    KeyboardReport report;
    for (unsigned uMs = 0; uMs < ReadMs; uMs += 2) {
        if (hid.Ask(HID_TAKE, &m_Number, sizeof(m_Number), &report, sizeof(report))) {
            return TextOf(report);
        }
        Sleep(2);
    }
    return "nothing";
}

std::string TestKeyboard::Type(const std::string& report, unsigned uBytes) const
{
    Send(report, uBytes);
    return Read();
}

bool TestKeyboard::AskRemove() const
{
    return bus.Ask(BUS_ASK_REMOVE, &m_Number, sizeof(m_Number), nullptr, 0);
}

void TestKeyboard::Pull()
{
    m_bPulled = true;
    Demand(bus.Ask(BUS_PULL, &m_Number, sizeof(m_Number), nullptr, 0), "pulling the keyboard");
}

bool TestKeyboard::IsThere() const
{
    HidState state;
    return hid.Ask(HID_STATE, &m_Number, sizeof(m_Number), &state, sizeof(state));
}

HidState TestKeyboard::State() const
{
    HidState state = {};
    hid.Ask(HID_STATE, &m_Number, sizeof(m_Number), &state, sizeof(state));
    return state;
}

unsigned CountDevices()
{
    ULONG ulCount = 0;
    Demand(bus.Ask(BUS_COUNT, nullptr, 0, &ulCount, sizeof(ulCount)), "counting the devices");
    return ulCount;
}

UnloadAnswer UnloadDriver()
{
    UnloadAnswer answer = {};
    Demand(hid.Ask(HID_UNLOAD, nullptr, 0, &answer, sizeof(answer)), "unloading Tv64USB.sys");
    return answer;
}
