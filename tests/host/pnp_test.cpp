// pnp_test.cpp - interfaces, their notifications, device properties.
#include "rules.h"

#include <vector>

static std::vector<std::string> told;
static const GUID CLASS = {0x3B7E91C4, 0x5A2D, 0x4F60, {0x9C, 0x1E, 0x7D, 0x84, 0xA2, 0xF0, 0xB6, 0x13}};

static NTSTATUS Tell(PVOID pRecord, PVOID pContext)
{
    auto pChange = static_cast<PDEVICE_INTERFACE_CHANGE_NOTIFICATION>(pRecord);
    EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
    EXPECT_TRUE(pChange->InterfaceClassGuid == CLASS);
    told.push_back(std::string(static_cast<const char*>(pContext)) +
                   (pChange->Event == GUID_DEVICE_INTERFACE_ARRIVAL ? "+" : "-"));
    return STATUS_SUCCESS;
}

class PnpModes : public testing::TestWithParam<HostMode>
{
};
INSTANTIATE_TEST_SUITE_P(Host, PnpModes, testing::Values(HostSimulated, HostThreaded));

TEST_P(PnpModes, InterfacesComeAndGoAndAreTold)
{
    SmallSystem system(GetParam());
    told.clear();
    UNICODE_STRING link;
    PVOID pEarly, pLate;
    auto listen = [&](ULONG ulFlags, const char* pName, PVOID* ppEntry) {
        IoRegisterPlugPlayNotification(EventCategoryDeviceInterfaceChange, ulFlags, const_cast<GUID*>(&CLASS),
                                       system.pDriver, Tell, const_cast<char*>(pName), ppEntry);
    };
    listen(0, "early", &pEarly);
    system.pDevice->Flags |= DO_BUS_ENUMERATED_DEVICE;
    ASSERT_EQ(STATUS_SUCCESS, IoRegisterDeviceInterface(system.pDevice, &CLASS, nullptr, &link));
    EXPECT_NE(std::string::npos, Narrow(&link).find("{3b7e91c4-5a2d-4f60-9c1e-7d84a2f0b613}"));
    EXPECT_EQ(STATUS_SUCCESS, IoSetDeviceInterfaceState(&link, TRUE));
    EXPECT_EQ(STATUS_OBJECT_NAME_EXISTS, IoSetDeviceInterfaceState(&link, TRUE));
    HostSettle();
    listen(PNPNOTIFY_DEVICE_INTERFACE_INCLUDE_EXISTING_INTERFACES, "late", &pLate);
    EXPECT_EQ((std::vector<std::string>{"early+", "late+"}), told);
    PWSTR pList;
    IoGetDeviceInterfaces(&CLASS, nullptr, 0, &pList);
    UNICODE_STRING listed = Str(pList);
    EXPECT_EQ(Narrow(&link), Narrow(&listed));
    ExFreePool(pList);
    IoUnregisterPlugPlayNotification(pEarly);
    IoSetDeviceInterfaceState(&link, FALSE);
    HostSettle();
    EXPECT_EQ((std::vector<std::string>{"early+", "late+", "late-"}), told);
    IoUnregisterPlugPlayNotification(pLate);
    RtlFreeUnicodeString(&link);
}

TEST(Pnp, DevicePropertiesTellTheirLength)
{
    SmallSystem system;
    system.pDevice->Flags |= DO_BUS_ENUMERATED_DEVICE;
    ULONG ulLength;
    UCHAR buffer[4];
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND,
              IoGetDeviceProperty(system.pDevice, DevicePropertyHardwareID, 4, buffer, &ulLength));
    HostSetDeviceProperty(system.pDevice, DevicePropertyHardwareID, "abc", 4);
    EXPECT_EQ(STATUS_BUFFER_TOO_SMALL,
              IoGetDeviceProperty(system.pDevice, DevicePropertyHardwareID, 3, buffer, &ulLength));
    EXPECT_EQ(4u, ulLength);
    EXPECT_EQ(STATUS_SUCCESS,
              IoGetDeviceProperty(system.pDevice, DevicePropertyHardwareID, 4, buffer, &ulLength));
    EXPECT_EQ(0, memcmp(buffer, "abc", 4));
}

// The platform's unregistering waits for nobody: what was announced before still comes.
TEST(Pnp, ANotificationCanComeAfterItsRegistrationWent)
{
    for (bool bLate : {false, true}) {
        HostOptions options;
        options.bLateNotifications = bLate;
        SmallSystem system(options);
        system.pDevice->Flags |= DO_BUS_ENUMERATED_DEVICE;
        told.clear();
        static UNICODE_STRING link;
        static PVOID pEntry;
        IoRegisterPlugPlayNotification(EventCategoryDeviceInterfaceChange, 0, const_cast<GUID*>(&CLASS),
                                       system.pDriver, Tell, const_cast<char*>("x"), &pEntry);
        IoRegisterDeviceInterface(system.pDevice, &CLASS, nullptr, &link);
        hooks.Unload = [](PDRIVER_OBJECT) {
            IoSetDeviceInterfaceState(&link, TRUE);
            IoSetDeviceInterfaceState(&link, FALSE);
            RtlFreeUnicodeString(&link);
            IoUnregisterPlugPlayNotification(pEntry);
            EXPECT_TRUE(told.empty());
        };
        HostClose(system.File);
        EXPECT_EQ(0u, HostUnloadDriver(system.pDriver));
        EXPECT_EQ(0u, system.Stop());
        EXPECT_EQ(bLate ? (std::vector<std::string>{"x+", "x-"}) : std::vector<std::string>(), told);
    }
}

// Within its own registration there is nothing yet to take back; in a later call of the callback there is.
TEST(Pnp, ACallbackCanTakeItsRegistrationBack)
{
    static PVOID pEntry;
    static PDRIVER_NOTIFICATION_CALLBACK_ROUTINE pRoutine = [](PVOID pRecord, PVOID pContext) -> NTSTATUS {
        IoUnregisterPlugPlayNotification(pEntry);
        return Tell(pRecord, pContext);
    };
    auto listen = [](SmallSystem& system, ULONG ulFlags) {
        IoRegisterPlugPlayNotification(EventCategoryDeviceInterfaceChange, ulFlags, const_cast<GUID*>(&CLASS),
                                       system.pDriver, pRoutine, const_cast<char*>("x"), &pEntry);
    };
    auto publish = [](SmallSystem& system) {
        UNICODE_STRING link;
        system.pDevice->Flags |= DO_BUS_ENUMERATED_DEVICE;
        IoRegisterDeviceInterface(system.pDevice, &CLASS, nullptr, &link);
        IoSetDeviceInterfaceState(&link, TRUE);
        return link;
    };
    {
        SmallSystem system;
        told.clear();
        listen(system, 0);
        UNICODE_STRING link = publish(system);
        IoSetDeviceInterfaceState(&link, FALSE);
        HostSettle();
        EXPECT_EQ((std::vector<std::string>{"x+"}), told);
        RtlFreeUnicodeString(&link);
    }
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            SmallSystem system;
            publish(system);
            listen(system, PNPNOTIFY_DEVICE_INTERFACE_INCLUDE_EXISTING_INTERFACES);
        },
        "HOST STOP NOTIFICATION_NOT_REGISTERED:");
}
