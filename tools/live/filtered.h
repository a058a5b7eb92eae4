// filtered.h - a real keyboard at the driver: USB below, /dev/uhid above, one stack for each interface.
//
//   USB events ──► panic chord ──► [queue] ──► delivery: keyboard at the driver ──► its HID stack ──► /dev/uhid
//
// The thread of the USB's events only looks for the panic chord and fills the queue: it runs nothing of the driver's, and
// cannot be held by it. The thread of the delivery runs the driver, and beats as long as both go round.
#pragma once

#include "latency.h"
#include "machine.h"
#include "panic.h"
#include "uhid.h"
#include "usb/found.h"
#include "usb/keyboard.h"

#include <condition_variable>
#include <deque>

// What the keyboard tells, each from a thread of its own.
struct FilteredTold {
    std::function<void()> Panic, Beat;
    std::function<void(const std::string& why)> Over; // pulled out ("" then), or what above or below failed
};

class FilteredKeyboard : private UsbSink
{
public:
    // Takes the keyboard at this open node, and of the open /dev/uhid, one for each interface, those it uses (-1 then).
    // Fails (std::runtime_error): the keyboard cannot be taken, the driver or the kernel refuses it; it is given back.
    // pLatency, unless it is null, learns how long reports take.
    FilteredKeyboard(LiveMachine& machine, const UsbFound& found, int iNode, std::vector<int>& uhids,
                     const PanicChord& panic, const FilteredTold& told, Latency* pLatency);
    ~FilteredKeyboard() override;

private:
    struct Stack {
        unsigned uNumber = 0;             // of the keyboard at the machine
        EmuKeyboard* pKeyboard = nullptr; // set before anything is sent to it
        bool bNumbered = false;
        unsigned uFailures = 0; // in a row
        EmuDescriptors descriptors{};
        std::unique_ptr<UhidDevice> above;
        std::atomic<UhidDevice*> pAbove{nullptr}; // once it takes reports
    };
    // What came from the bus.
    struct Arrival {
        enum { Report, Failure, Answer } kind;
        unsigned uInterface;
        Bytes data;
        ULONG_PTR ulTicket = 0;
        Outcome outcome = Outcome::Ok;
        Latency::Clock::time_point at = Latency::Clock::now();
    };

    void Build(const UsbFound& found, std::vector<int>& uhids);
    EmuPlugOptions PlugOptions(unsigned uInterface);
    void TakeDown();
    void Seen(unsigned uInterface, const EmuBytes& report);
    void Queue(Arrival arrival);
    void Deliver();
    void DeliverOne(Arrival& arrival);

    void Report(unsigned uInterface, Bytes report) override;
    void Failed(unsigned uInterface) override;
    void Answer(unsigned uInterface, ULONG_PTR ulTicket, Outcome outcome, Bytes data) override;
    void Gone() override;

    LiveMachine& m_Machine;
    const PanicChord& m_Panic;
    FilteredTold m_Told;
    Latency* m_pLatency;
    Latency::Clock::time_point m_At; // of the delivery's thread: when the report came that is being delivered
    std::atomic<std::thread::id> m_Deliverer{};
    UsbKeyboard m_Usb;
    std::vector<std::unique_ptr<Stack>> m_Stacks;
    std::atomic<bool> m_bGone{false};
    std::mutex m_Lock; // guards what follows
    std::condition_variable m_Came;
    std::deque<Arrival> m_Queue;
    bool m_bEnd = false;
    HostThread m_Thread = nullptr;
};
