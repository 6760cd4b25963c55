#include "support/FrameBuilder.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

namespace ndtest {

namespace {

void Put16(Bytes& out, size_t offset, uint16_t value) {
    out[offset] = static_cast<uint8_t>(value >> 8);
    out[offset + 1] = static_cast<uint8_t>(value);
}

void Append16(Bytes& out, uint16_t value) {
    out.push_back(static_cast<uint8_t>(value >> 8));
    out.push_back(static_cast<uint8_t>(value));
}

void Append32(Bytes& out, uint32_t value) {
    Append16(out, static_cast<uint16_t>(value >> 16));
    Append16(out, static_cast<uint16_t>(value));
}

template <typename Array>
void AppendAll(Bytes& out, const Array& bytes) {
    out.insert(out.end(), bytes.begin(), bytes.end());
}

Bytes PadOptions(Bytes options) {
    if (options.size() > 40) throw std::invalid_argument("FrameBuilder: options longer than 40 bytes");
    while (options.size() % 4 != 0) options.push_back(0);
    return options;
}

// Pseudo-header sum for TCP/UDP over IPv4.
uint32_t PseudoHeaderSum(const Ipv4Address& src, const Ipv4Address& dst, uint8_t protocol, size_t length) {
    uint32_t sum = 0;
    sum += (src[0] << 8) | src[1];
    sum += (src[2] << 8) | src[3];
    sum += (dst[0] << 8) | dst[1];
    sum += (dst[2] << 8) | dst[3];
    sum += protocol;
    sum += static_cast<uint32_t>(length);
    return sum;
}

struct Layout {
    size_t ipHeader;
    size_t segmentStart;
    size_t segmentLength;
    size_t checksumOffset;  // inside the frame
};

Layout TransportLayout(const Frame& frame) {
    if (frame.size() < 34 || Be16(frame, 12) != kEtherIpv4) throw std::invalid_argument("not an IPv4 frame");
    Layout layout{};
    layout.ipHeader = static_cast<size_t>(frame[14] & 0x0F) * 4;
    const size_t total = Be16(frame, 16);
    if (layout.ipHeader < 20 || total < layout.ipHeader || 14 + total > frame.size())
        throw std::invalid_argument("IPv4 lengths do not fit the frame");
    layout.segmentStart = 14 + layout.ipHeader;
    layout.segmentLength = total - layout.ipHeader;
    if (frame[23] == kProtoTcp)
        layout.checksumOffset = layout.segmentStart + 16;
    else if (frame[23] == kProtoUdp)
        layout.checksumOffset = layout.segmentStart + 6;
    else
        throw std::invalid_argument("neither TCP nor UDP");
    if (layout.checksumOffset + 2 > layout.segmentStart + layout.segmentLength)
        throw std::invalid_argument("segment too short for its checksum");
    return layout;
}

Ipv4Address IpAt(const Frame& frame, size_t offset) {
    return {frame[offset], frame[offset + 1], frame[offset + 2], frame[offset + 3]};
}

uint32_t Sum(const uint8_t* data, size_t length, uint32_t sum) {
    for (size_t i = 0; i < length; i += 2) {
        const uint32_t high = data[i];
        const uint32_t low = i + 1 < length ? data[i + 1] : 0;
        sum += (high << 8) | low;
    }
    return sum;
}

uint16_t FoldComplement(uint32_t sum) {
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

}  // namespace

MacAddress Mac(const std::string& text) {
    MacAddress mac{};
    unsigned v[6];
    if (std::sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]) != 6)
        throw std::invalid_argument("bad MAC text " + text);
    for (int i = 0; i < 6; ++i) mac[i] = static_cast<uint8_t>(v[i]);
    return mac;
}

Ipv4Address Ip(const std::string& text) {
    unsigned v[4];
    if (std::sscanf(text.c_str(), "%u.%u.%u.%u", &v[0], &v[1], &v[2], &v[3]) != 4)
        throw std::invalid_argument("bad IP text " + text);
    return {static_cast<uint8_t>(v[0]), static_cast<uint8_t>(v[1]), static_cast<uint8_t>(v[2]),
            static_cast<uint8_t>(v[3])};
}

Bytes ToBytes(const MacAddress& mac) { return Bytes(mac.begin(), mac.end()); }
Bytes ToBytes(const Ipv4Address& ip) { return Bytes(ip.begin(), ip.end()); }
Bytes ToBytes(const std::string& text) { return Bytes(text.begin(), text.end()); }

uint16_t Be16(const Frame& frame, size_t offset) {
    return static_cast<uint16_t>((frame.at(offset) << 8) | frame.at(offset + 1));
}

uint32_t Be32(const Frame& frame, size_t offset) {
    return (static_cast<uint32_t>(Be16(frame, offset)) << 16) | Be16(frame, offset + 2);
}

uint16_t InternetChecksum(const uint8_t* data, size_t length, uint32_t initial) {
    return FoldComplement(Sum(data, length, initial));
}

uint16_t ReferenceIpChecksum(const Frame& frame) {
    if (frame.size() < 34) throw std::invalid_argument("not an IPv4 frame");
    const size_t h = static_cast<size_t>(frame[14] & 0x0F) * 4;
    if (14 + h > frame.size()) throw std::invalid_argument("IPv4 header beyond the frame");
    Bytes header(frame.begin() + 14, frame.begin() + 14 + static_cast<long>(h));
    if (header.size() >= 12) header[10] = header[11] = 0;
    return InternetChecksum(header.data(), header.size());
}

uint16_t ReferenceTransportChecksum(const Frame& frame) {
    const Layout l = TransportLayout(frame);
    Bytes segment(frame.begin() + static_cast<long>(l.segmentStart),
                  frame.begin() + static_cast<long>(l.segmentStart + l.segmentLength));
    segment[l.checksumOffset - l.segmentStart] = 0;
    segment[l.checksumOffset - l.segmentStart + 1] = 0;
    const uint32_t pseudo = PseudoHeaderSum(IpAt(frame, 26), IpAt(frame, 30), frame[23], l.segmentLength);
    return InternetChecksum(segment.data(), segment.size(), pseudo);
}

bool IpChecksumValid(const Frame& frame) {
    const size_t h = static_cast<size_t>(frame.at(14) & 0x0F) * 4;
    if (h < 20 || 14 + h > frame.size()) return false;
    return InternetChecksum(frame.data() + 14, h) == 0;
}

bool TransportChecksumValid(const Frame& frame) {
    const Layout l = TransportLayout(frame);
    const uint32_t pseudo = PseudoHeaderSum(IpAt(frame, 26), IpAt(frame, 30), frame[23], l.segmentLength);
    return InternetChecksum(frame.data() + l.segmentStart, l.segmentLength, pseudo) == 0;
}

FrameBuilder::FrameBuilder(Kind kind) : kind_(kind) {}

FrameBuilder FrameBuilder::Tcp() { return FrameBuilder(Kind::Tcp); }
FrameBuilder FrameBuilder::Udp() {
    FrameBuilder b(Kind::Udp);
    b.dstPort_ = 53;
    return b;
}
FrameBuilder FrameBuilder::Arp() {
    FrameBuilder b(Kind::Arp);
    b.ethDst_ = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    return b;
}
FrameBuilder FrameBuilder::Ipv4(uint8_t protocol) {
    FrameBuilder b(Kind::Raw);
    b.protocol_ = protocol;
    return b;
}

FrameBuilder& FrameBuilder::EthDst(const MacAddress& mac) { ethDst_ = mac; return *this; }
FrameBuilder& FrameBuilder::EthSrc(const MacAddress& mac) { ethSrc_ = mac; return *this; }
FrameBuilder& FrameBuilder::EtherType(uint16_t type) { etherType_ = type; return *this; }
FrameBuilder& FrameBuilder::PadTo(size_t frameSize) { padTo_ = frameSize; return *this; }
FrameBuilder& FrameBuilder::IpSrc(const Ipv4Address& ip) { ipSrc_ = ip; return *this; }
FrameBuilder& FrameBuilder::IpDst(const Ipv4Address& ip) { ipDst_ = ip; return *this; }
FrameBuilder& FrameBuilder::Ttl(uint8_t ttl) { ttl_ = ttl; return *this; }
FrameBuilder& FrameBuilder::Tos(uint8_t tos) { tos_ = tos; return *this; }
FrameBuilder& FrameBuilder::IpId(uint16_t id) { ipId_ = id; return *this; }
FrameBuilder& FrameBuilder::DontFragment(bool on) { dontFragment_ = on; return *this; }
FrameBuilder& FrameBuilder::Protocol(uint8_t protocol) { protocol_ = protocol; return *this; }
FrameBuilder& FrameBuilder::IpOptions(const Bytes& options) { ipOptions_ = PadOptions(options); return *this; }
FrameBuilder& FrameBuilder::IpChecksum(uint16_t value) { ipChecksum_ = value; return *this; }
FrameBuilder& FrameBuilder::TotalLength(uint16_t value) { totalLength_ = value; return *this; }
FrameBuilder& FrameBuilder::SrcPort(uint16_t port) { srcPort_ = port; return *this; }
FrameBuilder& FrameBuilder::DstPort(uint16_t port) { dstPort_ = port; return *this; }
FrameBuilder& FrameBuilder::Seq(uint32_t seq) { seq_ = seq; return *this; }
FrameBuilder& FrameBuilder::AckNumber(uint32_t ack) { ack_ = ack; return *this; }
FrameBuilder& FrameBuilder::Flags(uint8_t flags) { flags_ = flags; return *this; }
FrameBuilder& FrameBuilder::Window(uint16_t window) { window_ = window; return *this; }
FrameBuilder& FrameBuilder::UrgentPointer(uint16_t pointer) { urgent_ = pointer; return *this; }
FrameBuilder& FrameBuilder::TcpOptions(const Bytes& options) { tcpOptions_ = PadOptions(options); return *this; }
FrameBuilder& FrameBuilder::TransportChecksum(uint16_t value) { transportChecksum_ = value; return *this; }
FrameBuilder& FrameBuilder::NoUdpChecksum() { transportChecksum_ = 0; return *this; }
FrameBuilder& FrameBuilder::Payload(const Bytes& payload) { payload_ = payload; return *this; }
FrameBuilder& FrameBuilder::Payload(const std::string& payload) { payload_ = ToBytes(payload); return *this; }
FrameBuilder& FrameBuilder::ArpOpcode(uint16_t opcode) { arpOpcode_ = opcode; return *this; }
FrameBuilder& FrameBuilder::ArpProtocolType(uint16_t type) { arpProtocolType_ = type; return *this; }
FrameBuilder& FrameBuilder::ArpSender(const MacAddress& mac, const Ipv4Address& ip) {
    arpSenderMac_ = mac;
    arpSenderIp_ = ip;
    return *this;
}
FrameBuilder& FrameBuilder::ArpTarget(const MacAddress& mac, const Ipv4Address& ip) {
    arpTargetMac_ = mac;
    arpTargetIp_ = ip;
    return *this;
}

Bytes FrameBuilder::IpPayload() const {
    Bytes seg;
    const uint8_t protocol = protocol_.value_or(kind_ == Kind::Tcp ? kProtoTcp : kProtoUdp);
    size_t checksumAt = 0;
    if (kind_ == Kind::Tcp) {
        Append16(seg, srcPort_);
        Append16(seg, dstPort_);
        Append32(seg, seq_);
        Append32(seg, ack_);
        seg.push_back(static_cast<uint8_t>(((20 + tcpOptions_.size()) / 4) << 4));
        seg.push_back(flags_);
        Append16(seg, window_);
        checksumAt = seg.size();
        Append16(seg, 0);
        Append16(seg, urgent_);
        AppendAll(seg, tcpOptions_);
    } else if (kind_ == Kind::Udp) {
        Append16(seg, srcPort_);
        Append16(seg, dstPort_);
        Append16(seg, static_cast<uint16_t>(8 + payload_.size()));
        checksumAt = seg.size();
        Append16(seg, 0);
    }
    AppendAll(seg, payload_);
    if (kind_ == Kind::Tcp || kind_ == Kind::Udp) {
        uint16_t checksum;
        if (transportChecksum_) {
            checksum = *transportChecksum_;
        } else {
            checksum = InternetChecksum(seg.data(), seg.size(), PseudoHeaderSum(ipSrc_, ipDst_, protocol, seg.size()));
            if (kind_ == Kind::Udp && checksum == 0) checksum = 0xFFFF;  // 0 would mean "no checksum"
        }
        Put16(seg, checksumAt, checksum);
    }
    return seg;
}

Frame FrameBuilder::Assemble(const Bytes& ipPayload, uint16_t fragmentField,
                             std::optional<uint16_t> totalLength) const {
    Frame f;
    AppendAll(f, ethDst_);
    AppendAll(f, ethSrc_);
    if (kind_ == Kind::Arp) {
        Append16(f, etherType_.value_or(kEtherArp));
        Append16(f, 1);       // hardware type: Ethernet
        Append16(f, arpProtocolType_);
        f.push_back(6);
        f.push_back(4);
        Append16(f, arpOpcode_);
        AppendAll(f, arpSenderMac_);
        AppendAll(f, arpSenderIp_);
        AppendAll(f, arpTargetMac_);
        AppendAll(f, arpTargetIp_);
        AppendAll(f, payload_);
    } else {
        Append16(f, etherType_.value_or(kEtherIpv4));
        const size_t headerSize = 20 + ipOptions_.size();
        f.push_back(static_cast<uint8_t>(0x40 | (headerSize / 4)));
        f.push_back(tos_);
        Append16(f, totalLength.value_or(static_cast<uint16_t>(headerSize + ipPayload.size())));
        Append16(f, ipId_);
        Append16(f, fragmentField);
        f.push_back(ttl_);
        f.push_back(protocol_.value_or(kind_ == Kind::Tcp ? kProtoTcp : kProtoUdp));
        Append16(f, 0);
        AppendAll(f, ipSrc_);
        AppendAll(f, ipDst_);
        AppendAll(f, ipOptions_);
        const uint16_t checksum = ipChecksum_.value_or(InternetChecksum(f.data() + 14, headerSize));
        Put16(f, 24, checksum);
        AppendAll(f, ipPayload);
    }
    if (f.size() < padTo_) f.resize(padTo_, 0);
    return f;
}

Frame FrameBuilder::Build() const {
    const uint16_t fragmentField = dontFragment_ ? 0x4000 : 0;
    return Assemble(kind_ == Kind::Arp ? Bytes{} : IpPayload(), fragmentField, totalLength_);
}

FragmentList FrameBuilder::BuildFragments(size_t fragmentData) const {
    if (kind_ == Kind::Arp || fragmentData == 0 || fragmentData % 8 != 0)
        throw std::invalid_argument("FrameBuilder: fragments need IPv4 and a multiple of 8");
    const Bytes whole = IpPayload();
    FragmentList fragments;
    for (size_t offset = 0; offset < whole.size(); offset += fragmentData) {
        const size_t end = std::min(whole.size(), offset + fragmentData);
        const Bytes piece(whole.begin() + static_cast<long>(offset), whole.begin() + static_cast<long>(end));
        const bool more = end < whole.size();
        const uint16_t field = static_cast<uint16_t>((more ? 0x2000 : 0) | (offset / 8));
        fragments.push_back(Assemble(piece, field, std::nullopt));
    }
    return fragments;
}

}  // namespace ndtest
