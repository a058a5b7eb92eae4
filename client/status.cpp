// status.cpp - what a status means in words: first for its request, then in general.
#include "client/status.h"

#include <stdio.h>

#include "client/requesttexts.h"

namespace tvusb
{
namespace
{
struct StatusText {
    uint32_t ulValue;
    const char* pMeaning;
};

const StatusText StatusTexts[] = {
    {Status::Success, "done"},
    {Status::Timeout, "nothing happened in this time"},
    {Status::Unsuccessful, "the driver could not do it"},
    {Status::InvalidHandle, "the handle is not open"},
    {Status::InvalidParameter, "a value does not fit the request, which was not sent"},
    {Status::InvalidDeviceRequest, "the driver does not know this request, or refuses it"},
    {Status::AccessDenied, "this account may not do that"},
    {Status::BufferTooSmall, "the request's input or output is too short"},
    {Status::ObjectTypeMismatch, "the handle is not one of an event"},
    {Status::NameNotFound, "the system has no such device"},
    {Status::InsufficientResources, "memory is short"},
    {Status::DeletePending, "the keyboard is being removed"},
    {Status::DeviceDataError, "the answer came too short or damaged"},
    {Status::Cancelled, "the request was called back"},
    {Status::Disconnected, "the connection to the driver is lost"},
    {Status::NotOpen, "the driver is not open"},
    {Status::Ambiguous, "several keyboards fit, and none was chosen"},
    {Status::KeyboardGone, "the keyboard was pulled out"},
    {Status::Incomplete, "not all keyboards are told: one that is not yet started hides another"},
    {Status::NoSuchKeyboard, "there is no such keyboard"},
    {Status::OpenedAnew, "the driver was opened anew, and the keyboard was not found again since"},
    {0xC000000E, "the keyboard is gone"},
    {0xC000009D, "the keyboard is not connected"},
    {0xC00000A3, "the keyboard is not ready"},
    {0xC00000B5, "the keyboard did not answer in time"},
    {0xC00000BB, "the keyboard does not support this"},
    {0x80000011, "the keyboard is busy"},
    {0xC0000184, "the keyboard is in no state for this"},
    {0xC00002B6, "the keyboard was pulled out"},
    {0xC0000185, "the keyboard refused the transfer"},
};

constexpr uint32_t NO_INDEX = 0xFFFFFFFF; // of a Keyboard that was not found

const RequestText* FindRequest(uint32_t ulCode)
{
    for (const RequestText& row : RequestTexts) {
        if (row.ulCode == ulCode) {
            return &row;
        }
    }
    return nullptr;
}
} // namespace

const char* Status::Meaning() const
{
    const RequestText* pRequest = FindRequest(m_ulRequest);
    if (m_ulValue == Unsuccessful && pRequest != nullptr && pRequest->pUnsuccessful[0] != 0) {
        return pRequest->pUnsuccessful;
    }
    if (m_ulValue == NameNotFound && pRequest == nullptr) {
        return "no keyboard of the driver is started, or the driver is not installed";
    }
    for (const StatusText& row : StatusTexts) {
        if (row.ulValue == m_ulValue) {
            return row.pMeaning;
        }
    }
    return Ok() ? "done" : "the system or the keyboard's bus reported this status";
}

Status Status::OfRequest(uint32_t ulValue, uint32_t ulRequest, uint32_t ulIndex)
{
    const RequestText* pRequest = FindRequest(ulRequest);
    bool bKeyboard = pRequest != nullptr && pRequest->bKeyboard;
    std::string about = ulIndex == NO_INDEX ? "no keyboard" : "keyboard " + std::to_string(ulIndex);
    return {ulValue, ulRequest, bKeyboard ? about : std::string()};
}

std::string Status::Text() const
{
    const RequestText* pRequest = FindRequest(m_ulRequest);
    std::string text = pRequest != nullptr ? pRequest->pName : "";
    text += (text.empty() || m_About.empty() ? "" : ", ") + m_About;
    char value[16];
    snprintf(value, sizeof(value), " (0x%08X)", static_cast<unsigned>(m_ulValue));
    return text + (text.empty() ? "" : ": ") + Meaning() + value;
}
} // namespace tvusb
