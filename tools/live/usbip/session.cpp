// session.cpp - reads a machine's requests and answers them.
#include "session.h"

#include <algorithm>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace usbip
{
namespace
{

constexpr size_t MostReads = 64, MostReports = 256; // the kernel keeps two reads at a keyboard
constexpr int SendRoom = 4 * (1 << 16);             // a few of the largest answers

// What every device answers alike, so that a keyboard's driver is not asked: nothing when it is another request.
std::optional<Bytes> StandardAnswer(const uint8_t* pSetup, const Device& device)
{
    enum : uint8_t {
        GetStatus,
        ClearFeature,
        GetDescriptor = 6,
        GetConfiguration = 8,
        SetConfiguration,
        GetInterface,
        SetInterface
    };
    if ((pSetup[0] & 0x60) != 0)
        return {};
    switch (pSetup[1]) {
    case GetStatus:
        return Bytes{0, 0};
    case GetConfiguration:
        return Bytes{device.configuration[5]};
    case GetInterface:
        return Bytes{0};
    case ClearFeature:
    case SetConfiguration:
    case SetInterface:
        return Bytes{};
    case GetDescriptor:
        if (pSetup[3] == 1)
            return device.device;
        return pSetup[3] == 2 ? std::optional<Bytes>(device.configuration) : std::nullopt;
    default:
        return {};
    }
}

bool HasEndpoint(const Bytes& configuration, uint8_t ucAddress)
{
    constexpr uint8_t Endpoint = 5;
    for (size_t at = 0; at + 3 <= configuration.size() && configuration[at] >= 2; at += configuration[at])
        if (configuration[at + 1] == Endpoint && configuration[at + 2] == ucAddress)
            return true;
    return false;
}

} // namespace

Session::Session(int iSocket, int iWake, const Exports& exports, int iPatienceMs)
    : Caller(iSocket, iWake, iPatienceMs), m_Exports(exports)
{
    const int iOn = 1;
    setsockopt(iSocket, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
    setsockopt(iSocket, SOL_SOCKET, SO_KEEPALIVE, &iOn, sizeof(iOn));
    setsockopt(iSocket, SOL_SOCKET, SO_SNDBUF, &SendRoom, sizeof(SendRoom));
    Start();
}

// A request that the keyboard does not answer is given up.
Session::~Session()
{
    Stop();
}

void Session::Serve()
{
    while (!m_Imported && Operate()) {
    }
    while (m_Imported && !Ending() && Transfer()) {
    }
    if (m_Imported)
        m_Imported->GiveBack();
}

bool Session::Operate()
{
    std::array<uint8_t, OperationBytes> bytes;
    if (!Take(bytes.data(), bytes.size(), false))
        return false;
    const std::optional<Operation> operation = ReadOperation(bytes);
    if (operation == Operation::Import)
        return Import();
    if (!operation)
        return false;
    const std::vector<std::shared_ptr<Export>> all = m_Exports.All();
    std::vector<const Device*> devices;
    for (auto& exported : all)
        devices.push_back(&exported->device);
    std::lock_guard<std::mutex> lock(m_Lock);
    return Put(ListAnswer(devices));
}

// Reports may come as soon as the device is taken; they wait for its first read.
bool Session::Import()
{
    std::array<char, BusIdBytes> bus;
    if (!Take(bus.data(), bus.size(), false))
        return false;
    const std::string wish(bus.data(), strnlen(bus.data(), bus.size()));
    for (auto& exported : m_Exports.All())
        if (!m_Imported && exported->device.bus == wish && exported->Take(this))
            m_Imported = exported;
    std::lock_guard<std::mutex> lock(m_Lock);
    return Put(ImportAnswer(m_Imported ? &m_Imported->device : nullptr));
}

bool Session::Transfer()
{
    std::array<uint8_t, HeadBytes> bytes;
    if (!Take(bytes.data(), bytes.size(), true))
        return false;
    const std::optional<Request> request = ReadRequest(bytes);
    if (!request)
        return false;
    return request->bUnlink ? Unlink(*request) : Submit(*request);
}

bool Session::Submit(const Request& request)
{
    Bytes data(request.ulBytes);
    if (!request.bIn && !Take(data.data(), data.size(), false))
        return false;
    if (request.ucEndpoint == 0)
        return Control(request, std::move(data));
    if (!request.bIn) {
        const bool bTaken = m_Imported->Output(request.ucEndpoint, data);
        std::lock_guard<std::mutex> lock(m_Lock);
        return Put(SubmitAnswer(request, bTaken ? Good : Stalled, bTaken ? data : Bytes()));
    }
    std::lock_guard<std::mutex> lock(m_Lock);
    if (!HasEndpoint(m_Imported->device.configuration, request.ucEndpoint | 0x80))
        return Put(SubmitAnswer(request, Stalled, {}));
    Line& line = m_Lines[request.ucEndpoint];
    if (line.reads.size() >= MostReads)
        return false;
    if (line.reports.empty()) {
        line.reads.push_back(request);
        return true;
    }
    Bytes report = std::move(line.reports.front());
    line.reports.pop_front();
    report.resize(std::min<size_t>(report.size(), request.ulBytes));
    return Put(SubmitAnswer(request, Good, report));
}

bool Session::Control(const Request& request, Bytes data)
{
    const size_t asked = std::min<size_t>(request.ulBytes, request.setup[6] | request.setup[7] << 8);
    Result result = Good;
    if (std::optional<Bytes> standard = StandardAnswer(request.setup.data(), m_Imported->device)) {
        if (request.bIn)
            data = std::move(*standard);
    } else {
        data.resize(asked);
        result = m_Imported->Request(request.setup.data(), data) ? Good : Stalled;
    }
    data.resize(result == Good ? std::min(data.size(), asked) : 0);
    std::lock_guard<std::mutex> lock(m_Lock);
    return Put(SubmitAnswer(request, result, data));
}

// A read that was answered meanwhile has been answered: that is no error.
bool Session::Unlink(const Request& request)
{
    std::lock_guard<std::mutex> lock(m_Lock);
    for (auto& [ucEndpoint, line] : m_Lines) {
        auto isIt = [&](const Request& read) { return read.ulSequence == request.ulUnlinked; };
        auto read = std::find_if(line.reads.begin(), line.reads.end(), isIt);
        if (read != line.reads.end()) {
            line.reads.erase(read);
            return Put(UnlinkAnswer(request, Unlinked));
        }
    }
    return Put(UnlinkAnswer(request, Good));
}

// Of more reports than anyone reads the oldest go: each report tells all keys that are down.
void Session::Input(uint8_t ucEndpoint, const Bytes& report)
{
    std::lock_guard<std::mutex> lock(m_Lock);
    Line& line = m_Lines[ucEndpoint];
    if (line.reads.empty()) {
        line.reports.push_back(report);
        if (line.reports.size() > MostReports)
            line.reports.pop_front();
        return;
    }
    const Request read = line.reads.front();
    line.reads.pop_front();
    Put(SubmitAnswer(read, Good,
                     Bytes(report.begin(), report.begin() + static_cast<long>(std::min<size_t>(
                                                                report.size(), read.ulBytes)))));
}

// Lock: held.
bool Session::Put(const Bytes& answer)
{
    if (send(Socket(), answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
        static_cast<ssize_t>(answer.size()))
        return true;
    shutdown(Socket(), SHUT_RDWR);
    return false;
}

} // namespace usbip
