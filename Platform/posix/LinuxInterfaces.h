#pragma once
// Network interfaces of the calling thread's network namespace: listing, flags, and the
// segmentation offloads that tunnel mode turns off.
#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Platform {

struct InterfaceInfo {
    int ifindex = 0;
    std::string name;
    std::array<uint8_t, 6> mac{};
    uint32_t mtu = 0;
};

// Every interface, ordered by ifindex.
std::vector<InterfaceInfo> ListInterfaces();

// ifindex -> name; empty when there is no such interface.
std::string InterfaceName(int ifindex);

// SIOCGIFFLAGS; false when the interface is gone.
bool InterfaceFlags(const std::string& name, unsigned& flags);


}  // namespace Platform
