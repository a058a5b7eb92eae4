// keyboard.h - a real keyboard: its interfaces taken from the kernel, its reports and answers as they come.
//
//   reads of our own, always out ── callback ──► UsbSink::Report
//   Send(ticket, request) ───────── callback ──► UsbSink::Answer
//   the keyboard is pulled out ─────────────────► UsbSink::Gone
//
// Everything goes through a node that somebody else has opened, so that this side needs no right to files, and libusb
// looks for nothing. The interrupt endpoint is read whether or not the driver reads, so each key is seen at once, come what
// may above.
//
// Two threads take turns: who has handled libusb's events lets the other one wait for the next and then acts on his own. So
// a report travels on in the thread that it has woken, and one that hangs there holds no other up.
#pragma once

#include "bus.h"

#include <host.h>

#include <libusb-1.0/libusb.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

class UsbKeyboard final : public UsbBus
{
public:
    // Takes the interfaces of the keyboard at this open node, which stays the caller's.
    // Fails (std::runtime_error): another program has it, it is gone, it does not tell what it is.
    UsbKeyboard(int iNode, const std::vector<uint8_t>& interfaces);
    ~UsbKeyboard() override; // the kernel's own driver gets the interfaces back
    UsbKeyboard(const UsbKeyboard&) = delete;
    UsbKeyboard& operator=(const UsbKeyboard&) = delete;

    const UsbDevice& Device() const override { return m_Device; }
    const std::vector<UsbInterface>& Interfaces() const override { return m_Interfaces; }
    void Start(UsbSink& sink) override;
    void Stop() override;
    void Recover(unsigned uInterface) override;
    bool Send(unsigned uInterface, ULONG_PTR ulTicket, const uint8_t* pSetup, const Bytes& data) override;
    void GiveUp(unsigned uInterface, ULONG_PTR ulTicket) override;

private:
    struct Read;
    struct Request;
    using Name = std::pair<unsigned, ULONG_PTR>;
    struct Claim {
        libusb_device_handle* pHandle;
        int iInterface;
        Claim(libusb_device_handle* pOf, int iOf) : pHandle(pOf), iInterface(iOf) {}
        Claim(const Claim&) = delete;
        ~Claim() { libusb_release_interface(pHandle, iInterface); }
    };

    void Describe(const std::vector<uint8_t>& interfaces);
    std::u16string StringOf(uint8_t ucIndex);
    Bytes DescriptorOf(uint8_t ucRecipient, uint8_t ucType, uint16_t usIndex);
    bool Submit(Read& read);
    void HandleEvents();
    void ReadEnded(Read& read);
    void RequestEnded(Request& request);
    static void LIBUSB_CALL OnRead(libusb_transfer* pTransfer);
    static void LIBUSB_CALL OnRequest(libusb_transfer* pTransfer);

    std::unique_ptr<libusb_context, void (*)(libusb_context*)> m_Context;
    std::unique_ptr<libusb_device_handle, void (*)(libusb_device_handle*)> m_Handle;
    std::vector<std::unique_ptr<Claim>> m_Claims;
    UsbDevice m_Device;
    std::vector<UsbInterface> m_Interfaces;
    std::vector<std::unique_ptr<Read>> m_Reads;
    UsbSink* m_pSink = nullptr;
    std::mutex m_Lock; // guards what follows
    std::condition_variable m_Ended;
    std::map<Name, std::unique_ptr<Request>> m_Requests; // those that are out
    bool m_bStopping = false;
    unsigned m_uOut = 0; // transfers
    std::mutex m_Turn;   // held by whoever handles events
    std::atomic<bool> m_bEnd{false};
    std::vector<HostThread> m_Threads;
};
