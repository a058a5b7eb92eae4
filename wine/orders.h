// orders.h - what the tests tell the 32-bit process that stands for a 32-bit application, over its standard
// input and output: an order and its input, then an answer and its output.
#pragma once

#include <stdint.h>

enum Order : uint32_t { OrderOpen, OrderClose, OrderSend, OrderNewEvent, OrderWaitEvent, OrderFreeEvent };

struct OrderRecord {
    uint32_t order;
    uint32_t ulCode; // OrderWaitEvent: milliseconds
    uint32_t ulIn, ulOut;
    uint64_t hEvent;
};

struct AnswerRecord {
    uint32_t ulStatus, ulReported;
    uint64_t hEvent;
};
