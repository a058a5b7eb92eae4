// beside.h - a second engine that plays at the same time: the emulated machine fills a process, so it has one of its own.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <sys/types.h>

// Tells one line to whoever started it; without line ends in it.
using LineTeller = std::function<void(const std::string&)>;

class Beside
{
public:
    // Begins to play in a copy of the process, which waits when nobody reads what it tells.
    // Fails (std::runtime_error): no copy can be made.
    explicit Beside(const std::function<void(const LineTeller&)>& play);
    ~Beside(); // ends it
    Beside(const Beside&) = delete;
    Beside& operator=(const Beside&) = delete;

    // Waits for the next line. False at the end. Fails (std::runtime_error): it failed, or ended in the middle.
    bool Next(std::string& line);

private:
    std::unique_ptr<FILE, int (*)(FILE*)> m_lines{nullptr, &fclose};
    pid_t m_child = -1;
    bool m_bEnded = false;
};
