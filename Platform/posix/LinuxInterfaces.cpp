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

int GetEthtoolValue(int fd, const std::string& name, uint32_t command) {
    ifreq request;
    if (!FillName(request, name)) return -1;
    ethtool_value value{};
    value.cmd = command;
    request.ifr_data = reinterpret_cast<char*>(&value);
    if (ioctl(fd, SIOCETHTOOL, &request) != 0) return -1;
    return value.data != 0 ? 1 : 0;
}

bool SetEthtoolValue(int fd, const std::string& name, uint32_t command, int on) {
    ifreq request;
    if (!FillName(request, name)) return false;
    ethtool_value value{};
    value.cmd = command;
    value.data = on != 0 ? 1 : 0;
    request.ifr_data = reinterpret_cast<char*>(&value);
    return ioctl(fd, SIOCETHTOOL, &request) == 0;
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

OffloadState GetOffloads(const std::string& name) {
    OffloadState state;
    IoctlSocket sock;
    if (sock.Get() < 0) return state;
    state.tso = GetEthtoolValue(sock.Get(), name, ETHTOOL_GTSO);
    state.gso = GetEthtoolValue(sock.Get(), name, ETHTOOL_GGSO);
    state.gro = GetEthtoolValue(sock.Get(), name, ETHTOOL_GGRO);
    return state;
}

bool SetOffloads(const std::string& name, const OffloadState& state) {
    IoctlSocket sock;
    if (sock.Get() < 0) return false;
    bool ok = true;
    if (state.tso >= 0) ok = SetEthtoolValue(sock.Get(), name, ETHTOOL_STSO, state.tso) && ok;
    if (state.gso >= 0) ok = SetEthtoolValue(sock.Get(), name, ETHTOOL_SGSO, state.gso) && ok;
    if (state.gro >= 0) ok = SetEthtoolValue(sock.Get(), name, ETHTOOL_SGRO, state.gro) && ok;
    return ok;
}

}  // namespace Platform
