// guest-unruly - a boot keyboard that answers as it is told to. It is the user's half of a function of the kernel's gadget
// (FunctionFS); reports are written to the endpoint's file by whoever likes.
//
//   guest-unruly FOLDER HOW     FOLDER has the mounted function; HOW is a file that says how to answer what is asked of the
//                               interface: well, short (half of it), late (after 2 seconds), never, stall
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <endian.h>
#include <fcntl.h>
#include <linux/usb/functionfs.h>
#include <unistd.h>

namespace
{
using Bytes = std::vector<unsigned char>;

const Bytes ReportDescriptor = {
    0x05, 0x01, 0x09, 0x06, 0xA1, 0x01, 0x05, 0x07, 0x19, 0xE0, 0x29, 0xE7, 0x15, 0x00, 0x25,
    0x01,                                                                   // modifier keys
    0x75, 0x01, 0x95, 0x08, 0x81, 0x02, 0x95, 0x01, 0x75, 0x08, 0x81, 0x01, // a reserved byte
    0x95, 0x05, 0x05, 0x08, 0x19, 0x01, 0x29, 0x05, 0x75, 0x01, 0x91, 0x02, 0x95, 0x03, 0x91,
    0x01,                                                                                     // LEDs
    0x95, 0x06, 0x75, 0x08, 0x25, 0x65, 0x05, 0x07, 0x19, 0x00, 0x29, 0x65, 0x81, 0x00, 0xC0, // six keys
};
const Bytes Interface = {
    9, 4,    0,    0,    1, 3, 1,    1,
    0, // HID, boot keyboard
    9, 0x21, 0x11, 0x01, 0, 1, 0x22, static_cast<unsigned char>(ReportDescriptor.size()),
    0, // HID 1.11
};

void Append(Bytes& bytes, std::initializer_list<uint32_t> words)
{
    for (uint32_t ulWord : words) {
        ulWord = htole32(ulWord);
        const auto* p = reinterpret_cast<const unsigned char*>(&ulWord);
        bytes.insert(bytes.end(), p, p + 4);
    }
}

// What FunctionFS wants first: the descriptors at full and at high speed, and no strings.
bool Describe(int iControl)
{
    Bytes body;
    Append(body, {3, 3});                      // descriptors of each
    for (unsigned char ucInterval : {10, 7}) { // 10 ms, and 2^6 parts of 125 us
        body.insert(body.end(), Interface.begin(), Interface.end());
        body.insert(body.end(), {7, 5, 0x81, 3, 8, 0, ucInterval});
    }
    Bytes descriptors, strings;
    Append(descriptors, {FUNCTIONFS_DESCRIPTORS_MAGIC_V2, static_cast<uint32_t>(12 + body.size()),
                         FUNCTIONFS_HAS_FS_DESC | FUNCTIONFS_HAS_HS_DESC});
    descriptors.insert(descriptors.end(), body.begin(), body.end());
    Append(strings, {FUNCTIONFS_STRINGS_MAGIC, 16, 0, 0});
    return write(iControl, descriptors.data(), descriptors.size()) > 0 &&
           write(iControl, strings.data(), strings.size()) > 0;
}

std::string How(const char* pFile)
{
    std::string how;
    std::ifstream(pFile) >> how;
    return how;
}

void Answer(int iControl, const usb_ctrlrequest& request, const char* pHow)
{
    const std::string how = How(pHow);
    printf("%s: %02x %02x %04x\n", how.c_str(), request.bRequestType, request.bRequest,
           le16toh(request.wValue));
    fflush(stdout);
    if (how == "never") { // whatever is done with the file is taken for the answer
        while (How(pHow) == how) {
            usleep(20000);
        }
        return;
    }
    sleep(how == "late" ? 2 : 0);
    const bool bIn = (request.bRequestType & USB_DIR_IN) != 0;
    Bytes data(le16toh(request.wLength));
    if (bIn) {
        data.assign(data.size(), 0);
        if (le16toh(request.wValue) >> 8 == 0x22) {
            data.assign(ReportDescriptor.begin(),
                        ReportDescriptor.begin() + std::min(data.size(), ReportDescriptor.size()));
        }
        data.resize(how == "short" ? data.size() / 2 : data.size());
    }
    // To read where it shall be written stalls, and the other way round.
    if (bIn != (how == "stall")) {
        (void)!write(iControl, data.data(), data.size());
    } else {
        (void)!read(iControl, data.data(), data.size());
    }
}
} // namespace

int main(int argc, char** argv)
{
    int iControl = argc == 3 ? open((std::string(argv[1]) + "/ep0").c_str(), O_RDWR) : -1;
    if (iControl < 0 || !Describe(iControl)) {
        perror("guest-unruly");
        return 1;
    }
    printf("described\n");
    fflush(stdout);
    for (usb_functionfs_event event;;) {
        if (read(iControl, &event, sizeof event) != sizeof event) {
            usleep(20000); // the system has given up a request that was not answered
        } else if (event.type == FUNCTIONFS_SETUP) {
            Answer(iControl, event.u.setup, argv[2]);
        }
    }
}
