#pragma once
// Reading ICMP messages of IPv4 frames, and the datagram an error message quotes.
// Readers never throw: a frame that does not hold what they need answers false. All
// offsets are frame offsets and are checked against the frame size and the IP total
// length, so Ethernet padding is never taken for message bytes.
#include <cstddef>
#include <cstdint>

#include "Packet/Frame.h"
#include "Packet/IpProtocol.h"

namespace Nat::Icmp {

inline constexpr uint8_t kEchoReply = 0;
inline constexpr uint8_t kDestinationUnreachable = 3;
inline constexpr uint8_t kEchoRequest = 8;
inline constexpr uint8_t kTimeExceeded = 11;
inline constexpr uint8_t kParameterProblem = 12;

inline constexpr size_t kHeaderSize = 8;
inline constexpr size_t kChecksumAt = 2;    // in the ICMP header
inline constexpr size_t kIdentifierAt = 4;  // in an echo header

// Error types that quote the datagram they are about.
inline bool IsError(uint8_t type) {
    return type == kDestinationUnreachable || type == kTimeExceeded || type == kParameterProblem;
}

// An unfragmented (or first-fragment) ICMP message of an IPv4 frame, as the frame view
// (Packet/FrameView.h) reads it.
struct Message {
    size_t begin = 0;  // the ICMP header
    size_t end = 0;    // end of the message bytes present in the frame
    uint8_t type = 0;
    uint8_t code = 0;
    uint16_t identifier = 0;  // echo request and reply only
};

// The quoted datagram of an error: its IP header whole, and of its transport header at least
// the ports (TCP, UDP) or the echo identifier (ICMP echo request). Checksum offsets are 0
// when the quote is cut before them.
struct Quote {
    size_t ipBegin = 0;
    uint8_t protocol = 0;
    Ipv4Address srcIp{};
    Ipv4Address dstIp{};
    size_t transportBegin = 0;
    uint16_t srcPort = 0;  // the echo identifier for ICMP, in both fields
    uint16_t dstPort = 0;
    size_t transportChecksumAt = 0;
    bool pseudoHeader = false;  // the transport checksum covers the quoted addresses
};

// False unless `message` is an error whose quote reaches its flow's ports or identifier.
bool ReadQuote(const Frame& frame, const Message& message, Quote& quote);

}  // namespace Nat::Icmp
