// trace.cpp - event tracing: the providers that drivers register, and the sessions that listen to them.
//
//   EtwRegister ──► provider ──► EtwWrite ──► every session whose level and keywords let the event pass
//        ▲                                      └ one of them prints, as the environment's TV64USB_TRACE says
//   enable callback ◄── what all sessions together want: at registration and when a session comes or goes
//
// Strict where the platform is lenient: a write or an unregistration without a registration stops the run, and
// a provider that is left at unload is told. Only what EtwSetInformation allows makes a data descriptor's type
// count; without it every byte is the event's data.
#include "trace.h"

#include <cstdio>
#include <cstdlib>

namespace
{
enum : ULONG {
    SET_TRAITS = 2,
    TYPE_DATA = 0,
    TYPE_EVENT_METADATA = 1,
    TYPE_PROVIDER_METADATA = 2,
    MOST_BYTES = 64 * 1024
};

struct Provider {
    GUID Id;
    PETWENABLECALLBACK pCallback;
    PVOID pContext;
    PDRIVER_OBJECT pOwner;
    std::vector<UCHAR> Traits;
};

struct Session {
    bool bAll; // providers, else this one
    GUID Id;
    UCHAR ucLevel; // 0: every level
    ULONGLONG ullAny, ullAll;
    HostTraceConsumer Consumer;
};

// What the sessions want of a provider.
struct Wish {
    bool bEnabled = false;
    UCHAR ucLevel = 0;
    ULONGLONG ullAny = 0, ullAll = 0;
};
} // namespace

struct HostTracing {
    std::map<REGHANDLE, Provider> Providers;
    std::map<unsigned, Session> Sessions;
    REGHANDLE ullNextProvider = 0x100;
    unsigned uNextSession = 1;
    std::map<ULONGLONG, unsigned> Numbers; // addresses that were printed, in the order of their appearance
};

static bool Listens(const Session& session, const GUID& id)
{
    return session.bAll || session.Id == id;
}

static bool Passes(const Session& session, const EVENT_DESCRIPTOR& event)
{
    bool bKeyword = event.Keyword == 0 || ((session.ullAny == 0 || (event.Keyword & session.ullAny) != 0) &&
                                           (event.Keyword & session.ullAll) == session.ullAll);
    return bKeyword && (session.ucLevel == 0 || event.Level == 0 || event.Level <= session.ucLevel);
}

// The widest of what the sessions want. Lock: the caller holds Lock.
static Wish WishFor(const GUID& id)
{
    Wish wish;
    for (const auto& one : g->Tracing->Sessions) {
        const Session& session = one.second;
        if (!Listens(session, id)) {
            continue;
        }
        bool bFirst = !wish.bEnabled;
        bool bEveryLevel = session.ucLevel == 0 || (!bFirst && wish.ucLevel == 0);
        bool bEveryKeyword = session.ullAny == 0 || (!bFirst && wish.ullAny == 0);
        wish.bEnabled = true;
        wish.ucLevel = bEveryLevel ? UCHAR(0) : std::max(wish.ucLevel, session.ucLevel);
        wish.ullAny = bEveryKeyword ? 0 : wish.ullAny | session.ullAny;
        wish.ullAll = bFirst ? session.ullAll : wish.ullAll & session.ullAll;
    }
    return wish;
}

static void Tell(const Provider& provider, const Wish& wish)
{
    if (provider.pCallback == nullptr) {
        return;
    }
    static const GUID NOBODY = {};
    HostDriverScope scope(provider.pOwner, "an enable callback");
    provider.pCallback(
        &NOBODY, wish.bEnabled ? EVENT_CONTROL_CODE_ENABLE_PROVIDER : EVENT_CONTROL_CODE_DISABLE_PROVIDER,
        wish.ucLevel, wish.ullAny, wish.ullAll, nullptr, provider.pContext);
}

// A session came or went.
static void TellAll()
{
    std::vector<std::pair<Provider, Wish>> providers;
    {
        HostLock lock(g->Lock);
        for (const auto& one : g->Tracing->Providers) {
            providers.emplace_back(one.second, WishFor(one.second.Id));
        }
    }
    for (const auto& one : providers) {
        Tell(one.first, one.second);
    }
}

static unsigned Add(Session session)
{
    unsigned uSession;
    {
        HostLock lock(g->Lock);
        uSession = g->Tracing->uNextSession++;
        g->Tracing->Sessions.emplace(uSession, std::move(session));
    }
    TellAll();
    return uSession;
}

unsigned HostTrace(const GUID& provider, UCHAR ucLevel, ULONGLONG ullAny, ULONGLONG ullAll,
                   HostTraceConsumer consumer)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    return Add({false, provider, ucLevel, ullAny, ullAll, std::move(consumer)});
}

void HostEndTrace(unsigned uSession)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    {
        HostLock lock(g->Lock);
        g->Tracing->Sessions.erase(uSession);
    }
    TellAll();
}

// One line an event, whole, with the time of the run.
static void Print(const HostTraceEvent& event)
{
    auto numberOf = [](ULONGLONG ullAddress) {
        HostLock lock(g->Lock);
        auto& numbers = g->Tracing->Numbers;
        return numbers.emplace(ullAddress, static_cast<unsigned>(numbers.size() + 1)).first->second;
    };
    unsigned long long ullUs = HostNowUs();
    fprintf(stderr, "trace %llu.%06llu %s\n", ullUs / 1000000, ullUs % 1000000,
            HostTraceText(event, numberOf).c_str());
}

// TV64USB_TRACE=LEVEL prints every provider's events up to this level, 1 to 5, on standard error.
void HostStartTrace()
{
    g->Tracing = std::make_shared<HostTracing>();
    const char* pLevel = getenv("TV64USB_TRACE");
    if (pLevel == nullptr || *pLevel == '\0') {
        return;
    }
    if (pLevel[0] < '1' || pLevel[0] > '5' || pLevel[1] != '\0') {
        fprintf(stderr, "TV64USB_TRACE: \"%s\" is no level; they go from 1 to 5\n", pLevel);
        exit(2);
    }
    Add({true, {}, static_cast<UCHAR>(pLevel[0] - '0'), 0, 0, Print});
}

unsigned HostAuditTrace(PDRIVER_OBJECT pDriver)
{
    unsigned uLeaks = 0;
    HostLock lock(g->Lock);
    for (const auto& one : g->Tracing->Providers) {
        if (one.second.pOwner == pDriver) {
            HostLeak(uLeaks, "trace provider: registered");
        }
    }
    return uLeaks;
}

// Lock: the caller holds Lock.
static Provider* Find(REGHANDLE handle, const char* pCall)
{
    auto found = g->Tracing->Providers.find(handle);
    if (found == g->Tracing->Providers.end()) {
        HostBug("TRACE_PROVIDER_NOT_REGISTERED", "%s with handle 0x%llx, which is no registration (any more)",
                pCall, handle);
    }
    return &found->second;
}

// IRQL = PASSIVE. Owns: the registration until EtwUnregister. Fails: kind "trace".
NTSTATUS EtwRegister(LPCGUID pId, PETWENABLECALLBACK pCallback, PVOID pContext, PREGHANDLE pHandle)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    if (pId == nullptr || pHandle == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (HostShouldFail("trace")) {
        return STATUS_NO_MEMORY;
    }
    Provider provider = {*pId, pCallback, pContext, HostSelf()->pDriver, {}};
    Wish wish;
    {
        HostLock lock(g->Lock);
        *pHandle = g->Tracing->ullNextProvider++;
        g->Tracing->Providers.emplace(*pHandle, provider);
        wish = WishFor(provider.Id);
    }
    if (wish.bEnabled) {
        Tell(provider, wish);
    }
    return STATUS_SUCCESS;
}

NTSTATUS EtwUnregister(REGHANDLE handle)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    HostLock lock(g->Lock);
    Find(handle, "EtwUnregister");
    g->Tracing->Providers.erase(handle);
    return STATUS_SUCCESS;
}

// The length is told twice, and the name ends within it.
static bool AreTraitsSound(const UCHAR* pTraits, ULONG ulBytes)
{
    return pTraits != nullptr && ulBytes > sizeof(USHORT) && ulBytes <= MAXUSHORT &&
           (pTraits[0] | pTraits[1] << 8) == static_cast<int>(ulBytes) &&
           memchr(pTraits + sizeof(USHORT), 0, ulBytes - sizeof(USHORT)) != nullptr;
}

// IRQL = PASSIVE. Fails: another class, unsound or set already; kind "trace".
NTSTATUS EtwSetInformation(REGHANDLE handle, ULONG ulClass, PVOID pInformation, ULONG ulBytes)
{
    HostEnter(__func__, PASSIVE_LEVEL);
    bool bFail = HostShouldFail("trace");
    HostLock lock(g->Lock);
    Provider* pProvider = Find(handle, "EtwSetInformation");
    const UCHAR* pTraits = static_cast<const UCHAR*>(pInformation);
    if (ulClass != SET_TRAITS || !AreTraitsSound(pTraits, ulBytes) || !pProvider->Traits.empty()) {
        return STATUS_INVALID_PARAMETER;
    }
    if (bFail) {
        return STATUS_NO_MEMORY;
    }
    pProvider->Traits.assign(pTraits, pTraits + ulBytes);
    return STATUS_SUCCESS;
}

// Where the bytes of a descriptor belong.
static std::vector<UCHAR>& PartOf(HostTraceEvent& event, bool bTypes, UCHAR ucType)
{
    if (!bTypes || ucType == TYPE_DATA) {
        return event.Data;
    }
    if (ucType != TYPE_EVENT_METADATA && ucType != TYPE_PROVIDER_METADATA) {
        HostBug("TRACE_DESCRIPTOR_TYPE", "EtwWrite with a data descriptor of type %u", ucType);
    }
    return ucType == TYPE_EVENT_METADATA ? event.Metadata : event.Traits;
}

// Copies what the descriptors name, as a session's buffer gets it. False: more than a buffer holds.
static bool Gather(HostTraceEvent& event, bool bTypes, ULONG ulCount, const EVENT_DATA_DESCRIPTOR* pData)
{
    size_t total = 0;
    for (ULONG i = 0; i < ulCount; i++) {
        total += pData[i].Size;
        if (total > MOST_BYTES) {
            return false;
        }
        const UCHAR* pBytes = reinterpret_cast<const UCHAR*>(pData[i].Ptr);
        size_t offset;
        if (HostFindUnwritten(pBytes, pData[i].Size, &offset)) {
            HostBug("UNINITIALISED_OUTPUT",
                    "EtwWrite of memory that nobody wrote, at byte %zu of descriptor %u", offset, i);
        }
        std::vector<UCHAR>& part = PartOf(event, bTypes, static_cast<UCHAR>(pData[i].Reserved));
        part.insert(part.end(), pBytes, pBytes + pData[i].Size);
    }
    return true;
}

// IRQL: any. Fails: more than 128 descriptors, more than 64 KB.
NTSTATUS EtwWrite(REGHANDLE handle, PCEVENT_DESCRIPTOR pEvent, LPCGUID, ULONG ulCount,
                  PEVENT_DATA_DESCRIPTOR pData)
{
    HostEnter(__func__, HIGH_LEVEL);
    if (ulCount > MAX_EVENT_DATA_DESCRIPTORS) {
        return STATUS_INVALID_PARAMETER;
    }
    HostTraceEvent event = {*pEvent, {}, {}, {}};
    std::vector<HostTraceConsumer> consumers;
    bool bTypes;
    {
        HostLock lock(g->Lock);
        Provider* pProvider = Find(handle, "EtwWrite");
        bTypes = !pProvider->Traits.empty();
        for (const auto& one : g->Tracing->Sessions) {
            if (Listens(one.second, pProvider->Id) && Passes(one.second, *pEvent)) {
                consumers.push_back(one.second.Consumer);
            }
        }
    }
    if (consumers.empty()) {
        return STATUS_SUCCESS;
    }
    if (!Gather(event, bTypes, ulCount, pData)) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (const HostTraceConsumer& consumer : consumers) {
        consumer(event);
    }
    return STATUS_SUCCESS;
}

// The services that a driver looks for because older systems lack them; all others it links.
// IRQL = PASSIVE. Fails: unknown, kind "routine".
PVOID MmGetSystemRoutineAddress(PUNICODE_STRING pName)
{
    static const struct {
        const char16_t* pName;
        void* pRoutine;
    } ROUTINES[] = {
        {u"EtwRegister", reinterpret_cast<void*>(EtwRegister)},
        {u"EtwUnregister", reinterpret_cast<void*>(EtwUnregister)},
        {u"EtwSetInformation", reinterpret_cast<void*>(EtwSetInformation)},
        {u"EtwWrite", reinterpret_cast<void*>(EtwWrite)},
    };
    HostEnter(__func__, PASSIVE_LEVEL);
    if (HostShouldFail("routine")) {
        return nullptr;
    }
    for (const auto& routine : ROUTINES) {
        if (HostTextOf(pName) == routine.pName) {
            return routine.pRoutine;
        }
    }
    return nullptr;
}
