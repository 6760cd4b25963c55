#include "Packet/FrameView.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "Packet/BigEndian.h"
#include "Packet/NatException.h"

namespace Nat {

namespace {

constexpr size_t kEthernetHeaderSize = 14;
constexpr uint32_t kMinIpHeaderSize = 20;
constexpr uint32_t kMinTcpHeaderSize = 20;
constexpr uint32_t kUdpHeaderSize = 8;
constexpr uint16_t kIpv4FrameType = 0x0800;
constexpr uint32_t kMaxDatagram = 65535;


[[noreturn]] void ThrowSize(const char* text, size_t size) { throw Exception(text + std::to_string(size)); }

void ReadTransport(const uint8_t* frame, FrameView& v) {
    const size_t t = kEthernetHeaderSize + v.ipHeaderSize;
    if (v.size < t + 4) return;
    v.ports = true;
    v.srcPort = ReadBe16(frame + t);
    v.dstPort = ReadBe16(frame + t + 2);
    if (v.Udp()) {
        if (v.size < t + kUdpHeaderSize) return;
        v.transportHeader = true;
        v.udpWithoutChecksum = ReadBe16(frame + t + 6) == 0;
        return;
    }
    if (v.size < t + kMinTcpHeaderSize) return;
    v.transportHeader = true;
    v.sequence = ReadBe32(frame + t + 4);
    v.acknowledgment = ReadBe32(frame + t + 8);
    v.tcpHeaderSize = static_cast<uint32_t>(frame[t + 12] >> 4) * 4;
    v.tcpFlags = frame[t + 13];
    const uint32_t headers = v.ipHeaderSize + v.tcpHeaderSize;
    v.payloadBegin = kEthernetHeaderSize + headers;
    v.payloadEnd = kEthernetHeaderSize + v.totalLength;
    v.payloadIntact = v.tcpHeaderSize >= kMinTcpHeaderSize && !v.moreFragments && v.totalLength >= headers &&
                      v.payloadEnd <= v.size;
}

void ReadIcmp(const uint8_t* frame, FrameView& v) {
    Icmp::Message& m = v.icmpMessage;
    const size_t end = std::min(v.size, kEthernetHeaderSize + v.totalLength);
    m.begin = kEthernetHeaderSize + v.ipHeaderSize;
    if (end < m.begin + Icmp::kHeaderSize) return;
    v.icmp = true;
    m.end = end;
    m.type = frame[m.begin];
    m.code = frame[m.begin + 1];
    const bool echo = m.type == Icmp::kEchoRequest || m.type == Icmp::kEchoReply;
    m.identifier = echo ? ReadBe16(frame + m.begin + Icmp::kIdentifierAt) : 0;
}

}  // namespace

FrameView ReadFrameView(const uint8_t* frame, size_t size) {
    FrameView v;
    v.size = size;
    if (size >= 6) std::memcpy(v.dstMac.data(), frame, 6);
    if (size >= 12) std::memcpy(v.srcMac.data(), frame + 6, 6);
    if (size >= 13) v.etherType = static_cast<uint16_t>((frame[12] << 8) | (size > 13 ? frame[13] : 0));
    if (size > kEthernetHeaderSize) v.ipHeaderSize = static_cast<uint32_t>(frame[14] & 0x0F) * 4;
    if (v.etherType != kIpv4FrameType || size < kEthernetHeaderSize + kMinIpHeaderSize) return v;

    const uint8_t* ip = frame + kEthernetHeaderSize;
    v.ipv4 = true;
    v.totalLength = ReadBe16(ip + 2);
    v.identification = ReadBe16(ip + 4);
    v.moreFragments = (ip[6] & 0x20) != 0;
    v.dontFragment = (ip[6] & 0x40) != 0;
    v.fragmentOffset = (static_cast<uint32_t>(ReadBe16(ip + 6)) & 0x1FFFu) * 8u;
    v.protocol = ip[9];
    std::memcpy(v.srcIp.data(), ip + 12, 4);
    std::memcpy(v.dstIp.data(), ip + 16, 4);
    if (v.ipHeaderSize < kMinIpHeaderSize || v.fragmentOffset != 0) return v;
    if (v.Tcp() || v.Udp()) ReadTransport(frame, v);
    if (v.protocol == IpProtocol::kIcmp) ReadIcmp(frame, v);
    return v;
}

bool FrameView::Collectable() const {
    return ipv4 && ipHeaderSize >= kMinIpHeaderSize && totalLength >= ipHeaderSize &&
           kEthernetHeaderSize + totalLength <= size && fragmentOffset + totalLength <= kMaxDatagram;
}

bool FrameView::Translatable() const {
    const bool known = Tcp() || Udp() || protocol == IpProtocol::kIcmp;
    return ipv4 && ipHeaderSize >= kMinIpHeaderSize && known && size >= kEthernetHeaderSize + ipHeaderSize + 4;
}

void ThrowUnlessIpv4Header(const FrameView& v) {
    if (v.size < 13) ThrowSize("Error getting ethernet frame type, unexpected packet size: ", v.size);
    if (v.etherType != kIpv4FrameType) {
        throw Exception("Unexpected ethernet frame type: " + std::to_string(v.etherType));
    }
    if (v.size < kEthernetHeaderSize) ThrowSize("Error getting IP header size, unexpected packet size: ", v.size);
    if (v.ipHeaderSize < kMinIpHeaderSize) {
        throw Exception("Unexpected IP header size: " + std::to_string(v.ipHeaderSize));
    }
    if (v.size < kEthernetHeaderSize + v.ipHeaderSize) ThrowSize("Unexpected packet size: ", v.size);
}

}  // namespace Nat
