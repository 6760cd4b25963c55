#include "NetworkDriver/FatalError.h"

#include <cstdlib>
#include <exception>
#include <string>

#include "Logging/Logger.h"
#include "NetworkDriver/Encoding.h"

namespace NativeNetworkDriver {

void LogFatalAndAbort() {
    std::string reason = "unknown exception";
    if (auto current = std::current_exception()) {
        try {
            std::rethrow_exception(current);
        } catch (const DecodingError& e) {
            reason = e.Message();  // what() would stop at a zero byte
        } catch (const std::exception& e) {
            reason = e.what();
        } catch (...) {
        }
    } else {
        reason = "terminate called without an active exception";
    }
    TorvUtils::Logger::Instance().WriteFatal("Fatal error, the process ends: " + reason);
    std::abort();
}

}  // namespace NativeNetworkDriver
