// main.cpp - registers every story of the folder as two tests, one for each size of the application's process:
// File.Title; and every log as one for each level.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>

#include <host.h>

#include "story.h"

namespace
{
class StoryTest : public testing::Test
{
public:
    explicit StoryTest(std::function<void()> play) : m_Play(std::move(play)) {}
    void TestBody() override
    {
        const testing::TestInfo* pTest = testing::UnitTest::GetInstance()->current_test_info();
        HostTellOutput((std::string("TEST ") + pTest->test_suite_name() + "." + pTest->name()).c_str(),
                       nullptr, 0);
        m_Play();
    }

private:
    std::function<void()> m_Play;
};

void Register(const std::string& group, const std::string& title, const std::string& file,
              const std::function<void()>& play)
{
    testing::RegisterTest(group.c_str(), title.c_str(), nullptr, nullptr, file.c_str(), 1,
                          [=]() -> testing::Test* { return new StoryTest(play); });
}

void RegisterStories(const std::filesystem::path& file)
{
    for (const Story& story : ReadStories(file.string())) {
        Register(file.stem().string(), story.Title, file.string(), [=] { PlayStory(story, false); });
        Register(file.stem().string(), story.Title + ", 32 bits", file.string(),
                 [=] { PlayStory(story, true); });
    }
}

// The log of each session: details too, report traffic alone, nothing.
void RegisterLog(const std::filesystem::path& file)
{
    for (unsigned uLevel : {3, 1, 0}) {
        Register("logs", file.stem().string() + " at level " + std::to_string(uLevel), file.string(),
                 [=] { PlayLog(file.string(), uLevel); });
    }
}

std::vector<std::filesystem::path> FilesOf(const std::filesystem::path& folder, const std::string& extension)
{
    std::vector<std::filesystem::path> files;
    if (!std::filesystem::exists(folder)) {
        return files;
    }
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().extension() == extension) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}
} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    const std::filesystem::path folder = argc > 1 ? argv[1] : STORY_FOLDER;
    try {
        for (const auto& file : FilesOf(folder, ".story")) {
            RegisterStories(file);
        }
        for (const auto& file : FilesOf(folder / "logs", ".log")) {
            RegisterLog(file);
        }
    } catch (const std::exception& error) {
        fprintf(stderr, "%s\n", error.what());
        return 2;
    }
    return RUN_ALL_TESTS();
}
