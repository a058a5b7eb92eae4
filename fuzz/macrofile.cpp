// The macro file: any content, read when the driver starts and again while its macros play.
#include "driver/context.h"
#include "driver/driver.h"
#include "scene.h"

// The first line of a macro file, as far as it is compared.
static const char Head[] = "Korvex Configuration File V1.0.0.0";

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pBytes, size_t cBytes)
{
    EmptyFuzzFolder();
    FuzzInput input(pBytes, cBytes);
    std::vector<uint8_t> deeds = input.Short();
    std::vector<uint8_t> file;
    if (!input.Flag()) {
        file.assign(Head, Head + sizeof Head - 1);
        file.resize(50);
    }
    std::vector<uint8_t> rest = input.Rest();
    file.insert(file.end(), rest.begin(), rest.end());
    WriteFuzzFile("macros.bin", file);

    EmuMachineOptions options;
    options.Entry = DriverEntry;
    options.FileRoot = FuzzFolder();
    options.Settings = {{"KorvexHotkey", 0x00010039u},
                        {"KorvexLEDDisabled", 0u},
                        {"KorvexDelay", 20u},
                        {"KorvexConfigFile", "\\??\\C:\\macros.bin"}};
    FuzzScene scene(options);
    scene.Plug(0);
    scene.Keyboard()->Report({0, 0, 0x39, 0, 0, 0, 0, 0});
    scene.Keyboard()->Report({0, 0, 0, 0, 0, 0, 0, 0});
    FuzzInput what(deeds.data(), deeds.size());
    scene.Play(what, 40);
    for (size_t i = 0; i + 1 < rest.size() && i < 8; i++) { // whatever key a record may name
        scene.Keyboard()->Report({rest[i + 1], 0, rest[i], 0, 0, 0, 0, 0});
    }
    WriteFuzzFile("macros.bin", std::vector<uint8_t>(file.begin(), file.begin() + file.size() / 2));
    scene.Application().RequestRecord(IOCTL_TVUSB_RELOAD_MACROS, 0, nullptr, 0);
    HostAdvanceToUs(HostNowUs() + 1000000);
    return 0;
}
