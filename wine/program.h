// program.h - another process of this system: a program beside this one, started with its output in a pipe.
#pragma once

#include <string>

class Program
{
public:
    explicit Program(const std::string& commandLine); // "program.exe arguments"
    ~Program();                                       // ends it, unless it has ended
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    std::string ReadLine();            // the next line without its end; empty: there is none
    bool HasEnded(unsigned uWithinMs); // or could not be started
    int Status(); // its exit status; -1: it could not be started, or does not end within 20 seconds

private:
    void *m_hProcess = nullptr, *m_hOutput = nullptr;
};
