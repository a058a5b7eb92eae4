// found.cpp - reads the folder of the system's devices.
//
//   /sys/bus/usb/devices/1-1/idVendor, busnum, …              a device, by its port
//   /sys/bus/usb/devices/1-1/1-1:1.0/bInterfaceClass, …       its interfaces
//   /sys/class/input/input7/capabilities/key                  what types, whatever it is connected by
#include "found.h"

#include "tools/common/failure.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace
{

// The first line of a file; "" when there is none.
std::string LineOf(const fs::path& file)
{
    std::string line;
    std::ifstream stream(file);
    std::getline(stream, line);
    return line;
}

unsigned long NumberOf(const fs::path& file, int iBase)
{
    return strtoul(LineOf(file).c_str(), nullptr, iBase);
}

std::vector<fs::path> EntriesOf(const fs::path& folder)
{
    std::vector<fs::path> entries;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
        entries.push_back(entry->path());
    std::sort(entries.begin(), entries.end());
    return entries;
}

bool IsWithin(const fs::path& path, const fs::path& folder)
{
    return std::mismatch(folder.begin(), folder.end(), path.begin(), path.end()).first == folder.end();
}

// Reads a device; false when it is no keyboard.
bool ReadDevice(const fs::path& device, UsbFound& found)
{
    found.name = device.filename();
    bool bKeyboard = false;
    for (const fs::path& interface : EntriesOf(device)) {
        if (interface.filename().string().rfind(found.name + ":", 0) != 0 ||
            LineOf(interface / "bInterfaceClass") != "03")
            continue;
        found.interfaces.push_back(static_cast<uint8_t>(NumberOf(interface / "bInterfaceNumber", 16)));
        bKeyboard |= LineOf(interface / "bInterfaceProtocol") == "01";
    }
    found.node = fmt::format("/dev/bus/usb/{:03}/{:03}", NumberOf(device / "busnum", 10),
                             NumberOf(device / "devnum", 10));
    found.product = LineOf(device / "product");
    found.usVendor = static_cast<uint16_t>(NumberOf(device / "idVendor", 16));
    found.usProduct = static_cast<uint16_t>(NumberOf(device / "idProduct", 16));
    return bKeyboard;
}

bool IsMeant(const UsbFound& keyboard, const std::string& wish)
{
    auto lower = [](std::string text) {
        std::transform(text.begin(), text.end(), text.begin(), tolower);
        return text;
    };
    const std::string ids = fmt::format("{:04x}:{:04x}", keyboard.usVendor, keyboard.usProduct);
    return wish.empty() || lower(wish) == ids || wish == keyboard.name ||
           lower(keyboard.product).find(lower(wish)) != std::string::npos;
}

// True for what types letters: it has all keys from Escape to S, as the system's own rule for keyboards is.
bool TypesLetters(const fs::path& input)
{
    std::string keys = LineOf(input / "capabilities" / "key");
    size_t last = keys.find_last_of(' ');
    constexpr unsigned long FirstKeys = 0xFFFFFFFE;
    return (strtoul(keys.c_str() + (last == std::string::npos ? 0 : last + 1), nullptr, 16) & FirstKeys) ==
           FirstKeys;
}

} // namespace

std::vector<UsbFound> FindUsbKeyboards(const std::string& sysfs)
{
    std::vector<UsbFound> keyboards;
    for (const fs::path& device : EntriesOf(fs::path(sysfs) / "bus/usb/devices")) {
        UsbFound found;
        std::error_code error;
        bool bOwn = fs::canonical(device, error).string().find("vhci_hcd") != std::string::npos;
        if (!error && !bOwn && ReadDevice(device, found))
            keyboards.push_back(found);
    }
    return keyboards;
}

std::string WordsOf(const UsbFound& keyboard)
{
    return fmt::format("{:04x}:{:04x} {}{}at {}", keyboard.usVendor, keyboard.usProduct, keyboard.product,
                       keyboard.product.empty() ? "" : " ", keyboard.name);
}

std::vector<UsbFound> MeantOf(const std::vector<UsbFound>& keyboards, const std::string& wish)
{
    std::vector<UsbFound> meant;
    for (const UsbFound& keyboard : keyboards)
        if (IsMeant(keyboard, wish))
            meant.push_back(keyboard);
    return meant;
}

UsbFound ChooseKeyboard(const std::vector<UsbFound>& keyboards, const std::string& wish)
{
    std::vector<UsbFound> meant = MeantOf(keyboards, wish);
    std::string all;
    for (const UsbFound& keyboard : keyboards)
        all += (all.empty() ? "" : "; ") + WordsOf(keyboard);
    if (keyboards.empty())
        throw InputError("there is no USB keyboard");
    if (meant.empty())
        throw InputError(fmt::format("--device: there is no '{}'; there are: {}", wish, all));
    if (meant.size() > 1)
        throw InputError(fmt::format("--device: several are meant; there are: {}", all));
    return meant[0];
}

bool IsSystems(const UsbFound& keyboard, const std::string& sysfs)
{
    const fs::path device = fs::path(sysfs) / "bus/usb/devices" / keyboard.name;
    return std::all_of(keyboard.interfaces.begin(), keyboard.interfaces.end(), [&](uint8_t ucInterface) {
        std::error_code error;
        fs::path driver =
            fs::read_symlink(device / fmt::format("{}:1.{}", keyboard.name, ucInterface) / "driver", error);
        return !error && driver.filename() != "usbfs";
    });
}

bool IsOnlyKeyboard(const UsbFound& keyboard, const std::string& sysfs)
{
    const fs::path root(sysfs);
    std::error_code error;
    if (!fs::exists(root / "class/tty/tty0", error))
        return false;
    const fs::path own = fs::canonical(root / "bus/usb/devices" / keyboard.name, error);
    for (const fs::path& input : EntriesOf(root / "class/input")) {
        bool bOwn = IsWithin(fs::canonical(input, error), own);
        if (input.filename().string().rfind("input", 0) == 0 && !bOwn && TypesLetters(input))
            return false;
    }
    return true;
}
