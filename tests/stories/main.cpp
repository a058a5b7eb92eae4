// main.cpp - registers every story of the folder as a test of its own: File.Title.
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
    explicit StoryTest(Story story) : m_Story(std::move(story)) {}
    void TestBody() override { PlayStory(m_Story); }

private:
    Story m_Story;
};
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
                testing::RegisterTest(file.stem().c_str(), story.Title.c_str(), nullptr, nullptr,
                                      file.c_str(), 1,
                                      [=]() -> testing::Test* { return new StoryTest(story); });
            }
        }
    } catch (const std::exception& error) {
        fprintf(stderr, "%s\n", error.what());
        return 2;
    }
    return RUN_ALL_TESTS();
}
