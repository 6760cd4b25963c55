#pragma once
// Builds real Ethernet II frames (ARP, IPv4 with TCP, UDP or any protocol number) byte by
// byte, with checksums computed here by plain RFC 1071 arithmetic, independently of the
// product's codec. Every field has a sensible default, so a test sets only what it checks.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Packet/Frame.h"

namespace ndtest {

using Nat::Frame;
using Nat::FragmentList;
using Nat::Ipv4Address;
using Nat::MacAddress;
using Bytes = std::vector<uint8_t>;

// TCP flag bits.
inline constexpr uint8_t kFin = 0x01, kSyn = 0x02, kRst = 0x04, kPsh = 0x08, kAck = 0x10, kUrg = 0x20;
inline constexpr uint16_t kEtherIpv4 = 0x0800, kEtherArp = 0x0806;
inline constexpr uint8_t kProtoIcmp = 1, kProtoTcp = 6, kProtoUdp = 17;

// "02:00:00:00:00:01" / "10.0.0.1"; abort the test program on malformed text.
MacAddress Mac(const std::string& text);
Ipv4Address Ip(const std::string& text);
Bytes ToBytes(const MacAddress& mac);
Bytes ToBytes(const Ipv4Address& ip);
Bytes ToBytes(const std::string& text);

// Big-endian field access for assertions.
uint16_t Be16(const Frame& frame, size_t offset);
uint32_t Be32(const Frame& frame, size_t offset);

// RFC 1071: one's complement of the one's-complement sum of big-endian 16-bit words
// (an odd last byte padded with zero), starting from `initial`.
uint16_t InternetChecksum(const uint8_t* data, size_t length, uint32_t initial = 0);
// The header checksum that belongs in an IPv4 frame (its checksum field counted as zero).
uint16_t ReferenceIpChecksum(const Frame& frame);
// The TCP or UDP checksum that belongs in the frame: pseudo-header plus segment, the
// checksum field counted as zero; the segment is what the IPv4 total length says.
uint16_t ReferenceTransportChecksum(const Frame& frame);
// True when the stored checksums verify (sum over the data including the checksum is all ones).
bool IpChecksumValid(const Frame& frame);
bool TransportChecksumValid(const Frame& frame);

class FrameBuilder {
public:
    static FrameBuilder Tcp();
    static FrameBuilder Udp();
    static FrameBuilder Arp();
    // IPv4 with the given protocol number and only `Payload` after the IP header.
    static FrameBuilder Ipv4(uint8_t protocol);

    // Ethernet
    FrameBuilder& EthDst(const MacAddress& mac);
    FrameBuilder& EthSrc(const MacAddress& mac);
    FrameBuilder& EtherType(uint16_t type);  // overrides the type the kind implies
    // Ethernet padding: zero bytes appended until the frame has this many bytes.
    FrameBuilder& PadTo(size_t frameSize);

    // IPv4
    FrameBuilder& IpSrc(const Ipv4Address& ip);
    FrameBuilder& IpDst(const Ipv4Address& ip);
    FrameBuilder& Ttl(uint8_t ttl);
    FrameBuilder& Tos(uint8_t tos);
    FrameBuilder& IpId(uint16_t id);
    FrameBuilder& DontFragment(bool on);
    FrameBuilder& Protocol(uint8_t protocol);    // overrides the number the kind implies
    FrameBuilder& IpOptions(const Bytes& options);  // zero-padded to a multiple of 4 (max 40)
    FrameBuilder& IpChecksum(uint16_t value);    // store this instead of the computed one
    FrameBuilder& TotalLength(uint16_t value);   // store this instead of the real length

    // TCP / UDP
    FrameBuilder& SrcPort(uint16_t port);
    FrameBuilder& DstPort(uint16_t port);
    FrameBuilder& Seq(uint32_t seq);
    FrameBuilder& AckNumber(uint32_t ack);
    FrameBuilder& Flags(uint8_t flags);
    FrameBuilder& Window(uint16_t window);
    FrameBuilder& UrgentPointer(uint16_t pointer);
    FrameBuilder& TcpOptions(const Bytes& options);  // zero-padded to a multiple of 4 (max 40)
    FrameBuilder& TransportChecksum(uint16_t value);  // store this instead of the computed one
    FrameBuilder& NoUdpChecksum();                     // UDP checksum 0: "none"
    FrameBuilder& Payload(const Bytes& payload);
    FrameBuilder& Payload(const std::string& payload);

    // ARP (Ethernet/IPv4)
    FrameBuilder& ArpOpcode(uint16_t opcode);
    FrameBuilder& ArpProtocolType(uint16_t type);
    FrameBuilder& ArpSender(const MacAddress& mac, const Ipv4Address& ip);
    FrameBuilder& ArpTarget(const MacAddress& mac, const Ipv4Address& ip);

    Frame Build() const;
    // The datagram cut into IPv4 fragments carrying at most `fragmentData` bytes of IP
    // payload each (a multiple of 8), with offsets and the more-fragments bit set; the
    // transport checksum is that of the whole datagram and sits in the first fragment.
    FragmentList BuildFragments(size_t fragmentData) const;

private:
    enum class Kind { Tcp, Udp, Arp, Raw };
    explicit FrameBuilder(Kind kind);
    Bytes IpPayload() const;  // transport header + payload, checksum included
    Frame Assemble(const Bytes& ipPayload, uint16_t fragmentField, std::optional<uint16_t> totalLength) const;

    Kind kind_;
    MacAddress ethDst_{0x02, 0x00, 0x00, 0x00, 0x00, 0x02};
    MacAddress ethSrc_{0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    std::optional<uint16_t> etherType_;
    size_t padTo_ = 0;

    Ipv4Address ipSrc_{10, 0, 0, 1};
    Ipv4Address ipDst_{10, 0, 0, 2};
    uint8_t ttl_ = 64;
    uint8_t tos_ = 0;
    uint16_t ipId_ = 0x1234;
    bool dontFragment_ = true;
    std::optional<uint8_t> protocol_;
    Bytes ipOptions_;
    std::optional<uint16_t> ipChecksum_;
    std::optional<uint16_t> totalLength_;

    uint16_t srcPort_ = 40000;
    uint16_t dstPort_ = 80;
    uint32_t seq_ = 1000;
    uint32_t ack_ = 0;
    uint8_t flags_ = kAck;
    uint16_t window_ = 64240;
    uint16_t urgent_ = 0;
    Bytes tcpOptions_;
    std::optional<uint16_t> transportChecksum_;
    Bytes payload_;

    uint16_t arpOpcode_ = 1;
    uint16_t arpProtocolType_ = kEtherIpv4;
    MacAddress arpSenderMac_{0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    Ipv4Address arpSenderIp_{10, 0, 0, 1};
    MacAddress arpTargetMac_{};
    Ipv4Address arpTargetIp_{10, 0, 0, 2};
};

}  // namespace ndtest
