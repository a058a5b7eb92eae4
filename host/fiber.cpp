// fiber.cpp - stacks and the change from one to another, by the C library's contexts.
#include "fiber.h"

#include "core.h"

#include <cstdlib>
#include <dlfcn.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#if defined(HOST_ASAN)
#include <sanitizer/common_interface_defs.h>
#endif
#if defined(HOST_TSAN)
#include <sanitizer/tsan_interface.h>
#endif

enum : size_t { DEFAULT_STACK = 1 << 20, SMALLEST_STACK = 16384, KEPT_STACKS = 16 };

struct HostFiber {
    ucontext_t Context;
    HostFiberEntry* pEntry;
    void* pContext;
    UCHAR* pMapping; // null: the caller's own stack
    size_t mappingBytes;
    const void* pBottom;
    size_t stackBytes;
    void* pFakeStack;
    void* pTsan;
};

static std::vector<UCHAR*> Kept; // stacks of the default size, to be used again

static UCHAR* MapStack(size_t bytes)
{
    if (!Kept.empty() && bytes == DEFAULT_STACK) {
        UCHAR* p = Kept.back();
        Kept.pop_back();
        return p;
    }
    void* p =
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (p == MAP_FAILED || mprotect(p, static_cast<size_t>(getpagesize()), PROT_NONE) != 0) {
        HostBug("NO_THREAD", "no memory for a stack of %zu bytes", bytes);
    }
    return static_cast<UCHAR*>(p);
}

static void UnmapStack(UCHAR* p, size_t bytes)
{
#if defined(HOST_ASAN)
    size_t guard = static_cast<size_t>(getpagesize());
    ASAN_UNPOISON_MEMORY_REGION(p + guard, bytes - guard);
#endif
    if (Kept.size() < KEPT_STACKS && bytes == DEFAULT_STACK) {
        Kept.push_back(p);
    } else {
        munmap(p, bytes);
    }
}

// What comes first on a stack that was just entered.
static void Arrive([[maybe_unused]] HostFiber* pSelf, [[maybe_unused]] HostFiber* pFrom)
{
#if defined(HOST_ASAN)
    const void* pBottom;
    size_t bytes;
    __sanitizer_finish_switch_fiber(pSelf->pFakeStack, &pBottom, &bytes);
    if (pFrom->pMapping == nullptr) {
        pFrom->pBottom = pBottom;
        pFrom->stackBytes = bytes;
    }
#endif
}

// The C library's own: a sanitizer's would warn, and forget what it knows of the stack at each change.
static int SwapContext(ucontext_t* pFrom, const ucontext_t* pTo)
{
    static const auto pSwap = reinterpret_cast<decltype(&swapcontext)>(dlsym(RTLD_NEXT, "swapcontext"));
    return pSwap(pFrom, pTo);
}

static HostFiber* pLeft; // the one that was running before

[[noreturn]] static void Enter(unsigned uHigh, unsigned uLow)
{
    HostFiber* pSelf = reinterpret_cast<HostFiber*>(static_cast<size_t>(uHigh) << 32 | uLow);
    Arrive(pSelf, pLeft);
    pSelf->pEntry(pSelf->pContext);
    abort();
}

HostFiber* HostCallerFiber()
{
    HostFiber* pFiber = new HostFiber();
#if defined(HOST_TSAN)
    pFiber->pTsan = __tsan_get_current_fiber();
#endif
    return pFiber;
}

HostFiber* HostNewFiber(size_t stackBytes, HostFiberEntry* pEntry, void* pContext)
{
    if (stackBytes != 0 && stackBytes < SMALLEST_STACK) {
        HostBug("BAD_STACK_SIZE", "a stack of %zu bytes is not possible", stackBytes);
    }
    HostFiber* pFiber = new HostFiber();
    size_t page = static_cast<size_t>(getpagesize());
    pFiber->mappingBytes =
        stackBytes == 0 ? size_t{DEFAULT_STACK} : (stackBytes + 2 * page - 1) / page * page;
    pFiber->pMapping = MapStack(pFiber->mappingBytes);
    pFiber->pEntry = pEntry;
    pFiber->pContext = pContext;
    pFiber->pBottom = pFiber->pMapping + page;
    pFiber->stackBytes = pFiber->mappingBytes - page;
    getcontext(&pFiber->Context);
    pFiber->Context.uc_stack.ss_sp = pFiber->pMapping + page;
    pFiber->Context.uc_stack.ss_size = pFiber->stackBytes;
    pFiber->Context.uc_link = nullptr;
    size_t self = reinterpret_cast<size_t>(pFiber);
    makecontext(&pFiber->Context, reinterpret_cast<void (*)()>(Enter), 2, static_cast<unsigned>(self >> 32),
                static_cast<unsigned>(self));
#if defined(HOST_TSAN)
    pFiber->pTsan = __tsan_create_fiber(0);
#endif
    return pFiber;
}

// Leaves one fiber for another; returns when somebody enters the first again, never if it ends.
void HostSwitchFiber(HostFiber* pFrom, HostFiber* pTo, [[maybe_unused]] bool bFromEnds)
{
    pLeft = pFrom;
#if defined(HOST_ASAN)
    __sanitizer_start_switch_fiber(bFromEnds ? nullptr : &pFrom->pFakeStack, pTo->pBottom, pTo->stackBytes);
#endif
#if defined(HOST_TSAN)
    __tsan_switch_to_fiber(pTo->pTsan, 0);
#endif
    SwapContext(&pFrom->Context, &pTo->Context);
    Arrive(pFrom, pLeft);
}

void HostDeleteFiber(HostFiber* pFiber)
{
    if (pFiber->pMapping != nullptr) {
        UnmapStack(pFiber->pMapping, pFiber->mappingBytes);
#if defined(HOST_TSAN)
        __tsan_destroy_fiber(pFiber->pTsan);
#endif
    }
    delete pFiber;
}
