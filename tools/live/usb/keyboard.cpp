// keyboard.cpp - takes the interfaces, and keeps their transfers.
//
// Each transfer owns its buffer, so what the driver cancels is its own request, never memory that a transfer still
// writes to: who gives a request up leaves an answer behind that nobody takes.
#include "keyboard.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

struct UsbKeyboard::Read {
    UsbKeyboard* pKeyboard;
    unsigned uInterface;
    Bytes buffer;
    bool bOut = false; // m_Lock
    bool bStalled = false;
    std::unique_ptr<libusb_transfer, void (*)(libusb_transfer*)> transfer{libusb_alloc_transfer(0),
                                                                          libusb_free_transfer};
};

struct UsbKeyboard::Request {
    UsbKeyboard* pKeyboard;
    Name name;
    Bytes buffer; // the setup packet and the data
    std::unique_ptr<libusb_transfer, void (*)(libusb_transfer*)> transfer{libusb_alloc_transfer(0),
                                                                          libusb_free_transfer};
};

namespace
{

constexpr unsigned ReadsOut = 2; // one is out while the other is looked at
constexpr unsigned Threads = 2;
constexpr unsigned AnswerMs = 1000;
constexpr uint8_t GetDescriptor = 6, SetProtocol = 11;

Outcome OutcomeOf(libusb_transfer_status status)
{
    switch (status) {
    case LIBUSB_TRANSFER_COMPLETED:
        return Outcome::Ok;
    case LIBUSB_TRANSFER_STALL:
        return Outcome::Stalled;
    case LIBUSB_TRANSFER_CANCELLED:
        return Outcome::Cancelled;
    case LIBUSB_TRANSFER_NO_DEVICE:
        return Outcome::Gone;
    default:
        return Outcome::Failed;
    }
}

void Check(int iError, const char* pDeed)
{
    if (iError == LIBUSB_ERROR_BUSY)
        throw std::runtime_error("another program has the keyboard");
    if (iError < 0)
        throw std::runtime_error(
            fmt::format("the keyboard cannot be {}: {}", pDeed, libusb_strerror(iError)));
}

} // namespace

UsbKeyboard::UsbKeyboard(int iNode, const std::vector<uint8_t>& interfaces)
    : m_Context(nullptr, libusb_exit), m_Handle(nullptr, libusb_close)
{
    libusb_context* pContext = nullptr;
    libusb_device_handle* pHandle = nullptr;
    libusb_set_option(nullptr, LIBUSB_OPTION_NO_DEVICE_DISCOVERY);
    Check(libusb_init(&pContext), "used");
    m_Context.reset(pContext);
    Check(libusb_wrap_sys_device(pContext, iNode, &pHandle), "used");
    m_Handle.reset(pHandle);
    libusb_set_auto_detach_kernel_driver(pHandle,
                                         1); // detaches and claims in one step; a release attaches again
    for (uint8_t ucNumber : interfaces) {
        Check(libusb_claim_interface(pHandle, ucNumber), "taken");
        m_Claims.push_back(std::make_unique<Claim>(pHandle, ucNumber));
    }
    Describe(interfaces);
}

UsbKeyboard::~UsbKeyboard()
{
    Stop();
}

Bytes UsbKeyboard::DescriptorOf(uint8_t ucRecipient, uint8_t ucType, uint16_t usIndex)
{
    constexpr uint16_t Room = 4096;
    Bytes data(Room);
    int iGot =
        libusb_control_transfer(m_Handle.get(), ucRecipient | LIBUSB_ENDPOINT_IN, GetDescriptor,
                                static_cast<uint16_t>(ucType << 8), usIndex, data.data(), Room, AnswerMs);
    data.resize(iGot < 0 ? 0 : static_cast<size_t>(iGot));
    return data;
}

// A string descriptor's text in the keyboard's first language; "" where it has none.
std::u16string UsbKeyboard::StringOf(uint8_t ucIndex)
{
    uint8_t aucText[256] = {};
    auto get = [&](uint8_t ucWhich, uint16_t usLanguage) {
        return libusb_get_string_descriptor(m_Handle.get(), ucWhich, usLanguage, aucText, sizeof(aucText));
    };
    if (ucIndex == 0 || get(0, 0) < 4)
        return {};
    int iGot = get(ucIndex, static_cast<uint16_t>(aucText[2] | aucText[3] << 8));
    std::u16string text;
    for (int i = 2; i + 1 < iGot; i += 2)
        text += static_cast<char16_t>(aucText[i] | aucText[i + 1] << 8);
    return text;
}

// Asks what the interfaces are. Firmware may have left a keyboard in its boot protocol.
void UsbKeyboard::Describe(const std::vector<uint8_t>& interfaces)
{
    const Bytes device = DescriptorOf(LIBUSB_RECIPIENT_DEVICE, LIBUSB_DT_DEVICE, 0);
    const Bytes configuration = DescriptorOf(LIBUSB_RECIPIENT_DEVICE, LIBUSB_DT_CONFIG, 0);
    const int iSpeed = libusb_get_device_speed(libusb_get_device(m_Handle.get()));
    m_Device = {device, ConfigurationOf(configuration, interfaces),
                static_cast<uint32_t>(std::clamp<int>(iSpeed, LIBUSB_SPEED_LOW, LIBUSB_SPEED_HIGH))};
    constexpr size_t SubClass = 9 + 6; // of the interface, behind the configuration's head
    for (uint8_t ucNumber : interfaces) {
        UsbInterface interface = InterfaceOf(device, configuration, ucNumber);
        interface.report = DescriptorOf(LIBUSB_RECIPIENT_INTERFACE, LIBUSB_DT_REPORT, ucNumber);
        if (interface.report.empty() ||
            interface.report.size() <
                HidHeadOf(interface.configuration).usReportBytes) // no system takes a part
            throw std::runtime_error("the keyboard does not tell what its reports are");
        interface.maker = StringOf(device[14]);
        interface.product = StringOf(device[15]);
        if (interface.configuration[SubClass] == 1)
            libusb_control_transfer(m_Handle.get(), 0x21, SetProtocol, 1, ucNumber, nullptr, 0, AnswerMs);
        m_Interfaces.push_back(std::move(interface));
    }
}

void UsbKeyboard::Start(UsbSink& sink)
{
    m_pSink = &sink;
    for (unsigned i = 0; i < Threads; i++)
        m_Threads.push_back(HostStartThread([this] { HandleEvents(); }));
    for (unsigned i = 0; i < m_Interfaces.size(); i++)
        for (unsigned uRead = 0; uRead < ReadsOut; uRead++) {
            m_Reads.push_back(std::unique_ptr<Read>(new Read{this, i, Bytes(m_Interfaces[i].usPacketBytes)}));
            Read& read = *m_Reads.back();
            libusb_fill_interrupt_transfer(read.transfer.get(), m_Handle.get(), m_Interfaces[i].ucEndpoint,
                                           read.buffer.data(), static_cast<int>(read.buffer.size()), OnRead,
                                           &read, 0);
            if (!Submit(read))
                sink.Gone();
        }
}

void UsbKeyboard::HandleEvents()
{
    while (!m_bEnd) {
        {
            std::lock_guard<std::mutex> turn(m_Turn);
            timeval step = {0, 50000};
            if (!m_bEnd)
                libusb_handle_events_timeout_completed(m_Context.get(), &step, nullptr);
        }
        m_pSink->Round();
    }
}

void UsbKeyboard::Stop()
{
    if (m_Threads.empty())
        return;
    std::unique_lock<std::mutex> lock(m_Lock);
    m_bStopping = true;
    for (auto& read : m_Reads)
        if (read->bOut)
            libusb_cancel_transfer(read->transfer.get());
    for (auto& [name, request] : m_Requests)
        libusb_cancel_transfer(request->transfer.get());
    m_Ended.wait(lock, [this] { return m_uOut == 0; });
    lock.unlock();
    m_bEnd = true;
    libusb_interrupt_event_handler(m_Context.get());
    for (HostThread thread : std::exchange(m_Threads, {}))
        HostJoinThread(thread);
}

// The callback waits for the lock, so that what it finds is as it is here. Fails: the keyboard is gone.
bool UsbKeyboard::Submit(Read& read)
{
    std::lock_guard<std::mutex> lock(m_Lock);
    read.bOut = !m_bStopping && libusb_submit_transfer(read.transfer.get()) == 0;
    m_uOut += read.bOut;
    return read.bOut || m_bStopping;
}

void UsbKeyboard::OnRead(libusb_transfer* pTransfer)
{
    auto* pRead = static_cast<Read*>(pTransfer->user_data);
    pRead->pKeyboard->ReadEnded(*pRead);
}

void UsbKeyboard::ReadEnded(Read& read)
{
    Outcome outcome = OutcomeOf(read.transfer->status);
    Bytes report(read.buffer.begin(), read.buffer.begin() + read.transfer->actual_length);
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        read.bOut = false;
        read.bStalled = outcome == Outcome::Stalled;
        --m_uOut;
        if (m_bStopping) {
            m_Ended.notify_all();
            return;
        }
    }
    if (outcome == Outcome::Gone) {
        m_pSink->Gone();
    } else if (outcome != Outcome::Ok) {
        m_pSink->Failed(read.uInterface);
    } else {
        bool bThere = Submit(read); // first, so that the next key finds it; the order is the thread's
        m_pSink->Report(read.uInterface, std::move(report));
        if (!bThere)
            m_pSink->Gone();
    }
}

void UsbKeyboard::Recover(unsigned uInterface)
{
    for (auto& read : m_Reads) {
        if (read->uInterface != uInterface || read->bOut)
            continue;
        if (read->bStalled)
            libusb_clear_halt(m_Handle.get(), m_Interfaces[uInterface].ucEndpoint);
        read->bStalled = false;
        if (!Submit(*read))
            m_pSink->Gone();
    }
}

bool UsbKeyboard::Send(unsigned uInterface, ULONG_PTR ulTicket, const uint8_t* pSetup, const Bytes& data)
{
    const size_t cLength = static_cast<size_t>(pSetup[6] | pSetup[7] << 8);
    std::unique_ptr<Request> request(new Request{this, {uInterface, ulTicket}, Bytes(pSetup, pSetup + 8)});
    request->buffer.insert(request->buffer.end(), data.begin(), data.end());
    request->buffer.resize(LIBUSB_CONTROL_SETUP_SIZE + cLength);
    libusb_fill_control_transfer(request->transfer.get(), m_Handle.get(), request->buffer.data(), OnRequest,
                                 request.get(), AnswerMs);
    std::lock_guard<std::mutex> lock(m_Lock);
    if (m_bStopping || libusb_submit_transfer(request->transfer.get()) != 0)
        return false;
    ++m_uOut;
    m_Requests[request->name] = std::move(request);
    return true;
}

void UsbKeyboard::GiveUp(unsigned uInterface, ULONG_PTR ulTicket)
{
    std::lock_guard<std::mutex> lock(m_Lock);
    if (auto found = m_Requests.find({uInterface, ulTicket}); found != m_Requests.end())
        libusb_cancel_transfer(found->second->transfer.get());
}

void UsbKeyboard::OnRequest(libusb_transfer* pTransfer)
{
    auto* pRequest = static_cast<Request*>(pTransfer->user_data);
    pRequest->pKeyboard->RequestEnded(*pRequest);
}

// The sink hears of it before it is counted as over, so that nothing is told after Stop.
void UsbKeyboard::RequestEnded(Request& request)
{
    const uint8_t* pData = libusb_control_transfer_get_data(request.transfer.get());
    const bool bIn = (request.buffer[0] & LIBUSB_ENDPOINT_IN) != 0;
    Bytes data(pData, pData + request.transfer->actual_length);
    m_pSink->Answer(request.name.first, request.name.second, OutcomeOf(request.transfer->status),
                    bIn ? std::move(data) : Bytes(data.size()));
    std::lock_guard<std::mutex> lock(m_Lock);
    m_Requests.erase(m_Requests.find(request.name));
    --m_uOut;
    m_Ended.notify_all();
}
