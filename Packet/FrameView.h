#pragma once
// The fields of one captured Ethernet II frame, read once, bounds-checked, by the publisher
// and handed with the frame to the fragment collector, the sessions and the engine. No
// allocation; a field the frame is too short for stays 0 and its flag says so. All offsets
// are frame offsets (from the destination MAC).
#include <cstddef>
#include <cstdint>

#include "Packet/Frame.h"
#include "Packet/IcmpPacket.h"

namespace Nat {

struct FrameView {
    size_t size = 0;  // the frame's length when it was read
    MacAddress dstMac{};
    MacAddress srcMac{};
    uint16_t etherType = 0;  // read as the codec reads it: a 13-byte frame's second byte is 0

    // IPv4: ipv4 when the type is 0x0800 and the frame holds a 20-byte header.
    bool ipv4 = false;
    uint32_t ipHeaderSize = 0;  // from the IHL, whether or not the frame holds that much
    uint16_t totalLength = 0;
    uint16_t identification = 0;
    uint32_t fragmentOffset = 0;  // in bytes
    bool moreFragments = false;
    bool dontFragment = false;
    uint8_t protocol = 0;
    Ipv4Address srcIp{};
    Ipv4Address dstIp{};

    // TCP and UDP of a whole datagram or first fragment. ports: both port fields are in the
    // frame; transportHeader: so is the minimum header (8 bytes UDP, 20 TCP), and the rest.
    bool ports = false;
    bool transportHeader = false;
    uint16_t srcPort = 0;
    uint16_t dstPort = 0;
    uint32_t tcpHeaderSize = 0;  // from the data offset
    uint32_t sequence = 0;
    uint32_t acknowledgment = 0;
    uint8_t tcpFlags = 0;
    bool udpWithoutChecksum = false;
    // The TCP payload [payloadBegin, payloadEnd); payloadIntact when the IP total length
    // agrees with the frame, the headers fit it and the datagram is not fragmented.
    size_t payloadBegin = 0;
    size_t payloadEnd = 0;
    bool payloadIntact = false;

    // ICMP of a whole datagram or first fragment, when its 8-byte header is present.
    bool icmp = false;
    Icmp::Message icmpMessage;

    bool IsFragment() const { return fragmentOffset != 0 || moreFragments; }
    bool IsLastFragment() const { return !moreFragments && fragmentOffset != 0; }
    bool Tcp() const { return protocol == IpProtocol::kTcp; }
    bool Udp() const { return protocol == IpProtocol::kUdp; }
    bool TcpFin() const { return (tcpFlags & 0x01) != 0; }
    bool TcpRst() const { return (tcpFlags & 0x04) != 0; }
    bool TcpAck() const { return (tcpFlags & 0x10) != 0; }
    // A fragment the collector can hold: its lengths fit the frame and the datagram.
    bool Collectable() const;
    // An IPv4 TCP, UDP or ICMP frame holding its ports' (or ICMP type's) first 4 bytes:
    // anything else is never translated and goes on unchanged.
    bool Translatable() const;
};

FrameView ReadFrameView(const uint8_t* frame, size_t size);
inline FrameView ReadFrameView(const Frame& frame) { return ReadFrameView(frame.data(), frame.size()); }

// Throws Nat::Exception unless the view is of an IPv4 frame holding its whole IP header,
// with the texts the codec and the engine have always used for each fault, in their order.
void ThrowUnlessIpv4Header(const FrameView& view);

}  // namespace Nat
