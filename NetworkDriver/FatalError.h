#pragma once

namespace NativeNetworkDriver {

// The terminate handler of the process. A malformed control payload ends the process
// through an uncaught exception; this leaves one ERROR line that says why, then aborts.
// It never waits long for the logger, even when the failure happened inside a log write.
[[noreturn]] void LogFatalAndAbort();

}  // namespace NativeNetworkDriver
