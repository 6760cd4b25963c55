#pragma once
#include <memory>

#include "FilterDriver/IFilterDriverApi.h"

namespace Platform {

// The packet-filter driver client over ndisapi.dll, loaded at run time. A missing DLL, a
// missing export or a driver that does not open reads as "driver not loaded".
std::unique_ptr<NativeNetworkDriver::IFilterDriverApi> CreateWindowsFilterDriverApi();

}  // namespace Platform
