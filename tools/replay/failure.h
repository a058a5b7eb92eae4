// failure.h - how reading an input fails.
//
// Every reader of this folder throws InputError with one finished line for a person: the file, the line or
// packet number, and what is wrong there. The program prints it and leaves with status 2; nothing has been
// printed on standard output by then, because all input is read and checked before the replay begins.
#pragma once

#include <stdexcept>
#include <string>

class InputError : public std::runtime_error
{
public:
    explicit InputError(const std::string& line) : std::runtime_error(line) {}
};
