// trace.cpp - the driver as a provider of the system's event tracing.
//
//   StartTracing ── look the services up ── register ── tell the provider's name ──► EnableTracing: who listens?
//
// The services are looked up by name, because a system without them shall load the driver all the same. Which
// session gets an event, by level and keywords, the system decides; the driver keeps only the highest level.
#include "log/trace.h"

#include "ground/shared.h"

namespace
{
// {8a498cf5-eb8e-53de-d50f-c1f5bb505d28}: what tools make of the provider's name, so "*Tv64USB" finds it too.
const GUID ProviderId = {0x8A498CF5, 0xEB8E, 0x53DE, {0xD5, 0x0F, 0xC1, 0xF5, 0xBB, 0x50, 0x5D, 0x28}};

// What the provider says of itself: the length of all, its name.
struct ProviderTraits {
    UCHAR ucLength[2];
    char szName[8];
};
const ProviderTraits Traits = {{sizeof(ProviderTraits), 0}, "Tv64USB"};
static_assert(sizeof(Traits) == 10, "no byte between or behind");

enum : ULONG { INFORMATION_SET_TRAITS = 2 };
enum : ULONG { DATA = 0, EVENT_METADATA = 1, PROVIDER_METADATA = 2 }; // what a descriptor's bytes are
enum : ULONG { CONTROL_DISABLE = 0, CONTROL_ENABLE = 1 };
const UCHAR EveryLevel = 0xFF;

// A service of newer systems than the headers know.
using EtwSetInformationRoutine = NTSTATUS NTAPI(REGHANDLE hProvider, ULONG ulClass, PVOID pInformation,
                                                ULONG ulBytes);

struct Provider {
    REGHANDLE hRegistration; // 0: none
    decltype(&EtwWrite) pWrite;
    decltype(&EtwUnregister) pUnregister;
};
Provider Registered; // constant between StartTracing and StopTracing

template <typename Routine> void FindRoutine(PCWSTR pszName, Routine* ppRoutine)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, pszName);
    *ppRoutine = reinterpret_cast<Routine>(MmGetSystemRoutineAddress(&name));
}

// Called in EtwRegister already when a session waits for the provider.
// IRQL = PASSIVE.
void NTAPI EnableTracing(LPCGUID, ULONG ulControl, UCHAR ucLevel, ULONGLONG, ULONGLONG,
                         PEVENT_FILTER_DESCRIPTOR, PVOID)
{
    if (ulControl == CONTROL_ENABLE) {
        WriteShared(ucTraceLevel, ucLevel != 0 ? ucLevel : EveryLevel);
    } else if (ulControl == CONTROL_DISABLE) {
        WriteShared(ucTraceLevel, 0);
    }
}

EVENT_DATA_DESCRIPTOR DataOf(const void* p, ULONG ulBytes, ULONG ulType)
{
    return {reinterpret_cast<ULONG_PTR>(p), ulBytes, ulType};
}
} // namespace

UCHAR ucTraceLevel;

void StartTracing()
{
    decltype(&EtwRegister) pRegister;
    EtwSetInformationRoutine* pSetInformation;
    Provider provider = {};
    RtlZeroMemory(&Registered, sizeof(Registered));
    WriteShared(ucTraceLevel, 0);
    FindRoutine(L"EtwRegister", &pRegister);
    FindRoutine(L"EtwUnregister", &provider.pUnregister);
    FindRoutine(L"EtwWrite", &provider.pWrite);
    FindRoutine(L"EtwSetInformation", &pSetInformation);
    if (pRegister == nullptr || provider.pUnregister == nullptr || provider.pWrite == nullptr ||
        !NT_SUCCESS(pRegister(&ProviderId, EnableTracing, nullptr, &provider.hRegistration))) {
        WriteShared(ucTraceLevel, 0);
        return;
    }
    Registered = provider;
    if (pSetInformation != nullptr) { // without its name the provider is told by its id
        (void)pSetInformation(provider.hRegistration, INFORMATION_SET_TRAITS,
                              const_cast<ProviderTraits*>(&Traits), sizeof(Traits));
    }
}

void StopTracing()
{
    if (Registered.pUnregister != nullptr) {
        (void)Registered.pUnregister(Registered.hRegistration);
        RtlZeroMemory(&Registered, sizeof(Registered));
    }
    WriteShared(ucTraceLevel, 0);
}

// Hands one event to the system: who it is from, what it is, its values.
// IRQL any. Owns: nothing, the system copies. Fails: never; a session whose buffers are full loses the event.
void WriteTrace(const EVENT_DESCRIPTOR* pEvent, const UCHAR* pMetadata, const TraceValue* pValues,
                ULONG ulValues)
{
    EVENT_DATA_DESCRIPTOR data[2 + 2 * TRACE_FIELDS];
    ULONG ulData = 0;
    data[ulData++] = DataOf(&Traits, sizeof(Traits), PROVIDER_METADATA);
    data[ulData++] = DataOf(pMetadata, pMetadata[0] | static_cast<ULONG>(pMetadata[1]) << 8, EVENT_METADATA);
    for (ULONG i = 0; i < ulValues; i++) {
        const TraceValue& value = pValues[i];
        if (value.ulNumberBytes != 0) {
            data[ulData++] = DataOf(&value.ullNumber, value.ulNumberBytes, DATA);
        }
        if (value.ulBytes != 0) {
            data[ulData++] = DataOf(value.pBytes, value.ulBytes, DATA);
        }
    }
    (void)Registered.pWrite(Registered.hRegistration, pEvent, nullptr, ulData, data);
}
