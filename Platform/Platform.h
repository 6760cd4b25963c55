#pragma once
// The thin operating-system layer: everything here has one implementation per OS
// (Platform/posix, Platform/windows). The rest of the code base is portable C++.
#include <cstdint>
#include <string>

namespace Platform {

#ifdef _WIN32
inline constexpr char kPathSeparator = '\\';
#else
inline constexpr char kPathSeparator = '/';
#endif

// Millisecond tick counter, 32 bits wide; it wraps like the Windows counter, so
// callers compare ticks by unsigned subtraction.
uint32_t TickCount();

// Full path of the running executable.
std::string ExecutablePath();

// The machine-wide application-data folder, without a trailing separator.
std::string CommonAppDataFolder();

// Raises the process to high priority; failures are ignored.
void RaiseProcessPriority();

// Copies a line to the debugger output (standard error on POSIX).
void DebuggerOutput(const std::string& text);

// The executable's four-part file version.
struct FileVersion {
    enum class Status { Missing, HandleNotNull, Ok };
    Status status = Status::Missing;
    uint16_t major = 0, minor = 0, build = 0, revision = 0;
};
FileVersion QueryFileVersion();

// Last OS error code of the calling thread (GetLastError / errno).
int LastErrorCode();

}  // namespace Platform
