#pragma once
// Frame builders and independent checksum checks for the Platform tests.
#include <array>
#include <cstdint>
#include <cstring>
#include <vector>

namespace PlatformTest {

using Bytes = std::vector<uint8_t>;

inline uint16_t Rd16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
inline uint32_t Rd32(const uint8_t* p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | p[3];
}
inline void Wr16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}
inline void Wr32(uint8_t* p, uint32_t v) {
    Wr16(p, static_cast<uint16_t>(v >> 16));
    Wr16(p + 2, static_cast<uint16_t>(v));
}

// Plain RFC 1071 sum, byte pair by byte pair: deliberately not the product's code.
inline uint32_t Sum(const uint8_t* p, size_t n, uint32_t acc = 0) {
    for (size_t i = 0; i + 1 < n; i += 2) acc += static_cast<uint32_t>((p[i] << 8) | p[i + 1]);
    if (n % 2) acc += static_cast<uint32_t>(p[n - 1] << 8);
    return acc;
}
inline uint16_t Fold(uint32_t acc) {
    while (acc >> 16) acc = (acc & 0xFFFF) + (acc >> 16);
    return static_cast<uint16_t>(acc);
}

// Offsets of a parsed IPv4/IPv6 frame (no VLAN tags).
struct Layout {
    bool ipv6 = false;
    size_t l3 = 14;
    size_t l4 = 0;
    uint8_t protocol = 0;
};

inline bool ParseLayout(const uint8_t* f, size_t n, Layout& out) {
    if (n < 14) return false;
    const uint16_t type = Rd16(f + 12);
    if (type == 0x0800) {
        if (n < 34 || (f[14] >> 4) != 4) return false;
        out.ipv6 = false;
        out.l4 = 14 + static_cast<size_t>(f[14] & 0x0F) * 4;
        out.protocol = f[23];
        return n >= out.l4;
    }
    if (type == 0x86DD) {
        if (n < 54) return false;
        out.ipv6 = true;
        out.l4 = 54;
        out.protocol = f[20];
        return true;
    }
    return false;
}

inline bool Ipv4HeaderChecksumValid(const uint8_t* f, size_t n) {
    Layout l;
    if (!ParseLayout(f, n, l) || l.ipv6) return false;
    return Fold(Sum(f + 14, l.l4 - 14)) == 0xFFFF;
}

// Transport checksum over the length the IP header states.
inline bool TransportChecksumValid(const uint8_t* f, size_t n) {
    Layout l;
    if (!ParseLayout(f, n, l)) return false;
    size_t l4Length;
    uint32_t acc;
    if (l.ipv6) {
        l4Length = Rd16(f + 18);
        acc = Sum(f + 22, 32) + static_cast<uint32_t>(l4Length) + l.protocol;
    } else {
        l4Length = Rd16(f + 16) - (l.l4 - 14);
        acc = Sum(f + 26, 8) + static_cast<uint32_t>(l4Length) + l.protocol;
    }
    if (l.l4 + l4Length > n) return false;
    return Fold(Sum(f + l.l4, l4Length, acc)) == 0xFFFF;
}

struct TcpSpec {
    bool ipv6 = false;
    uint32_t seq = 1000;
    uint8_t flags = 0x10;  // ACK
    size_t optionBytes = 12;
    uint16_t ipId = 0x1234;
};

// resize + memcpy: GCC 12 at -O3 warns falsely about appending with vector::insert.
inline void Append(Bytes& f, const uint8_t* p, size_t n) {
    const size_t at = f.size();
    f.resize(at + n);
    if (n > 0) std::memcpy(f.data() + at, p, n);
}

inline void EthHeader(Bytes& f, uint16_t type) {
    const uint8_t header[14] = {0x02, 0, 0, 0, 0, 1, 0x02, 0, 0, 0, 0, 2, static_cast<uint8_t>(type >> 8),
                                static_cast<uint8_t>(type)};
    Append(f, header, 14);
}

// IP header for an L4 segment of l4Length bytes; checksums filled in later.
inline void IpHeader(Bytes& f, bool ipv6, uint8_t protocol, size_t l4Length, uint16_t id) {
    if (ipv6) {
        uint8_t h[40] = {0x60};
        Wr16(h + 4, static_cast<uint16_t>(l4Length));
        h[6] = protocol;
        h[7] = 64;
        h[8] = 0xFD;
        h[23] = 1;
        h[24] = 0xFD;
        h[39] = 2;
        Append(f, h, 40);
    } else {
        uint8_t h[20] = {0x45};
        Wr16(h + 2, static_cast<uint16_t>(20 + l4Length));
        Wr16(h + 4, id);
        h[6] = 0x40;
        h[8] = 64;
        h[9] = protocol;
        h[12] = 10;
        h[15] = 1;
        h[16] = 10;
        h[19] = 2;
        Append(f, h, 20);
    }
}

// Pseudo-header sum (folded, not inverted): what the stack leaves in the field of a
// frame whose checksum is left to the hardware.
inline uint16_t PseudoSum(const Bytes& f, const Layout& l, size_t l4Length) {
    if (l.ipv6) return Fold(Sum(f.data() + 22, 32) + static_cast<uint32_t>(l4Length) + l.protocol);
    return Fold(Sum(f.data() + 26, 8) + static_cast<uint32_t>(l4Length) + l.protocol);
}

// Fills both checksums of a frame built by the helpers below.
inline void FinishChecksums(Bytes& f) {
    Layout l;
    ParseLayout(f.data(), f.size(), l);
    const size_t l4Length = f.size() - l.l4;
    if (!l.ipv6) {
        Wr16(f.data() + 24, 0);
        Wr16(f.data() + 24, static_cast<uint16_t>(~Fold(Sum(f.data() + 14, l.l4 - 14))));
    }
    const size_t field = l.l4 + (l.protocol == 6 ? 16 : 6);
    Wr16(f.data() + field, 0);
    uint16_t c = static_cast<uint16_t>(~Fold(Sum(f.data() + l.l4, l4Length, PseudoSum(f, l, l4Length))));
    if (c == 0) c = 0xFFFF;
    Wr16(f.data() + field, c);
}

inline Bytes Pattern(size_t n, uint32_t seed = 7) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>((i * 131 + seed) >> 3);
    return b;
}

// A TCP frame with correct checksums (and correct lengths for its own payload).
inline Bytes TcpFrame(const TcpSpec& s, const Bytes& payload) {
    Bytes f;
    EthHeader(f, s.ipv6 ? 0x86DD : 0x0800);
    const size_t tcpHeader = 20 + s.optionBytes;
    IpHeader(f, s.ipv6, 6, tcpHeader + payload.size(), s.ipId);
    uint8_t t[60] = {};
    Wr16(t, 40000);
    Wr16(t + 2, 5003);
    Wr32(t + 4, s.seq);
    Wr32(t + 8, 77);
    t[12] = static_cast<uint8_t>((tcpHeader / 4) << 4);
    t[13] = s.flags;
    Wr16(t + 14, 65535);
    for (size_t i = 20; i < tcpHeader; ++i) t[i] = 1;  // NOPs
    Append(f, t, tcpHeader);
    Append(f, payload.data(), payload.size());
    FinishChecksums(f);
    return f;
}

inline Bytes UdpFrame(bool ipv6, const Bytes& payload, uint16_t ipId = 0x4321) {
    Bytes f;
    EthHeader(f, ipv6 ? 0x86DD : 0x0800);
    IpHeader(f, ipv6, 17, 8 + payload.size(), ipId);
    uint8_t u[8] = {};
    Wr16(u, 5000);
    Wr16(u + 2, 6000);
    Wr16(u + 4, static_cast<uint16_t>(8 + payload.size()));
    Append(f, u, 8);
    Append(f, payload.data(), payload.size());
    FinishChecksums(f);
    return f;
}

}  // namespace PlatformTest
