// uevents.h - hears from the kernel that a device came or went. Needs no rights and no other program.
#pragma once

class Uevents
{
public:
    Uevents();
    ~Uevents();
    Uevents(const Uevents&) = delete;
    Uevents& operator=(const Uevents&) = delete;

    // To poll; readable when something came or went, of whatever kind. -1 where there is no such socket.
    int Socket() const { return m_iSocket; }
    // Takes what was told. Nobody needs to know what: who hears of it looks in the folder of devices.
    void Take() const;

private:
    int m_iSocket;
};
