// Process entry: high priority, the log, then one NetworkDriver for the life of the pipes.
#include <exception>
#include <string>

#include "FilterDriver/IFilterDriverApi.h"
#include "Logging/BrandInfo.h"
#include "Logging/Logger.h"
#include "NetworkDriver/FatalError.h"
#include "NetworkDriver/NetworkDriver.h"
#include "Platform/Platform.h"
#include "Platform/Privileges.h"

#ifdef _WIN32
#include <windows.h>

#include "Platform/FilterDriverBackendWindows.h"
#else
#include "Platform/FilterDriverBackend.h"
#endif

namespace {

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
    std::set_terminate(NativeNetworkDriver::LogFatalAndAbort);
    Platform::RaiseProcessPriority();
    InitializeLogging();
    // Priority and the log folder were the steps that needed full privilege; no thread
    // has been started yet, so what is dropped here is dropped for the whole process.
    if (const int error = Platform::DropPrivileges(); error != 0)
        Log("Dropping privileges failed, error code: " + std::to_string(error), LogLevel::Error);
#ifdef _WIN32
    NativeNetworkDriver::SetFilterDriverApiFactory(Platform::CreateWindowsFilterDriverApi);
#else
    NativeNetworkDriver::SetFilterDriverApiFactory([] {
        return Platform::CreateLinuxFilterDriverApi([](const std::string& text) { Log(text, LogLevel::Debug); });
    });
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
