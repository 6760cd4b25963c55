#pragma once
// A translator wired to a real ARP table on a controlled clock, the small network around
// it, frames as its hosts send them and an independent reading of their fields. Shared
// by the Nat suite and the translator fuzzer.
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Nat/NetworkAddressTranslator.h"
#include "Packet/ArpTable.h"
#include "Packet/IArpCache.h"
#include "support/FrameBuilder.h"
#include "support/Thrown.h"

namespace NatTest {

using namespace ndtest;

constexpr MacAddress Mac(uint8_t last) { return {0x02, 0x00, 0x00, 0x00, 0x00, last}; }
constexpr Ipv4Address Ip(uint8_t a, uint8_t b, uint8_t c, uint8_t d) { return {a, b, c, d}; }

// A small network: hosts behind "int0" (192.168.1.0/24, this machine .1), the outside
// on "ext0" (10.0.0.0/24, this machine .2, gateway .1), a server network on "srv0"
// (172.20.0.0/24, this machine .1).
inline constexpr MacAddress kIntMac = Mac(0x01), kExtMac = Mac(0x02), kSrvMac = Mac(0x03);
inline constexpr Ipv4Address kIntIp = Ip(192, 168, 1, 1), kExtIp = Ip(10, 0, 0, 2), kSrvSideIp = Ip(172, 20, 0, 1);
inline constexpr MacAddress kHostMac = Mac(0x11);  // a host behind int0
inline constexpr Ipv4Address kHostIp = Ip(192, 168, 1, 10);
inline constexpr MacAddress kGatewayMac = Mac(0xFE);
inline constexpr MacAddress kPeerMac = Mac(0x21);  // an on-link peer on ext0
inline constexpr Ipv4Address kPeerIp = Ip(10, 0, 0, 50);
inline constexpr Ipv4Address kFarIp = Ip(93, 184, 216, 34);  // behind the gateway
inline constexpr MacAddress kServerMac = Mac(0x31);          // the published server on srv0
inline constexpr Ipv4Address kServerIp = Ip(172, 20, 0, 20);

namespace Net {
inline Nat::AdapterInfo Internal() {
    return {"int0", "Internal", ToBytes(kIntMac), {{ToBytes(kIntIp), {255, 255, 255, 0}}}, {}, {}};
}
inline Nat::AdapterInfo External() {
    return {"ext0", "External", ToBytes(kExtMac), {{ToBytes(kExtIp), {255, 255, 255, 0}}}, ToBytes(kGatewayMac),
            {10, 0, 0, 1}};
}
inline Nat::AdapterInfo Servers() {
    return {"srv0", "Servers", ToBytes(kSrvMac), {{ToBytes(kSrvSideIp), {255, 255, 255, 0}}}, {}, {}};
}
}  // namespace Net

// Ethernet II + IPv4 + TCP or UDP with valid checksums, padded to the 60-byte minimum; a
// spec is a builder, so a test may set more fields before building.
struct TcpSpec : FrameBuilder {
    TcpSpec(const MacAddress& srcMac, const MacAddress& dstMac, const Ipv4Address& srcIp, const Ipv4Address& dstIp,
            uint16_t srcPort, uint16_t dstPort, uint32_t seq, uint32_t ack, uint8_t flags,
            const std::string& payload = {});
};
inline Frame Tcp(const TcpSpec& spec) { return spec.Build(); }

struct UdpSpec : FrameBuilder {
    UdpSpec(const MacAddress& srcMac, const MacAddress& dstMac, const Ipv4Address& srcIp, const Ipv4Address& dstIp,
            uint16_t srcPort, uint16_t dstPort, const std::string& payload = {}, bool noChecksum = false);
};
inline Frame Udp(const UdpSpec& spec) { return spec.Build(); }

// Ethernet II + IPv4 (protocol 1) + the given ICMP message with bytes 2-3 zero, whose
// checksum goes there; outer IP header as Udp() builds it.
Frame Icmp(const MacAddress& srcMac, const MacAddress& dstMac, const Ipv4Address& srcIp, const Ipv4Address& dstIp,
           Bytes message);
// An echo request (type 8) or reply (type 0) message.
Bytes EchoMessage(uint8_t type, uint16_t identifier, uint16_t sequence, const std::string& payload);
// An error message quoting the first `quoteBytes` bytes of the IP datagram of `about`;
// `mtu` goes in bytes 6-7 (fragmentation needed).
Bytes ErrorMessage(uint8_t type, uint8_t code, uint16_t mtu, const Frame& about, size_t quoteBytes);

// Independent field reading: the addresses and, where a TCP or UDP header starts, the
// source port.
struct Fields {
    Ipv4Address srcIp{}, dstIp{};
    uint16_t srcPort = 0;
};
Fields Parse(const Frame& frame);

// The ARP cache face that sessions give the translator, over a real table.
class FakeArpCache : public NativeNetworkDriver::IArpCache, public Nat::IResolvedPacketSubscriber {
public:
    explicit FakeArpCache(NativeNetworkDriver::ArpTable::Clock clock) : table(std::move(clock)) {
        table.Subscribe(this);
    }
    ~FakeArpCache() override { table.Unsubscribe(this); }
    bool RegisterDrivers(const void*, const std::set<std::string>&) override { return true; }
    void UnregisterDrivers(const void*) override {}
    NativeNetworkDriver::ArpTable* GetArpTable() override { return &table; }
    void OnResolvedFragments(const std::set<Frame>& fragments, const std::string& guid) override {
        releasedFragments.emplace_back(fragments, guid);
    }
    void OnResolvedFrame(const Frame& frame, const std::string& guid) override { released.emplace_back(frame, guid); }

    NativeNetworkDriver::ArpTable table;
    std::vector<std::pair<Frame, std::string>> released;
    std::vector<std::pair<std::set<Frame>, std::string>> releasedFragments;
};

// A rule publishing `fromPort` of ext0 as `toPort` of the server on srv0.
Nat::RedirectRule Rule(uint8_t protocol, uint32_t fromPort, uint32_t toPort, bool translateSource, bool http = false,
                       bool ftp = false);

// A translator with its clock, ARP table and the network above.
struct Rig {
    explicit Rig(std::vector<Nat::RedirectRule> rules = {}, std::vector<Nat::AdapterMapping> mappings = {},
                 std::vector<uint32_t> tcpPorts = Ports(5000, 8), std::vector<uint32_t> udpPorts = Ports(6000, 8),
                 uint32_t timeoutMs = 60000, std::vector<Bytes> whiteList = {}, Nat::ProxyInfo proxy = {});
    static std::vector<uint32_t> Ports(uint32_t first, uint32_t count);
    static Nat::AdapterMapping DefaultMapping() { return {Net::External(), Net::Internal()}; }

    // Decide, then translate; the kind as its number, 0 when not claimed.
    uint32_t Out(Frame& frame, const std::string& guid = "int0", bool partialChecksum = false) {
        return Pass(false, frame, guid, partialChecksum);
    }
    uint32_t In(Frame& frame, const std::string& guid = "ext0", bool partialChecksum = false) {
        return Pass(true, frame, guid, partialChecksum);
    }
    uint32_t Pass(bool fromExternal, Frame& frame, const std::string& guid, bool partialChecksum);
    // The frame as it comes out; empty when it was not claimed.
    Frame OutFrame(Frame frame) { return Out(frame) ? frame : Frame{}; }
    Frame InFrame(Frame frame) { return In(frame) ? frame : Frame{}; }
    Nat::Decision Decide(bool fromExternal, const Frame& frame) {
        return nat->Decide(fromExternal, frame, Nat::ReadFrameView(frame));
    }
    // Translation as a decision of `kind` would have it, without deciding (mapping and rule
    // left to find): for the refusals of frames no decision would hand over.
    const Nat::AdapterInfo& Forced(Nat::TranslationKind kind, bool fromExternal, Frame& frame, const std::string& guid);
    const Nat::AdapterInfo* lastAdapter = nullptr;

    void Learn(const Ipv4Address& ip, const MacAddress& mac) { arp.table.LearnFromArpReply(ip, mac); }

    uint32_t now = 1000000;
    FakeArpCache arp;
    std::unique_ptr<Nat::NetworkAddressTranslator> nat;
};

}  // namespace NatTest
