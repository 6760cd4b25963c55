#pragma once
// Linux interfaces have no GUID, so one is derived from the name: the name's bytes,
// zero-padded to 16, read as a Windows GUID structure (little-endian Data1..Data3).
// The daemon's driver backend and the native-side peer both use this mapping, so a
// GUID sent over the control channel names the same interface on both ends.
#include <array>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace Platform {

using GuidBytes = std::array<uint8_t, 16>;

// Linux interface names are at most 15 bytes (IFNAMSIZ - 1).
inline constexpr size_t kMaxInterfaceNameLength = 15;

inline GuidBytes InterfaceNameToGuidBytes(std::string_view name) {
    GuidBytes bytes{};
    for (size_t i = 0; i < name.size() && i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(name[i]);
    return bytes;
}

// "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}" of a GUID structure in memory.
inline std::string GuidBytesToText(const GuidBytes& g) {
    const uint32_t data1 = static_cast<uint32_t>(g[0]) | (static_cast<uint32_t>(g[1]) << 8) |
                           (static_cast<uint32_t>(g[2]) << 16) | (static_cast<uint32_t>(g[3]) << 24);
    const unsigned data2 = static_cast<unsigned>(g[4]) | (static_cast<unsigned>(g[5]) << 8);
    const unsigned data3 = static_cast<unsigned>(g[6]) | (static_cast<unsigned>(g[7]) << 8);
    char text[40];
    std::snprintf(text, sizeof(text), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                  static_cast<unsigned>(data1), data2, data3, g[8], g[9], g[10], g[11], g[12], g[13], g[14],
                  g[15]);
    return text;
}

inline std::string InterfaceGuidText(std::string_view name) {
    return GuidBytesToText(InterfaceNameToGuidBytes(name));
}

// Parses GUID text (braces optional, hex digits of either case) back into its bytes.
inline bool GuidTextToBytes(std::string_view text, GuidBytes& out) {
    if (text.size() == 38 && text.front() == '{' && text.back() == '}') text = text.substr(1, 36);
    if (text.size() != 36 || text[8] != '-' || text[13] != '-' || text[18] != '-' || text[23] != '-') return false;
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    // Hex digit positions of each field, most significant first.
    uint8_t digits[16] = {};
    size_t di = 0;
    uint8_t pending = 0;
    bool high = true;
    for (size_t i = 0; i < text.size(); ++i) {
        if (i == 8 || i == 13 || i == 18 || i == 23) continue;
        const int v = nibble(text[i]);
        if (v < 0) return false;
        if (high) {
            pending = static_cast<uint8_t>(v << 4);
        } else {
            digits[di++] = static_cast<uint8_t>(pending | v);
        }
        high = !high;
    }
    // digits[] holds the text order; Data1..Data3 are stored little-endian.
    out = GuidBytes{digits[3], digits[2], digits[1], digits[0], digits[5], digits[4], digits[7], digits[6],
                    digits[8], digits[9], digits[10], digits[11], digits[12], digits[13], digits[14], digits[15]};
    return true;
}

// The interface name a GUID stands for: its bytes up to the first zero. Empty when the
// text is not a GUID or the bytes cannot be an interface name (no terminating zero,
// bytes after the terminator, or characters the kernel refuses in names).
inline std::string GuidTextToInterfaceName(std::string_view text) {
    GuidBytes g{};
    if (!GuidTextToBytes(text, g)) return {};
    std::string name;
    size_t i = 0;
    for (; i < g.size() && g[i] != 0; ++i) {
        const char c = static_cast<char>(g[i]);
        if (c == ' ' || (g[i] >= 0x09 && g[i] <= 0x0D) || c == '/' || c == ':') return {};
        name.push_back(c);
    }
    if (i == g.size()) return {};
    for (; i < g.size(); ++i) {
        if (g[i] != 0) return {};
    }
    return name;
}

}  // namespace Platform
