// found_test.cpp - which keyboard is meant, and whether it is the only one, told by a made folder of devices.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "tools/common/failure.h"
#include "tools/live/usb/found.h"

namespace
{
namespace fs = std::filesystem;

constexpr const char* LetterKeys = "1000000000007 ff9f207ac14057ff febeffdfffefffff fffffffffffffffe";
constexpr const char* PowerKey = "10000000000000 0";

class Found : public testing::Test
{
protected:
    Found()
    {
        char folder[] = "/tmp/tvusb-XXXXXX";
        m_Sysfs = mkdtemp(folder);
        Write("class/tty/tty0/dev", "4:0");
    }
    ~Found() override { fs::remove_all(m_Sysfs); }

    void Write(const fs::path& file, const std::string& line) const
    {
        fs::create_directories((m_Sysfs / file).parent_path());
        std::ofstream(m_Sysfs / file) << line << "\n";
    }

    // A device as the system shows it: in its bus, with a link in the folder of devices.
    void Plug(const std::string& port, const std::string& vendor, const std::string& product,
              const std::string& name, const std::vector<std::pair<const char*, const char*>>& interfaces,
              const std::string& bus = "pci/usb1") const
    {
        const fs::path device = fs::path("devices") / bus / port;
        Write(device / "idVendor", vendor);
        Write(device / "idProduct", product);
        Write(device / "product", name);
        Write(device / "busnum", "1");
        Write(device / "devnum", "12");
        for (size_t i = 0; i < interfaces.size(); i++) {
            const fs::path interface = device / (port + ":1." + std::to_string(i));
            Write(interface / "bInterfaceNumber", "0" + std::to_string(i));
            Write(interface / "bInterfaceClass", interfaces[i].first);
            Write(interface / "bInterfaceProtocol", interfaces[i].second);
        }
        fs::create_directories(m_Sysfs / "bus/usb/devices");
        fs::create_directory_symlink(m_Sysfs / device, m_Sysfs / "bus/usb/devices" / port);
    }

    void Type(const std::string& input, const fs::path& where, const std::string& keys) const
    {
        Write("devices" / where / input / "capabilities/key", keys);
        fs::create_directories(m_Sysfs / "class/input");
        fs::create_directory_symlink(m_Sysfs / "devices" / where / input, m_Sysfs / "class/input" / input);
    }

    std::vector<UsbFound> All() const { return FindUsbKeyboards(m_Sysfs); }

    fs::path m_Sysfs;
};

TEST_F(Found, AKeyboardIsMeantByItsIdsItsPortOrItsName)
{
    EXPECT_THROW(ChooseKeyboard(All(), ""), InputError) << "none";
    Plug("1-1", "7a3c", "0101", "Till keyboard", {{"03", "01"}, {"03", "00"}, {"08", "50"}});
    Plug("1-2", "1234", "0002", "Mouse", {{"03", "02"}});
    Plug("1-3", "7a3c", "0101", "Exported", {{"03", "01"}}, "vhci_hcd.0/usb5");
    UsbFound only = ChooseKeyboard(All(), "");
    EXPECT_EQ("1-1", only.name) << "no mouse, and not what this program offers itself";
    EXPECT_EQ("/dev/bus/usb/001/012", only.node);
    EXPECT_EQ((std::vector<uint8_t>{0, 1}), only.interfaces) << "those of HID";
    EXPECT_EQ(0x7A3C, only.usVendor);
    Plug("1-4.2", "046d", "C31C", "Office keyboard", {{"03", "01"}});
    const std::pair<const char*, const char*> rows[] = {
        {"7a3c:0101", "1-1"}, {"046D:c31c", "1-4.2"}, {"1-4.2", "1-4.2"}, {"TILL", "1-1"}};
    for (auto [wish, port] : rows)
        EXPECT_EQ(port, ChooseKeyboard(All(), wish).name) << wish;
    for (const char* wish : {"", "keyboard", "1-4", "0000:0001"})
        EXPECT_THROW(ChooseKeyboard(All(), wish), InputError) << wish;
}

TEST_F(Found, WhoHasAKeyboardAndWhetherItIsTheOnlyOne)
{
    Plug("1-1", "7a3c", "0101", "Till keyboard", {{"03", "01"}, {"03", "00"}});
    UsbFound keyboard = ChooseKeyboard(All(), "");
    auto isOnly = [&] { return IsOnlyKeyboard(keyboard, m_Sysfs); };
    EXPECT_TRUE(isOnly()) << "nothing types";
    const fs::path devices = m_Sysfs / "bus/usb/devices/1-1";
    EXPECT_FALSE(IsSystems(keyboard, m_Sysfs));
    fs::create_symlink("drivers/usbhid", devices / "1-1:1.0/driver");
    fs::create_symlink("drivers/usbfs", devices / "1-1:1.1/driver");
    EXPECT_FALSE(IsSystems(keyboard, m_Sysfs)) << "this program has one of them";
    fs::remove(devices / "1-1:1.1/driver");
    fs::create_symlink("drivers/usbhid", devices / "1-1:1.1/driver");
    EXPECT_TRUE(IsSystems(keyboard, m_Sysfs));
    Type("input0", "pci/usb1/1-1/1-1:1.0/hid", LetterKeys);
    Type("input1", "pci/usb1/1-1/1-1:1.1/hid", LetterKeys);
    Type("input2", "acpi/button", PowerKey);
    EXPECT_TRUE(isOnly()) << "its own interfaces, and a button";
    Type("input3", "pci/usb1/1-10/1-10:1.0/hid", LetterKeys);
    EXPECT_FALSE(isOnly()) << "another one, whose port's name begins alike";
    fs::remove(m_Sysfs / "class/input/input3");
    EXPECT_TRUE(isOnly());
    fs::remove_all(m_Sysfs / "class/tty/tty0");
    EXPECT_FALSE(isOnly()) << "a machine without a terminal of its own";
}
} // namespace
