// Address texts of scenarios and the command line; the adapter queries are per OS.
#include "SystemAdapters.h"

#include <cctype>
#include <cstdio>
#include <stdexcept>

namespace ndpeer {

using NativeNetworkDriver::Bytes;

Bytes ParseMac(const std::string& text) {
    unsigned b[6];
    char extra;
    if (std::sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5], &extra) != 6)
        throw std::invalid_argument("not a MAC address (expected aa:bb:cc:dd:ee:ff): \"" + text + "\"");
    return Bytes(b, b + 6);
}

Bytes ParseIp(const std::string& text) {
    // Four decimal parts of 0 to 255 without leading zeros, as inet_pton takes them.
    Bytes address;
    size_t i = 0;
    while (address.size() < 4) {
        size_t digits = 0;
        unsigned value = 0;
        while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])) && digits < 4) {
            value = value * 10 + static_cast<unsigned>(text[i++] - '0');
            ++digits;
        }
        const bool leadingZero = digits > 1 && text[i - digits] == '0';
        if (digits == 0 || digits > 3 || value > 255 || leadingZero) break;
        address.push_back(static_cast<uint8_t>(value));
        if (address.size() < 4) {
            if (i >= text.size() || text[i] != '.') break;
            ++i;
        }
    }
    if (address.size() != 4 || i != text.size()) throw std::invalid_argument("not an IPv4 address: \"" + text + "\"");
    return address;
}

std::optional<Bytes> ParseGuid(const std::string& text) {
    // {DDDDDDDD-DDDD-DDDD-DDDD-DDDDDDDDDDDD}: the first three groups are little-endian numbers.
    static const size_t kGroups[] = {8, 4, 4, 4, 12};
    if (text.size() != 38 || text.front() != '{' || text.back() != '}') return std::nullopt;
    std::string hex;
    size_t at = 1;
    for (size_t g = 0; g < 5; ++g) {
        for (size_t k = 0; k < kGroups[g]; ++k, ++at)
            if (!std::isxdigit(static_cast<unsigned char>(text[at]))) return std::nullopt;
        hex += text.substr(at - kGroups[g], kGroups[g]);
        if (g < 4 && text[at++] != '-') return std::nullopt;
    }
    Bytes big;  // the 16 bytes in text order
    for (size_t k = 0; k < hex.size(); k += 2) big.push_back(static_cast<uint8_t>(std::stoul(hex.substr(k, 2), nullptr, 16)));
    return Bytes{big[3], big[2], big[1], big[0], big[5], big[4], big[7], big[6], big[8], big[9], big[10], big[11],
                 big[12], big[13], big[14], big[15]};
}

}  // namespace ndpeer
