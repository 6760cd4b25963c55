#pragma once
// Network-order reads and writes of 16- and 32-bit fields, for callers that have already
// checked the frame holds them. (The codec in PacketUtils has its own, forgiving ones.)
#include <cstdint>

namespace Nat {

inline uint16_t ReadBe16(const uint8_t* at) { return static_cast<uint16_t>((at[0] << 8) | at[1]); }
inline uint32_t ReadBe32(const uint8_t* at) {
    return (static_cast<uint32_t>(ReadBe16(at)) << 16) | ReadBe16(at + 2);
}
inline void WriteBe16(uint8_t* at, uint16_t value) {
    at[0] = static_cast<uint8_t>(value >> 8);
    at[1] = static_cast<uint8_t>(value);
}
inline void WriteBe32(uint8_t* at, uint32_t value) {
    WriteBe16(at, static_cast<uint16_t>(value >> 16));
    WriteBe16(at + 2, static_cast<uint16_t>(value));
}

}  // namespace Nat
