#pragma once
// Frames as real hosts send them, an independent reading of their fields and
// checksums, and a translator wired to a real ARP table on a controlled clock.
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Nat/InternetConnectionSharing.h"
#include "Nat/NetworkAddressTranslator.h"
#include "Packet/ArpTable.h"
#include "Packet/IArpCache.h"

namespace NatTest {

using Nat::Bytes;
using Nat::Frame;
using Nat::FragmentList;
using Nat::Ipv4Address;
using Nat::MacAddress;

constexpr uint8_t kFin = 0x01;
constexpr uint8_t kSyn = 0x02;
constexpr uint8_t kRst = 0x04;
constexpr uint8_t kPsh = 0x08;
constexpr uint8_t kAck = 0x10;

MacAddress Mac(uint8_t last);
Ipv4Address Ip(uint8_t a, uint8_t b, uint8_t c, uint8_t d);
Bytes B(const MacAddress& mac);
Bytes B(const Ipv4Address& ip);

struct TcpSpec {
    TcpSpec(const MacAddress& srcMac, const MacAddress& dstMac, const Ipv4Address& srcIp, const Ipv4Address& dstIp,
            uint16_t srcPort, uint16_t dstPort, uint32_t seq, uint32_t ack, uint8_t flags, std::string payload = {})
        : srcMac(srcMac), dstMac(dstMac), srcIp(srcIp), dstIp(dstIp), srcPort(srcPort), dstPort(dstPort), seq(seq),
          ack(ack), flags(flags), payload(std::move(payload)) {}
    MacAddress srcMac{}, dstMac{};
    Ipv4Address srcIp{}, dstIp{};
    uint16_t srcPort = 0, dstPort = 0;
    uint32_t seq = 0, ack = 0;
    uint8_t flags = kAck;
    std::string payload;
    std::vector<uint8_t> tcpOptions;  // a multiple of 4 bytes
    std::vector<uint8_t> ipOptions;   // a multiple of 4 bytes
    uint16_t ipId = 1;
};
// Ethernet II + IPv4 + TCP with valid checksums, padded to the 60-byte minimum.
Frame Tcp(const TcpSpec& spec);

struct UdpSpec {
    UdpSpec(const MacAddress& srcMac, const MacAddress& dstMac, const Ipv4Address& srcIp, const Ipv4Address& dstIp,
            uint16_t srcPort, uint16_t dstPort, std::string payload = {}, bool noChecksum = false)
        : srcMac(srcMac), dstMac(dstMac), srcIp(srcIp), dstIp(dstIp), srcPort(srcPort), dstPort(dstPort),
          payload(std::move(payload)), noChecksum(noChecksum) {}
    MacAddress srcMac{}, dstMac{};
    Ipv4Address srcIp{}, dstIp{};
    uint16_t srcPort = 0, dstPort = 0;
    std::string payload;
    bool noChecksum = false;
    uint16_t ipId = 1;
};
Frame Udp(const UdpSpec& spec);
// The same datagram cut into fragments carrying at most `chunk` bytes of IP payload
// each (a multiple of 8).
FragmentList UdpFragments(const UdpSpec& spec, size_t chunk);

// Independent field reading.
struct Fields {
    MacAddress srcMac{}, dstMac{};
    Ipv4Address srcIp{}, dstIp{};
    uint8_t protocol = 0;
    uint16_t totalLength = 0;
    uint16_t srcPort = 0, dstPort = 0;
    uint32_t seq = 0, ack = 0;
    uint8_t flags = 0;
    std::string payload;
};
Fields Parse(const Frame& frame);

bool IpChecksumOk(const Frame& frame);
// Over the IP total length, so that Ethernet padding is ignored. A UDP checksum of 0
// (none sent) counts as valid.
bool TransportChecksumOk(const Frame& frame);
// Reassembles the fragments and checks the whole datagram's transport checksum.
bool DatagramChecksumOk(const FragmentList& fragments);

// The ARP cache face that sessions give the translator, over a real table.
class FakeArpCache : public NativeNetworkDriver::IArpCache, public Nat::IResolvedPacketSubscriber {
public:
    explicit FakeArpCache(NativeNetworkDriver::ArpTable::Clock clock);
    ~FakeArpCache() override;
    bool RegisterDrivers(const void*, const std::set<std::string>&) override { return true; }
    void UnregisterDrivers(const void*) override {}
    NativeNetworkDriver::ArpTable* GetArpTable() override { return &table; }
    void OnResolvedFragments(const std::set<Frame>& fragments, const std::string& guid) override;
    void OnResolvedFrame(const Frame& frame, const std::string& guid) override;

    NativeNetworkDriver::ArpTable table;
    std::vector<std::pair<Frame, std::string>> released;
    std::vector<std::pair<std::set<Frame>, std::string>> releasedFragments;
};

// A small network: hosts behind "int0" (192.168.1.0/24, this machine .1), the outside
// on "ext0" (10.0.0.0/24, this machine .2, gateway .1), a server network on "srv0"
// (172.20.0.0/24, this machine .1).
struct Net {
    static Nat::AdapterInfo Internal();
    static Nat::AdapterInfo External();
    static Nat::AdapterInfo Servers();
    static MacAddress HostMac() { return Mac(0x11); }
    static Ipv4Address HostIp() { return Ip(192, 168, 1, 10); }
    static MacAddress GatewayMac() { return Mac(0xFE); }
    static MacAddress PeerMac() { return Mac(0x21); }       // an on-link peer on ext0
    static Ipv4Address PeerIp() { return Ip(10, 0, 0, 50); }
    static Ipv4Address FarIp() { return Ip(93, 184, 216, 34); }  // behind the gateway
    static MacAddress ServerMac() { return Mac(0x31); }
    static Ipv4Address ServerIp() { return Ip(172, 20, 0, 20); }
};

Nat::RedirectRule Rule(uint8_t protocol, uint32_t fromPort, uint32_t toPort, bool translateSource);

// A translator with its clock, ARP table and the network above.
struct Rig {
    explicit Rig(std::vector<Nat::RedirectRule> rules = {}, std::vector<Nat::AdapterMapping> mappings = {},
                 std::vector<uint32_t> tcpPorts = Ports(5000, 8), std::vector<uint32_t> udpPorts = Ports(6000, 8),
                 uint32_t timeoutMs = 60000, std::vector<Bytes> whiteList = {}, Nat::ProxyInfo proxy = {});
    static std::vector<uint32_t> Ports(uint32_t first, uint32_t count);
    static Nat::AdapterMapping DefaultMapping() { return {Net::External(), Net::Internal()}; }

    // Classify as the session does, then translate; 0 when not claimed.
    uint32_t Out(Frame& frame, const std::string& guid = "int0");
    uint32_t In(Frame& frame, const std::string& guid = "ext0");
    const Nat::AdapterInfo* lastAdapter = nullptr;

    void Learn(const Ipv4Address& ip, const MacAddress& mac) { arp.table.LearnFromArpReply(ip, mac); }

    uint32_t now = 1000000;
    FakeArpCache arp;
    std::unique_ptr<Nat::NetworkAddressTranslator> nat;
};

}  // namespace NatTest
