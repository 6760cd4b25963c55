// Process entry: high priority, the log, then one NetworkDriver for the life of the pipes.
#include <cstdlib>
#include <exception>
#include <string>

#include "FilterDriver/IFilterDriverApi.h"
#include "Logging/BrandInfo.h"
#include "Logging/Logger.h"
#include "NetworkDriver/NetworkDriver.h"
#include "Platform/Platform.h"

#ifdef _WIN32
#include <windows.h>

#include "Platform/FilterDriverBackendWindows.h"
#else
#include "Platform/FilterDriverBackend.h"
#endif

namespace {

// A malformed control payload ends the process through an uncaught exception; leave one
// line in the log that says why.
[[noreturn]] void LogFatalAndAbort() {
    std::string reason = "unknown exception";
    if (auto current = std::current_exception()) {
        try {
            std::rethrow_exception(current);
        } catch (const std::exception& e) {
            reason = e.what();
        } catch (...) {
        }
    } else {
        reason = "terminate called without an active exception";
    }
    Log("Fatal error, the process ends: " + reason, 2);
    std::abort();
}

void InitializeLogging() {
    std::string directory;
    try {
        directory = TorvUtils::BrandInfo().logDirectory;
        TorvUtils::CreateDirectoryChain(directory);
    } catch (...) {
        directory.clear();
    }
    auto& logger = TorvUtils::Logger::Instance();
    logger.SetPrefix("NetworkDriver_log_");
    logger.SetDirectory(directory);
    logger.SetThreshold(2);
}

int Run() {
#ifdef _WIN32
    // No window and nobody to click: the C runtime's abort message must not become a
    // message box that holds the process, so it goes to standard error.
    _set_error_mode(_OUT_TO_STDERR);
#endif
    std::set_terminate(LogFatalAndAbort);
    Platform::RaiseProcessPriority();
    InitializeLogging();
#ifdef _WIN32
    NativeNetworkDriver::SetFilterDriverApiFactory(Platform::CreateWindowsFilterDriverApi);
#else
    NativeNetworkDriver::SetFilterDriverApiFactory(Platform::CreateLinuxFilterDriverApi);
#endif
    {
        NativeNetworkDriver::NetworkDriver driver;
    }
    return 0;
}

}  // namespace

#ifdef _WIN32
int WINAPI WinMain(HINSTANCE, HINSTANCE, LPSTR, int) { return Run(); }
#else
int main() { return Run(); }
#endif
