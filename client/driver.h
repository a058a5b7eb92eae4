// driver.h - the opened driver: what it is and which keyboards it has; the way to everything else.
//
//   tvusb::Driver driver;
//   if (!driver.Open().Ok()) …
//   tvusb::Result<tvusb::Keyboard> keyboard = driver.FindOnly();
//
// The control device exists while a keyboard is started. When the last one is pulled out every listener ends with
// KeyboardGone: Close, and try Open again until a keyboard is back, then FindAgain. Who must be told before the
// keyboard is gone registers an event (RegisterApplicationEvent): the driver waits up to 5 seconds for all handles to
// be closed.
#pragma once

#include "client/keyboard.h"
#include "client/macros.h"
#include "client/reserved.h"

namespace tvusb
{
class Driver
{
public:
    Driver() : Driver(SystemTransport()) {}
    explicit Driver(std::unique_ptr<Transport> transport) : m_Channel(std::move(transport)) {}
    ~Driver() { Close(); }
    Driver(Driver&&) noexcept = default;
    Driver& operator=(Driver&& other) noexcept;

    // Opens the driver, closing it before when it is open. Fails: NameNotFound while no keyboard is started,
    // AccessDenied for an account that may not, NotOpen for a driver moved from.
    Status Open() { return m_Channel.Open(); }
    // The last close of the driver's handles drops all definitions, events and processing of every application. No
    // other call may run meanwhile: whoever listens in another thread waits in short turns and is told before.
    void Close() { m_Channel.Close(); }
    bool IsOpen() const { return m_Channel.IsOpen(); }

    // The driver. None of these can fail but by NotOpen.

    // 0x00010300 is version 1.3.0.
    Result<uint32_t> GetVersion() const;
    // Units of 100 microseconds, low 32 bits; as in NotifyRecord.
    Result<uint32_t> GetTime() const;
    // MODIFIER bits, of all keyboards together.
    Result<uint32_t> GetModifiers() const;

    // Keyboards.

    // How many are started.
    Result<uint16_t> GetKeyboardCount() const;
    // By list position, 0 being the newest. Fails: Unsuccessful, there is no such position.
    Result<KeyboardInfo> GetKeyboardInfo(uint16_t usPosition) const;
    // The infos of all that are started, oldest first. Fails: Incomplete, with the infos that could be had, when a
    // keyboard that is plugged in and does not start hides another for a second.
    Result<std::vector<KeyboardInfo>> GetKeyboards() const;
    // Indexes, newest first, at most 127; of those that are not yet started too.
    Result<std::vector<KeyboardListEntry>> ListKeyboards() const;
    // The index of the keyboard with this device interface, in upper or lower case; a leading "\\?\" or "\??\" is
    // left out. Fails: Unsuccessful, there is none; InvalidParameter above 257 characters.
    Result<uint32_t> FindKeyboardIndex(const std::u16string& Name) const;

    // The names of the keyboards' interfaces, as the system tells them: what FindByName takes. Empty when it cannot
    // tell any. Who wants to be told of arrivals asks the system for those of KeyboardInterfaceClass (transport.h).
    Result<std::vector<std::u16string>> ListNames() const;

    // The ways to a keyboard. All fail with NoSuchKeyboard when there is none.
    //
    // The one with this interface, which no other has.
    Result<Keyboard> FindByName(const std::u16string& Name) const;
    // The one with this id, in upper or lower case, with or without its revision ("&REV_0100"). Fails: Ambiguous when
    // several have it, Incomplete as GetKeyboards does.
    Result<Keyboard> FindByHardwareId(const std::u16string& HardwareId) const;
    // The only one that there is. Fails: Ambiguous when there are several, Incomplete.
    Result<Keyboard> FindOnly() const;
    Result<Keyboard> FindByIndex(uint32_t ulIndex) const;

    // The event is set when the last keyboard was pulled out and the driver waits for the handles to be closed.
    // Fails: Unsuccessful, one is registered already.
    Status RegisterApplicationEvent(const Event& event) const;
    // An event to register here or at a queue.
    Result<Event> MakeEvent() const { return Event::Make(m_Channel); }

    MacroMode Macros() const { return MacroMode(m_Channel); }
    Reserved ReservedRequests() const { return Reserved(m_Channel); }

private:
    Channel m_Channel;
};

// Text of the driver (hardware ids, names, descriptions) for showing it.
std::string ToUtf8(const std::u16string& text);
// A text field of a record, up to its end.
template <size_t Chars> std::u16string TextOf(const char16_t (&field)[Chars])
{
    size_t length = 0;
    while (length < Chars && field[length] != 0) {
        length++;
    }
    return std::u16string(field, length);
}
} // namespace tvusb
