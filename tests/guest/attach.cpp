// guest-attach - attaches a keyboard that is offered over USB/IP to the kernel's virtual host controller, as the kernel's
// own tool does: imports it and hands the connection over.
//
//   guest-attach ADDRESS PORT BUSID
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
int Fail(const char* pWhat)
{
    perror(pWhat);
    return 1;
}

uint32_t LongAt(const unsigned char* pAt)
{
    return static_cast<uint32_t>(pAt[0]) << 24 | pAt[1] << 16 | pAt[2] << 8 | pAt[3];
}
} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        fprintf(stderr, "guest-attach: ADDRESS PORT BUSID\n");
        return 2;
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(atoi(argv[2])));
    inet_pton(AF_INET, argv[1], &address.sin_addr);
    int iSocket = socket(AF_INET, SOCK_STREAM, 0), iOn = 1;
    if (connect(iSocket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        return Fail("guest-attach: connect");
    }
    setsockopt(iSocket, IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof iOn);
    unsigned char request[40] = {0x01, 0x11, 0x80, 0x03}, answer[8 + 312];
    strncpy(reinterpret_cast<char*>(request) + 8, argv[3], 31);
    send(iSocket, request, sizeof request, 0);
    ssize_t got = recv(iSocket, answer, sizeof answer, MSG_WAITALL);
    if (got != sizeof answer) {
        fprintf(stderr, "guest-attach: the keyboard is refused\n");
        return 3;
    }
    const unsigned char* pNumbers = answer + 8 + 256 + 32; // bus, device, speed
    char text[64];
    int iBytes = snprintf(text, sizeof text, "0 %d %u %u", iSocket,
                          LongAt(pNumbers) << 16 | LongAt(pNumbers + 4), LongAt(pNumbers + 8));
    int iAttach = open("/sys/devices/platform/vhci_hcd.0/attach", O_WRONLY);
    if (iAttach < 0 || write(iAttach, text, static_cast<size_t>(iBytes)) != iBytes) {
        return Fail("guest-attach: attach");
    }
    return 0;
}
