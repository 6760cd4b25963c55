// Linux adapters: the interfaces of this network namespace.
#include "SystemAdapters.h"

#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace ndpeer {

using NativeNetworkDriver::Bytes;

Bytes InterfaceGuid(const std::string& interfaceName) {
    Bytes guid(16, 0);
    for (size_t i = 0; i < interfaceName.size() && i < 16; ++i) guid[i] = static_cast<uint8_t>(interfaceName[i]);
    return guid;
}

namespace {

// The default gateway of the interface, from /proc/net/route (little-endian hex fields).
Bytes DefaultGateway(const std::string& name) {
    std::ifstream routes("/proc/net/route");
    std::string line;
    std::getline(routes, line);
    while (std::getline(routes, line)) {
        std::istringstream fields(line);
        std::string iface, destination, gateway;
        fields >> iface >> destination >> gateway;
        if (iface != name || destination != "00000000") continue;
        const uint32_t value = static_cast<uint32_t>(std::stoul(gateway, nullptr, 16));
        return Bytes{static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value >> 16),
                     static_cast<uint8_t>(value >> 24)};
    }
    return {};
}

Bytes NeighbourMac(const std::string& name, const Bytes& ip) {
    if (ip.size() != 4) return {};
    const std::string dotted = NativeNetworkDriver::FormatIp(ip);
    std::ifstream arp("/proc/net/arp");
    std::string line;
    std::getline(arp, line);
    while (std::getline(arp, line)) {
        std::istringstream fields(line);
        std::string address, hwType, flags, mac, mask, device;
        fields >> address >> hwType >> flags >> mac >> mask >> device;
        if (address == dotted && device == name && flags != "0x0") return ParseMac(mac);
    }
    return {};
}

}  // namespace

NativeNetworkDriver::AdapterInfo ReadAdapter(const std::string& name) {
    if (if_nametoindex(name.c_str()) == 0) throw std::invalid_argument("no network interface named \"" + name + "\"");
    NativeNetworkDriver::AdapterInfo info;
    info.ID = NativeNetworkDriver::FormatGuid(InterfaceGuid(name));
    info.name = name;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) throw std::runtime_error("getifaddrs failed");
    for (ifaddrs* a = list; a != nullptr; a = a->ifa_next) {
        if (a->ifa_addr == nullptr || name != a->ifa_name) continue;
        if (a->ifa_addr->sa_family == AF_PACKET) {
            const auto* ll = reinterpret_cast<const sockaddr_ll*>(a->ifa_addr);
            info.MAC.assign(ll->sll_addr, ll->sll_addr + 6);
        } else if (a->ifa_addr->sa_family == AF_INET && a->ifa_netmask != nullptr) {
            const auto* address = reinterpret_cast<const uint8_t*>(&reinterpret_cast<sockaddr_in*>(a->ifa_addr)->sin_addr);
            const auto* mask = reinterpret_cast<const uint8_t*>(&reinterpret_cast<sockaddr_in*>(a->ifa_netmask)->sin_addr);
            info.IPs.push_back({Bytes(address, address + 4), Bytes(mask, mask + 4)});
        }
    }
    freeifaddrs(list);
    info.GWIP = DefaultGateway(name);
    info.GWMAC = NeighbourMac(name, info.GWIP);
    return info;
}

}  // namespace ndpeer
