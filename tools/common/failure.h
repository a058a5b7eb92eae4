// failure.h - how reading an input fails.
//
// Every reader throws InputError with one finished line for a person: the file, the line, packet or byte
// number, and what is wrong there. The program prints it and leaves with status 2; nothing has been printed on
// standard output and no file has been written by then, because all input is read and checked first.
#pragma once

#include <stdexcept>
#include <string>

class InputError : public std::runtime_error
{
public:
    explicit InputError(const std::string& line, unsigned uLine = 0)
        : std::runtime_error(line), m_uLine(uLine)
    {
    }
    // The line of a text file, or 0.
    unsigned Line() const { return m_uLine; }

private:
    unsigned m_uLine;
};
