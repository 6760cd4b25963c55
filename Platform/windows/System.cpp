#include "Platform/Platform.h"

#include <windows.h>
#include <shlobj.h>

#include <vector>

namespace Platform {

uint32_t TickCount() { return static_cast<uint32_t>(GetTickCount()); }

std::string ExecutablePath() {
    char path[MAX_PATH] = {};
    const DWORD n = GetModuleFileNameA(nullptr, path, MAX_PATH);
    return std::string(path, n);
}

std::string CommonAppDataFolder() {
    char buffer[MAX_PATH] = {};
    SHGetSpecialFolderPathA(nullptr, buffer, CSIDL_COMMON_APPDATA, FALSE);
    return buffer;
}

void RaiseProcessPriority() { SetPriorityClass(GetCurrentProcess(), HIGH_PRIORITY_CLASS); }

void DebuggerOutput(const std::string& text) { OutputDebugStringA(text.c_str()); }

FileVersion QueryFileVersion() {
    FileVersion v;
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    DWORD handle = 0;
    const DWORD size = GetFileVersionInfoSizeA(path, &handle);
    if (size == 0) return v;
    if (handle != 0) {
        v.status = FileVersion::Status::HandleNotNull;
        return v;
    }
    std::vector<char> block(size);
    if (!GetFileVersionInfoA(path, 0, size, block.data())) return v;
    VS_FIXEDFILEINFO* info = nullptr;
    UINT length = 0;
    if (!VerQueryValueA(block.data(), "\\", reinterpret_cast<void**>(&info), &length) || info == nullptr ||
        length == 0 || info->dwSignature != 0xFEEF04BD)
        return v;
    v.status = FileVersion::Status::Ok;
    v.major = HIWORD(info->dwFileVersionMS);
    v.minor = LOWORD(info->dwFileVersionMS);
    v.build = HIWORD(info->dwFileVersionLS);
    v.revision = LOWORD(info->dwFileVersionLS);
    return v;
}

int LastErrorCode() { return static_cast<int>(GetLastError()); }

}  // namespace Platform
