// service.h - what live gives whoever uses it, whatever the keyboard: the driver with its watch, its control socket and
// its configuration, which can be read anew.
#pragma once

#include "machine.h"
#include "server.h"
#include "usbip/server.h"

struct LiveArguments {
    std::string emulated, person;    // an emulated keyboard, and who types at it
    std::string device, user, panic; // a real one
    bool bYes = false, bWait = false, bGiveBack = false, bLatency = false; // likewise
    std::string config, control, usbip;                                    // of both
    bool bWatch = false, bJson = false;
};

class LiveService
{
public:
    // The keyboards are emulated ones. Fails (InputError): the configuration, the control path, the address of USB/IP;
    // (std::runtime_error): the driver.
    LiveService(const LiveArguments& arguments, const std::vector<const EmuDescriptors*>& keyboards);

    LiveMachine& Machine() { return *m_Machine; }
    // Takes the changed configuration over and tells how that went; a file with mistakes changes nothing. False when
    // not all of it is in force. From any thread.
    bool Reload(std::string* pWords = nullptr);
    // Takes everything down, which no keyboard uses any more. Returns the exit status.
    int End();

private:
    void OfferOverUsbip(const std::string& address, const std::vector<const EmuDescriptors*>& keyboards);

    std::string m_config;
    std::unique_ptr<ReplayPrinter> m_Printer;
    std::unique_ptr<LiveMachine> m_Machine;
    std::unique_ptr<ControlServer> m_Server;
    std::unique_ptr<usbip::Server> m_Usbip; // offers the emulated ones
};
