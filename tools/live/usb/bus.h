// bus.h - what a real keyboard is to whoever filters it: what it says of itself, reports, requests and answers.
//
//   the bus's threads ── Report, Failed, Answer, Gone ──► UsbSink, which only takes note
//                     ── Round ─────────────────────────► UsbSink, which acts on it
#pragma once

#include "interface.h"

#include <vector>

class UsbSink
{
public:
    virtual ~UsbSink() = default;
    // These are called one at a time, in the order of the bus, and must not wait for anything.
    virtual void Report(unsigned uInterface, Bytes report) = 0;
    // The bus tells an error of the interrupt endpoint, which is not read until Recover.
    virtual void Failed(unsigned uInterface) = 0;
    virtual void Answer(unsigned uInterface, ULONG_PTR ulTicket, Outcome outcome, Bytes data) = 0;
    virtual void Gone() = 0;
    // Called when something was told, and several times a second. It may take its time: another thread tells meanwhile.
    virtual void Round() = 0;
};

class UsbBus
{
public:
    virtual ~UsbBus() = default;
    // As the keyboard has it, of the interfaces that were taken.
    virtual const UsbDevice& Device() const = 0;
    virtual const std::vector<UsbInterface>& Interfaces() const = 0;
    // The sink must live until Stop.
    virtual void Start(UsbSink& sink) = 0;
    // Calls every transfer back; nothing is told any more when it returns.
    virtual void Stop() = 0;
    // Reads the endpoint again after Failed. Waits for the bus.
    virtual void Recover(unsigned uInterface) = 0;
    // Sends a request of the control pipe without waiting. False when the keyboard is gone or Stop has begun.
    virtual bool Send(unsigned uInterface, ULONG_PTR ulTicket, const uint8_t* pSetup, const Bytes& data) = 0;
    // Nobody needs this answer any more; it may come all the same.
    virtual void GiveUp(unsigned uInterface, ULONG_PTR ulTicket) = 0;
};
