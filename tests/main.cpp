// main.cpp - runs the tests of a program. A failed ASSERT ends its test wherever it stands, also in a routine that
// the test called: what the test was about to use is not there then.
#include <gtest/gtest.h>

#include <cstdint>

#include <host.h>

namespace
{
class EndTest : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo& test) override
    {
        m_uStack = Here();
        HostTellOutput((std::string("TEST ") + test.test_suite_name() + "." + test.name()).c_str(), nullptr,
                       0);
    }

    // Not in another thread of the test's, where nobody would catch it, nor of an exception's own report, which has no
    // file.
    void OnTestPartResult(const testing::TestPartResult& result) override
    {
        const uintptr_t uAway = m_uStack > Here() ? m_uStack - Here() : Here() - m_uStack;
        if (result.fatally_failed() && result.file_name() != nullptr && uAway < STACK_BYTES) {
            throw testing::AssertionException(result);
        }
    }

    static uintptr_t Here() { return reinterpret_cast<uintptr_t>(__builtin_frame_address(0)); }

    enum : uintptr_t { STACK_BYTES = 1024 * 1024 };
    uintptr_t m_uStack = 0;
};
} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new EndTest);
    return RUN_ALL_TESTS();
}
