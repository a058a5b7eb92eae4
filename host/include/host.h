// host.h - the host's own side: what an application, a tool or a test says to it.
//
// HostStart brings up a system without drivers; HostLoadDriver, HostAddDevice and HostSendPnp bring a
// driver and its devices to life; HostOpen, HostDeviceControl and the events are an application's side.
//
// Simulated mode: threads take turns, exactly one runs, and the clock is virtual (0 at start). Timers
// expire only when the clock moves: HostAdvanceToUs moves it, and so does the scheduler when every
// thread waits. The same calls give the same run, always. A wait that nothing can end stops the run.
// With a seed, the seed chooses at every kernel call and shared access who runs next, on three processors:
// the same seed gives the same run.
// Threaded mode: threads run freely, the clock is real.
//
// With the environment's TV64USB_TRACE=LEVEL, 1 to 5, the events that drivers trace up to this level are printed
// on standard error, a line each.
//
// A broken rule prints "HOST STOP <CODE>: <what>" on standard error and aborts.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <kernel.h>

enum HostMode { HostSimulated, HostThreaded };

struct HostOptions {
    HostMode Mode = HostSimulated;
    std::string RegistryText;    // .reg text that the registry starts with
    unsigned long long Seed = 0; // simulated mode: 0, or what chooses who runs next
    std::string DroppedLock; // a spin lock or mutex that protects nothing in this run, by its field's name
    // Plug and Play notifications that were queued, or run, when a driver unregisters reach it afterwards.
    bool bLateNotifications = false;
    ULONG_PTR ulFirstHandle = 4; // a multiple of 4; the following handles count up from it
    std::string FileRoot;        // the folder that holds C:\ and \SystemRoot; empty: no such files
};

// Starts the host; the calling thread becomes its first thread.
void HostStart(const HostOptions& options);
// Ends the host. Returns the number of things that were left behind, each printed on standard error.
unsigned HostStop();

// Creates the driver object, calls DriverEntry with the service's key path. A failed entry is audited,
// its driver object is gone, its status returned.
NTSTATUS HostLoadDriver(PDRIVER_INITIALIZE pEntry, const WCHAR* pServiceName, PDRIVER_OBJECT* ppDriver);
// Calls DriverUnload and audits what the driver still owns. Returns the number of such things.
unsigned HostUnloadDriver(PDRIVER_OBJECT pDriver);
// Calls the driver's AddDevice routine.
NTSTATUS HostAddDevice(PDRIVER_OBJECT pDriver, PDEVICE_OBJECT pPhysical);
// Sends a Plug and Play or power request to the top of the device's stack and waits for its completion.
NTSTATUS HostSendPnp(PDEVICE_OBJECT pInStack, UCHAR ucMinor);
NTSTATUS HostSendPower(PDEVICE_OBJECT pInStack, UCHAR ucMinor);
// What IoGetDeviceProperty answers for this device; null data takes the property away.
void HostSetDeviceProperty(PDEVICE_OBJECT pPhysical, DEVICE_REGISTRY_PROPERTY property, const void* pData,
                           ULONG ulBytes);

typedef struct HostOpenFile* HostFile;
// Opens a device by name ("\\.\X", "\??\X", "\DosDevices\X", "\Device\X", an interface's link).
NTSTATUS HostOpen(const WCHAR* pName, HostFile* pFile);
// Sends cleanup, then close.
void HostClose(HostFile file);
// Sends a device control request and waits for it. Bytes beyond *pulInformation stay untouched.
NTSTATUS HostDeviceControl(HostFile file, ULONG ulCode, const void* pIn, ULONG ulIn, void* pOut, ULONG ulOut,
                           ULONG* pulInformation);
// This thread belongs to a 32-bit process from now on.
void HostSetCaller32(bool b32);

HANDLE HostCreateEvent(bool bManualReset, ACCESS_MASK rights = EVENT_ALL_ACCESS);
// True if the event is signalled; clears an auto-reset event.
bool HostTakeEvent(HANDLE h);
// STATUS_SUCCESS, STATUS_TIMEOUT, or STATUS_USER_APC after HostEndThreadWaits. A negative time: no limit.
NTSTATUS HostWaitEvent(HANDLE h, LONGLONG llTimeoutUs);
void HostCloseHandle(HANDLE h);

unsigned long long HostNowUs();
// Moves the clock, expiring what becomes due in order; everything runnable runs before and after each step.
void HostAdvanceToUs(unsigned long long ullUs);
// Simulated: moves the clock to the first timer or timed wait due until then, expires it alone and runs what
// it causes; false if nothing is due.
bool HostExpireNext(unsigned long long ullUs);
// The time at which the next timer or timed wait is due; false if there is none.
bool HostNextTimerUs(unsigned long long* pullUs);
// A sum over all choices of who ran so far: equal for equal runs.
unsigned long long HostScheduleDigest();
// Runs everything runnable now (DPCs, work items, woken threads) without moving the clock.
void HostSettle();

typedef struct HostThreadObject* HostThread;
// A thread of the application. Stack bytes 0: the default size.
HostThread HostStartThread(std::function<void()> body, size_t stackBytes = 0);
void HostJoinThread(HostThread t);
// Stops the thread as a debugger does, in its next wait or where it leaves its last critical region; lets it go on.
// Simulated mode only.
void HostSuspendThread(HostThread t);
void HostResumeThread(HostThread t);
// Ends the thread's UserMode waits and cancels its requests, as the end of its process does.
void HostEndThreadWaits(HostThread t);

// The Nth fallible call from now on fails (of the kind pWhat: "pool", "irp", "device", ...; nullptr: any); 0:
// none. With bFromThenOn all that follow it fail too. Kinds: pool, mdl, map, irp, lower (a request that one
// driver sends to another), workitem, thread, handle, device, attach, link, security, open, interface,
// notification, property, routine, trace, wdm, key, value, flush, file, read, write, fileinfo.
void HostFailNth(const char* pWhat, unsigned ulNth, bool bFromThenOn = false);
// Told of each call that fails so, before it returns: the service and what it was about, as
// "ExAllocatePoolWithTag, 64 bytes of 'Tv64'".
void HostListenToFailures(std::function<void(const std::string& call)> told);
// Only calls made by this driver's code are counted and fail; nullptr: everybody's.
void HostFailOnlyIn(const WCHAR* pServiceName);
// How many calls could have failed since HostFailNth was called last; of each kind, whatever its pWhat.
unsigned HostFallibleCalls();
std::map<std::string, unsigned> HostFallibleByKind();

// One traced event: what its provider and it say of themselves, and the values of its fields. Of a provider that
// could not set its traits, all three lie in Data, in this order.
struct HostTraceEvent {
    EVENT_DESCRIPTOR Descriptor;
    std::vector<UCHAR> Traits;
    std::vector<UCHAR> Metadata;
    std::vector<UCHAR> Data;
};
// One field of it: a number, or bytes (of a text its characters); and the value as it is printed, empty when its type
// is not known.
struct HostTraceField {
    std::string Name;
    ULONGLONG ullNumber = 0;
    std::vector<UCHAR> Bytes;
    std::string Text;
};
struct HostTraceContent {
    std::string Provider, Name;
    std::vector<HostTraceField> Fields;
    bool bCut = false; // what it says of itself ends too early
};
// Reads an event by what it says of itself; addresses are told by the numbers that the caller gives them.
HostTraceContent HostReadTrace(const HostTraceEvent& event,
                               const std::function<unsigned(ULONGLONG)>& numberOf);
// Called by whoever writes an event, on its thread at its IRQL.
using HostTraceConsumer = std::function<void(const HostTraceEvent&)>;
// Begins a tracing session: the provider's events up to this level (0: all), of one of the keywords ullAny (0:
// any) and all of ullAll, from now on, whether the provider is registered or will be. Returns its number.
unsigned HostTrace(const GUID& provider, UCHAR ucLevel, ULONGLONG ullAny, ULONGLONG ullAll,
                   HostTraceConsumer consumer);
void HostEndTrace(unsigned uSession);

// Data that a driver gave to somebody, for the comparison of two runs; the host tells what it sees by itself, see
// host/unwritten.cpp.
void HostTellOutput(const char* pWhat, const void* pData, size_t bytes);

// The registry as .reg text: as it is, and as a system that stops now would find it again.
std::string HostRegistryText();
std::string HostFlushedRegistryText();
