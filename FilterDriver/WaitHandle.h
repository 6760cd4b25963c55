#pragma once
// Event wrappers for the capture and dispatch threads, which wait on a "quit" and a
// "work" handle together.
#include "Platform/NdisApiTypes.h"

// A waitable handle that it does not own: destruction leaves the handle open, because
// the capture thread wraps the driver client's packet event this way.
class WaitHandle {
public:
    explicit WaitHandle(NdisApi::Handle handle = 0) : handle_(handle) {}
    virtual ~WaitHandle() = default;

    WaitHandle(const WaitHandle&) = delete;
    WaitHandle& operator=(const WaitHandle&) = delete;

    virtual bool Close() { return false; }
    virtual bool IsValid() const { return handle_ != 0; }

    NdisApi::Handle Handle() const { return handle_; }

protected:
    NdisApi::Handle handle_;
};

class EventBase : public WaitHandle {
public:
    using WaitHandle::WaitHandle;
};

// An unnamed auto-reset event, not signalled at first. Its owner closes it with Close();
// the destructor does not.
class AutoResetEvent : public EventBase {
public:
    AutoResetEvent();
    bool Close() override;
};

// Waits without time-out until one of the two handles is signalled and returns its index;
// index 0 has priority. Throws std::runtime_error("wait failed") when the wait fails.
int WaitAny(WaitHandle* const handles[2]);
