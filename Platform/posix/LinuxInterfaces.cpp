#include "Platform/posix/LinuxInterfaces.h"

#include <ifaddrs.h>
#include <linux/ethtool.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace Platform {
namespace {

// A datagram socket to carry interface ioctls; closed on scope exit.
class IoctlSocket {
public:
    IoctlSocket() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
    ~IoctlSocket() {
        if (fd_ >= 0) close(fd_);
    }
    IoctlSocket(const IoctlSocket&) = delete;
    IoctlSocket& operator=(const IoctlSocket&) = delete;
    int Get() const { return fd_; }

private:
    int fd_;
};

bool FillName(ifreq& request, const std::string& name) {
    std::memset(&request, 0, sizeof(request));
    if (name.empty() || name.size() >= sizeof(request.ifr_name)) return false;
    std::memcpy(request.ifr_name, name.data(), name.size());
    return true;
}

}  // namespace

std::vector<InterfaceInfo> ListInterfaces() {
    std::vector<InterfaceInfo> result;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return result;
    IoctlSocket sock;
    for (ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_PACKET || entry->ifa_name == nullptr) {
            continue;
        }
        const auto* link = reinterpret_cast<const sockaddr_ll*>(entry->ifa_addr);
        InterfaceInfo info;
        info.ifindex = link->sll_ifindex;
        info.name = entry->ifa_name;
        if (link->sll_halen == info.mac.size()) std::memcpy(info.mac.data(), link->sll_addr, info.mac.size());
        ifreq request;
        if (sock.Get() >= 0 && FillName(request, info.name) && ioctl(sock.Get(), SIOCGIFMTU, &request) == 0) {
            info.mtu = static_cast<uint32_t>(request.ifr_mtu);
        }
        result.push_back(std::move(info));
    }
    freeifaddrs(list);
    std::sort(result.begin(), result.end(),
              [](const InterfaceInfo& a, const InterfaceInfo& b) { return a.ifindex < b.ifindex; });
    return result;
}

std::string InterfaceName(int ifindex) {
    char name[IF_NAMESIZE] = {};
    if (ifindex <= 0 || if_indextoname(static_cast<unsigned>(ifindex), name) == nullptr) return {};
    return name;
}

bool InterfaceFlags(const std::string& name, unsigned& flags) {
    IoctlSocket sock;
    ifreq request;
    if (sock.Get() < 0 || !FillName(request, name)) return false;
    if (ioctl(sock.Get(), SIOCGIFFLAGS, &request) != 0) return false;
    flags = static_cast<unsigned short>(request.ifr_flags);
    return true;
}

}  // namespace Platform
