// faults_test.cpp - each call that can fail fails in turn in seven whole scenarios.
#include <cstdio>

#include "world.h"

namespace
{
// Runs the scenario with its Nth fallible call failing. False when it has no such call.
bool RunWithFault(const Scenario& scenario, unsigned uNth)
{
    World world;
    scenario.pPrepare(world);
    scenario.pRun(world, [&] { HostFailNth(nullptr, uNth); });
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
    unsigned uNth = 1;
    for (; RunWithFault(GetParam(), uNth); uNth++) {
        ASSERT_FALSE(HasFailure()) << "call " << uNth << " failed";
    }
    printf("%s: %u calls failed\n", GetParam().pName, uNth - 1);
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
