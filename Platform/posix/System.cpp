#include "Platform/Platform.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace Platform {

uint32_t TickCount() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const uint64_t ms = static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
    return static_cast<uint32_t>(ms);
}

std::string ExecutablePath() {
    char path[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n <= 0) return {};
    return std::string(path, static_cast<size_t>(n));
}

std::string CommonAppDataFolder() {
    const char* dir = std::getenv("NETWORKDRIVER_APPDATA_DIR");
    std::string folder = (dir != nullptr && *dir != '\0') ? dir : "/var/lib";
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    return folder;
}

void RaiseProcessPriority() {
    (void)setpriority(PRIO_PROCESS, 0, -10);
}

void DebuggerOutput(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

FileVersion QueryFileVersion() {
    FileVersion v;
    v.status = FileVersion::Status::Ok;
    v.major = ND_VERSION_MAJOR;
    v.minor = ND_VERSION_MINOR;
    v.build = ND_VERSION_BUILD;
    v.revision = ND_VERSION_REVISION;
    return v;
}

int LastErrorCode() { return errno; }

}  // namespace Platform
