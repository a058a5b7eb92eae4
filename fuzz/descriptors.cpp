// A hostile keyboard: whatever the system or the driver asks it, it answers with bytes of the input, in any
// length, or not at all.
#include "scene.h"

namespace
{
// What the application asks keyboards, each with room for everything or for what the input says.
const struct {
    ULONG ulCode, ulOut;
} Questions[] = {
    {IOCTL_TVUSB_READ_DEVICE_DESCRIPTOR, 18},
    {IOCTL_TVUSB_READ_STRING_DESCRIPTOR, 255},
    {IOCTL_TVUSB_READ_DESCRIPTOR_MEMORY, 512},
    {IOCTL_TVUSB_WRITE_DESCRIPTOR_MEMORY, 0},
    {IOCTL_TVUSB_READ_EEPROM, 512},
    {IOCTL_TVUSB_WRITE_EEPROM, 512},
    {IOCTL_TVUSB_READ_VENDOR_MEMORY, 512},
    {IOCTL_TVUSB_WRITE_VENDOR_MEMORY, 0},
    {IOCTL_TVUSB_SEND_KEY_COMMAND, 0},
    {IOCTL_TVUSB_SET_LEDS, 0},
    {IOCTL_TVUSB_GET_KEYBOARD_INFO, 2052},
};

void Ask(FuzzScene& scene, FuzzInput& input)
{
    const auto& question = Questions[input.Below(std::size(Questions))];
    ULONG ulOut = input.Flag() ? input.Word() % 600 : question.ulOut;
    std::vector<uint8_t> payload = input.Short();
    ULONG ulIndex = scene.Index();
    EmuApplication* pApplication = &scene.Application();
    pApplication->RequestRecord(question.ulCode, ulIndex, payload.data(), (ULONG)payload.size(), ulOut);
}

// GET_DESCRIPTOR of any type, index and length, as the stack above or another driver may send it.
void GetDescriptor(FuzzScene& scene, FuzzInput& input)
{
    UCHAR ucSetup[8] = {static_cast<UCHAR>(0x80 | input.Below(2)), 6, input.Byte(), input.Byte()};
    EmuBytes data(input.Word() % 1024);
    ucSetup[6] = static_cast<UCHAR>(data.size());
    ucSetup[7] = static_cast<UCHAR>(data.size() >> 8);
    scene.Keyboard()->Control(ucSetup, data, input.Flag() ? EmuHidRouteControl : EmuHidRouteDescriptor);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pBytes, size_t cBytes)
{
    FuzzInput input(pBytes, cBytes);
    FuzzScene scene(input);
    EmuPlugOptions options;
    options.NoEnumeration = input.Flag();
    // An answer: a byte says whether it is a stall, one of the tables' or the input's; then the bytes.
    options.Hook = [&input](const UCHAR* pSetup, EmuBytes& data) -> NTSTATUS {
        switch (input.Below(8)) {
        case 0:
            data.clear();
            return STATUS_UNSUCCESSFUL;
        case 1:
            return STATUS_NOT_SUPPORTED;
        default:
            if (pSetup[0] & 0x80) {
                EmuBytes answer = input.Short();
                answer.resize(std::min(answer.size(), data.size()));
                data = answer;
            }
            return STATUS_SUCCESS;
        }
    };
    scene.Plug(input.Byte(), options);
    for (unsigned uDeeds = 0; input.More() && uDeeds < 60; uDeeds++) {
        switch (input.Below(4)) {
        case 0:
            GetDescriptor(scene, input);
            break;
        case 1:
            scene.Keyboard()->Report(input.Short());
            break;
        default:
            Ask(scene, input);
        }
    }
    return 0;
}
