// keyboards.cpp - what there is to know of each keyboard, and which of them a word means.
#include "keyboards.h"
#include "session.h"
#include "tools/common/text.h"

#include <fmt/format.h>

namespace
{

constexpr uint16_t English = 0x0409;

// The part of a hardware id behind "&MARK_" or "\MARK_", lower case; "" when it has none.
std::string PartOf(const std::string& hardwareId, const char* pMark, size_t cDigits)
{
    size_t cAt = LowerCase(hardwareId).find(pMark);
    return cAt == std::string::npos ? "" : LowerCase(hardwareId.substr(cAt + 4, cDigits));
}

std::string IdOf(const std::string& hardwareId)
{
    std::string vendor = PartOf(hardwareId, "vid_", 4), product = PartOf(hardwareId, "pid_", 4);
    std::string interface = PartOf(hardwareId, "&mi_", 2);
    if (vendor.empty() || product.empty())
        return "";
    return vendor + ":" + product + (interface.empty() ? "" : ":" + interface);
}

// Descriptor and serial number, as far as the keyboard tells them.
void AskKeyboard(KeyboardFacts& facts)
{
    auto device = facts.keyboard.ReadDeviceDescriptor();
    if (!device)
        return;
    facts.device = *device;
    if (device->iSerialNumber == 0)
        return;
    auto serial = facts.keyboard.ReadString(device->iSerialNumber, English);
    facts.serial = serial ? tvusb::ToUtf8(*serial) : "";
}

KeyboardFacts FactsOf(const tvusb::Driver& driver, const KeyboardInfo& info)
{
    KeyboardFacts facts;
    facts.keyboard = Must(driver.FindByIndex(info.ulDeviceIndex));
    facts.hardwareId = tvusb::ToUtf8(tvusb::TextOf(info.HardwareId));
    facts.description = tvusb::ToUtf8(tvusb::TextOf(info.Description));
    facts.object = tvusb::ToUtf8(tvusb::TextOf(info.DeviceObjectName));
    facts.name = tvusb::ToUtf8(facts.keyboard.Name());
    facts.id = IdOf(facts.hardwareId);
    AskKeyboard(facts);
    return facts;
}

// A name without the four characters that lead to the system's devices.
std::string_view Bare(std::string_view name)
{
    bool bLed = name.substr(0, 4) == "\\\\?\\" || name.substr(0, 4) == "\\??\\";
    return name.substr(bLed ? 4 : 0);
}

} // namespace

// A keyboard that is pulled out between the two requests is left out, as if it had gone before.
std::vector<KeyboardFacts> FactsOfAll(const tvusb::Driver& driver)
{
    std::vector<KeyboardFacts> all;
    for (const KeyboardInfo& info : Must(driver.GetKeyboards())) {
        if (driver.FindByIndex(info.ulDeviceIndex).Error() != tvusb::Status::NoSuchKeyboard)
            all.push_back(FactsOf(driver, info));
    }
    return all;
}

bool IsNamed(const KeyboardFacts& facts, std::string_view word)
{
    auto meant = [&word](std::string_view kind, const std::string& own) {
        bool bKind = word.substr(0, kind.size()) == kind;
        bool bOther = !bKind && (word.substr(0, 6) == "index:" || word.substr(0, 3) == "id:" ||
                                 word.substr(0, 7) == "serial:" || word.substr(0, 5) == "name:");
        std::string_view rest = word.substr(bKind ? kind.size() : 0);
        return !bOther && !own.empty() && LowerCase(rest) == LowerCase(own);
    };
    std::string product = facts.id.substr(0, 9);
    return meant("index:", std::to_string(facts.keyboard.Index())) || meant("id:", facts.id) ||
           meant("id:", product) || meant("serial:", facts.serial) || meant("name:", facts.name) ||
           meant("name:", std::string(Bare(facts.name)));
}

Line LineOf(const KeyboardFacts& facts, std::string_view type)
{
    Line line(type);
    line.Number("index", facts.keyboard.Index()).Text("id", facts.id).Text("serial", facts.serial);
    line.Text("hardware_id", facts.hardwareId).Text("description", facts.description);
    return line.Text("name", facts.name).Text("object", facts.object);
}

std::string TextOf(const KeyboardFacts& facts)
{
    std::string text = fmt::format("keyboard {}  {}", facts.keyboard.Index(),
                                   facts.id.empty() ? facts.hardwareId : facts.id);
    for (const std::string& more :
         {facts.description, facts.serial.empty() ? "" : "serial " + facts.serial, facts.name})
        text += more.empty() ? "" : "  " + more;
    return text;
}
