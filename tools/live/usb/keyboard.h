// keyboard.h - a real keyboard: its interfaces taken from the kernel, its reports and answers as they come.
//
//   reads of our own, always out ── callback ──► UsbSink::Report
//   Send(ticket, request) ───────── callback ──► UsbSink::Answer
//   the keyboard is pulled out ─────────────────► UsbSink::Gone
//
// Everything goes through a node that somebody else has opened, so that this side needs no right to files, and libusb
// looks for nothing. A thread of its own handles libusb's events and tells the sink; it never waits for anything else.
// The interrupt endpoint is read whether or not the driver reads, so each key is seen at once, come what may above.
#pragma once

#include "interface.h"

#include <libusb-1.0/libusb.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

// Called in the thread of the events: it must not wait for what this thread brings.
class UsbSink
{
public:
    virtual ~UsbSink() = default;
    virtual void Report(unsigned uInterface, Bytes report) = 0;
    // The bus tells an error of the interrupt endpoint, which is not read until Recover.
    virtual void Failed(unsigned uInterface) = 0;
    virtual void Answer(unsigned uInterface, ULONG_PTR ulTicket, Outcome outcome, Bytes data) = 0;
    virtual void Gone() = 0;
};

class UsbKeyboard
{
public:
    // Takes the interfaces of the keyboard at this open node, which stays the caller's.
    // Fails (std::runtime_error): another program has it, it is gone, it does not tell what it is.
    UsbKeyboard(int iNode, const std::vector<uint8_t>& interfaces);
    ~UsbKeyboard(); // the kernel's own driver gets the interfaces back
    UsbKeyboard(const UsbKeyboard&) = delete;
    UsbKeyboard& operator=(const UsbKeyboard&) = delete;

    const std::vector<UsbInterface>& Interfaces() const { return m_Interfaces; }
    // The sink must live until Stop.
    void Start(UsbSink& sink);
    // Calls every transfer back; nothing is told any more when it returns.
    void Stop();
    // Reads the endpoint again after Failed. Waits for the bus: not in the thread of the events.
    void Recover(unsigned uInterface);
    // Sends a request of the control pipe without waiting. False when the keyboard is gone or Stop has begun.
    bool Send(unsigned uInterface, ULONG_PTR ulTicket, const uint8_t* pSetup, const Bytes& data);
    // Nobody needs this answer any more; it may come all the same.
    void GiveUp(unsigned uInterface, ULONG_PTR ulTicket);
    // Counts the rounds of the thread of the events: one that stands still hangs.
    unsigned Rounds() const { return m_uRounds; }

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
    std::vector<UsbInterface> m_Interfaces;
    std::vector<std::unique_ptr<Read>> m_Reads;
    UsbSink* m_pSink = nullptr;
    std::mutex m_Lock; // guards what follows
    std::condition_variable m_Ended;
    std::map<Name, std::unique_ptr<Request>> m_Requests; // those that are out
    bool m_bStopping = false;
    unsigned m_uOut = 0; // transfers
    std::atomic<bool> m_bEnd{false};
    std::atomic<unsigned> m_uRounds{0};
    std::thread m_Thread;
};
