// application32.cpp - a 32-bit application: does what it is told, through the client library's own transport.
// Ends with its standard input.
#include <windows.h>

#include <vector>

#include "client/transport.h"
#include "orders.h"

static bool Read(void* pTo, DWORD ulBytes)
{
    auto p = static_cast<char*>(pTo);
    for (DWORD ulGot; ulBytes != 0; ulBytes -= ulGot, p += ulGot) {
        if (!ReadFile(GetStdHandle(STD_INPUT_HANDLE), p, ulBytes, &ulGot, nullptr) || ulGot == 0) {
            return false;
        }
    }
    return true;
}

static void Write(const void* pFrom, DWORD ulBytes)
{
    DWORD ulWritten;
    if (ulBytes != 0) {
        WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), pFrom, ulBytes, &ulWritten, nullptr);
    }
}

static AnswerRecord Obey(tvusb::Transport& driver, const OrderRecord& order, const void* pIn, void* pOut)
{
    AnswerRecord answer = {};
    switch (order.order) {
    case OrderOpen:
        answer.ulStatus = driver.Open();
        break;
    case OrderClose:
        driver.Close();
        break;
    case OrderSend:
        answer.ulStatus = driver.Send(order.ulCode, pIn, order.ulIn, pOut, order.ulOut, &answer.ulReported);
        break;
    case OrderNewEvent:
        answer.hEvent = driver.NewEvent();
        break;
    case OrderWaitEvent:
        answer.ulStatus = driver.WaitEvent(order.hEvent, order.ulCode);
        break;
    case OrderFreeEvent:
        driver.FreeEvent(order.hEvent);
        break;
    }
    return answer;
}

int main()
{
    auto pDriver = tvusb::SystemTransport();
    OrderRecord order;
    while (Read(&order, sizeof(order))) {
        std::vector<char> in(order.ulIn), out(order.ulOut);
        if (!Read(in.data(), order.ulIn)) {
            return 1;
        }
        AnswerRecord answer = Obey(*pDriver, order, in.data(), out.data());
        Write(&answer, sizeof(answer));
        Write(out.data(), order.ulOut);
    }
    return 0;
}
