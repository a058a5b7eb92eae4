// inf_test.cpp - what Tv64USB.inf, as it is shipped, has put into the system.
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include <windows.h>

#include <setupapi.h>

#include "wine/usermode.h"

static const char ServiceKey[] = "System\\CurrentControlSet\\Services\\Tv64USB";

static std::string TextValue(const char* pszName)
{
    char szText[300] = "";
    DWORD ulBytes = sizeof(szText);
    RegGetValueA(HKEY_LOCAL_MACHINE, ServiceKey, pszName, RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND,
                 nullptr, szText, &ulBytes);
    return szText;
}

static DWORD NumberValue(const std::string& key, const char* pszName)
{
    DWORD ulNumber = 0xFFFFFFFF;
    DWORD ulBytes = sizeof(ulNumber);
    RegGetValueA(HKEY_LOCAL_MACHINE, key.c_str(), pszName, RRF_RT_REG_DWORD, nullptr, &ulNumber, &ulBytes);
    return ulNumber;
}

static std::string BytesOf(const std::string& file)
{
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

TEST(Inf, InstallsTheServiceItsFileAndItsSettings)
{
    EXPECT_EQ("Tv64USB keyboard filter", TextValue("DisplayName"));
    EXPECT_EQ(DWORD{SERVICE_KERNEL_DRIVER}, NumberValue(ServiceKey, "Type"));
    EXPECT_EQ(DWORD{SERVICE_DEMAND_START}, NumberValue(ServiceKey, "Start"));
    EXPECT_EQ(DWORD{SERVICE_ERROR_NORMAL}, NumberValue(ServiceKey, "ErrorControl"));
    const std::string image = BytesOf(TextValue("ImagePath"));
    EXPECT_FALSE(image.empty()) << TextValue("ImagePath");
    EXPECT_TRUE(image == BytesOf(OwnFolder() + "Tv64USB.sys"));
    const std::string settings = std::string(ServiceKey) + "\\TolvenParams";
    EXPECT_EQ(0x7Du, NumberValue(settings, "Prefix1"));
    EXPECT_EQ(0x7Bu, NumberValue(settings, "Prefix2"));
    EXPECT_EQ(0x79u, NumberValue(settings, "PosKeyPrefix"));
}

// That a filter is added to a device is the one thing that this system's setup library does not do.
TEST(Inf, AsksForALowerFilter)
{
    HINF hInf = SetupOpenInfFileA((OwnFolder() + "Tv64USB.inf").c_str(), nullptr, INF_STYLE_WIN4, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, hInf);
    INFCONTEXT line;
    char szService[50] = "", szSection[50] = "", szPosition[50] = "";
    ASSERT_TRUE(SetupFindFirstLineA(hInf, "Install.NT.Filters", "AddFilter", &line));
    EXPECT_TRUE(SetupGetStringFieldA(&line, 1, szService, sizeof(szService), nullptr));
    EXPECT_TRUE(SetupGetStringFieldA(&line, 3, szSection, sizeof(szSection), nullptr));
    EXPECT_TRUE(SetupGetLineTextA(nullptr, hInf, szSection, "FilterPosition", szPosition, sizeof(szPosition),
                                  nullptr));
    EXPECT_STREQ("Tv64USB", szService);
    EXPECT_STREQ("Lower", szPosition);
    SetupCloseInfFile(hInf);
    printf("left out: AddFilter of Tv64USB.inf, which this system's setup library does not know\n");
}
