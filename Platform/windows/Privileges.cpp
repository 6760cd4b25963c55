#include "Platform/Privileges.h"

#include <windows.h>

#include <vector>

namespace Platform {

// The daemon's work needs no token privilege: the packet-filter driver's device and the
// pipes are guarded by their ACLs, a high priority class needs none. Every privilege but
// SeChangeNotifyPrivilege (path traversal, which the C runtime relies on) is removed from
// the token, so no code running in the process can enable one again.
int DropPrivileges() {
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_ADJUST_PRIVILEGES, &token))
        return static_cast<int>(GetLastError());
    DWORD size = 0;
    GetTokenInformation(token, TokenPrivileges, nullptr, 0, &size);
    std::vector<BYTE> data(size);
    int error = 0;
    if (size == 0 || !GetTokenInformation(token, TokenPrivileges, data.data(), size, &size)) {
        error = static_cast<int>(GetLastError());
    } else {
        auto* privileges = reinterpret_cast<TOKEN_PRIVILEGES*>(data.data());
        LUID changeNotify{};
        LookupPrivilegeValueA(nullptr, "SeChangeNotifyPrivilege", &changeNotify);
        DWORD kept = 0;
        for (DWORD i = 0; i < privileges->PrivilegeCount; ++i) {
            const LUID id = privileges->Privileges[i].Luid;
            if (id.LowPart == changeNotify.LowPart && id.HighPart == changeNotify.HighPart) continue;
            privileges->Privileges[kept].Luid = id;
            privileges->Privileges[kept].Attributes = SE_PRIVILEGE_REMOVED;
            ++kept;
        }
        privileges->PrivilegeCount = kept;
        // AdjustTokenPrivileges reports a partial change through ERROR_NOT_ALL_ASSIGNED.
        if (kept != 0 && (!AdjustTokenPrivileges(token, FALSE, privileges, 0, nullptr, nullptr) ||
                          GetLastError() != ERROR_SUCCESS))
            error = static_cast<int>(GetLastError());
    }
    CloseHandle(token);
    return error;
}

}  // namespace Platform
