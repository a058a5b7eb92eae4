// program.h - runs of the program in a folder of its own.
#pragma once

#include "tests/macro_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <sys/wait.h>

inline std::string ContentOf(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::stringstream content;
    content << file.rdbuf();
    return content.str();
}

struct RunOutcome {
    int iStatus;
    std::string out, err;
};

// A folder with files, and runs of the program in it.
class Program : public testing::Test
{
protected:
    void Write(const std::string& name, const std::string& text)
    {
        m_folder.Write(name, FileBytes(text.begin(), text.end()));
    }
    std::string Path(const std::string& name) const { return m_folder.Path() + "/" + name; }

    RunOutcome Run(const std::string& arguments)
    {
        std::string command = "cd '" + m_folder.Path() + "' && '" TVUSB_PROGRAM "' " + arguments + " >'" +
                              m_output.Path() + "/out' 2>'" + m_output.Path() + "/err'";
        int iResult = system(command.c_str());
        return {WIFEXITED(iResult) ? WEXITSTATUS(iResult) : -1, ContentOf(m_output.Path() + "/out"),
                ContentOf(m_output.Path() + "/err")};
    }

    size_t FilesThere() const
    {
        std::filesystem::directory_iterator begin(m_folder.Path()), end;
        return static_cast<size_t>(std::distance(begin, end));
    }

    // Bad input: one line that begins with the place, nothing on standard output, status 2.
    void ExpectBadInput(const std::string& arguments, const std::string& place)
    {
        RunOutcome outcome = Run(arguments);
        EXPECT_EQ(2, outcome.iStatus) << arguments;
        EXPECT_EQ("", outcome.out) << arguments;
        EXPECT_EQ(0u, outcome.err.find("tvusb: " + place)) << outcome.err;
        EXPECT_EQ(1, std::count(outcome.err.begin(), outcome.err.end(), '\n')) << outcome.err;
    }

private:
    DriveFolder m_folder, m_output;
};
