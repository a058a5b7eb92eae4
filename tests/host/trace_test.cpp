// trace_test.cpp - event tracing: who gets which event, what providers are told, what they must not do.
#include "rules.h"

#include <cstdlib>

static const GUID PROVIDER = {0x5D2C41A7, 0x9B30, 0x4E18, {0xA4, 0x6F, 0x1C, 0x83, 0x0D, 0xE2, 0x7B, 0x95}};
static const GUID OTHER = {1, 2, 3, {4}};
// Length and name of the provider; of an event "Two" with the fields "a", a number of two bytes, and "p", an
// address.
static UCHAR traits[] = {8, 0, 'S', 'm', 'a', 'l', 'l', 0};
static UCHAR metadata[] = {13, 0, 0, 'T', 'w', 'o', 0, 'a', 0, 6, 'p', 0, 21};

static REGHANDLE Register(PETWENABLECALLBACK pCallback = nullptr)
{
    REGHANDLE handle = 0;
    EXPECT_EQ(STATUS_SUCCESS, EtwRegister(&PROVIDER, pCallback, nullptr, &handle));
    return handle;
}

static EVENT_DATA_DESCRIPTOR Part(const void* p, ULONG ulBytes, ULONG ulType = 0)
{
    return {reinterpret_cast<ULONG_PTR>(p), ulBytes, ulType};
}

static NTSTATUS Write(REGHANDLE handle, UCHAR ucLevel, ULONGLONG ullKeyword, USHORT usValue = 0,
                      const void* pAddress = nullptr)
{
    const EVENT_DESCRIPTOR event = {7, 0, 11, ucLevel, 0, 0, ullKeyword};
    EVENT_DATA_DESCRIPTOR data[] = {Part(traits, sizeof(traits), 2), Part(metadata, sizeof(metadata), 1),
                                    Part(&usValue, 2), Part(&pAddress, 8)};
    return EtwWrite(handle, &event, nullptr, 4, data);
}

// --- what stops the run

static const Rule TRACING[] = {
    {"RegisterAtDispatch", "IRQL_NOT_LESS_OR_EQUAL",
     [](SmallSystem&) {
         Raise();
         Register();
     }},
    {"UnregisterAtDispatch", "IRQL_NOT_LESS_OR_EQUAL",
     [](SmallSystem&) {
         REGHANDLE handle = Register();
         Raise();
         EtwUnregister(handle);
     }},
    {"NameAtDispatch", "IRQL_NOT_LESS_OR_EQUAL",
     [](SmallSystem&) {
         REGHANDLE handle = Register();
         Raise();
         EtwSetInformation(handle, 2, traits, sizeof(traits));
     }},
    {"LookUpAtDispatch", "IRQL_NOT_LESS_OR_EQUAL",
     [](SmallSystem&) {
         UNICODE_STRING name = Str(L"EtwWrite");
         Raise();
         MmGetSystemRoutineAddress(&name);
     }},
    {"WriteAfterUnregister", "TRACE_PROVIDER_NOT_REGISTERED",
     [](SmallSystem&) {
         REGHANDLE handle = Register();
         EtwUnregister(handle);
         Write(handle, 1, 0);
     }},
    {"UnregisteredTwice", "TRACE_PROVIDER_NOT_REGISTERED",
     [](SmallSystem&) {
         REGHANDLE handle = Register();
         EtwUnregister(handle);
         EtwUnregister(handle);
     }},
    {"EventOfMemoryThatNobodyWrote", "UNINITIALISED_OUTPUT",
     [](SmallSystem&) {
         HostTrace(PROVIDER, 0, 0, 0, [](const HostTraceEvent&) {});
         const EVENT_DESCRIPTOR event = {};
         EVENT_DATA_DESCRIPTOR data = Part(Pool(), 16);
         EtwWrite(Register(), &event, nullptr, 1, &data);
     }},
    {"DescriptorOfAnUnknownType", "TRACE_DESCRIPTOR_TYPE",
     [](SmallSystem&) {
         HostTrace(PROVIDER, 0, 0, 0, [](const HostTraceEvent&) {});
         REGHANDLE handle = Register();
         EtwSetInformation(handle, 2, traits, sizeof(traits));
         const EVENT_DESCRIPTOR event = {};
         EVENT_DATA_DESCRIPTOR data = Part(traits, 4, 9);
         EtwWrite(handle, &event, nullptr, 1, &data);
     }},
};
RULES(Tracing, TRACING);

// --- who gets what

static std::vector<std::string> told;

static void Told(LPCGUID, ULONG ulControl, UCHAR ucLevel, ULONGLONG ullAny, ULONGLONG ullAll,
                 PEVENT_FILTER_DESCRIPTOR, PVOID)
{
    EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
    char text[80];
    snprintf(text, sizeof(text), "%u level %u any %llx all %llx", ulControl, ucLevel, ullAny, ullAll);
    told.push_back(text);
}

TEST(Trace, AProviderIsToldWhatAllSessionsWantTogether)
{
    SmallSystem system;
    told.clear();
    auto nobody = [](const HostTraceEvent&) {};
    HostTrace(OTHER, 5, 0, 0, nobody);
    unsigned uFirst = HostTrace(PROVIDER, 3, 0x5, 0x7, nobody);
    REGHANDLE handle = Register(Told);
    unsigned uSecond = HostTrace(PROVIDER, 5, 0x8, 0x6, nobody);
    unsigned uThird = HostTrace(PROVIDER, 0, 0, 0, nobody);
    HostEndTrace(uFirst);
    HostEndTrace(uThird);
    HostEndTrace(uSecond);
    EtwUnregister(handle);
    HostTrace(PROVIDER, 1, 0, 0, nobody);
    const std::vector<std::string> expected = {
        "1 level 3 any 5 all 7", "1 level 5 any d all 6", "1 level 0 any 0 all 0",
        "1 level 0 any 0 all 0", "1 level 5 any 8 all 6", "0 level 0 any 0 all 0",
    };
    EXPECT_EQ(expected, told);
}

TEST(Trace, ASessionGetsWhatItAskedFor)
{
    SmallSystem system;
    REGHANDLE handle = Register();
    std::string got;
    HostTrace(PROVIDER, 3, 0x3, 0x1, [&](const HostTraceEvent& event) {
        got += std::to_string(event.Descriptor.Level) + ":" + std::to_string(event.Descriptor.Keyword) + " ";
    });
    for (UCHAR ucLevel : {0, 3, 4}) {
        for (ULONGLONG ullKeyword : {0x0, 0x1, 0x2, 0x3, 0x4, 0x5}) {
            EXPECT_EQ(STATUS_SUCCESS, Write(handle, ucLevel, ullKeyword));
        }
    }
    EXPECT_EQ("0:0 0:1 0:3 0:5 3:0 3:1 3:3 3:5 ", got);
    EtwUnregister(handle);
}

TEST(Trace, TypesCountOnceTheProviderHasItsTraits)
{
    SmallSystem system;
    REGHANDLE handle = Register();
    HostTraceEvent last;
    HostTrace(PROVIDER, 0, 0, 0, [&](const HostTraceEvent& event) { last = event; });
    Write(handle, 1, 0);
    EXPECT_EQ(sizeof(traits) + sizeof(metadata) + 10, last.Data.size());
    EXPECT_TRUE(last.Traits.empty() && last.Metadata.empty());
    UCHAR wrong[] = {9, 0, 'S', 'm', 'a', 'l', 'l', 0}, open[] = {4, 0, 'S', 'm'};
    EXPECT_EQ(STATUS_INVALID_PARAMETER, EtwSetInformation(handle, 2, wrong, sizeof(wrong)));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, EtwSetInformation(handle, 2, open, sizeof(open))) << "without a NUL";
    EXPECT_EQ(STATUS_INVALID_PARAMETER, EtwSetInformation(handle, 1, traits, sizeof(traits)));
    EXPECT_EQ(STATUS_SUCCESS, EtwSetInformation(handle, 2, traits, sizeof(traits)));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, EtwSetInformation(handle, 2, traits, sizeof(traits))) << "once";
    Raise();
    Write(handle, 1, 0, 0x0102);
    KeLowerIrql(PASSIVE_LEVEL);
    EXPECT_EQ(std::vector<UCHAR>(traits, traits + sizeof(traits)), last.Traits);
    EXPECT_EQ(std::vector<UCHAR>(metadata, metadata + sizeof(metadata)), last.Metadata);
    EXPECT_EQ(10u, last.Data.size());
    EXPECT_EQ(2, last.Data[0]);

    std::vector<UCHAR> large(70000);
    const EVENT_DESCRIPTOR event = {};
    EVENT_DATA_DESCRIPTOR data = Part(large.data(), 70000);
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, EtwWrite(handle, &event, nullptr, 1, &data));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, EtwWrite(handle, &event, nullptr, 129, &data));
    EXPECT_EQ(10u, last.Data.size()) << "neither came";
    EtwUnregister(handle);
}

TEST(Trace, RoutinesAreFoundByName)
{
    SmallSystem system;
    UNICODE_STRING write = Str(L"EtwWrite"), other = Str(L"etwwrite");
    EXPECT_EQ(reinterpret_cast<PVOID>(EtwWrite), MmGetSystemRoutineAddress(&write));
    EXPECT_EQ(nullptr, MmGetSystemRoutineAddress(&other));
    HostFailNth("routine", 1);
    EXPECT_EQ(nullptr, MmGetSystemRoutineAddress(&write));
}

// --- printed

// What two events, one of them of level 4, leave on standard error when this level is asked for.
static std::string Printed(const char* pszLevel)
{
    setenv("TV64USB_TRACE", pszLevel, 1);
    testing::internal::CaptureStderr();
    {
        SmallSystem system;
        REGHANDLE handle = Register();
        EtwSetInformation(handle, 2, traits, sizeof(traits));
        auto pFirst = std::make_unique<int>(), pSecond = std::make_unique<int>();
        HostAdvanceToUs(1500000);
        Write(handle, 3, 0, 0x0102, pFirst.get());
        Write(handle, 4, 0, 1, pFirst.get());
        Write(handle, 3, 0, 0, pSecond.get());
        EtwUnregister(handle);
    }
    unsetenv("TV64USB_TRACE");
    return testing::internal::GetCapturedStderr();
}

TEST(Trace, IsPrintedByLevelAlwaysTheSame)
{
    const std::string once = "trace 1.500000 Small 3 Two a=258 p=#1\n";
    const std::string verbose = "trace 1.500000 Small 4 Two a=1 p=#1\n";
    const std::string other = "trace 1.500000 Small 3 Two a=0 p=#2\n";
    EXPECT_EQ(once + other, Printed("3"));
    EXPECT_EQ(once + verbose + other, Printed("4"));
    EXPECT_EQ("", Printed("2"));
    EXPECT_EQ("", Printed(""));
    for (const char* pszLevel : {"0", "6", "33", "on"}) {
        setenv("TV64USB_TRACE", pszLevel, 1);
        EXPECT_EXIT(HostStart({}), testing::ExitedWithCode(2), "TV64USB_TRACE: \".*\" is no level")
            << pszLevel;
    }
    unsetenv("TV64USB_TRACE");
}
