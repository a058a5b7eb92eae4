// service.h - what live gives whoever uses it, whatever the keyboard: the driver with its watch, its control socket and
// its configuration, which can be read anew.
#pragma once

#include "machine.h"
#include "server.h"
#include "told.h"
#include "usbip/server.h"

struct LiveArguments {
    std::string emulated, person;   // an emulated keyboard, and who types at it
    std::string recording;          // a recorded one
    std::vector<std::string> kinds; // likewise
    double after = 0;               // likewise, in seconds
    bool bUhid = false;             // of these two
    std::string device;             // which one, of a real or a recorded one
    std::string user, panic;        // a real one
    bool bYes = false, bWait = false, bGiveBack = false, bLatency = false; // likewise
    std::string config, control, usbip, pcapng;                            // of all
    bool bWatch = false, bJson = false;
};

class LiveService
{
public:
    // Fails (InputError): the configuration, the control path, the address of USB/IP, the capture; (std::runtime_error):
    // the driver.
    explicit LiveService(const LiveArguments& arguments);

    LiveMachine& Machine() { return *m_Machine; }
    // Who offers keyboards over USB/IP; null: nobody does.
    usbip::Exports* Exports() { return m_Usbip ? &m_Usbip->Offered() : nullptr; }
    // Takes the changed configuration over and tells how that went; a file with mistakes changes nothing. False when
    // not all of it is in force. From any thread.
    bool Reload(std::string* pWords = nullptr);
    // Takes everything down, which no keyboard uses any more. Returns the exit status.
    int End();

private:
    LiveTold::Printers Printers(const LiveArguments& arguments, const ReplayConfig& config) const;

    const std::string m_config;
    std::unique_ptr<LiveTold> m_Told; // null: nobody wants to know
    std::unique_ptr<LiveMachine> m_Machine;
    std::unique_ptr<usbip::Server> m_Usbip;
    std::unique_ptr<ControlServer> m_Server;
};
