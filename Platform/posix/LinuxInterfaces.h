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

// The offloads that make frames larger than the wire's: every TCP segmentation flavour,
// generic and UDP segmentation, and the receive-side aggregations (GRO, hardware GRO,
// GRO lists, LRO). Holds what each changed feature was set to before.
struct OffloadState {
    std::vector<std::pair<uint32_t, bool>> saved;  // feature index, requested before
};

// Turns those offloads off; false when the feature list cannot be read or changed.
bool DisableOffloads(const std::string& name, OffloadState& state);
// Requests each saved feature as it was before.
bool RestoreOffloads(const std::string& name, const OffloadState& state);

// True for the ethtool feature names that DisableOffloads turns off.
bool IsAggregatingOffload(const std::string& featureName);

}  // namespace Platform
