#include "Platform/Privileges.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace Platform {

namespace {

// What the running daemon uses, and nothing else (each was found missing by a test):
//  CAP_NET_ADMIN         tcx programs and links, SO_MARK, interface offload settings
//  CAP_BPF               loading the tcx programs
//  CAP_NET_RAW           packet sockets for capture and injection
//  CAP_NET_BIND_SERVICE  port pools that hold published ports below 1024
constexpr int kKept[] = {CAP_NET_ADMIN, CAP_BPF, CAP_NET_RAW, CAP_NET_BIND_SERVICE};

// The raw system calls: the daemon needs no capability library for two words of bits.
int CapGet(__user_cap_data_struct (&data)[2]) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    return static_cast<int>(syscall(SYS_capget, &header, data));
}
int CapSet(__user_cap_data_struct (&data)[2]) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    return static_cast<int>(syscall(SYS_capset, &header, data));
}

}  // namespace

int DropPrivileges() {
    // No later exec can give anything back (set-uid files, file capabilities).
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return errno;

    __user_cap_data_struct data[2] = {};
    if (CapGet(data) != 0) return errno;
    const uint64_t permitted = static_cast<uint64_t>(data[0].permitted) | static_cast<uint64_t>(data[1].permitted) << 32;
    uint64_t keep = 0;
    for (int cap : kKept) keep |= uint64_t{1} << cap;
    keep &= permitted;  // a daemon started without some of them cannot gain them

    // The bounding set first: dropping from it needs CAP_SETPCAP, which goes with the rest.
    // Without CAP_SETPCAP (an unprivileged start) there is nothing in reach to drop.
    for (int cap = 0; cap < 64; ++cap) {
        if ((keep >> cap) & 1) continue;
        const int inSet = prctl(PR_CAPBSET_READ, cap, 0, 0, 0);
        if (inSet < 0) break;  // past the kernel's last capability
        if (inSet == 1 && prctl(PR_CAPBSET_DROP, cap, 0, 0, 0) != 0 && errno != EPERM) return errno;
    }
    if (prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) != 0 && errno != EINVAL) return errno;

    for (int i = 0; i < 2; ++i) {
        data[i].effective = data[i].permitted = static_cast<uint32_t>(keep >> (32 * i));
        data[i].inheritable = 0;
    }
    if (CapSet(data) != 0) return errno;
    return 0;
}

}  // namespace Platform
