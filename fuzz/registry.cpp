// The registry: values of every name that the driver reads, with any type and content, and a key that is absent.
#include "driver/driver.h"
#include "scene.h"
#include "tools/common/settings.h"

namespace
{
// One more than the settings: the driver's own count of its start-ups.
const char* NameOf(unsigned uName)
{
    return uName < std::size(KnownSettings) ? KnownSettings[uName].pName : "ErrorCount";
}

// A value as .reg text: hex(type):01,02
std::string ValueText(const char* pName, unsigned uType, const std::vector<uint8_t>& data)
{
    char text[64];
    snprintf(text, sizeof text, "\"%s\"=hex(%x):", pName, uType);
    std::string line = text;
    for (size_t i = 0; i < data.size(); i++) {
        snprintf(text, sizeof text, i == 0 ? "%02x" : ",%02x", data[i]);
        line += text;
    }
    return line + "\n";
}

// A text of the input's bytes as a registry text, mostly ended; now and then the path of a file that is there.
std::vector<uint8_t> TextData(FuzzInput& input)
{
    std::vector<uint8_t> data;
    std::string text;
    switch (input.Below(4)) {
    case 0:
        text = "\\??\\C:\\macros.bin";
        break;
    case 1:
        text = "\\??\\C:\\log.txt";
        break;
    case 2:
        text.assign(input.Word() % 600, 'x');
        break;
    default:
        for (uint8_t ucChar : input.Short()) {
            // no path may leave the fuzzer's folder
            text += ucChar == '/' || ucChar == '.' ? '_' : static_cast<char>(ucChar);
        }
    }
    for (char c : text) {
        data.push_back(static_cast<uint8_t>(c));
        data.push_back(0);
    }
    if (!input.Flag()) {
        data.resize(data.size() + 2);
    }
    return data;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pBytes, size_t cBytes)
{
    EmptyFuzzFolder();
    FuzzInput input(pBytes, cBytes);
    std::string text = "\n[HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Services\\Tv64USB\\TolvenParams]\n";
    for (unsigned uValues = input.Below(16); uValues != 0; uValues--) {
        const char* pName = NameOf(input.Below(std::size(KnownSettings) + 1));
        switch (input.Below(4)) {
        case 0: {
            uint32_t ulNumber = input.Long();
            auto pNumber = reinterpret_cast<const uint8_t*>(&ulNumber);
            text += ValueText(pName, REG_DWORD, std::vector<uint8_t>(pNumber, pNumber + sizeof ulNumber));
            break;
        }
        case 1:
            text += ValueText(pName, REG_SZ, TextData(input));
            break;
        default: {
            unsigned uType = input.Below(12);
            text += ValueText(pName, uType, input.Short());
        }
        }
    }
    EmuMachineOptions options;
    options.Entry = DriverEntry;
    options.FileRoot = FuzzFolder();
    options.RegistryText = text;
    FuzzScene scene(options);
    scene.Plug(0);
    scene.Play(input, 30);
    scene.Application().RequestRecord(IOCTL_TVUSB_RELOAD_MACROS, 0, nullptr, 0);
    return 0;
}
