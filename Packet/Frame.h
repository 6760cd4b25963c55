#pragma once
#include <algorithm>
#include <array>
#include <cstddef>
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

// A frame to a group address (broadcast or multicast): the lowest bit of its first byte.
inline bool IsGroupFrame(const uint8_t* frame, size_t length) { return length >= 6 && (frame[0] & 0x01) != 0; }
inline bool IsGroupFrame(const Frame& frame) { return IsGroupFrame(frame.data(), frame.size()); }

// The frame's destination (its first 6 bytes) is `mac`; a short frame or MAC never matches.
inline bool IsAddressedTo(const Frame& frame, const std::vector<uint8_t>& mac) {
    return frame.size() >= 6 && mac.size() >= 6 && std::equal(frame.begin(), frame.begin() + 6, mac.begin());
}

}  // namespace Nat
