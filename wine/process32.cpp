// process32.cpp - starts the 32-bit process and gives it orders. See process32.h.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "orders.h"
#include "process32.h"

namespace
{
class Process32
{
public:
    Process32()
    {
        SECURITY_ATTRIBUTES inherited = {sizeof(inherited), nullptr, TRUE};
        HANDLE hItsInput, hItsOutput;
        CreatePipe(&hItsInput, &m_hOrders, &inherited, 0);
        CreatePipe(&m_hAnswers, &hItsOutput, &inherited, 0);
        SetHandleInformation(m_hOrders, HANDLE_FLAG_INHERIT, 0);
        SetHandleInformation(m_hAnswers, HANDLE_FLAG_INHERIT, 0);
        STARTUPINFOA start = {};
        start.cb = sizeof(start);
        start.dwFlags = STARTF_USESTDHANDLES;
        start.hStdInput = hItsInput;
        start.hStdOutput = hItsOutput;
        start.hStdError = GetStdHandle(STD_ERROR_HANDLE);
        const char* pszProgram = getenv("TV64USB_APPLICATION32");
        std::string program = pszProgram ? pszProgram : "";
        PROCESS_INFORMATION process;
        if (!CreateProcessA(nullptr, program.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &start,
                            &process)) {
            Fail("cannot be started");
        }
        for (HANDLE hUnused : {hItsInput, hItsOutput, process.hThread, process.hProcess}) {
            CloseHandle(hUnused);
        }
    }

    AnswerRecord Obey(const OrderRecord& order, const void* pIn, void* pOut)
    {
        std::lock_guard<std::mutex> guard(m_Lock);
        AnswerRecord answer;
        Write(&order, sizeof(order));
        Write(pIn, order.ulIn);
        Read(&answer, sizeof(answer));
        Read(pOut, order.ulOut);
        return answer;
    }

private:
    [[noreturn]] static void Fail(const char* pszWhat)
    {
        fprintf(stderr, "the 32-bit application %s: error %lu\n", pszWhat, GetLastError());
        exit(1);
    }

    void Write(const void* pFrom, DWORD ulBytes)
    {
        DWORD ulWritten;
        if (ulBytes != 0 && !WriteFile(m_hOrders, pFrom, ulBytes, &ulWritten, nullptr)) {
            Fail("takes no orders");
        }
    }

    void Read(void* pTo, DWORD ulBytes)
    {
        auto p = static_cast<char*>(pTo);
        for (DWORD ulGot; ulBytes != 0; ulBytes -= ulGot, p += ulGot) {
            if (!ReadFile(m_hAnswers, p, ulBytes, &ulGot, nullptr) || ulGot == 0) {
                Fail("does not answer");
            }
        }
    }

    std::mutex m_Lock;
    HANDLE m_hOrders = nullptr, m_hAnswers = nullptr;
};

class In32 : public tvusb::Transport
{
public:
    ~In32() override { Obey({OrderClose, 0, 0, 0, 0}); }
    uint32_t Open() override { return Obey({OrderOpen, 0, 0, 0, 0}).ulStatus; }
    void Close() override { Obey({OrderClose, 0, 0, 0, 0}); }
    uint32_t Send(uint32_t ulCode, const void* pIn, uint32_t ulIn, void* pOut, uint32_t ulOut,
                  uint32_t* pulReported) override
    {
        AnswerRecord answer = Obey({OrderSend, ulCode, ulIn, ulOut, 0}, pIn, pOut);
        *pulReported = answer.ulReported;
        return answer.ulStatus;
    }
    bool Is32() const override { return true; }
    uint64_t NewEvent() override { return Obey({OrderNewEvent, 0, 0, 0, 0}).hEvent; }
    uint32_t WaitEvent(uint64_t hEvent, uint32_t ulTimeoutMs) override
    {
        return Obey({OrderWaitEvent, ulTimeoutMs, 0, 0, hEvent}).ulStatus;
    }
    void FreeEvent(uint64_t hEvent) override { Obey({OrderFreeEvent, 0, 0, 0, hEvent}); }

private:
    static AnswerRecord Obey(const OrderRecord& order, const void* pIn = nullptr, void* pOut = nullptr)
    {
        static Process32 process;
        return process.Obey(order, pIn, pOut);
    }
};
} // namespace

std::unique_ptr<tvusb::Transport> Transport32()
{
    return std::make_unique<In32>();
}
