// transport.h - the way to the driver: all that the library needs of the system it runs on.
//
// Three stand behind it: the host's application side (host_transport.cpp), the control socket of another process that
// serves the driver (socket_transport.cpp), and Windows (windows_transport.cpp).
// Statuses are the driver's 32-bit values (status.h). Send, NewEvent, WaitEvent and FreeEvent may be called by
// several threads at once; Open and Close only while no other call runs.
#pragma once

#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

namespace tvusb
{
// The class of the keyboards' device interfaces, as the system's own record of it.
template <class Guid> constexpr Guid KeyboardInterfaceClass()
{
    return {0x3B7E91C4, 0x5A2D, 0x4F60, {0x9C, 0x1E, 0x7D, 0x84, 0xA2, 0xF0, 0xB6, 0x13}};
}

class Transport
{
public:
    virtual ~Transport() = default;

    // Opens the driver's control device. Fails: NameNotFound, AccessDenied, the system's status.
    virtual uint32_t Open() = 0;
    // Closes it; the driver's last close releases all that the application had set up.
    virtual void Close() = 0;
    // Sends one control request and waits for its end. *pulReported: how many bytes of pOut the answer has; a
    // failure's may get lost on the way.
    virtual uint32_t Send(uint32_t ulCode, const void* pIn, uint32_t ulIn, void* pOut, uint32_t ulOut,
                          uint32_t* pulReported) = 0;
    // Whether the process is a 32-bit one: its input records have another layout.
    virtual bool Is32() const = 0;
    // The names of the keyboards' device interfaces; none where the system does not tell them.
    virtual std::vector<std::u16string> ListInterfaces() { return {}; }

    // Whoever serves the driver reads its configuration anew; what came of it goes to *pWords. Needs no Open. Fails:
    // InvalidDeviceRequest where nobody serves, InvalidParameter when not all of it is in force, as Open.
    virtual uint32_t Reload(std::string* /*pWords*/) { return 0xC0000010; }

    // An event object that a wait resets. Fails: 0.
    virtual uint64_t NewEvent() = 0;
    // Success when it was set, Timeout after so many milliseconds, else why the wait ended.
    virtual uint32_t WaitEvent(uint64_t hEvent, uint32_t ulTimeoutMs) = 0;
    virtual void FreeEvent(uint64_t hEvent) = 0;
};

constexpr uint32_t WAIT_FOREVER = 0xFFFFFFFF;

// The transport that a Driver without a choice of its own takes: on Windows the system's, elsewhere the one that
// the program provides by defining this routine.
std::unique_ptr<Transport> SystemTransport();
} // namespace tvusb
