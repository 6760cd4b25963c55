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

bool Ethtool(int fd, const std::string& name, void* data) {
    ifreq request;
    if (!FillName(request, name)) return false;
    request.ifr_data = static_cast<char*>(data);
    return ioctl(fd, SIOCETHTOOL, &request) >= 0;  // SFEATURES answers with positive notes
}

struct Features {
    std::vector<std::string> names;
    std::vector<ethtool_get_features_block> blocks;
};

// The device's feature names and their state (ETHTOOL_GSTRINGS of ETH_SS_FEATURES, ETHTOOL_GFEATURES).
bool ReadFeatures(int fd, const std::string& name, Features& out) {
    // struct ethtool_sset_info with one data word.
    uint64_t info[3] = {};
    const uint32_t infoCommand = ETHTOOL_GSSET_INFO;
    const uint64_t mask = 1ull << ETH_SS_FEATURES;
    std::memcpy(info, &infoCommand, sizeof(infoCommand));
    std::memcpy(&info[1], &mask, sizeof(mask));
    if (!Ethtool(fd, name, info)) return false;
    uint64_t returnedMask = 0;
    std::memcpy(&returnedMask, &info[1], sizeof(returnedMask));
    if ((returnedMask & mask) == 0) return false;
    uint32_t count = 0;
    std::memcpy(&count, &info[2], sizeof(count));
    if (count == 0 || count > 4096) return false;

    std::vector<uint64_t> strings((sizeof(ethtool_gstrings) + static_cast<size_t>(count) * ETH_GSTRING_LEN + 7) / 8);
    ethtool_gstrings header{ETHTOOL_GSTRINGS, ETH_SS_FEATURES, count};
    std::memcpy(strings.data(), &header, sizeof(header));
    if (!Ethtool(fd, name, strings.data())) return false;
    const auto* text = reinterpret_cast<const char*>(strings.data()) + sizeof(ethtool_gstrings);
    out.names.clear();
    for (uint32_t i = 0; i < count; ++i) {
        const char* entry = text + static_cast<size_t>(i) * ETH_GSTRING_LEN;
        out.names.emplace_back(entry, strnlen(entry, ETH_GSTRING_LEN));
    }

    const uint32_t blocks = (count + 31) / 32;
    std::vector<uint32_t> features(2 + static_cast<size_t>(blocks) * 4);
    features[0] = ETHTOOL_GFEATURES;
    features[1] = blocks;
    if (!Ethtool(fd, name, features.data())) return false;
    out.blocks.resize(blocks);
    std::memcpy(out.blocks.data(), features.data() + 2, static_cast<size_t>(blocks) * sizeof(ethtool_get_features_block));
    return true;
}

bool WriteFeatures(int fd, const std::string& name, const std::vector<ethtool_set_features_block>& blocks) {
    std::vector<uint32_t> request(2 + blocks.size() * 2);
    request[0] = ETHTOOL_SFEATURES;
    request[1] = static_cast<uint32_t>(blocks.size());
    std::memcpy(request.data() + 2, blocks.data(), blocks.size() * sizeof(ethtool_set_features_block));
    return Ethtool(fd, name, request.data());
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

bool IsAggregatingOffload(const std::string& n) {
    const std::string suffix = "-segmentation";
    const bool tcpSegmentation = n.rfind("tx-tcp", 0) == 0 && n.size() > suffix.size() &&
                                 n.compare(n.size() - suffix.size(), suffix.size(), suffix) == 0;
    return tcpSegmentation || n == "tx-generic-segmentation" || n == "tx-udp-segmentation" || n == "rx-gro" ||
           n == "rx-gro-hw" || n == "rx-gro-list" || n == "rx-lro";
}

bool DisableOffloads(const std::string& name, OffloadState& state) {
    state.saved.clear();
    IoctlSocket sock;
    Features features;
    if (sock.Get() < 0 || !ReadFeatures(sock.Get(), name, features)) return false;
    std::vector<ethtool_set_features_block> change(features.blocks.size());
    for (uint32_t i = 0; i < features.names.size(); ++i) {
        const ethtool_get_features_block& block = features.blocks[i / 32];
        const uint32_t bit = 1u << (i % 32);
        if (!IsAggregatingOffload(features.names[i]) || !(block.available & bit) || (block.never_changed & bit)) continue;
        state.saved.emplace_back(i, (block.requested & bit) != 0);
        change[i / 32].valid |= bit;
    }
    return state.saved.empty() || WriteFeatures(sock.Get(), name, change);
}

bool RestoreOffloads(const std::string& name, const OffloadState& state) {
    if (state.saved.empty()) return true;
    IoctlSocket sock;
    if (sock.Get() < 0) return false;
    uint32_t highest = 0;
    for (const auto& entry : state.saved) highest = std::max(highest, entry.first);
    std::vector<ethtool_set_features_block> change(highest / 32 + 1);
    for (const auto& [index, requested] : state.saved) {
        const uint32_t bit = 1u << (index % 32);
        change[index / 32].valid |= bit;
        if (requested) change[index / 32].requested |= bit;
    }
    return WriteFeatures(sock.Get(), name, change);
}

}  // namespace Platform
