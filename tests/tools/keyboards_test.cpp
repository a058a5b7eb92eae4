// keyboards_test.cpp - which keyboards a capture holds, in which order, and what each is shown of it.
#include "captures.h"

#include "tools/replay/capture.h"
#include "tools/replay/configuration.h"
#include "tools/common/failure.h"
#include "tools/replay/keyboards.h"

#include <gtest/gtest.h>

#include <list>

namespace
{

const Bytes KeyA = {0, 0, 4, 0, 0, 0, 0, 0};
const Bytes GetConfiguration = {0x80, 6, 0, 2, 0, 0, 0xFF, 0};
const Bytes SetIdle1 = {0x21, 0x0A, 0, 0, 1, 0, 0, 0};
const TestInterface Boot = {3, 1, 1}, Power = {3, 0, 0, 4};

Script ScriptOf(const Bytes& content)
{
    static std::list<TestFile> files; // a script reads its file again when it is played
    return ScriptOfCapture(std::make_shared<InputFile>(files.emplace_back(content).Path()));
}

std::vector<ScriptStep> StepsOf(const Script& script, unsigned uKeyboard, StepKind kind)
{
    std::vector<ScriptStep> steps;
    for (const ScriptStep& step : script.AllSteps())
        if (step.uKeyboard == uKeyboard && step.kind == kind)
            steps.push_back(step);
    return steps;
}

} // namespace

TEST(Keyboards, AreNumberedAsTheirDevicesAppear)
{
    // Device 9 appears first, although device 4 reports first.
    Script script = ScriptOf(UsbmonStory()
                                 .Device(9)
                                 .Enumerate(0x1111, 0x0009, ConfigurationOf({Boot}))
                                 .Device(4)
                                 .At(1000)
                                 .Enumerate(0x1111, 0x0004, ConfigurationOf({Boot}))
                                 .At(2000)
                                 .Report(KeyA)
                                 .Device(9)
                                 .At(3000)
                                 .Report(KeyA)
                                 .File());
    ASSERT_EQ(2u, script.keyboards.size());
    EXPECT_EQ(9u, script.keyboards[0].usProduct);
    EXPECT_EQ(4u, script.keyboards[1].usProduct);
    EXPECT_TRUE(script.bEnumerates);
    ASSERT_EQ(1u, StepsOf(script, 0, StepKind::Report).size());
    EXPECT_EQ(3000u, StepsOf(script, 0, StepKind::Report)[0].ullUs);
    EXPECT_EQ(2000u, StepsOf(script, 1, StepKind::Report)[0].ullUs);
    EXPECT_EQ(3u, StepsOf(script, 1, StepKind::Control).size());
}

TEST(Keyboards, OfACompositeDeviceSeeTheirOwnConfiguration)
{
    Bytes whole = ConfigurationOf({Boot, Power});
    Script script = ScriptOf(UsbmonStory()
                                 .Enumerate(0x7A3C, 0x0065, whole)
                                 .Control(GetConfiguration, whole)
                                 .Control(SetIdle1, {})
                                 .At(5000)
                                 .Report({1, 2}, 0x82)
                                 .Report(KeyA, 0x81)
                                 .File());
    ASSERT_EQ(2u, script.keyboards.size());
    EXPECT_EQ(8u, script.keyboards[0].ulReadBytes);
    EXPECT_EQ(4u, script.keyboards[1].ulReadBytes);
    std::vector<ScriptStep> first = StepsOf(script, 0, StepKind::Control);
    std::vector<ScriptStep> second = StepsOf(script, 1, StepKind::Control);
    ASSERT_EQ(4u, first.size());  // three descriptors and the whole configuration once more
    ASSERT_EQ(5u, second.size()); // and the request to its interface
    EXPECT_EQ((Bytes{9, 2, 34, 0, 1, 1, 0, 0xA0, 50}), second[1].data);
    EXPECT_EQ(ConfigurationOf({Boot}), first[3].data);
    ASSERT_EQ(34u, second[3].data.size());
    EXPECT_EQ((Bytes{9, 4, 1, 0, 1, 3, 0, 0, 0}),
              Bytes(second[3].data.begin() + 9, second[3].data.begin() + 18));
    EXPECT_EQ(0x82, second[3].data[29]);
    EXPECT_EQ(0x0A, second[4].setup[1]);
    EXPECT_EQ((Bytes{1, 2}), StepsOf(script, 1, StepKind::Report)[0].data);
}

TEST(Keyboards, AreFoundWithoutEnumeration)
{
    Script script = ScriptOf(UsbmonStory()
                                 .Control({0x21, 9, 0, 2, 0, 0, 1, 0}, {1})
                                 .Report({7, 0x29, 0}, 0x83)
                                 .Report(KeyA, 0x81)
                                 .File());
    ASSERT_EQ(2u, script.keyboards.size());
    EXPECT_EQ(3u, script.keyboards[0].ulReadBytes); // in the order of their first reports
    EXPECT_EQ(8u, script.keyboards[1].ulReadBytes);
    EXPECT_EQ(0u, script.keyboards[0].usVendor);
    EXPECT_EQ("", script.keyboards[0].name);
    // Interfaces are taken to be numbered as the keyboards are.
    EXPECT_EQ(1u, StepsOf(script, 0, StepKind::Control).size());
    EXPECT_TRUE(StepsOf(script, 1, StepKind::Control).empty());
    EXPECT_FALSE(script.keyboards[0].bTold);
    EXPECT_EQ(2u, script.notes.size());

    Script single = ScriptOf(UsbmonStory().Control({0x21, 9, 0, 2, 0, 0, 1, 0}, {1}).Report(KeyA).File());
    ASSERT_EQ(1u, StepsOf(single, 0, StepKind::Control).size());
    EXPECT_EQ(Bytes{1}, StepsOf(single, 0, StepKind::Control)[0].data);
}

TEST(Keyboards, TakeNoReportFromFailedOrEmptyCompletionsOrHubs)
{
    UsbmonStory story;
    story.Enumerate(1, 2, ConfigurationOf({Boot}));
    story.Device(2).Enumerate(1, 3, ConfigurationOf({{9, 0, 0, 1}})).Report({4});   // a hub by its class
    story.Device(1).Control({0xA3, 0, 0, 0, 1, 0, 4, 0}, {1, 1, 0, 0}).Report({4}); // and by its requests
    story.Device(3).Report(KeyA).Report({}).Report(KeyA, 0x81, -108).Report(KeyA, 0x81, -84).Report(KeyA);
    Script script = ScriptOf(story.File());
    ASSERT_EQ(1u, script.keyboards.size());
    EXPECT_EQ(2u, script.keyboards[0].usProduct);
    EXPECT_EQ(2u, StepsOf(script, 0, StepKind::Report).size());
}

TEST(Keyboards, AreNamedByTheirProductString)
{
    Bytes name = {14, 3,    'T',  0,    0xE9, 0,    '\\',
                  0,  0x3D, 0xD8, 0x00, 0xDE, 0x00, 0xD8}; // a pair, a lone surrogate
    Script script = ScriptOf(UsbmonStory()
                                 .Enumerate(1, 2, ConfigurationOf({Boot}))
                                 .Control({0x80, 6, 1, 3, 9, 4, 0xFF, 0}, {4, 3, 'M', 0})
                                 .Control({0x80, 6, 2, 3, 9, 4, 0xFF, 0}, name)
                                 .Report(KeyA)
                                 .File());
    EXPECT_EQ("T\xC3\xA9\\\xF0\x9F\x98\x80\xEF\xBF\xBD", script.keyboards.at(0).name);

    for (uint8_t ucLength : {0, 1, 2}) { // a string that is shorter than its own head
        name[0] = ucLength;
        script = ScriptOf(UsbmonStory()
                              .Enumerate(1, 2, ConfigurationOf({Boot}))
                              .Control({0x80, 6, 2, 3, 9, 4, 0xFF, 0}, name)
                              .Report(KeyA)
                              .File());
        EXPECT_EQ("", script.keyboards.at(0).name);
    }
}

TEST(Keyboards, ControlTransfersTakeEffectWhenTheirDataArrives)
{
    // Data going out at the submission, data coming in at the completion; transfers without their other half
    // are left out.
    Bytes led = {0x21, 9, 0, 2, 0, 0, 1, 0};
    Script script = ScriptOf(UsbmonStory()
                                 .At(0)
                                 .Enumerate(1, 2, ConfigurationOf({Boot}))
                                 .At(100)
                                 .Control(led, {4})
                                 .At(200)
                                 .Control(GetConfiguration, {}, -32)
                                 .At(300)
                                 .Report(KeyA)
                                 .File());
    std::vector<ScriptStep> steps = StepsOf(script, 0, StepKind::Control);
    ASSERT_EQ(5u, steps.size());
    EXPECT_EQ(10u, steps[0].ullUs);
    EXPECT_EQ(100u, steps[3].ullUs);
    EXPECT_EQ(Bytes{4}, steps[3].data);
    EXPECT_EQ(210u, steps[4].ullUs);
    EXPECT_EQ(Outcome::Stalled, steps[4].outcome);
}

TEST(Keyboards, ACaptureWithoutOneIsRefused)
{
    for (const Bytes& content :
         {UsbmonStory().Enumerate(1, 2, ConfigurationOf({Boot})).Report(KeyA, 0x01).File(),
          PcapFile(220, {})}) {
        try {
            ScriptOf(content);
            ADD_FAILURE() << "taken";
        } catch (const InputError& error) {
            EXPECT_NE(nullptr, strstr(error.what(), "without a keyboard")) << error.what();
            EXPECT_NE(nullptr, strstr(error.what(), ": packet ")) << error.what();
        }
    }
}

TEST(Configuration, LeavesOutWhatBelongsToNoInterface)
{
    Bytes association = {8, 11, 0, 2, 3, 0, 0, 0};
    Bytes whole = ConfigurationOf({Boot, Power});
    whole.insert(whole.begin() + 9, association.begin(), association.end());
    whole[2] = static_cast<uint8_t>(whole.size());
    EXPECT_EQ(ConfigurationOf({Boot}), OwnConfiguration(whole, 0));
    EXPECT_EQ(34u, OwnConfiguration(whole, 1).size());
    EXPECT_EQ(2u, CountInterfaces(whole));

    Bytes broken = ConfigurationOf({Boot});
    broken[18] = 0; // a descriptor of no length ends the walk
    EXPECT_TRUE(EndpointsOf(broken).empty());
    broken[18] = 200; // one that leads out as well
    EXPECT_TRUE(EndpointsOf(broken).empty());
    EXPECT_FALSE(IsWholeConfiguration(Bytes(whole.begin(), whole.end() - 1)));
}
