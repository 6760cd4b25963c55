#pragma once
// Builds real Ethernet II frames (ARP, IPv4 or IPv6 with TCP, UDP or any protocol number)
// byte by byte, with checksums computed here by plain RFC 1071 arithmetic, independently of
// the product's codec. Every field has a sensible default, so a test sets only what it checks.
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Packet/Frame.h"
#include "Packet/SuperFrame.h"

namespace ndtest {

using Nat::Frame;
using Nat::FragmentList;
using Nat::Ipv4Address;
using Nat::MacAddress;
using Bytes = std::vector<uint8_t>;

// TCP flag bits.
inline constexpr uint8_t kFin = 0x01, kSyn = 0x02, kRst = 0x04, kPsh = 0x08, kAck = 0x10, kCwr = 0x80;
inline constexpr uint8_t kProtoIcmp = 1, kProtoTcp = 6, kProtoUdp = 17;

Bytes ToBytes(const MacAddress& mac);
Bytes ToBytes(const Ipv4Address& ip);
// n bytes of a fixed, non-repeating-looking pattern.
Bytes Pattern(size_t n, uint32_t seed = 7);

// Big-endian field access for assertions.
uint16_t Be16(const Frame& frame, size_t offset);
uint32_t Be32(const Frame& frame, size_t offset);

// RFC 1071: one's complement of the one's-complement sum of big-endian 16-bit words
// (an odd last byte padded with zero), starting from `initial`.
uint16_t InternetChecksum(const uint8_t* data, size_t length, uint32_t initial = 0);
// The TCP or UDP checksum that belongs in an IPv4 or IPv6 frame: pseudo-header plus
// segment, the checksum field counted as zero; the segment is what the IP header says.
uint16_t ReferenceTransportChecksum(const Frame& frame);
// Where the transport header and its checksum field start in the frame.
size_t TransportOffset(const Frame& frame);
size_t TransportChecksumOffset(const Frame& frame);
// The folded pseudo-header sum, not complemented: what a stack leaves in the checksum
// field of a frame whose checksum it leaves to the hardware.
uint16_t PseudoHeaderChecksum(const Frame& frame);
// Leaves the TCP or UDP checksum to the hardware, as a stack with checksum offload does: the
// field gets the pseudo-header sum, and the offload state returned says where to complete it.
Nat::FrameOffload LeaveChecksumToHardware(Frame& frame);
// True when the stored checksums verify; false also for frames they cannot be read from.
bool IpChecksumValid(const Frame& frame);
bool TransportChecksumValid(const Frame& frame);
// The datagram that IPv4 fragments (in any order) add up to: the first fragment's
// header with the whole length and no fragment bits, then every payload in offset order.
// Empty when the fragments leave a hole or have no first one.
Frame Reassemble(const FragmentList& fragments);

// An Ethernet II frame: destination, source, EtherType, then `payloadBytes` bytes of `fill`.
Frame EthernetFrame(const MacAddress& destination, const MacAddress& source, uint16_t etherType,
                    size_t payloadBytes, uint8_t fill = 0);

// A UDP fragment from 10.0.0.1 to 10.0.0.2: `payloadBytes` bytes of `fill` at byte
// `offsetBytes` (a multiple of 8) of datagram `id`.
Frame Ipv4Fragment(const MacAddress& destination, const MacAddress& source, uint16_t id, uint32_t offsetBytes,
                   bool more, size_t payloadBytes, uint8_t fill = 0xAB);

class FrameBuilder {
public:
    static FrameBuilder Tcp();
    static FrameBuilder Udp();
    static FrameBuilder Arp();
    // IPv4 with the given protocol number and only `Payload` after the IP header.
    static FrameBuilder Ipv4(uint8_t protocol);

    // Ethernet
    FrameBuilder& EthDst(const MacAddress& mac) { ethDst_ = mac; return *this; }
    FrameBuilder& EthSrc(const MacAddress& mac) { ethSrc_ = mac; return *this; }
    // Ethernet padding: zero bytes appended until the frame has this many bytes.
    FrameBuilder& PadTo(size_t frameSize) { padTo_ = frameSize; return *this; }

    // IPv4 (or IPv6 from fd00::1 to fd00::2, TCP and UDP only)
    FrameBuilder& Ipv6() { ipv6_ = true; return *this; }
    FrameBuilder& IpSrc(const Ipv4Address& ip) { ipSrc_ = ip; return *this; }
    FrameBuilder& IpDst(const Ipv4Address& ip) { ipDst_ = ip; return *this; }
    FrameBuilder& IpId(uint16_t id) { ipId_ = id; return *this; }
    FrameBuilder& DontFragment(bool on) { fragmentField_ = on ? 0x4000 : 0; return *this; }
    // A fragment at this byte offset (a multiple of 8), with the more-fragments bit.
    FrameBuilder& FragmentAt(uint32_t offsetBytes, bool more);
    // Options are zero-padded to a multiple of 4 bytes (at most 40).
    FrameBuilder& IpOptions(const Bytes& options) { ipOptions_ = PadOptions(options); return *this; }

    // TCP / UDP
    FrameBuilder& SrcPort(uint16_t port) { srcPort_ = port; return *this; }
    FrameBuilder& DstPort(uint16_t port) { dstPort_ = port; return *this; }
    FrameBuilder& Seq(uint32_t seq) { seq_ = seq; return *this; }
    FrameBuilder& AckNumber(uint32_t ack) { ack_ = ack; return *this; }
    FrameBuilder& Flags(uint8_t flags) { flags_ = flags; return *this; }
    FrameBuilder& TcpOptions(const Bytes& options) { tcpOptions_ = PadOptions(options); return *this; }
    FrameBuilder& NoUdpChecksum() { noUdpChecksum_ = true; return *this; }  // UDP checksum 0: "none"
    FrameBuilder& Payload(const Bytes& payload) { payload_ = payload; return *this; }
    FrameBuilder& Payload(const std::string& text) { payload_.assign(text.begin(), text.end()); return *this; }

    // ARP (Ethernet/IPv4)
    FrameBuilder& ArpOpcode(uint16_t opcode) { arpOpcode_ = opcode; return *this; }
    FrameBuilder& ArpSender(const MacAddress& mac, const Ipv4Address& ip) { arpSender_ = {mac, ip}; return *this; }
    FrameBuilder& ArpTarget(const MacAddress& mac, const Ipv4Address& ip) { arpTarget_ = {mac, ip}; return *this; }

    Frame Build() const;
    // The datagram cut into IPv4 fragments carrying at most `fragmentData` bytes of IP
    // payload each (a multiple of 8), with offsets and the more-fragments bit set; the
    // transport checksum is that of the whole datagram and sits in the first fragment.
    FragmentList BuildFragments(size_t fragmentData) const;

private:
    enum class Kind { Tcp, Udp, Arp, Raw };
    explicit FrameBuilder(Kind kind, uint8_t protocol) : kind_(kind), protocol_(protocol) {}
    static Bytes PadOptions(Bytes options);
    Bytes IpPayload() const;  // transport header + payload, checksum included
    Frame Assemble(const Bytes& ipPayload, uint16_t fragmentField) const;

    Kind kind_;
    uint8_t protocol_;
    MacAddress ethDst_{0x02, 0x00, 0x00, 0x00, 0x00, 0x02};
    MacAddress ethSrc_{0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    size_t padTo_ = 0;
    bool ipv6_ = false;
    Ipv4Address ipSrc_{10, 0, 0, 1};
    Ipv4Address ipDst_{10, 0, 0, 2};
    uint16_t ipId_ = 0x1234;
    uint16_t fragmentField_ = 0x4000;  // don't fragment
    Bytes ipOptions_;
    uint16_t srcPort_ = 40000;
    uint16_t dstPort_ = 80;
    uint32_t seq_ = 1000;
    uint32_t ack_ = 0;
    uint8_t flags_ = kAck;
    Bytes tcpOptions_;
    bool noUdpChecksum_ = false;
    Bytes payload_;
    uint16_t arpOpcode_ = 1;
    std::pair<MacAddress, Ipv4Address> arpSender_{ethSrc_, ipSrc_};
    std::pair<MacAddress, Ipv4Address> arpTarget_{{}, ipDst_};
};

}  // namespace ndtest
