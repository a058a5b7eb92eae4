// text_test.cpp - counted strings, formatted text and calendar time.
#include "driver.h"

TEST(Text, CountedStringsKeepWithinTheirCapacity)
{
    SmallSystem system;
    WCHAR room[6] = {1, 1, 1, 1, 1, 1};
    UNICODE_STRING target = {0, 10, room}, source = Str(L"abcd");
    RtlCopyUnicodeString(&target, &source);
    EXPECT_EQ("abcd", Narrow(&target));
    EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, RtlAppendUnicodeToString(&target, L"ef"));
    EXPECT_EQ("abcd", Narrow(&target));
    EXPECT_EQ(STATUS_SUCCESS, RtlAppendUnicodeToString(&target, L"e"));
    EXPECT_EQ("abcde", Narrow(&target));
    EXPECT_EQ(1, room[5]);
    target.MaximumLength = 4;
    RtlCopyUnicodeString(&target, &source);
    EXPECT_EQ("ab", Narrow(&target));
    UNICODE_STRING upper = Str(L"AB"), longer = Str(L"abc");
    EXPECT_EQ(0, RtlCompareUnicodeString(&target, &upper, TRUE));
    EXPECT_GT(RtlCompareUnicodeString(&target, &upper, FALSE), 0);
    EXPECT_LT(RtlCompareUnicodeString(&target, &longer, TRUE), 0);
}

TEST(Text, FormattedTextIsCutAsThePlatformDoes)
{
    char buffer[5] = "xxxx";
    EXPECT_EQ(3, _snprintf(buffer, 4, "%d", 123));
    EXPECT_STREQ("123", buffer);
    memcpy(buffer, "xxxx", 5);
    EXPECT_EQ(4, _snprintf(buffer, 4, "%d", 1234)) << "fills it without a NUL";
    EXPECT_EQ(0, memcmp(buffer, "1234", 5));
    EXPECT_EQ(-1, _snprintf(buffer, 3, "%s", "abcdef"));
    EXPECT_EQ(0, memcmp(buffer, "abc4", 4));
}

TEST(Text, TimeFieldsOfATime)
{
    const struct {
        LONGLONG llTime;
        TIME_FIELDS Fields;
    } CASES[] = {
        {0, {1601, 1, 1, 0, 0, 0, 0, 1}},
        {125963423999990000, {2000, 2, 29, 23, 59, 59, 999, 2}},
        {130386588650000000, {2014, 3, 7, 9, 41, 5, 0, 5}},
        {157784112000010000, {2100, 12, 31, 12, 0, 0, 1, 5}},
    };
    for (const auto& test : CASES) {
        LARGE_INTEGER time;
        time.QuadPart = test.llTime;
        TIME_FIELDS fields;
        RtlTimeToTimeFields(&time, &fields);
        EXPECT_EQ(0, memcmp(&test.Fields, &fields, sizeof(fields))) << test.Fields.Year;
    }
}
