// The control interface: sequences of requests, known and unknown, well-formed and not, from processes of both
// sizes, at the control device and at a keyboard's device, between reports and Plug and Play.
#include "driver/context.h"
#include "driver/driver.h"
#include "scene.h"

namespace
{
// Lengths that matter to one of the requests.
const ULONG Lengths[] = {0,   1,   2,   3,   4,   16,   18,   20,   255,  256,  512,
                         516, 519, 520, 527, 528, 1019, 1020, 2051, 2052, 2600, 4096};

struct Request {
    ULONG ulCode, ulOut;
    std::vector<UCHAR> In;
};

ULONG LengthOf(FuzzInput& input)
{
    unsigned uChoice = input.Byte();
    return uChoice < std::size(Lengths) ? Lengths[uChoice] : input.Word() % 8192;
}

// The code, the input's length, the output's length, the index, the payload; the rest of the record is zero.
Request RequestOf(FuzzInput& input, bool b32)
{
    Request request;
    unsigned uFunction = input.Byte();
    request.ulCode = uFunction < 0x48 ? 0x00222000 + uFunction * 4 : input.Long();
    ULONG ulIn = input.Flag() ? LengthOf(input) : (b32 ? 520 : 528);
    request.ulOut = LengthOf(input);
    request.In.resize(ulIn);
    auto put = [&](size_t at, const void* pBytes, size_t cBytes) {
        if (at < request.In.size() && cBytes != 0) {
            memcpy(&request.In[at], pBytes, std::min(cBytes, request.In.size() - at));
        }
    };
    uint32_t ulIndex = input.Byte();
    ulIndex = ulIndex == 0xFF ? input.Long() : ulIndex % 8;
    put(0, &ulIndex, sizeof ulIndex);
    std::vector<uint8_t> payload = input.Short();
    put(b32 ? 4 : 8, payload.data(), payload.size());
    return request;
}

// Sends a request in a thread of its own, with a handle of its own; an event handle in the place of the
// payload, if the input says so, is a real one.
void SendRequest(FuzzScene& scene, FuzzInput& input)
{
    bool b32 = scene.Is32(), bEvent = input.Flag();
    Request request = RequestOf(input, b32);
    scene.Run([=]() mutable {
        EmuApplication application(b32);
        HANDLE hEvent = bEvent ? HostCreateEvent(false) : nullptr;
        if (bEvent && request.In.size() >= 16) {
            memcpy(&request.In[b32 ? 4 : 8], &hEvent, b32 ? 4 : 8);
        }
        application.Request(request.ulCode, request.In, request.ulOut);
        if (hEvent) {
            HostCloseHandle(hEvent);
        }
    });
}

// The same to a keyboard's own device, opened by its interface's name.
void SendToKeyboard(FuzzScene& scene, FuzzInput& input)
{
    Request request = RequestOf(input, scene.Is32());
    if (!scene.Keyboard() || !scene.Keyboard()->Filter()) {
        return;
    }
    UNICODE_STRING link = FilterContextOf(scene.Keyboard()->Filter())->InterfaceLinkName;
    std::vector<WCHAR> name(link.Buffer, link.Buffer + link.Length / sizeof(WCHAR));
    name.push_back(0);
    bool b32 = scene.Is32();
    scene.Run([=] {
        HostFile file;
        HostSetCaller32(b32);
        if (NT_SUCCESS(HostOpen(name.data(), &file))) {
            std::vector<UCHAR> out(request.ulOut);
            ULONG ulInformation = 0;
            HostDeviceControl(file, request.ulCode, request.In.data(), (ULONG)request.In.size(), out.data(),
                              request.ulOut, &ulInformation);
            HostClose(file);
        }
    });
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pBytes, size_t cBytes)
{
    FuzzInput input(pBytes, cBytes);
    FuzzScene scene(input);
    for (unsigned uDeeds = 0; input.More() && uDeeds < 60; uDeeds++) {
        unsigned uDeed = input.Below(32);
        if (uDeed < DeedCount) {
            scene.Do(static_cast<FuzzDeed>(uDeed), input);
        } else if (uDeed < 30) {
            SendRequest(scene, input);
        } else {
            SendToKeyboard(scene, input);
        }
    }
    return 0;
}
