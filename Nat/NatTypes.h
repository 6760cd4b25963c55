#pragma once
// Configuration records held by the translator and the keys of its tables.
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "Packet/Frame.h"

namespace Nat {

using Bytes = std::vector<uint8_t>;

// What the engine does with a frame: leave it alone, or translate its source (SNAT) or its
// destination (DNAT) side.
enum class TranslationKind : uint32_t { None = 0, Snat = 1, Dnat = 2 };

struct IpEntry {
    Bytes address;  // 4 bytes
    Bytes mask;     // 4 bytes
};

// One network adapter; `id` carries the adapter GUID text that frames are sent on.
struct AdapterInfo {
    std::string id;
    std::string name;
    Bytes mac;  // 6 bytes
    std::vector<IpEntry> ips;
    Bytes gatewayMac;  // 0 or 6 bytes
    Bytes gatewayIp;   // 0 or 4 bytes
};
bool operator==(const IpEntry& a, const IpEntry& b);
bool operator<(const IpEntry& a, const IpEntry& b);
bool operator==(const AdapterInfo& a, const AdapterInfo& b);
bool operator<(const AdapterInfo& a, const AdapterInfo& b);

// A source-address range of a redirect rule. The control message carries three 4-byte
// values per range: the first is the low address, the second the high address (both
// included) and the third a mask that is kept but takes no part in matching.
struct IpRange {
    Bytes low;
    Bytes high;
    Bytes mask;
};

// Where a translated flow leaves and returns on the external side.
struct ExternalKey {
    uint32_t externalPort = 0;
    MacAddress externalAdapterMac{};
    Ipv4Address remoteIp{};
    uint32_t remotePort = 0;
};
// Byte strings of fixed size compare as big-endian numbers; this is the byte-wise order.
inline uint64_t MacNumber(const MacAddress& m) {
    return (uint64_t(m[0]) << 40) | (uint64_t(m[1]) << 32) | (uint64_t(m[2]) << 24) | (uint64_t(m[3]) << 16) |
           (uint64_t(m[4]) << 8) | uint64_t(m[5]);
}
inline uint32_t IpNumber(const Ipv4Address& ip) {
    return (uint32_t(ip[0]) << 24) | (uint32_t(ip[1]) << 16) | (uint32_t(ip[2]) << 8) | uint32_t(ip[3]);
}

// Ordered by external port, remote port, remote IP, external adapter MAC.
inline bool operator<(const ExternalKey& a, const ExternalKey& b) {
    if (a.externalPort != b.externalPort) return a.externalPort < b.externalPort;
    if (a.remotePort != b.remotePort) return a.remotePort < b.remotePort;
    if (a.remoteIp != b.remoteIp) return IpNumber(a.remoteIp) < IpNumber(b.remoteIp);
    return MacNumber(a.externalAdapterMac) < MacNumber(b.externalAdapterMac);
}
inline bool operator==(const ExternalKey& a, const ExternalKey& b) {
    return a.externalPort == b.externalPort && a.remotePort == b.remotePort && a.remoteIp == b.remoteIp &&
           a.externalAdapterMac == b.externalAdapterMac;
}

// The internal side of a flow. Stored as the outbound index's key and, as
// InternalHostInfo, as the inbound index's value.
struct InternalKey {
    MacAddress hostMac{};
    Ipv4Address hostIp{};
    uint32_t internalPort = 0;
    MacAddress adapterMac{};
    Ipv4Address destinationIp{};
    uint32_t destinationPort = 0;
};
// Ordered by internal port, destination port, host IP, host MAC, adapter MAC, destination IP.
inline bool operator<(const InternalKey& a, const InternalKey& b) {
    if (a.internalPort != b.internalPort) return a.internalPort < b.internalPort;
    if (a.destinationPort != b.destinationPort) return a.destinationPort < b.destinationPort;
    if (a.hostIp != b.hostIp) return IpNumber(a.hostIp) < IpNumber(b.hostIp);
    if (a.hostMac != b.hostMac) return MacNumber(a.hostMac) < MacNumber(b.hostMac);
    if (a.adapterMac != b.adapterMac) return MacNumber(a.adapterMac) < MacNumber(b.adapterMac);
    return IpNumber(a.destinationIp) < IpNumber(b.destinationIp);
}
inline bool operator==(const InternalKey& a, const InternalKey& b) {
    return a.internalPort == b.internalPort && a.destinationPort == b.destinationPort && a.hostIp == b.hostIp &&
           a.hostMac == b.hostMac && a.adapterMac == b.adapterMac && a.destinationIp == b.destinationIp;
}

using InternalHostInfo = InternalKey;
using ExternalInfo = ExternalKey;

struct RedirectRule {
    AdapterInfo fromAdapter;
    std::vector<IpRange> fromIp;  // empty: any source
    uint32_t fromPort = 0;
    uint8_t protocol = 6;  // 6 TCP, 17 UDP
    AdapterInfo toAdapter;
    Bytes toIp;
    uint32_t toPort = 0;
    bool translateSource = false;
    bool httpHostTranslation = false;
    bool ftpSupport = false;
    bool temporary = false;      // added at run time for an FTP data connection
    uint32_t refreshedTick = 0;  // when a temporary rule was added or last matched
    std::vector<ExternalKey> linkedKeys;
};

struct AdapterMapping {
    AdapterInfo external;
    AdapterInfo internal;
};

struct ProxyInfo {
    bool hasProxy = false;
    Bytes mac;
    Bytes ip;
    uint32_t port = 0;
};

// Text forms used in log lines.
std::string MacText(const MacAddress& mac);
std::string IpText(const Ipv4Address& ip);
// "InternalHost  <mac> <ip> <port> InternalAdapterMac <mac> Destination <ip> <port>
//  External <port> <mac> Remote <ip> <port>"
std::string EntryText(const InternalKey& internal, const ExternalKey& external);

// Byte-string helpers tolerant of malformed configuration (wrong sizes never match).
bool SameMac(const Bytes& a, const MacAddress& b);
bool SameIp(const Bytes& a, const Ipv4Address& b);
bool ToMac(const Bytes& bytes, MacAddress& out);
bool ToIp(const Bytes& bytes, Ipv4Address& out);
// True when `ip` lies in the subnet of `entry` (address and mask of 4 bytes each).
bool InSubnet(const IpEntry& entry, const Ipv4Address& ip);
// The fragments of one datagram as the ARP table holds them.
std::set<Frame> FragmentSet(const FragmentList& fragments);

}  // namespace Nat
