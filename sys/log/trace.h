// trace.h - trace points: what the driver tells the system's event tracing, apart from its own log.
//
//   Trace(event, values...) ── nobody listens at its level: one test of a byte, the values are not even computed
//                           └─ event.Write ── WriteTrace ──► EtwWrite ──► the sessions that asked for it
//
// Events describe themselves: beside its values each carries its name and its fields' names and types, so that
// any decoder reads it without the driver's sources. The compiler makes that description from the event's row in
// events.h. Any routine traces, at any IRQL; nothing is allocated, nothing fails.
#pragma once

#include "ground/compiler.h"

#include <kernel.h>

// How much a session has to ask for to be told.
enum : UCHAR { TRACE_WARNING = 3, TRACE_INFO = 4, TRACE_VERBOSE = 5 };

// What it is about.
enum : ULONGLONG {
    TRACE_LIFE = 0x01,    // the driver's coming and going
    TRACE_USB = 0x02,     // requests, setup packets, descriptors, reads at the keyboard
    TRACE_REPORTS = 0x04, // reports and the modifier word
    TRACE_HOTKEYS = 0x08, // definitions and the lists made from them
    TRACE_QUEUES = 0x10,  // a buffer, ring or list that is full or empty
    TRACE_MACRO = 0x20,   // the macro mode, its settings and parked reads
    TRACE_SALE = 0x40,    // point-of-sale keyboards
};

// One value on its way out: a number's low bytes, then a run of bytes.
struct TraceValue {
    ULONGLONG ullNumber;
    ULONG ulNumberBytes;
    ULONG ulBytes;
    const void* pBytes;
};

// A run of bytes as a field's value, at most 65,535.
struct TraceBytes {
    const UCHAR* pBytes;
    ULONG ulBytes;
};

// A field is its name; its class says what a value is given as and how it is encoded: input type, output type.
namespace TraceFields
{
template <typename Number, UCHAR ucIn, UCHAR ucOut> struct NumberField {
    const char* pszName;
    using Value = Number;
    enum : UCHAR { In = ucIn, Out = ucOut };
    static TraceValue Encode(Number value)
    {
        return {static_cast<ULONGLONG>(value), sizeof(value), 0, nullptr};
    }
};

using U8 = NumberField<UCHAR, 4, 0>;
using U16 = NumberField<USHORT, 6, 0>;
using U32 = NumberField<ULONG, 8, 0>;
using Hex8 = NumberField<UCHAR, 4, 4>;
using Hex16 = NumberField<USHORT, 6, 4>;
using Hex32 = NumberField<ULONG, 20, 0>;
using Status = NumberField<NTSTATUS, 8, 14>;

// The address of a request: its number in the debugger.
struct Address {
    const char* pszName;
    using Value = const void*;
    enum : UCHAR { In = 21, Out = 0 };
    static TraceValue Encode(const void* p) { return {reinterpret_cast<ULONG_PTR>(p), 8, 0, nullptr}; }
};

struct Text {
    const char* pszName;
    using Value = const char*;
    enum : UCHAR { In = 2, Out = 0 };
    static TraceValue Encode(const char* psz) { return {0, 0, static_cast<ULONG>(strlen(psz) + 1), psz}; }
};

struct WideText {
    const char* pszName;
    using Value = PCUNICODE_STRING;
    enum : UCHAR { In = 22, Out = 0 };
    static TraceValue Encode(PCUNICODE_STRING p) { return {p->Length, 2, p->Length, p->Buffer}; }
};

struct Bytes {
    const char* pszName;
    using Value = const TraceBytes&;
    enum : UCHAR { In = 14, Out = 0 };
    static TraceValue Encode(const TraceBytes& value)
    {
        return {value.ulBytes, 2, value.ulBytes, value.pBytes};
    }
};
} // namespace TraceFields

enum : ULONG { TRACE_FIELDS = 8, TRACE_METADATA_BYTES = 144 };

// trace.cpp
void WriteTrace(const EVENT_DESCRIPTOR* pEvent, const UCHAR* pMetadata, const TraceValue* pValues,
                ULONG ulValues);

// A row of events.h: id, level, keywords, name, fields. A description that does not fit is no constant and does
// not compile.
template <typename... Fields> class TraceEvent
{
public:
    constexpr TraceEvent(USHORT usId, UCHAR ucLevel, ULONGLONG ullKeywords, const char* pszName,
                         Fields... fields)
        : Descriptor{usId, 0, ChannelSelfDescribing, ucLevel, 0, 0, ullKeywords}, Metadata{}
    {
        static_assert(sizeof...(Fields) <= TRACE_FIELDS, "more fields than WriteTrace has room for");
        ULONG ulEnd = AppendText(3, pszName); // behind the length and an empty tag
        ((ulEnd = AppendField(ulEnd, fields.pszName, Fields::In, Fields::Out)), ...);
        Metadata[0] = static_cast<UCHAR>(ulEnd);
        Metadata[1] = static_cast<UCHAR>(ulEnd >> 8);
    }

    COLD void Write(typename Fields::Value... values) const
    {
        const TraceValue encoded[sizeof...(Fields) + 1] = {Fields::Encode(values)..., {}};
        WriteTrace(&Descriptor, Metadata, encoded, sizeof...(Fields));
    }

    const EVENT_DESCRIPTOR Descriptor;

private:
    enum : UCHAR { ChannelSelfDescribing = 11, OutputTypeFollows = 0x80 };

    constexpr ULONG AppendText(ULONG ulEnd, const char* psz)
    {
        do {
            Metadata[ulEnd++] = static_cast<UCHAR>(*psz);
        } while (*psz++ != '\0');
        return ulEnd;
    }
    constexpr ULONG AppendField(ULONG ulEnd, const char* pszName, UCHAR ucIn, UCHAR ucOut)
    {
        ulEnd = AppendText(ulEnd, pszName);
        Metadata[ulEnd++] = static_cast<UCHAR>(ucOut == 0 ? ucIn : ucIn | OutputTypeFollows);
        if (ucOut != 0) {
            Metadata[ulEnd++] = ucOut;
        }
        return ulEnd;
    }

    UCHAR Metadata[TRACE_METADATA_BYTES];
};

// The highest level that any session asked for; 0 while nobody listens. Written by trace.cpp, atomic.
extern UCHAR ucTraceLevel;

// Whether an event of this level is wanted. What is done for events alone stands behind it.
// IRQL any.
inline bool IsTraced(UCHAR ucLevel)
{
    return LoadAcquire(ucTraceLevel) >= ucLevel;
}

#define Trace(event, ...)                                                                                    \
    (IsTraced(TraceEvents::event.Descriptor.Level) ? TraceEvents::event.Write(__VA_ARGS__) : (void)0)

// trace.cpp: IRQL = PASSIVE. A system without event tracing is served without it.
void StartTracing(); // Owns: the registration until StopTracing
void StopTracing();
