#pragma once
// IPv4 protocol numbers, as the protocol field of the IP header carries them.
#include <cstdint>

namespace Nat::IpProtocol {

inline constexpr uint8_t kIcmp = 1;
inline constexpr uint8_t kTcp = 6;
inline constexpr uint8_t kUdp = 17;

}  // namespace Nat::IpProtocol
