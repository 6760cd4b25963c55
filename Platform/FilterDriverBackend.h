#pragma once
// The packet-filter driver backends that the platform layer provides.
#include <memory>

#include "FilterDriver/IFilterDriverApi.h"

namespace Platform {

// Linux: tunnel mode built from tcx programs and packet sockets, on the interfaces of
// the calling thread's network namespace. Defined only in the POSIX build.
std::unique_ptr<NativeNetworkDriver::IFilterDriverApi> CreateLinuxFilterDriverApi();

}  // namespace Platform
