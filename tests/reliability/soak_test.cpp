// soak_test.cpp - keyboards and drivers that come and go thousands of times: nothing is left, memory stays flat.
#include <malloc.h>

#include "world.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/allocator_interface.h>
#define ALLOCATED_BYTES() __sanitizer_get_current_allocated_bytes()
#endif
#endif
#ifndef ALLOCATED_BYTES
#define ALLOCATED_BYTES() mallinfo2().uordblks
#endif

namespace
{
enum : size_t { FlatBytes = 64 * 1024 }; // what the allocators and the host's own tables may keep

TEST(Soak, TenThousandKeyboardsComeAndGo)
{
    World world;
    world.Load();
    size_t early = 0;
    for (unsigned i = 0; i < 10000; i++) {
        EmuKeyboard* pKeyboard = world.Machine->Plug();
        ASSERT_EQ(STATUS_SUCCESS, pKeyboard->StartStatus()) << i;
        World::Press(pKeyboard, 0x04);
        ASSERT_EQ(2u, pKeyboard->Taken().size()) << i;
        pKeyboard->Unplug(i % 2 != 0);
        world.Machine->Forget(pKeyboard);
        if (i == 1000) {
            early = ALLOCATED_BYTES();
        }
    }
    EXPECT_LT(ALLOCATED_BYTES(), early + FlatBytes);
    EXPECT_EQ(0u, world.Machine->Unload()) << "things left over";
}

TEST(Soak, AThousandLoads)
{
    size_t early = 0;
    for (unsigned i = 0; i < 1000; i++) {
        World world;
        world.Load();
        ASSERT_EQ(STATUS_SUCCESS, world.Machine->LoadStatus()) << i;
        world.Open(world.Plug());
        World::Press(world.Keyboards[0], 0x04);
        world.Application.reset();
        ASSERT_EQ(0u, world.Machine->Unload()) << i;
        if (i == 100) {
            early = ALLOCATED_BYTES();
        }
    }
    EXPECT_LT(ALLOCATED_BYTES(), early + FlatBytes);
}
} // namespace
