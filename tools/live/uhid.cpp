// uhid.cpp - speaks with /dev/uhid: one event of the kernel's, one of ours, each a record of its own.
//
// GET_REPORT and SET_REPORT wait for their answer, five seconds at most, and block who asked meanwhile; a request to the
// keyboard takes one second at most. An output report (the LEDs) waits for nothing.
#include "uhid.h"

#include "usb/interface.h"

#include "tools/replay/configuration.h"

#include <fmt/format.h>

#include <linux/uhid.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <unistd.h>

namespace
{

constexpr uint8_t GetReport = 1, SetReportRequest = 9;
constexpr uint8_t InputType = 1, OutputType = 2, FeatureType = 3;
constexpr uint16_t AnswerRoom = 256;

bool Put(int iUhid, const uhid_event& event, size_t cBytes = sizeof(uhid_event))
{
    return write(iUhid, &event, cBytes) == static_cast<ssize_t>(cBytes);
}

uint8_t TypeOf(uint8_t ucUhidType)
{
    return ucUhidType == UHID_FEATURE_REPORT  ? FeatureType
           : ucUhidType == UHID_OUTPUT_REPORT ? OutputType
                                              : InputType;
}

bool Create(int iUhid, const UhidIdentity& identity)
{
    uhid_event event = {};
    event.type = UHID_CREATE2;
    uhid_create2_req& create = event.u.create2;
    fmt::format_to_n(reinterpret_cast<char*>(create.name), sizeof(create.name) - 1, "{}", identity.name);
    fmt::format_to_n(reinterpret_cast<char*>(create.phys), sizeof(create.phys) - 1, "{}", identity.place);
    create.rd_size = static_cast<uint16_t>(std::min<size_t>(identity.report.size(), HID_MAX_DESCRIPTOR_SIZE));
    create.bus = BUS_USB;
    create.vendor = identity.usVendor;
    create.product = identity.usProduct;
    create.version = identity.usVersion;
    create.country = identity.ucCountry;
    memcpy(create.rd_data, identity.report.data(), create.rd_size);
    return Put(iUhid, event);
}

} // namespace

UhidIdentity IdentityOf(const EmuDescriptors& kind, const std::string& name, const std::string& place)
{
    const Bytes configuration(kind.pConfiguration, kind.pConfiguration + kind.ulConfiguration);
    const HidHead head = HidHeadOf(configuration);
    const std::vector<InterfaceEndpoint> endpoints = EndpointsOf(configuration);
    UhidIdentity identity;
    identity.name = name;
    identity.place = place;
    identity.usVendor = static_cast<uint16_t>(kind.pDevice[8] | kind.pDevice[9] << 8);
    identity.usProduct = static_cast<uint16_t>(kind.pDevice[10] | kind.pDevice[11] << 8);
    identity.usVersion = head.usVersion;
    identity.ucCountry = head.ucCountry;
    identity.ucInterface = endpoints.empty() ? uint8_t(0) : endpoints[0].ucInterface;
    identity.report.assign(kind.pReport, kind.pReport + kind.ulReport);
    return identity;
}

UhidDevice::UhidDevice(int iUhid, const UhidIdentity& identity, UhidRequest request)
    : m_iUhid(iUhid), m_iEnd(eventfd(0, EFD_CLOEXEC)), m_ucInterface(identity.ucInterface),
      m_bNumbered(HasReportIds(identity.report)), m_Request(std::move(request))
{
    if (!Create(iUhid, identity)) {
        std::string why = strerror(errno);
        close(m_iEnd);
        close(m_iUhid);
        throw std::runtime_error("/dev/uhid: " + why);
    }
    m_Thread = HostStartThread([this] { Serve(); });
}

UhidDevice::~UhidDevice()
{
    uint64_t ullOne = 1;
    (void)!write(m_iEnd, &ullOne, sizeof(ullOne));
    HostJoinThread(m_Thread);
    close(m_iEnd);
    close(m_iUhid);
}

bool UhidDevice::Input(const Bytes& report)
{
    uhid_event event;
    event.type = UHID_INPUT2;
    event.u.input2.size = static_cast<uint16_t>(std::min(report.size(), sizeof(event.u.input2.data)));
    memcpy(event.u.input2.data, report.data(), event.u.input2.size);
    return Put(m_iUhid, event, offsetof(uhid_event, u.input2.data) + event.u.input2.size);
}

void UhidDevice::Serve()
{
    pollfd waits[] = {{m_iEnd, POLLIN, 0}, {m_iUhid, POLLIN, 0}};
    while (waits[0].revents == 0) {
        if (waits[1].revents != 0)
            Answer();
        poll(waits, 2, -1);
    }
}

// Without IDs a writer of hidraw puts a report number 0 in front, which the keyboard must not see; the LEDs of the
// input layer come without it.
bool UhidDevice::SetReport(uint8_t ucType, uint8_t ucId, const uint8_t* pData, size_t cBytes)
{
    const size_t cSkip = !m_bNumbered && cBytes > 1 && pData[0] == 0 ? 1 : 0;
    Bytes data(pData + cSkip, pData + cBytes);
    const uint8_t aucSetup[8] = {0x21,
                                 SetReportRequest,
                                 ucId,
                                 ucType,
                                 m_ucInterface,
                                 0,
                                 static_cast<uint8_t>(data.size()),
                                 static_cast<uint8_t>(data.size() >> 8)};
    return m_Request(aucSetup, data);
}

void UhidDevice::Answer()
{
    uhid_event event = {}, reply = {};
    if (read(m_iUhid, &event, sizeof(event)) <= 0)
        return;
    if (event.type == UHID_OUTPUT && event.u.output.size != 0) {
        const uhid_output_req& output = event.u.output;
        SetReport(TypeOf(output.rtype), m_bNumbered ? output.data[0] : 0, output.data, output.size);
    } else if (event.type == UHID_SET_REPORT) {
        const uhid_set_report_req& set = event.u.set_report;
        reply.type = UHID_SET_REPORT_REPLY;
        reply.u.set_report_reply.id = set.id;
        reply.u.set_report_reply.err = SetReport(TypeOf(set.rtype), set.rnum, set.data, set.size) ? 0 : EIO;
        Put(m_iUhid, reply);
    } else if (event.type == UHID_GET_REPORT) {
        const uhid_get_report_req& get = event.u.get_report;
        const uint8_t aucSetup[8] = {0xA1,          GetReport, get.rnum,          TypeOf(get.rtype),
                                     m_ucInterface, 0,         AnswerRoom & 0xFF, AnswerRoom >> 8};
        Bytes data(AnswerRoom);
        bool bGot = m_Request(aucSetup, data);
        uhid_get_report_reply_req& answer = reply.u.get_report_reply;
        reply.type = UHID_GET_REPORT_REPLY;
        answer.id = get.id;
        answer.err = bGot ? 0 : EIO;
        answer.size = static_cast<uint16_t>(bGot ? data.size() : 0);
        memcpy(answer.data, data.data(), answer.size);
        Put(m_iUhid, reply);
    }
}
