// filtered.h - a real keyboard at the driver: USB below, one stack for each interface, /dev/uhid or USB/IP above.
//
//   USB events ──► panic chord ──► [queue] ──► keyboard at the driver ──► its HID stack ──► /dev/uhid, or another machine
//
// While the bus tells, only the panic chord is looked for and the queue filled: that runs nothing of the driver's, and
// cannot be held by it. Then the same thread delivers, unless another still does; that one goes on with it then. The heart
// beats as long as the bus goes round and no delivery takes long.
#pragma once

#include "latency.h"
#include "machine.h"
#include "panic.h"
#include "uhid.h"
#include "usb/bus.h"
#include "usb/found.h"
#include "usbip/export.h"

#include <atomic>
#include <deque>

// What the keyboard tells, each from a thread of its own.
struct FilteredTold {
    std::function<void()> Panic, Beat;
    std::function<void(const std::string& why)> Over; // pulled out ("" then), or what above or below failed
};

// Who gets the filtered keyboard: this system, or a machine over USB/IP.
struct FilteredAbove {
    std::vector<int>* pUhids =
        nullptr; // open /dev/uhid, one for each interface; those that are used are -1 then
    usbip::Exports* pExports = nullptr; // instead
};

class FilteredKeyboard : private UsbSink
{
public:
    // Fails (std::runtime_error): the driver or the kernel refuses the keyboard; it is given back.
    // pLatency, unless it is null, learns how long reports take.
    FilteredKeyboard(LiveMachine& machine, const UsbFound& found, std::unique_ptr<UsbBus> bus,
                     const FilteredAbove& above, const PanicChord& panic, const FilteredTold& told,
                     Latency* pLatency = nullptr);
    ~FilteredKeyboard() override;

private:
    using Clock = Latency::Clock;
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
        Clock::time_point at = Clock::now();
    };

    void Build(const UsbFound& found, const FilteredAbove& above);
    void MakeUhid(unsigned uInterface, const UsbFound& found, int iUhid);
    void Offer(usbip::Exports& exports);
    EmuPlugOptions PlugOptions(unsigned uInterface);
    void TakeDown();
    void Seen(unsigned uInterface, const EmuBytes& report);
    void Queue(Arrival arrival);
    void DeliverOne(Arrival& arrival);
    bool IsBeat();

    void Report(unsigned uInterface, Bytes report) override;
    void Failed(unsigned uInterface) override;
    void Answer(unsigned uInterface, ULONG_PTR ulTicket, Outcome outcome, Bytes data) override;
    void Gone() override;
    void Round() override;

    LiveMachine& m_Machine;
    const PanicChord& m_Panic;
    FilteredTold m_Told;
    Latency* m_pLatency;
    const std::unique_ptr<UsbBus> m_Bus;
    std::vector<std::unique_ptr<Stack>> m_Stacks;
    usbip::Exports* m_pExports = nullptr;
    std::shared_ptr<usbip::Export> m_Offered;
    std::atomic<usbip::Export*> m_pOffered{nullptr}; // once it takes reports
    std::atomic<bool> m_bGone{false};
    std::atomic<std::thread::id> m_Deliverer{};
    Clock::time_point m_At; // of the deliverer: when the report came that is being delivered
    std::mutex m_Lock;      // guards what follows
    std::deque<Arrival> m_Queue;
    bool m_bDelivering = false;
    Clock::time_point m_Since; // when the delivery began that is under way
    Clock::time_point m_Beat;
};
