// status.h - how a call ended, as a value: the driver's own 32-bit status and the request that gave it.
//
// Nothing here throws. A Result holds the answer of a call, or the status that stands for it.
#pragma once

#include <stdint.h>

#include <string>
#include <utility>

namespace tvusb
{
class [[nodiscard]] Status
{
public:
    // The values that calls give by themselves; the driver may pass on others, as a keyboard's bus gave them.
    enum : uint32_t {
        Success = 0x00000000,
        Timeout = 0x00000102,              // the time of a wait is over; counts as a success
        Unsuccessful = 0xC0000001,         // what it means depends on the request: Meaning()
        InvalidHandle = 0xC0000008,        // no event object
        InvalidParameter = 0xC000000D,     // not sent: a value does not fit the request
        InvalidDeviceRequest = 0xC0000010, // the driver does not know the request, or refuses it
        AccessDenied = 0xC0000022,
        BufferTooSmall = 0xC0000023,
        ObjectTypeMismatch = 0xC0000024, // a handle of something else than an event
        NameNotFound = 0xC0000034,       // opening: no keyboard is started; else a system device is not there
        DeletePending = 0xC0000056,      // the keyboard is being removed
        InsufficientResources = 0xC000009A,
        DeviceDataError = 0xC000009C, // fewer bytes than were asked for, or damaged ones
        Cancelled = 0xC0000120,
        Disconnected =
            0xC000020C,       // who serves the driver at a control socket is gone, or threw this process out
        NotOpen = 0xC0000128, // not sent: the driver is not open, or the object was moved from
        Ambiguous = 0xE0000001,      // several keyboards fit what was looked for: none was chosen
        KeyboardGone = 0xE0000002,   // listening ended, as the keyboard was pulled out
        Incomplete = 0xE0000003,     // a list has not all that there is; what it has comes with it
        NoSuchKeyboard = 0xE0000004, // no keyboard is what was looked for
        OpenedAnew = 0xE0000005,     // not sent: Keyboard::FindAgain first
    };

    // About: what was asked, or of whom, besides the request: "keyboard 3".
    Status(uint32_t ulValue = Success, uint32_t ulRequest = 0, std::string About = {})
        : m_ulValue(ulValue), m_ulRequest(ulRequest), m_About(std::move(About))
    {
    }
    // What a request to the keyboard with this index gave; of requests to no keyboard the index is not told.
    static Status OfRequest(uint32_t ulValue, uint32_t ulRequest, uint32_t ulIndex);

    // Whether the call succeeded.
    bool Ok() const { return (m_ulValue & 0x80000000) == 0; }
    uint32_t Value() const { return m_ulValue; }
    // The control code of the request; 0 when none was made.
    uint32_t Request() const { return m_ulRequest; }
    // What the status means for this request, in a few plain words.
    const char* Meaning() const;
    // One line to show: the request's name, what it was about, the meaning, the value.
    std::string Text() const;

    friend bool operator==(const Status& a, const Status& b) { return a.m_ulValue == b.m_ulValue; }
    friend bool operator!=(const Status& a, const Status& b) { return a.m_ulValue != b.m_ulValue; }

private:
    uint32_t m_ulValue;
    uint32_t m_ulRequest;
    std::string m_About;
};

// A value, or the status of the call that did not give it. The value of a failed call is empty (all zero), but
// for Incomplete.
template <class T> class [[nodiscard]] Result
{
public:
    Result(const Status& failure) : m_Status(failure) {}
    Result(T value, const Status& status) : m_Status(status), m_Value(std::move(value)) {}

    bool Ok() const { return m_Status.Ok(); }
    explicit operator bool() const { return Ok(); }
    const Status& Error() const { return m_Status; }

    T& Value() { return m_Value; }
    const T& Value() const { return m_Value; }
    T& operator*() { return m_Value; }
    const T& operator*() const { return m_Value; }
    T* operator->() { return &m_Value; }
    const T* operator->() const { return &m_Value; }

private:
    Status m_Status;
    T m_Value{};
};
} // namespace tvusb
