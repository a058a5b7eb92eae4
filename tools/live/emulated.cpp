// emulated.cpp - plugs an emulated keyboard in, and takes it down again.
#include "emulated.h"
#include "route.h"
#include "usbip/offer.h"

#include "tools/common/failure.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

ScriptKeyboard WhoIs(const EmuDescriptors& kind, const std::string& name)
{
    auto word = [&](size_t at) {
        return static_cast<uint16_t>(kind.pDevice[at] | kind.pDevice[at + 1] << 8);
    };
    return {name, word(8), word(10)};
}

EmulatedKeyboard::EmulatedKeyboard(LiveMachine& machine, const EmuDescriptors& kind,
                                   const ScriptKeyboard& who, const EmulatedAbove& above)
    : m_Machine(machine), m_pExports(above.pExports), m_ucEndpoint(usbip::EndpointOf(kind))
{
    EmuPlugOptions plug;
    plug.OnReceived = [this](const EmuReceived& received) { Seen(received); };
    m_uNumber = machine.Add(kind, plug, who);
    try {
        Build(kind, above);
    } catch (...) {
        TakeDown();
        throw;
    }
}

EmulatedKeyboard::~EmulatedKeyboard()
{
    TakeDown();
}

void EmulatedKeyboard::Build(const EmuDescriptors& kind, const EmulatedAbove& above)
{
    m_Machine.Start(m_uNumber);
    EmuKeyboard& keyboard = *m_Machine.At(m_uNumber);
    if (above.bUhid) {
        const int iUhid = open("/dev/uhid", O_RDWR | O_CLOEXEC);
        if (iUhid < 0)
            throw InputError(
                fmt::format("/dev/uhid: {}; docs/live.md tells how rights are given", strerror(errno)));
        auto request = [&keyboard](const uint8_t* pSetup, Bytes& data) {
            return NT_SUCCESS(keyboard.Control(pSetup, data, RouteOf(pSetup)));
        };
        m_Uhid = std::make_unique<UhidDevice>(
            iUhid,
            IdentityOf(kind, "Emulated keyboard (filtered)", fmt::format("tvusb-{}/input0", m_uNumber)),
            request);
        m_pUhid = m_Uhid.get();
    }
    if (m_pExports) {
        m_Offered = usbip::Offer(fmt::format("1-{}", m_uNumber + 1), kind, keyboard);
        m_pExports->Add(m_Offered);
        m_pOffered = m_Offered.get();
        fmt::print(stderr, "tvusb: keyboard {} is offered as {}\n", m_uNumber, m_Offered->device.bus);
    }
}

// First nobody asks from above any more, then it goes.
void EmulatedKeyboard::TakeDown()
{
    m_pOffered = nullptr;
    if (m_Offered)
        m_pExports->Remove(m_Offered);
    m_Machine.Unplug(m_uNumber, true);
    m_pUhid = nullptr;
    m_Uhid.reset();
    m_Machine.Forget(m_uNumber);
}

void EmulatedKeyboard::Seen(const EmuReceived& received)
{
    if (!NT_SUCCESS(received.Status))
        return;
    if (UhidDevice* pUhid = m_pUhid)
        pUhid->Input(received.Bytes);
    if (usbip::Export* pOffered = m_pOffered)
        pOffered->Input(m_ucEndpoint, received.Bytes);
}
