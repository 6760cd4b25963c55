#include "Packet/IcmpPacket.h"

#include <algorithm>
#include <cstring>

#include "Packet/BigEndian.h"

namespace Nat::Icmp {

namespace {

constexpr size_t kMinIpHeaderSize = 20;

Ipv4Address IpAt(const Frame& frame, size_t at) {
    Ipv4Address ip;
    std::memcpy(ip.data(), frame.data() + at, 4);
    return ip;
}

}  // namespace

bool ReadQuote(const Frame& frame, const Message& message, Quote& quote) {
    if (!IsError(message.type)) return false;
    const size_t ip = message.begin + kHeaderSize;
    if (message.end < ip + kMinIpHeaderSize || (frame[ip] >> 4) != 4) return false;
    const size_t headerSize = static_cast<size_t>(frame[ip] & 0x0F) * 4;
    if (headerSize < kMinIpHeaderSize) return false;
    if (((frame[ip + 6] & 0x1F) | frame[ip + 7]) != 0) return false;  // ports only in the first fragment
    quote.ipBegin = ip;
    quote.protocol = frame[ip + 9];
    quote.srcIp = IpAt(frame, ip + 12);
    quote.dstIp = IpAt(frame, ip + 16);
    const size_t t = ip + headerSize;
    quote.transportBegin = t;
    quote.transportChecksumAt = 0;
    const auto present = [&](size_t field, size_t size) { return t + field + size <= message.end; };
    switch (quote.protocol) {
        case IpProtocol::kTcp:
        case IpProtocol::kUdp: {
            if (!present(0, 4)) return false;
            quote.srcPort = ReadBe16(frame.data() + t);
            quote.dstPort = ReadBe16(frame.data() + t + 2);
            const bool tcp = quote.protocol == IpProtocol::kTcp;
            const size_t checksum = tcp ? 16 : 6;
            // A UDP datagram sent without a checksum has none to keep.
            if (present(checksum, 2) && (tcp || ReadBe16(frame.data() + t + checksum) != 0)) {
                quote.transportChecksumAt = t + checksum;
            }
            quote.pseudoHeader = true;
            return true;
        }
        case IpProtocol::kIcmp:
            // Only echo requests are flows; an error about an error is never translated.
            if (!present(0, kIdentifierAt + 2) || frame[t] != kEchoRequest) return false;
            quote.srcPort = quote.dstPort = ReadBe16(frame.data() + t + kIdentifierAt);
            quote.transportChecksumAt = t + kChecksumAt;
            quote.pseudoHeader = false;
            return true;
        default:
            return false;
    }
}

}  // namespace Nat::Icmp
