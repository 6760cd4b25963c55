#pragma once
// The packet-filter driver backends that the platform layer provides.
#include <functional>
#include <memory>
#include <string>

#include "FilterDriver/IFilterDriverApi.h"

namespace Platform {

// Receives the text of a failed kernel step; the process entry logs it at DEBUG. The
// platform layer reports, its callers decide where reports go.
using DiagnosticSink = std::function<void(const std::string& text)>;

// Linux: tunnel mode built from tcx programs and packet sockets, on the interfaces of
// the calling thread's network namespace. Defined only in the POSIX build.
std::unique_ptr<NativeNetworkDriver::IFilterDriverApi> CreateLinuxFilterDriverApi(DiagnosticSink diagnostics);

}  // namespace Platform
