// fields.h - what the application is told: its queues and events, its switch of the analysis, in the shared records.
#pragma once

#include "control/requests.h"
#include "ground/frame.h"

enum {
    NOTIFY_QUEUE_SIZE = 1024,
    MACRO_QUEUE_SIZE = 1024,
};

struct NotifyFields {
    static const ULONG Place;

    SpinLock NotifyLock;
    PKEVENT pNotifyEvent GUARDED_BY(NotifyLock); // referenced
    ULONGLONG hNotifyEvent GUARDED_BY(NotifyLock);
    UCHAR ucReportProcessing; // (x)
    NotifyRecord NotifyQueue[NOTIFY_QUEUE_SIZE] GUARDED_BY(NotifyLock);
    ULONG ulNotifyWrite GUARDED_BY(NotifyLock);
    ULONG ulNotifyRead GUARDED_BY(NotifyLock);
    ULONG ulNotifyCount GUARDED_BY(NotifyLock);
};

struct EventGlobals {
    SpinLock EventLock; // the application event of the control device
    SpinLock MacroLock;
    PKEVENT pMacroEvent GUARDED_BY(MacroLock); // referenced
    ULONGLONG hMacroEvent GUARDED_BY(MacroLock);
    MacroRecord MacroQueue[MACRO_QUEUE_SIZE] GUARDED_BY(MacroLock);
    ULONG ulMacroWrite GUARDED_BY(MacroLock);
    ULONG ulMacroRead GUARDED_BY(MacroLock);
    ULONG ulMacroCount GUARDED_BY(MacroLock);
};

extern EventGlobals& GlobalEvents;
