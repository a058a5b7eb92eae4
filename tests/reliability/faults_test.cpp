// faults_test.cpp - each call that can fail fails in turn, once or from then on, in seven whole scenarios, with
// the simulated clock and with real threads.
//
// With threads the Nth call is not always the same one; each run counts its own calls, and the sweep ends when
// several runs in a row have had fewer than N.
#include <cstdio>

#include "world.h"

namespace
{
enum Failing { Once, FromThenOn };

// Runs the scenario with its Nth fallible call failing, or all from the Nth on. False when it has no such call.
bool RunWithFault(const Scenario& scenario, HostMode mode, Failing failing, unsigned uNth)
{
    World world;
    world.Mode = mode;
    scenario.pPrepare(world);
    scenario.pRun(world, [&] { HostFailNth(nullptr, uNth, failing == FromThenOn); });
    const bool bHappened = HostFallibleCalls() >= uNth;
    HostFailNth(nullptr, 0);
    CheckAfterwards(world);
    return bHappened;
}

class Faults : public testing::TestWithParam<std::tuple<Scenario, HostMode>>
{
};

TEST_P(Faults, EveryCallMayFail)
{
    const auto& [scenario, mode] = GetParam();
    const unsigned uLastRuns = mode == HostThreaded ? 8 : 1;
    for (Failing failing : {Once, FromThenOn}) {
        unsigned uFailed = 0;
        unsigned uWithout = 0; // runs in a row that had no Nth call
        for (unsigned uNth = 1; uWithout < uLastRuns; uNth++) {
            const bool bFailed = RunWithFault(scenario, mode, failing, uNth);
            uFailed += bFailed ? 1 : 0;
            uWithout = bFailed ? 0 : uWithout + 1;
            ASSERT_FALSE(HasFailure())
                << "call " << uNth << (failing == Once ? " failed" : " and all after it failed");
        }
        printf("%s: %u calls failed %s\n", scenario.pName, uFailed,
               failing == Once ? "once" : "from then on");
    }
}

std::string TestName(const testing::TestParamInfo<Faults::ParamType>& info)
{
    const auto& [scenario, mode] = info.param;
    std::string name = std::string(scenario.pName) + (mode == HostSimulated ? "_simulated" : "_threaded");
    for (char& c : name) {
        c = isalnum(static_cast<unsigned char>(c)) ? c : '_';
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Scenarios, Faults,
                         testing::Combine(testing::ValuesIn(Scenarios),
                                          testing::Values(HostSimulated, HostThreaded)),
                         TestName);
} // namespace
