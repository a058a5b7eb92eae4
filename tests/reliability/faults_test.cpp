// faults_test.cpp - each call that can fail fails in turn, once or from then on, in seven whole scenarios.
#include <cstdio>

#include "world.h"

namespace
{
enum Mode { Once, FromThenOn };

// Runs the scenario with its Nth fallible call failing, or all from the Nth on. False when it has no such call.
bool RunWithFault(const Scenario& scenario, Mode mode, unsigned uNth)
{
    World world;
    scenario.pPrepare(world);
    scenario.pRun(world, [&] { HostFailNth(nullptr, uNth, mode == FromThenOn); });
    const bool bHappened = HostFallibleCalls() >= uNth;
    HostFailNth(nullptr, 0);
    CheckAfterwards(world);
    return bHappened;
}

class Faults : public testing::TestWithParam<Scenario>
{
};

TEST_P(Faults, EveryCallMayFail)
{
    for (Mode mode : {Once, FromThenOn}) {
        unsigned uNth = 1;
        for (; RunWithFault(GetParam(), mode, uNth); uNth++) {
            ASSERT_FALSE(HasFailure())
                << "call " << uNth << (mode == Once ? " failed" : " and all after it failed");
        }
        printf("%s: %u calls failed %s\n", GetParam().pName, uNth - 1,
               mode == Once ? "once" : "from then on");
    }
}

std::string TestName(const testing::TestParamInfo<Scenario>& info)
{
    std::string name = info.param.pName;
    for (char& c : name) {
        c = isalnum(static_cast<unsigned char>(c)) ? c : '_';
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Scenarios, Faults, testing::ValuesIn(Scenarios), TestName);
} // namespace
