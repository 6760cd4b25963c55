#pragma once
// Auto-reset events and the two-handle wait of the capture and dispatch threads.
// Windows: event objects. POSIX: eventfd descriptors; the wait also accepts any other
// pollable descriptor (the Linux driver backend's packet event is an epoll descriptor).
#include "Platform/NdisApiTypes.h"

namespace Platform {

// A new unnamed auto-reset event, not signalled; 0 on failure.
NdisApi::Handle CreateAutoResetEvent();

// Signals the event; it stays signalled until one wait consumes it.
bool SetEvent(NdisApi::Handle event);

// Releases the event; false when there was nothing to release or the OS refused.
bool CloseEvent(NdisApi::Handle event);

// Blocks until one of the two handles is signalled and returns its index; index 0 wins
// when both are. A signalled auto-reset event is reset by the wait that reports it.
// -1 when the wait itself fails (bad handle).
int WaitAny(const NdisApi::Handle handles[2]);

}  // namespace Platform
