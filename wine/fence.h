// fence.h - waits until what applications have asked for so far has reached the drivers.
//
// Closing a handle does not wait for the driver's close routine in this kernel: the request may come when the driver
// is no longer there. Requests are handed over one after the other, so one more that is waited for comes behind it.
#pragma once

// IRQL: PASSIVE_LEVEL. Fails: false, the device for it cannot be made or opened.
bool PassFence();
