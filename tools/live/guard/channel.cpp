// channel.cpp - a pair of sockets that keep words apart.
#include "channel.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr size_t MostFiles = 33; // a node, and a device for each of 32 interfaces
constexpr size_t MostBytes = 1024;

// Texts that a zero ends, then the numbers, then the interfaces.
std::string TextOf(const UsbFound& found)
{
    std::string text(1, static_cast<char>(GuardWord::Keyboard));
    for (const std::string& part : {found.name, found.node, found.product.substr(0, 256)})
        text.append(part.c_str(), strlen(part.c_str()) + 1);
    for (uint16_t usNumber : {found.usVendor, found.usProduct})
        text.append(reinterpret_cast<const char*>(&usNumber), sizeof(usNumber));
    text.append(found.interfaces.begin(), found.interfaces.end());
    return text;
}

UsbFound FoundOf(const std::string& text)
{
    UsbFound found;
    size_t at = 1;
    for (std::string* pPart : {&found.name, &found.node, &found.product}) {
        *pPart = text.c_str() + std::min(at, text.size());
        at += pPart->size() + 1;
    }
    for (uint16_t* pNumber : {&found.usVendor, &found.usProduct}) {
        if (at + sizeof(*pNumber) <= text.size())
            memcpy(pNumber, text.data() + at, sizeof(*pNumber));
        at += sizeof(*pNumber);
    }
    for (; at < text.size(); at++)
        found.interfaces.push_back(static_cast<uint8_t>(text[at]));
    return found;
}

} // namespace

void OpenKeyboard::CloseUhids()
{
    for (int iUhid : std::exchange(uhids, {}))
        if (iUhid >= 0)
            close(iUhid);
}

void OpenKeyboard::Close()
{
    CloseUhids();
    if (int iOpen = std::exchange(iNode, -1); iOpen >= 0)
        close(iOpen);
}

GuardChannel::~GuardChannel()
{
    if (m_iSocket >= 0)
        close(m_iSocket);
}

std::pair<GuardChannel, GuardChannel> GuardChannel::Make()
{
    int aiEnds[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, aiEnds) != 0)
        throw std::runtime_error(std::string("no way between guardian and worker: ") + strerror(errno));
    return {GuardChannel(aiEnds[0]), GuardChannel(aiEnds[1])};
}

bool GuardChannel::Tell(GuardWord word) const
{
    return send(m_iSocket, &word, sizeof(word), MSG_NOSIGNAL) == sizeof(word);
}

bool GuardChannel::TellKeyboard(const OpenKeyboard& keyboard) const
{
    std::vector<int> files = {keyboard.iNode};
    files.insert(files.end(), keyboard.uhids.begin(), keyboard.uhids.end());
    std::string text = TextOf(keyboard.found);
    alignas(cmsghdr) char control[CMSG_SPACE(MostFiles * sizeof(int))] = {};
    iovec part = {text.data(), text.size()};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = CMSG_SPACE(files.size() * sizeof(int));
    cmsghdr* pHead = CMSG_FIRSTHDR(&message);
    pHead->cmsg_level = SOL_SOCKET;
    pHead->cmsg_type = SCM_RIGHTS;
    pHead->cmsg_len = CMSG_LEN(files.size() * sizeof(int));
    memcpy(CMSG_DATA(pHead), files.data(), files.size() * sizeof(int));
    return files.size() <= MostFiles && text.size() <= MostBytes &&
           sendmsg(m_iSocket, &message, MSG_NOSIGNAL) > 0;
}

bool GuardChannel::Take(GuardWord* pWord, OpenKeyboard* pKeyboard) const
{
    char bytes[MostBytes];
    alignas(cmsghdr) char control[CMSG_SPACE(MostFiles * sizeof(int))];
    iovec part = {bytes, sizeof(bytes)};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    ssize_t got = recvmsg(m_iSocket, &message, MSG_CMSG_CLOEXEC);
    if (got <= 0)
        return false;
    *pWord = static_cast<GuardWord>(bytes[0]);
    cmsghdr* pHead = CMSG_FIRSTHDR(&message);
    if (!pHead || !pKeyboard)
        return true;
    pKeyboard->found = FoundOf(std::string(bytes, static_cast<size_t>(got)));
    std::vector<int> files((pHead->cmsg_len - CMSG_LEN(0)) / sizeof(int));
    memcpy(files.data(), CMSG_DATA(pHead), files.size() * sizeof(int));
    pKeyboard->iNode = files[0];
    pKeyboard->uhids.assign(files.begin() + 1, files.end());
    return true;
}
