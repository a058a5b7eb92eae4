// story.h - a story: what a person with a keyboard and an application does, and what must come of it.
//
// A story is text, one deed a line, cause beside effect; docs/stories.md tells the verbs. A line that does not
// come out as told fails the test with the line and both sides as bytes and key names.
#pragma once

#include <string>
#include <vector>

struct StoryLine {
    unsigned uNumber;
    std::string Text; // without comment and outer blanks
};

struct Story {
    std::string File;
    std::string Title;
    std::vector<StoryLine> Lines;
};

// All stories of a file, in order. Text before the first `story` line may only be comments.
std::vector<Story> ReadStories(const std::string& path);

// Plays one story on a fresh driver, with a 32-bit or a 64-bit application; failures are reported to GoogleTest
// with file and line.
void PlayStory(const Story& story, bool b32);

// Plays a session whose log is told (logs.cpp), with the log at this level.
void PlayLog(const std::string& path, unsigned uLevel);
