// filtered.cpp - builds the stacks of a real keyboard, delivers what its bus brings, and takes everything down.
#include "filtered.h"
#include "route.h"
#include "usbip/offer.h"

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

} // namespace

FilteredKeyboard::FilteredKeyboard(LiveMachine& machine, const UsbFound& found, std::unique_ptr<UsbBus> bus,
                                   const FilteredAbove& above, const PanicChord& panic,
                                   const FilteredTold& told, Latency* pLatency)
    : m_Machine(machine), m_Panic(panic), m_Told(told), m_pLatency(pLatency), m_Bus(std::move(bus)),
      m_pExports(above.pExports)
{
    for (const UsbInterface& interface : m_Bus->Interfaces()) {
        m_Stacks.push_back(std::make_unique<Stack>());
        m_Stacks.back()->bNumbered = HasReportIds(interface.report);
        m_Stacks.back()->descriptors = interface.Descriptors();
    }
    try {
        Build(found, above);
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
void FilteredKeyboard::Build(const UsbFound& found, const FilteredAbove& above)
{
    for (unsigned i = 0; i < m_Stacks.size(); i++) {
        Stack& stack = *m_Stacks[i];
        const UsbInterface& interface = m_Bus->Interfaces()[i];
        stack.uNumber = m_Machine.Add(stack.descriptors, PlugOptions(i),
                                      {found.product, interface.Vendor(), interface.Product()});
        stack.pKeyboard = m_Machine.At(stack.uNumber);
    }
    m_Bus->Start(*this);
    for (auto& stack : m_Stacks)
        m_Machine.Start(stack->uNumber);
    if (above.pExports)
        Offer(*above.pExports);
    else
        for (unsigned i = 0; i < m_Stacks.size(); i++)
            MakeUhid(i, found, std::exchange((*above.pUhids)[i], -1));
}

void FilteredKeyboard::MakeUhid(unsigned uInterface, const UsbFound& found, int iUhid)
{
    Stack& stack = *m_Stacks[uInterface];
    auto request = [&stack](const uint8_t* pSetup, Bytes& data) {
        return NT_SUCCESS(stack.pKeyboard->Control(pSetup, data, RouteOf(pSetup)));
    };
    const uint8_t ucNumber = m_Bus->Interfaces()[uInterface].ucNumber;
    stack.above = std::make_unique<UhidDevice>(
        iUhid,
        IdentityOf(stack.descriptors, (found.product.empty() ? "Keyboard" : found.product) + " (filtered)",
                   fmt::format("tvusb-{}/input{}", found.name, ucNumber)),
        request);
    stack.pAbove = stack.above.get();
}

// As one device, with all its interfaces.
void FilteredKeyboard::Offer(usbip::Exports& exports)
{
    std::vector<usbip::Part> parts;
    for (unsigned i = 0; i < m_Stacks.size(); i++)
        parts.push_back({m_Bus->Interfaces()[i].ucNumber, m_Stacks[i]->bNumbered, m_Stacks[i]->pKeyboard});
    const UsbDevice& device = m_Bus->Device();
    m_Offered = usbip::Offer({"1-1", device.ulSpeed, device.device, device.configuration}, std::move(parts));
    exports.Add(m_Offered);
    m_pOffered = m_Offered.get();
}

EmuPlugOptions FilteredKeyboard::PlugOptions(unsigned uInterface)
{
    EmuPlugOptions plug;
    plug.Reads = 2;
    plug.Start = false;
    plug.Send = [this, uInterface](ULONG_PTR ulTicket, const UCHAR* pSetup, const EmuBytes& data) {
        return m_Bus->Send(uInterface, ulTicket, pSetup, data) ? STATUS_SUCCESS : STATUS_DELETE_PENDING;
    };
    plug.GiveUp = [this, uInterface](ULONG_PTR ulTicket) { m_Bus->GiveUp(uInterface, ulTicket); };
    plug.OnReceived = [this, uInterface](const EmuReceived& received) {
        if (NT_SUCCESS(received.Status))
            Seen(uInterface, received.Bytes);
    };
    return plug;
}

// First nobody asks from above any more; then the driver's stacks go, and what they still ask is answered; last the bus.
void FilteredKeyboard::TakeDown()
{
    m_pOffered = nullptr;
    if (m_Offered)
        m_pExports->Remove(m_Offered);
    for (auto& stack : m_Stacks)
        if (stack->pKeyboard)
            m_Machine.Unplug(stack->uNumber, m_bGone);
    for (auto& stack : m_Stacks) {
        stack->pAbove = nullptr;
        stack->above.reset();
    }
    m_Bus->Stop();
    for (auto& stack : m_Stacks)
        if (stack->pKeyboard)
            m_Machine.Forget(stack->uNumber);
}

// The driver's last word on a report. It may come from any of its threads.
void FilteredKeyboard::Seen(unsigned uInterface, const EmuBytes& report)
{
    UhidDevice* pAbove = m_Stacks[uInterface]->pAbove;
    usbip::Export* pOffered = m_pOffered;
    if (pAbove && !pAbove->Input(report))
        m_Told.Over("the HID device above takes no more reports");
    if (pOffered)
        pOffered->Input(m_Bus->Interfaces()[uInterface].ucEndpoint & 0x0F, report);
    if (m_pLatency && (pAbove || pOffered) &&
        m_Deliverer == std::this_thread::get_id()) // else the driver answered by itself
        m_pLatency->Add(Clock::now() - m_At);
}

void FilteredKeyboard::Queue(Arrival arrival)
{
    std::lock_guard<std::mutex> lock(m_Lock);
    m_Queue.push_back(std::move(arrival));
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

// Lock: held.
bool FilteredKeyboard::IsBeat()
{
    const auto now = Clock::now();
    if (now - m_Beat < BeatEvery || (m_bDelivering && now - m_Since > BeatEvery))
        return false;
    m_Beat = now;
    return true;
}

void FilteredKeyboard::Round()
{
    std::unique_lock<std::mutex> lock(m_Lock);
    if (IsBeat())
        m_Told.Beat();
    if (m_bDelivering)
        return; // that thread takes what has come, in its order
    m_bDelivering = true;
    m_Deliverer = std::this_thread::get_id();
    while (!m_Queue.empty()) {
        Arrival arrival = std::move(m_Queue.front());
        m_Queue.pop_front();
        m_Since = Clock::now();
        lock.unlock();
        DeliverOne(arrival);
        lock.lock();
    }
    m_Deliverer = std::thread::id();
    m_bDelivering = false;
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
        m_Bus->Recover(arrival.uInterface);
    }
}
