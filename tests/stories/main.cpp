// main.cpp - registers every story of the folder as two tests, one for each size of the application's process:
// File.Title.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "story.h"

namespace
{
class StoryTest : public testing::Test
{
public:
    StoryTest(Story story, bool b32) : m_Story(std::move(story)), m_b32(b32) {}
    void TestBody() override { PlayStory(m_Story, m_b32); }

private:
    Story m_Story;
    bool m_b32;
};

void Register(const std::string& file, const Story& story, bool b32)
{
    std::string title = story.Title + (b32 ? ", 32 bits" : "");
    testing::RegisterTest(std::filesystem::path(file).stem().c_str(), title.c_str(), nullptr, nullptr,
                          file.c_str(), 1, [=]() -> testing::Test* { return new StoryTest(story, b32); });
}
} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(argc > 1 ? argv[1] : STORY_FOLDER)) {
        if (entry.path().extension() == ".story") {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    try {
        for (const auto& file : files) {
            for (const Story& story : ReadStories(file.string())) {
                Register(file.string(), story, false);
                Register(file.string(), story, true);
            }
        }
    } catch (const std::exception& error) {
        fprintf(stderr, "%s\n", error.what());
        return 2;
    }
    return RUN_ALL_TESTS();
}
