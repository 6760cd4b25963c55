#pragma once
// Network interfaces of the calling thread's network namespace: listing, flags, and the
// segmentation offloads that tunnel mode turns off.
#include <array>
#include <cstdint>
#include <string>
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

// TCP segmentation, generic segmentation and generic receive offload; -1 = unknown.
struct OffloadState {
    int tso = -1;
    int gso = -1;
    int gro = -1;
};

OffloadState GetOffloads(const std::string& name);
// Sets the known entries of state; false when any of them was refused.
bool SetOffloads(const std::string& name, const OffloadState& state);

}  // namespace Platform
