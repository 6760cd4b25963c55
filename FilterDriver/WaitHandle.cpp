#include "FilterDriver/WaitHandle.h"

#include <stdexcept>

#include "Platform/Events.h"

AutoResetEvent::AutoResetEvent() : EventBase(Platform::CreateAutoResetEvent()) {}

bool AutoResetEvent::Close() {
    if (!IsValid()) return false;
    const bool closed = Platform::CloseEvent(handle_);
    handle_ = 0;
    return closed;
}

int WaitAny(WaitHandle* const handles[2]) {
    const NdisApi::Handle list[2] = {handles[0] != nullptr ? handles[0]->Handle() : 0,
                                     handles[1] != nullptr ? handles[1]->Handle() : 0};
    const int index = Platform::WaitAny(list);
    if (index != 0 && index != 1) throw std::runtime_error("wait failed");
    return index;
}
