// session.cpp - opens the driver, finds the keyboard that is meant, prints.
#include "session.h"

#include <fmt/format.h>

namespace
{

ExitStatus ExitOf(const tvusb::Status& status)
{
    switch (status.Value()) {
    case tvusb::Status::NameNotFound:
        return status.Request() == 0 ? NoKeyboard : Refused; // opening; else it is another device's name
    case tvusb::Status::NoSuchKeyboard:
    case tvusb::Status::KeyboardGone:
        return NoKeyboard;
    case tvusb::Status::Ambiguous:
        return SeveralFit;
    case tvusb::Status::InvalidParameter:
        return BadInput;
    default:
        return Refused;
    }
}

} // namespace

Failure::Failure(const tvusb::Status& status)
    : std::runtime_error(status.Text()), m_exit(ExitOf(status)), m_status(status)
{
}

void Must(const tvusb::Status& status)
{
    if (!status.Ok())
        throw Failure(status);
}

tvusb::Driver& Session::Driver()
{
    if (!m_driver)
        m_driver = std::make_unique<tvusb::Driver>(m_way(m_options));
    if (!m_driver->IsOpen())
        Must(m_driver->Open());
    return *m_driver;
}

void Session::Close()
{
    if (m_driver)
        m_driver->Close();
}

KeyboardFacts Session::Chosen()
{
    const std::string& word = m_options.keyboard;
    std::vector<KeyboardFacts> all = Keyboards(), fitting;
    for (KeyboardFacts& facts : all)
        if (word.empty() || IsNamed(facts, word))
            fitting.push_back(facts);
    if (fitting.size() == 1)
        return fitting[0];
    std::string meant = word.empty() ? "" : fmt::format(" '{}'", word);
    std::string what =
        all.empty() ? "no keyboard is started"
        : fitting.empty()
            ? fmt::format("no keyboard is{}; there {}:", meant, all.size() == 1 ? "is" : "are")
            : fmt::format("{} keyboards fit{}, say which with --keyboard:", fitting.size(), meant);
    Failure failure(fitting.empty() ? NoKeyboard : SeveralFit, what);
    for (const KeyboardFacts& facts : fitting.empty() ? all : fitting)
        failure.Add(LineOf(facts, "candidate"), TextOf(facts));
    throw failure;
}

void Session::Tell(const Line& line, const std::string& text) const
{
    fmt::print("{}\n", m_options.bJson ? line.Json() : text);
    fflush(stdout); // each line when it is due, through a pipe too
}
