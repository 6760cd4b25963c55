#include "Platform/Events.h"

#include <windows.h>

#include <cstdint>

namespace Platform {

namespace {
HANDLE ToHandle(NdisApi::Handle h) { return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(h)); }
}  // namespace

NdisApi::Handle CreateAutoResetEvent() {
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    return static_cast<NdisApi::Handle>(reinterpret_cast<uintptr_t>(event));
}

bool SetEvent(NdisApi::Handle event) { return event != 0 && ::SetEvent(ToHandle(event)) != FALSE; }

bool CloseEvent(NdisApi::Handle event) { return event != 0 && CloseHandle(ToHandle(event)) != FALSE; }

int WaitAny(const NdisApi::Handle handles[2]) {
    HANDLE list[2] = {ToHandle(handles[0]), ToHandle(handles[1])};
    const DWORD result = WaitForMultipleObjects(2, list, FALSE, INFINITE);
    if (result == WAIT_OBJECT_0) return 0;
    if (result == WAIT_OBJECT_0 + 1) return 1;
    return -1;
}

}  // namespace Platform
