// rules.h - a rule of the host with the code that breaks it: the run must stop with the rule's code.
//
// Each file of rules holds tables of {name, code, body} and lets RULES make a test of each row.
#pragma once

#include "driver.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define UNDER_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define UNDER_ASAN 1
#endif

struct Rule {
    const char* pName;
    const char* pCode;
    void (*pBreak)(SmallSystem& system);
};

class Rules : public testing::TestWithParam<Rule>
{
};

#define RULES(Subject, TABLE)                                                                                \
    INSTANTIATE_TEST_SUITE_P(Subject, Rules, testing::ValuesIn(TABLE),                                       \
                             [](const auto& info) { return std::string(info.param.pName); })

extern KSPIN_LOCK first;
extern KSPIN_LOCK second;

LARGE_INTEGER Ms(LONGLONG llMs);
void Raise();
void TakeFirst();
void Nothing(PKDPC, PVOID, PVOID, PVOID);
PVOID Pool(size_t bytes = 64);
PIRP OwnRequest(SmallSystem& system);     // of the driver, to its own device
NTSTATUS Hold(PDEVICE_OBJECT, PIRP pIrp); // a dispatch routine that never completes
