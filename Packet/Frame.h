#pragma once
#include <array>
#include <cstdint>
#include <vector>

namespace Nat {

// One whole Ethernet II frame from the destination MAC on; at most 1514 bytes.
using Frame = std::vector<uint8_t>;
// The fragment frames of one IPv4 datagram, in fragment order.
using FragmentList = std::vector<Frame>;

// Fixed-size address values for the hot path, where byte vectors would allocate.
using MacAddress = std::array<uint8_t, 6>;
using Ipv4Address = std::array<uint8_t, 4>;

inline constexpr size_t kMaxFrameSize = 1514;

}  // namespace Nat
