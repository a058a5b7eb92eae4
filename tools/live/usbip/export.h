// export.h - the keyboards that are offered over USB/IP, each to one machine at a time.
#pragma once

#include "wire.h"

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

namespace usbip
{

class Session;

struct Export {
    Device device;
    // Sends a control request to the keyboard and waits for its end. Data: what goes out, or room for what comes in and
    // then that. False: stalled. From a session's thread.
    std::function<bool(const uint8_t* pSetup, Bytes& data)> Request;
    // An output report for an interrupt endpoint: likewise.
    std::function<bool(uint8_t ucEndpoint, const Bytes& report)> Output;

    // The keyboard's next report at this endpoint. From any thread; does not wait.
    void Input(uint8_t ucEndpoint, const Bytes& report);
    // False: another machine has it, or it is no longer offered.
    bool Take(Session* pImporter);
    void GiveBack();
    // It is gone: whoever has it sees it pulled out, and nobody asks it any more when this returns.
    void Withdraw();

private:
    std::mutex m_Lock; // guards what follows
    std::condition_variable m_Back;
    Session* m_pImporter = nullptr;
    bool m_bGone = false;
};

class Exports
{
public:
    void Add(std::shared_ptr<Export> exported);
    // See Export::Withdraw.
    void Remove(const std::shared_ptr<Export>& exported);
    std::vector<std::shared_ptr<Export>> All() const;

private:
    mutable std::mutex m_Lock; // guards the list
    std::vector<std::shared_ptr<Export>> m_All;
};

} // namespace usbip
