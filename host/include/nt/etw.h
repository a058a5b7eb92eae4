// etw.h - event tracing: providers, their events, what a session asks of them.
#pragma once

#include "ex.h"

extern "C" {

typedef ULONGLONG REGHANDLE, *PREGHANDLE;

typedef struct _EVENT_DESCRIPTOR {
    USHORT Id;
    UCHAR Version;
    UCHAR Channel;
    UCHAR Level;
    UCHAR Opcode;
    USHORT Task;
    ULONGLONG Keyword;
} EVENT_DESCRIPTOR, *PEVENT_DESCRIPTOR;
typedef const EVENT_DESCRIPTOR* PCEVENT_DESCRIPTOR;

// Reserved holds the type in its low byte once the provider has set its traits.
typedef struct _EVENT_DATA_DESCRIPTOR {
    ULONGLONG Ptr;
    ULONG Size;
    ULONG Reserved;
} EVENT_DATA_DESCRIPTOR, *PEVENT_DATA_DESCRIPTOR;

typedef struct _EVENT_FILTER_DESCRIPTOR {
    ULONGLONG Ptr;
    ULONG Size;
    ULONG Type;
} EVENT_FILTER_DESCRIPTOR, *PEVENT_FILTER_DESCRIPTOR;

static_assert(sizeof(EVENT_DESCRIPTOR) == 16 && sizeof(EVENT_DATA_DESCRIPTOR) == 16, "");

#define MAX_EVENT_DATA_DESCRIPTORS 128
#define EVENT_CONTROL_CODE_DISABLE_PROVIDER 0
#define EVENT_CONTROL_CODE_ENABLE_PROVIDER 1

// Tells a provider at PASSIVE_LEVEL what all sessions together want of it. Level 0: every level.
typedef void (*PETWENABLECALLBACK)(LPCGUID SourceId, ULONG ControlCode, UCHAR Level,
                                   ULONGLONG MatchAnyKeyword, ULONGLONG MatchAllKeyword,
                                   PEVENT_FILTER_DESCRIPTOR FilterData, PVOID CallbackContext);

NTSTATUS EtwRegister(LPCGUID ProviderId, PETWENABLECALLBACK EnableCallback, PVOID CallbackContext,
                     PREGHANDLE RegHandle);
NTSTATUS EtwUnregister(REGHANDLE RegHandle);
// Class 2: the provider's traits, once: u16 length of all, its name with a NUL, further traits.
NTSTATUS EtwSetInformation(REGHANDLE RegHandle, ULONG InformationClass, PVOID EventInformation,
                           ULONG InformationLength);
NTSTATUS EtwWrite(REGHANDLE RegHandle, PCEVENT_DESCRIPTOR EventDescriptor, LPCGUID ActivityId,
                  ULONG UserDataCount, PEVENT_DATA_DESCRIPTOR UserData);
}
