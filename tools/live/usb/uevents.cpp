// uevents.cpp - the kernel's own group of its netlink socket for events of devices.
#include "uevents.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

Uevents::Uevents()
    : m_iSocket(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT))
{
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = 1; // what the kernel says, not what its helpers make of it
    if (m_iSocket >= 0 && bind(m_iSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        close(m_iSocket);
        m_iSocket = -1;
    }
}

Uevents::~Uevents()
{
    if (m_iSocket >= 0)
        close(m_iSocket);
}

void Uevents::Take() const
{
    char text[4096];
    while (recv(m_iSocket, text, sizeof(text), 0) > 0) {
    }
}
