#include "Nat/NatTypes.h"

#include <algorithm>
#include <tuple>

#include "Packet/PacketUtils.h"

namespace Nat {

bool operator==(const IpEntry& a, const IpEntry& b) { return a.address == b.address && a.mask == b.mask; }

bool operator<(const IpEntry& a, const IpEntry& b) {
    return std::tie(a.address, a.mask) < std::tie(b.address, b.mask);
}

bool operator==(const AdapterInfo& a, const AdapterInfo& b) {
    return std::tie(a.id, a.name, a.mac, a.ips, a.gatewayMac, a.gatewayIp) ==
           std::tie(b.id, b.name, b.mac, b.ips, b.gatewayMac, b.gatewayIp);
}

bool operator<(const AdapterInfo& a, const AdapterInfo& b) {
    return std::tie(a.id, a.name, a.mac, a.ips, a.gatewayMac, a.gatewayIp) <
           std::tie(b.id, b.name, b.mac, b.ips, b.gatewayMac, b.gatewayIp);
}

std::string MacText(const MacAddress& mac) {
    return PacketUtils::FromVectorToHexString(Bytes(mac.begin(), mac.end()), "::");
}

std::string IpText(const Ipv4Address& ip) { return PacketUtils::FromVectorToIpString(Bytes(ip.begin(), ip.end())); }

std::string EntryText(const InternalKey& internal, const ExternalKey& external) {
    std::string text = "InternalHost ";
    auto add = [&text](const std::string& piece) {
        text += ' ';
        text += piece;
    };
    add(MacText(internal.hostMac));
    add(IpText(internal.hostIp));
    add(std::to_string(internal.internalPort));
    add("InternalAdapterMac");
    add(MacText(internal.adapterMac));
    add("Destination");
    add(IpText(internal.destinationIp));
    add(std::to_string(internal.destinationPort));
    add("External");
    add(std::to_string(external.externalPort));
    add(MacText(external.externalAdapterMac));
    add("Remote");
    add(IpText(external.remoteIp));
    add(std::to_string(external.remotePort));
    return text;
}

bool SameMac(const Bytes& a, const MacAddress& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
}

bool SameIp(const Bytes& a, const Ipv4Address& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
}

bool ToMac(const Bytes& bytes, MacAddress& out) {
    if (bytes.size() != out.size()) return false;
    std::copy(bytes.begin(), bytes.end(), out.begin());
    return true;
}

bool ToIp(const Bytes& bytes, Ipv4Address& out) {
    if (bytes.size() != out.size()) return false;
    std::copy(bytes.begin(), bytes.end(), out.begin());
    return true;
}

bool InSubnet(const IpEntry& entry, const Ipv4Address& ip) {
    if (entry.address.size() != 4 || entry.mask.size() != 4) return false;
    for (size_t i = 0; i < 4; ++i) {
        if ((entry.address[i] & entry.mask[i]) != (ip[i] & entry.mask[i])) return false;
    }
    return true;
}


// GCC 12 at -O3 reports a memcmp bound of "exceeds maximum object size" inside the
// byte-vector comparison of std::set insertion; the bound is never reached.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wstringop-overread"
#endif
std::set<Frame> FragmentSet(const FragmentList& fragments) {
    std::set<Frame> set;
    for (const Frame& fragment : fragments) set.insert(fragment);
    return set;
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

}  // namespace Nat
