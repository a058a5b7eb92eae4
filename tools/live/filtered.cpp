// filtered.cpp - builds the stacks of a real keyboard, delivers what its bus brings, and takes everything down.
#include "filtered.h"
#include "route.h"

#include <fmt/format.h>

#include <chrono>
#include <unistd.h>

namespace
{

constexpr auto BeatEvery = std::chrono::milliseconds(100);
constexpr unsigned MostFailures = 10;
constexpr useconds_t FailurePauseUs = 20000;

NTSTATUS StatusOf(Outcome outcome)
{
    switch (outcome) {
    case Outcome::Ok:
        return STATUS_SUCCESS;
    case Outcome::Cancelled:
        return STATUS_CANCELLED;
    case Outcome::Gone:
        return STATUS_DELETE_PENDING;
    default:
        return STATUS_UNSUCCESSFUL;
    }
}

UhidIdentity IdentityOf(const UsbInterface& interface, const UsbFound& found)
{
    HidHead head = HidHeadOf(interface.configuration);
    UhidIdentity identity;
    identity.name = (found.product.empty() ? "Keyboard" : found.product) + " (filtered)";
    identity.place = fmt::format("tvusb-{}/input{}", found.name, interface.ucNumber);
    identity.usVendor = interface.Vendor();
    identity.usProduct = interface.Product();
    identity.usVersion = head.usVersion;
    identity.ucCountry = head.ucCountry;
    identity.ucInterface = interface.ucNumber;
    identity.report = interface.report;
    return identity;
}

} // namespace

FilteredKeyboard::FilteredKeyboard(LiveMachine& machine, const UsbFound& found, int iNode,
                                   std::vector<int>& uhids, const PanicChord& panic, const FilteredTold& told,
                                   Latency* pLatency)
    : m_Machine(machine), m_Panic(panic), m_Told(told), m_pLatency(pLatency), m_Usb(iNode, found.interfaces)
{
    for (const UsbInterface& interface : m_Usb.Interfaces()) {
        m_Stacks.push_back(std::make_unique<Stack>());
        m_Stacks.back()->bNumbered = HasReportIds(interface.report);
        m_Stacks.back()->descriptors = interface.Descriptors();
    }
    m_Thread = HostStartThread([this] { Deliver(); });
    try {
        Build(found, uhids);
    } catch (...) {
        TakeDown();
        throw;
    }
}

FilteredKeyboard::~FilteredKeyboard()
{
    TakeDown();
}

// A stack asks its keyboard what it is when it starts, so the bus must bring answers by then; the kernel sends the LEDs
// as soon as there is a HID device, so the stack must have started by then.
void FilteredKeyboard::Build(const UsbFound& found, std::vector<int>& uhids)
{
    for (unsigned i = 0; i < m_Stacks.size(); i++) {
        Stack& stack = *m_Stacks[i];
        const UsbInterface& interface = m_Usb.Interfaces()[i];
        stack.uNumber = m_Machine.Add(stack.descriptors, PlugOptions(i),
                                      {found.product, interface.Vendor(), interface.Product()});
        stack.pKeyboard = m_Machine.At(stack.uNumber);
    }
    m_Usb.Start(*this);
    for (auto& stack : m_Stacks)
        m_Machine.Start(stack->uNumber);
    for (unsigned i = 0; i < m_Stacks.size(); i++) {
        Stack& stack = *m_Stacks[i];
        const int iUhid = std::exchange(uhids[i], -1);
        auto request = [&stack](const uint8_t* pSetup, Bytes& data) {
            return NT_SUCCESS(stack.pKeyboard->Control(pSetup, data, RouteOf(pSetup)));
        };
        stack.above = std::make_unique<UhidDevice>(iUhid, IdentityOf(m_Usb.Interfaces()[i], found), request);
        stack.pAbove = stack.above.get();
    }
}

EmuPlugOptions FilteredKeyboard::PlugOptions(unsigned uInterface)
{
    EmuPlugOptions plug;
    plug.Reads = 2;
    plug.Start = false;
    plug.Send = [this, uInterface](ULONG_PTR ulTicket, const UCHAR* pSetup, const EmuBytes& data) {
        return m_Usb.Send(uInterface, ulTicket, pSetup, data) ? STATUS_SUCCESS : STATUS_DELETE_PENDING;
    };
    plug.GiveUp = [this, uInterface](ULONG_PTR ulTicket) { m_Usb.GiveUp(uInterface, ulTicket); };
    plug.OnReceived = [this, uInterface](const EmuReceived& received) {
        if (NT_SUCCESS(received.Status))
            Seen(uInterface, received.Bytes);
    };
    return plug;
}

// First nobody asks from above any more; then the driver's stacks go, and what they still ask is answered; last the bus.
void FilteredKeyboard::TakeDown()
{
    for (auto& stack : m_Stacks)
        if (stack->pKeyboard)
            m_Machine.Unplug(stack->uNumber, m_bGone);
    for (auto& stack : m_Stacks) {
        stack->pAbove = nullptr;
        stack->above.reset();
    }
    m_Usb.Stop();
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        m_bEnd = true;
    }
    m_Came.notify_one();
    HostJoinThread(m_Thread);
    for (auto& stack : m_Stacks)
        if (stack->pKeyboard)
            m_Machine.Forget(stack->uNumber);
}

// The driver's last word on a report. It may come from any of its threads.
void FilteredKeyboard::Seen(unsigned uInterface, const EmuBytes& report)
{
    UhidDevice* pAbove = m_Stacks[uInterface]->pAbove;
    if (pAbove && !pAbove->Input(report))
        m_Told.Over("the HID device above takes no more reports");
    if (m_pLatency && pAbove &&
        m_Deliverer == std::this_thread::get_id()) // else the driver answered by itself
        m_pLatency->Add(Latency::Clock::now() - m_At);
}

void FilteredKeyboard::Queue(Arrival arrival)
{
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        m_Queue.push_back(std::move(arrival));
    }
    m_Came.notify_one();
}

void FilteredKeyboard::Report(unsigned uInterface, Bytes report)
{
    if (m_Panic.IsIn(report, m_Stacks[uInterface]->bNumbered))
        m_Told.Panic();
    Queue({Arrival::Report, uInterface, std::move(report)});
}

void FilteredKeyboard::Failed(unsigned uInterface)
{
    Queue({Arrival::Failure, uInterface, {}});
}

void FilteredKeyboard::Answer(unsigned uInterface, ULONG_PTR ulTicket, Outcome outcome, Bytes data)
{
    Queue({Arrival::Answer, uInterface, std::move(data), ulTicket, outcome});
}

void FilteredKeyboard::Gone()
{
    if (!m_bGone.exchange(true))
        m_Told.Over("");
}

void FilteredKeyboard::Deliver()
{
    m_Deliverer = std::this_thread::get_id();
    unsigned uRounds = 0;
    auto beat = std::chrono::steady_clock::now();
    std::unique_lock<std::mutex> lock(m_Lock);
    while (!m_bEnd) {
        m_Came.wait_for(lock, BeatEvery, [this] { return m_bEnd || !m_Queue.empty(); });
        std::deque<Arrival> arrivals = std::exchange(m_Queue, {});
        lock.unlock();
        for (Arrival& arrival : arrivals)
            DeliverOne(arrival);
        if (auto now = std::chrono::steady_clock::now();
            now - beat >= BeatEvery && m_Usb.Rounds() != uRounds) {
            uRounds = m_Usb.Rounds();
            beat = now;
            m_Told.Beat();
        }
        lock.lock();
    }
}

void FilteredKeyboard::DeliverOne(Arrival& arrival)
{
    Stack& stack = *m_Stacks[arrival.uInterface];
    switch (arrival.kind) {
    case Arrival::Report:
        stack.uFailures = 0;
        m_At = arrival.at;
        m_Machine.Report(stack.uNumber, arrival.data);
        return;
    case Arrival::Answer:
        stack.pKeyboard->Answer(arrival.ulTicket, StatusOf(arrival.outcome), arrival.data);
        return;
    case Arrival::Failure:
        stack.pKeyboard->FailRead(STATUS_UNSUCCESSFUL);
        if (++stack.uFailures > MostFailures)
            m_Told.Over("the keyboard's bus fails again and again");
        usleep(FailurePauseUs); // a bus that fails because its device goes says so soon
        m_Usb.Recover(arrival.uInterface);
    }
}
