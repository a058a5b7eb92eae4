// recording_test.cpp - HID recordings, and telling the kinds of input apart.
#include "replayed.h"

#include "tools/common/failure.h"

#include <gtest/gtest.h>

namespace
{

Script Parse(const std::string& text)
{
    return RecordingOf(text);
}

std::string FailureOf(const std::string& text)
{
    try {
        Parse(text);
    } catch (const InputError& error) {
        const std::string what = error.what();
        return "my" + what.substr(what.find(".hid:"));
    }
    return "read without complaint";
}

} // namespace

TEST(Recording, IsReadLineByLine)
{
    Script script = Parse("# made by hand\n"
                          "D: 0\r\n"
                          "R: 3 05 01 c0\n"
                          "N: A \"good\" keyboard \n"
                          "P: usb-0000:00:14.0-1/input0\n"
                          "I: 3 046d C31C\n"
                          "X: something new\n"
                          "\n"
                          "E: 000012.900000 8 01 00 3a 00 00 00 00 00\n"
                          "E: 13.1 3 02 29 00\n"
                          "E: 14.000000 0\n"
                          "E: 15.000001 2 FF 00"); // no line end
    ASSERT_EQ(1u, script.keyboards.size());
    EXPECT_FALSE(script.bEnumerates);
    EXPECT_EQ("A \"good\" keyboard", script.keyboards[0].name);
    EXPECT_EQ(0x046D, script.keyboards[0].usVendor);
    EXPECT_EQ(0xC31C, script.keyboards[0].usProduct);
    ASSERT_EQ(3u, script.AllSteps().size());
    EXPECT_EQ(0u, script.AllSteps()[0].ullUs);
    EXPECT_EQ((Bytes{1, 0, 0x3A, 0, 0, 0, 0, 0}), script.AllSteps()[0].data);
    EXPECT_EQ(200000u, script.AllSteps()[1].ullUs);
    EXPECT_EQ((Bytes{2, 0x29, 0}), script.AllSteps()[1].data);
    EXPECT_EQ(2100001u, script.AllSteps()[2].ullUs);
    EXPECT_EQ((Bytes{0xFF, 0}), script.AllSteps()[2].data);
}

TEST(Recording, KeepsItsDevicesApart)
{
    Script script = Parse("D: 2\nN: silent\nD: 7\nN: first\nD: 1\nN: second\n"
                          "D: 1\nE: 0.000000 1 05\nD: 7\nE: 0.000010 1 06\nE: 0.000005 1 07\n");
    ASSERT_EQ(2u, script.keyboards.size());
    EXPECT_EQ("first", script.keyboards[0].name);
    EXPECT_EQ("second", script.keyboards[1].name);
    ASSERT_EQ(3u, script.AllSteps().size());
    EXPECT_EQ(1u, script.AllSteps()[0].uKeyboard);
    EXPECT_EQ(0u, script.AllSteps()[1].uKeyboard);
    EXPECT_EQ(10u, script.AllSteps()[2].ullUs) << "a time that steps back is held";
}

TEST(Recording, NamesTheLineThatIsBroken)
{
    EXPECT_EQ("my.hid:2: '' is no byte (two hexadecimal digits)", FailureOf("D: 0\nE: 0.0 8 01 00\n"));
    EXPECT_EQ("my.hid:1: more than the 1 bytes announced", FailureOf("E: 0.0 1 01 00\n"));
    EXPECT_EQ("my.hid:1: '1g' is no byte (two hexadecimal digits)", FailureOf("E: 0.0 1 1g\n"));
    EXPECT_EQ("my.hid:1: '100' is no byte (two hexadecimal digits)", FailureOf("E: 0.0 1 100\n"));
    EXPECT_EQ("my.hid:1: 'soon' is no time", FailureOf("E: soon 1 01\n"));
    EXPECT_EQ("my.hid:1: '-1' is no report length", FailureOf("E: 0.0 -1 01\n"));
    EXPECT_EQ("my.hid:1: '1.0000000' has more than six digits of microseconds",
              FailureOf("E: 1.0000000 1 01\n"));
    EXPECT_EQ("my.hid:3: 'zz' is no vendor number", FailureOf("\n\nI: 3 zz 1\n"));
    EXPECT_EQ("my.hid:2: the recording ends without a report (an E: line)", FailureOf("D: 0\nN: silent\n"));
}

TEST(Input, IsToldApartByItsContent)
{
    UsbmonStory story;
    story.Report({0, 0, 4, 0, 0, 0, 0, 0});
    EXPECT_TRUE(ReadInput(TestFile(story.File(), ".txt").Path()).bEnumerates);
    EXPECT_FALSE(ReadInput(TestFile(BytesOf("E: 0.0 1 04\n"), ".pcap").Path()).bEnumerates);
    for (const std::string& content : {std::string(), std::string("hello\n"),
                                       std::string("\x7f"
                                                   "ELF\0\0D: 0\n",
                                                   11)}) {
        TestFile file(BytesOf(content));
        try {
            ReadInput(file.Path());
            ADD_FAILURE() << "taken: " << content;
        } catch (const InputError& error) {
            EXPECT_EQ(file.Path() +
                          ":1: neither a USB capture (pcap, pcapng) nor a HID recording (hid-recorder)",
                      error.what());
        }
    }
    EXPECT_THROW(ReadInput("/no/such/file"), InputError);
    EXPECT_THROW(ReadInput("/"), InputError);
}
