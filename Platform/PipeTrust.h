#pragma once
// Who may be the server end of the control pipes. The daemon runs with the highest
// privileges and obeys whoever serves its pipes, so it talks only to a server that is as
// privileged as itself. The decisions are pure functions of facts the OS layer gathers,
// so both platforms' rules are tested anywhere. Each returns the reason for refusal, or
// an empty string when the server is trusted.
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace Platform {

// POSIX: the folder that holds the pipe sockets. Only its owner may place sockets there,
// so it must be root's or the daemon's own and closed to group and others.
inline std::string PipeFolderDistrust(uint32_t ownerUid, uint32_t mode, uint32_t selfUid) {
    if (ownerUid != 0 && ownerUid != selfUid) return "folder owned by user " + std::to_string(ownerUid);
    constexpr uint32_t kGroupOrOthersWrite = 0022;
    if ((mode & kGroupOrOthersWrite) != 0) {
        char octal[8];
        std::snprintf(octal, sizeof(octal), "%04o", static_cast<unsigned>(mode & 07777));
        return std::string("folder writable by group or others (mode ") + octal + ")";
    }
    return {};
}

// POSIX: the credentials of the process that listens on the socket (SO_PEERCRED).
inline std::string PipePeerDistrust(uint32_t peerUid, uint32_t selfUid) {
    if (peerUid != 0 && peerUid != selfUid) return "server runs as user " + std::to_string(peerUid);
    return {};
}

// Windows: the token of the pipe server's process, SIDs in their string form.
struct TokenGroup {
    std::string sid;
    uint32_t attributes = 0;  // SE_GROUP_* bits
};
struct PipeServerToken {
    std::string userSid;
    std::vector<TokenGroup> groups;
};

inline constexpr const char* kLocalSystemSid = "S-1-5-18";
inline constexpr const char* kAdministratorsSid = "S-1-5-32-544";
inline constexpr uint32_t kGroupEnabled = 0x4;        // SE_GROUP_ENABLED
inline constexpr uint32_t kGroupDenyOnly = 0x10;      // SE_GROUP_USE_FOR_DENY_ONLY

// Trusted: LocalSystem, an enabled Administrators membership (a filtered, non-elevated
// token carries it as deny-only, which does not count), or the daemon's own user.
inline std::string PipeServerDistrust(const PipeServerToken& server, const std::string& ownUserSid) {
    if (server.userSid == kLocalSystemSid) return {};
    if (!ownUserSid.empty() && server.userSid == ownUserSid) return {};
    for (const TokenGroup& group : server.groups) {
        if (group.sid == kAdministratorsSid && (group.attributes & kGroupEnabled) != 0 &&
            (group.attributes & kGroupDenyOnly) == 0)
            return {};
    }
    return "server runs as " + (server.userSid.empty() ? std::string("an unknown user") : server.userSid) +
           ", neither LocalSystem, an administrator nor this process's user";
}

}  // namespace Platform
