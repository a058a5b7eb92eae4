// reader.cpp - cuts a story file into its stories.
#include "story.h"

#include <fstream>
#include <stdexcept>

static std::string Trimmed(const std::string& text)
{
    size_t from = text.find_first_not_of(" \t\r");
    size_t to = text.find_last_not_of(" \t\r");
    return from == std::string::npos ? "" : text.substr(from, to - from + 1);
}

std::vector<Story> ReadStories(const std::string& path)
{
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error(path + ": cannot be read");
    }
    std::vector<Story> stories;
    std::string line;
    for (unsigned uNumber = 1; std::getline(file, line); uNumber++) {
        line = Trimmed(line.substr(0, line.find('#')));
        if (line.empty()) {
            continue;
        }
        if (line.rfind("story ", 0) == 0) {
            stories.push_back({path.substr(path.rfind('/') + 1), Trimmed(line.substr(6)), {}});
        } else if (stories.empty()) {
            throw std::runtime_error(path + ":" + std::to_string(uNumber) +
                                     ": a line before the first story");
        } else {
            stories.back().Lines.push_back({uNumber, line});
        }
    }
    return stories;
}
