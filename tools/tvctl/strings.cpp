// strings.cpp - tvctl strings, descriptor: what a keyboard tells of itself.
#include "tvctl.h"

#include <fmt/format.h>

namespace
{

std::string Bcd(uint16_t usNumber)
{
    return fmt::format("{:x}.{:02x}", usNumber >> 8, usNumber & 0xFF);
}

ExitStatus Strings(Session& session, uint32_t ulLanguage)
{
    tvusb::Keyboard keyboard = session.Keyboard();
    tvusb::DeviceDescriptor device = Must(keyboard.ReadDeviceDescriptor());
    auto languages = keyboard.ReadString(0, 0);
    std::string text, list;
    for (char16_t language : languages ? *languages : std::u16string())
        list += fmt::format("{}0x{:04X}", list.empty() ? "" : " ", static_cast<unsigned>(language));
    Line line("strings");
    line.Number("index", keyboard.Index()).Number("language", ulLanguage).Text("languages", list);
    text = fmt::format("languages     {}", list.empty() ? "-" : list);
    const std::pair<const char*, uint8_t> which[] = {{"manufacturer", device.iManufacturer},
                                                     {"product", device.iProduct},
                                                     {"serial", device.iSerialNumber}};
    for (const auto& [pName, ucIndex] : which) {
        auto string = ucIndex != 0
                          ? keyboard.ReadString(ucIndex, static_cast<uint16_t>(ulLanguage))
                          : tvusb::Result<std::u16string>(tvusb::Status(tvusb::Status::Unsuccessful));
        std::string told = string ? tvusb::ToUtf8(*string) : "-";
        string ? line.Text(pName, told) : line.Nothing(pName);
        text += fmt::format("\n{:<12}  {}", pName, told);
    }
    session.Tell(line, text);
    return Done;
}

ExitStatus Descriptor(Session& session)
{
    tvusb::Keyboard keyboard = session.Keyboard();
    const tvusb::DeviceDescriptor device = Must(keyboard.ReadDeviceDescriptor());
    auto pBytes = reinterpret_cast<const uint8_t*>(&device);
    Line line("descriptor");
    line.Number("index", keyboard.Index()).Hex("bytes", {pBytes, pBytes + sizeof(device)});
    line.Text("usb", Bcd(device.bcdUSB))
        .Number("class", device.bDeviceClass)
        .Number("subclass", device.bDeviceSubClass);
    line.Number("protocol", device.bDeviceProtocol).Number("packet_bytes", device.bMaxPacketSize0);
    line.Number("vendor", device.idVendor)
        .Number("product", device.idProduct)
        .Text("release", Bcd(device.bcdDevice));
    line.Number("configurations", device.bNumConfigurations);
    session.Tell(line, fmt::format("USB {}  class {}/{}/{}  packets of {} bytes\n"
                                   "vendor 0x{:04X}  product 0x{:04X}  release {}  configurations {}\n"
                                   "strings: manufacturer {}  product {}  serial {}",
                                   Bcd(device.bcdUSB), device.bDeviceClass, device.bDeviceSubClass,
                                   device.bDeviceProtocol, device.bMaxPacketSize0, device.idVendor,
                                   device.idProduct, Bcd(device.bcdDevice), device.bNumConfigurations,
                                   device.iManufacturer, device.iProduct, device.iSerialNumber));
    return Done;
}

} // namespace

void AddDescriptorVerbs(CLI::App& app, ControlVerbs& verbs)
{
    auto language = std::make_shared<uint32_t>(0x0409);
    CLI::App* pStrings =
        app.add_subcommand("strings", "Tell the keyboard's manufacturer, product and serial number");
    pStrings->add_option("--language", *language, "in this language (default 0x0409, English)")
        ->check(CLI::Range(0, 0xFFFF));
    verbs.push_back({pStrings, [language](Session& session) { return Strings(session, *language); }});
    verbs.push_back({app.add_subcommand("descriptor", "Tell the keyboard's device descriptor"), Descriptor});
}
