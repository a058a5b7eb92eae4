// session.h - what every verb has: the opened driver, the keyboards and the one that is meant, a place for answers.
//
// A verb that cannot go on throws: InputError for what the user gave, Failure for what the driver, a keyboard or the
// choice of one came to. main.cpp tells it and leaves with the status.
#pragma once

#include "client/client.h"
#include "keyboards.h"
#include "line.h"

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

// What a call ends with. docs/tvctl.md lists them for whoever writes scripts.
enum ExitStatus {
    Done = 0,
    Refused = 1,     // by the driver or the keyboard, or a check that found something
    BadInput = 2,    // the command line or a file
    NoKeyboard = 3,  // no driver, or no such keyboard
    SeveralFit = 4,  // no keyboard was chosen
    NotVerified = 5, // the keyboard's memory does not hold what was written
    NotKept = 6,     // it would go with the command, as nobody else has the driver open
};

class Failure : public std::runtime_error
{
public:
    Failure(ExitStatus exit, const std::string& what) : std::runtime_error(what), m_exit(exit) {}
    // What the driver said; the exit status follows from it.
    explicit Failure(const tvusb::Status& status);

    ExitStatus Exit() const { return m_exit; }
    const tvusb::Status& Said() const { return m_status; }

    // What else there is to say of it: the keyboards among which to choose.
    void Add(const Line& line, const std::string& text)
    {
        m_lines.push_back(line);
        m_texts.push_back(text);
    }
    const std::vector<Line>& Lines() const { return m_lines; }
    const std::vector<std::string>& Texts() const { return m_texts; }

private:
    ExitStatus m_exit;
    tvusb::Status m_status;
    std::vector<Line> m_lines;
    std::vector<std::string> m_texts;
};

// Fails (Failure): the status is none of success.
void Must(const tvusb::Status& status);
template <class T> T Must(tvusb::Result<T> result)
{
    Must(result.Error());
    return std::move(*result);
}

struct Options {
    bool bJson = false;
    std::string keyboard; // which one, in the user's words; "": the only one
};

using MakeTransport = std::function<std::unique_ptr<tvusb::Transport>(const Options&)>;

class Session
{
public:
    Session(const Options& options, const MakeTransport& way) : m_options(options), m_way(way) {}

    // The driver, opened with the first call.
    tvusb::Driver& Driver();
    // A way to it that is not opened.
    std::unique_ptr<tvusb::Transport> Way() const { return m_way(m_options); }
    // Closes it; the next call opens it again.
    void Close();
    // The keyboards that are started, oldest first.
    std::vector<KeyboardFacts> Keyboards() { return FactsOfAll(Driver()); }
    // The keyboard that is meant, looked up now. Fails (Failure): there is none, several fit.
    KeyboardFacts Chosen();
    tvusb::Keyboard Keyboard() { return Chosen().keyboard; }

    const Options& Given() const { return m_options; }
    // Prints the line for programs, or the text for people.
    void Tell(const Line& line, const std::string& text) const;

private:
    const Options& m_options;
    const MakeTransport& m_way;
    std::unique_ptr<tvusb::Driver> m_driver;
};
