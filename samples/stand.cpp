// stand.cpp - what an application finds where no driver is installed: the driver that another process serves at the
// control socket which the environment's TVUSB_CONTROL names; else the driver itself on the emulated system,
// one emulated keyboard with something in its EEPROM, and someone who presses Ctrl+F1 every half second, or what the
// environment's TVUSB_PERSON says (emu/app/person.h).
//
// The machine comes up with the first transport and goes down when the program ends; what is left over then is
// told on standard error, and the program ends with 1. Time is virtual: it passes while every thread waits.
#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "client/host_transport.h"
#include "client/socket_transport.h"
#include "emu/app/machine.h"
#include "emu/app/person.h"

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistryPath);

namespace
{
class Stand
{
public:
    Stand()
        : m_Keys(Keys()), m_Machine(Options()), m_pKeyboard(m_Machine.Plug()),
          m_hPause(HostCreateEvent(false))
    {
        for (UCHAR i = 0; i < 64; i++) {
            m_pKeyboard->Memory().ucEeprom[i] = i;
        }
        m_Typist = HostStartThread([this] { Type(); });
    }

    ~Stand()
    {
        m_bEnd = true;
        HostJoinThread(m_Typist);
        HostCloseHandle(m_hPause);
        if (m_Machine.Unload() != 0) {
            _Exit(1);
        }
    }

private:
    static std::vector<tvusb::KeyReport> Keys()
    {
        const char* pWords = getenv("TVUSB_PERSON");
        std::string bad;
        std::vector<tvusb::KeyReport> keys = ReportsOfWords(pWords != nullptr ? pWords : "ctrl+0x3A", &bad);
        if (!bad.empty()) {
            fprintf(stderr, "TVUSB_PERSON: nobody can press %s\n", bad.c_str());
            exit(1);
        }
        return keys;
    }

    static EmuMachineOptions Options()
    {
        EmuMachineOptions options;
        options.Entry = DriverEntry;
        return options;
    }

    void Type()
    {
        while (!m_bEnd && HostWaitEvent(m_hPause, 500000) == STATUS_TIMEOUT) {
            for (const tvusb::KeyReport& report : m_Keys) {
                m_pKeyboard->Report({report.begin(), report.end()});
            }
        }
    }

    std::vector<tvusb::KeyReport> m_Keys;
    EmuMachine m_Machine;
    EmuKeyboard* m_pKeyboard;
    HANDLE m_hPause; // never set
    std::atomic<bool> m_bEnd{false};
    HostThread m_Typist;
};
} // namespace

std::unique_ptr<tvusb::Transport> tvusb::SystemTransport()
{
    if (!ControlPath().empty()) {
        return SocketTransport(ControlPath());
    }
    static Stand stand;
    return HostTransport();
}
