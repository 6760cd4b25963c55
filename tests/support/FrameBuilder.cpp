#include "support/FrameBuilder.h"

#include <algorithm>
#include <cstdio>
#include <map>
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

template <typename Range>
void AppendAll(Bytes& out, const Range& bytes) {
    out.insert(out.end(), bytes.begin(), bytes.end());
}

// fd00::1 and fd00::2.
const Bytes kIpv6Src = {0xFD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
const Bytes kIpv6Dst = {0xFD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};

uint32_t Sum(const uint8_t* data, size_t length, uint32_t sum = 0) {
    for (size_t i = 0; i < length; i += 2) {
        const uint32_t high = data[i];
        const uint32_t low = i + 1 < length ? data[i + 1] : 0;
        sum += (high << 8) | low;
    }
    return sum;
}

uint16_t Fold(uint32_t sum) {
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(sum);
}

// Pseudo-header sum for TCP/UDP: both addresses (4 or 16 bytes each), protocol, length.
uint32_t PseudoSum(const uint8_t* addresses, size_t addressBytes, uint8_t protocol, size_t length) {
    return Sum(addresses, addressBytes) + protocol + static_cast<uint32_t>(length);
}

struct Layout {
    size_t segmentStart;
    size_t segmentLength;
    size_t checksumOffset;  // inside the frame
    uint32_t pseudo;
};

// The TCP or UDP segment of an IPv4 or IPv6 frame, as long as its IP header says.
std::optional<Layout> TransportLayout(const Frame& frame) {
    if (frame.size() < 14) return std::nullopt;
    Layout l{};
    uint8_t protocol;
    if (Be16(frame, 12) == kEtherIpv4 && frame.size() >= 34) {
        const size_t header = static_cast<size_t>(frame[14] & 0x0F) * 4;
        const size_t total = Be16(frame, 16);
        if (header < 20 || total < header || 14 + total > frame.size()) return std::nullopt;
        l.segmentStart = 14 + header;
        l.segmentLength = total - header;
        protocol = frame[23];
        l.pseudo = PseudoSum(frame.data() + 26, 8, protocol, l.segmentLength);
    } else if (Be16(frame, 12) == kEtherIpv6 && frame.size() >= 54) {
        l.segmentStart = 54;
        l.segmentLength = Be16(frame, 18);
        if (54 + l.segmentLength > frame.size()) return std::nullopt;
        protocol = frame[20];
        l.pseudo = PseudoSum(frame.data() + 22, 32, protocol, l.segmentLength);
    } else {
        return std::nullopt;
    }
    if (protocol != kProtoTcp && protocol != kProtoUdp) return std::nullopt;
    l.checksumOffset = l.segmentStart + (protocol == kProtoTcp ? 16 : 6);
    if (l.checksumOffset + 2 > l.segmentStart + l.segmentLength) return std::nullopt;
    return l;
}

Layout RequireLayout(const Frame& frame) {
    const auto l = TransportLayout(frame);
    if (!l) throw std::invalid_argument("no TCP or UDP segment in this frame");
    return *l;
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

Bytes Pattern(size_t n, uint32_t seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>((i * 131 + seed) >> 3);
    return b;
}

uint16_t Be16(const Frame& frame, size_t offset) {
    return static_cast<uint16_t>((frame.at(offset) << 8) | frame.at(offset + 1));
}

uint32_t Be32(const Frame& frame, size_t offset) {
    return (static_cast<uint32_t>(Be16(frame, offset)) << 16) | Be16(frame, offset + 2);
}

uint16_t InternetChecksum(const uint8_t* data, size_t length, uint32_t initial) {
    return static_cast<uint16_t>(~Fold(Sum(data, length, initial)));
}

uint16_t ReferenceTransportChecksum(const Frame& frame) {
    const Layout l = RequireLayout(frame);
    Bytes segment(frame.begin() + static_cast<long>(l.segmentStart),
                  frame.begin() + static_cast<long>(l.segmentStart + l.segmentLength));
    segment[l.checksumOffset - l.segmentStart] = 0;
    segment[l.checksumOffset - l.segmentStart + 1] = 0;
    return InternetChecksum(segment.data(), segment.size(), l.pseudo);
}

size_t TransportOffset(const Frame& frame) { return RequireLayout(frame).segmentStart; }
size_t TransportChecksumOffset(const Frame& frame) { return RequireLayout(frame).checksumOffset; }
uint16_t PseudoHeaderChecksum(const Frame& frame) { return Fold(RequireLayout(frame).pseudo); }

Nat::FrameOffload LeaveChecksumToHardware(Frame& frame) {
    const Layout l = RequireLayout(frame);
    Put16(frame, l.checksumOffset, Fold(l.pseudo));
    Nat::FrameOffload offload;
    offload.flags = Nat::kOffloadNeedsChecksum;
    offload.csumStart = static_cast<uint16_t>(l.segmentStart);
    offload.csumOffset = static_cast<uint16_t>(l.checksumOffset - l.segmentStart);
    return offload;
}

bool IpChecksumValid(const Frame& frame) {
    if (frame.size() < 34 || Be16(frame, 12) != kEtherIpv4) return false;
    const size_t h = static_cast<size_t>(frame[14] & 0x0F) * 4;
    if (h < 20 || 14 + h > frame.size()) return false;
    return InternetChecksum(frame.data() + 14, h) == 0;
}

bool TransportChecksumValid(const Frame& frame) {
    const auto l = TransportLayout(frame);
    return l && InternetChecksum(frame.data() + l->segmentStart, l->segmentLength, l->pseudo) == 0;
}

Frame Reassemble(const FragmentList& fragments) {
    std::map<size_t, Bytes> parts;
    const Frame* head = nullptr;
    for (const Frame& f : fragments) {
        const size_t header = static_cast<size_t>(f.at(14) & 0x0F) * 4;
        const size_t offset = static_cast<size_t>(Be16(f, 20) & 0x1FFF) * 8;
        const size_t end = std::min<size_t>(f.size(), 14 + Be16(f, 16));
        if (offset == 0) head = &f;
        parts[offset].assign(f.begin() + static_cast<long>(14 + header), f.begin() + static_cast<long>(end));
    }
    if (head == nullptr) return {};
    Frame whole(head->begin(), head->begin() + 14 + ((*head)[14] & 0x0F) * 4);
    const size_t headers = whole.size();
    for (const auto& [offset, bytes] : parts) {
        if (offset != whole.size() - headers) return {};
        AppendAll(whole, bytes);
    }
    Put16(whole, 16, static_cast<uint16_t>(whole.size() - 14));
    Put16(whole, 20, 0);
    return whole;
}

Frame EthernetFrame(const MacAddress& destination, const MacAddress& source, uint16_t etherType,
                    size_t payloadBytes, uint8_t fill) {
    Frame frame;
    AppendAll(frame, destination);
    AppendAll(frame, source);
    Append16(frame, etherType);
    frame.resize(frame.size() + payloadBytes, fill);
    return frame;
}

Frame Ipv4Fragment(const MacAddress& destination, const MacAddress& source, uint16_t id, uint32_t offsetBytes,
                   bool more, size_t payloadBytes, uint8_t fill) {
    return FrameBuilder::Ipv4(kProtoUdp).EthDst(destination).EthSrc(source).IpId(id).FragmentAt(offsetBytes, more)
        .Payload(Bytes(payloadBytes, fill)).Build();
}

FrameBuilder::FrameBuilder(Kind kind) : kind_(kind) {}

Bytes FrameBuilder::PadOptions(Bytes options) {
    if (options.size() > 40) throw std::invalid_argument("FrameBuilder: options longer than 40 bytes");
    while (options.size() % 4 != 0) options.push_back(0);
    return options;
}

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

FrameBuilder& FrameBuilder::FragmentAt(uint32_t offsetBytes, bool more) {
    if (offsetBytes % 8 != 0) throw std::invalid_argument("FrameBuilder: fragment offsets are multiples of 8");
    fragmentField_ = static_cast<uint16_t>((more ? 0x2000 : 0) | (offsetBytes / 8));
    return *this;
}
uint8_t FrameBuilder::ProtocolNumber() const {
    return protocol_.value_or(kind_ == Kind::Tcp ? kProtoTcp : kProtoUdp);
}

Bytes FrameBuilder::IpPayload() const {
    Bytes seg;
    size_t checksumAt = 0;
    if (kind_ == Kind::Tcp) {
        Append16(seg, srcPort_);
        Append16(seg, dstPort_);
        Append32(seg, seq_);
        Append32(seg, ack_);
        seg.push_back(static_cast<uint8_t>(((20 + tcpOptions_.size()) / 4) << 4));
        seg.push_back(flags_);
        Append16(seg, 64240);  // window
        checksumAt = seg.size();
        Append32(seg, 0);  // checksum, urgent pointer
        AppendAll(seg, tcpOptions_);
    } else if (kind_ == Kind::Udp) {
        Append16(seg, srcPort_);
        Append16(seg, dstPort_);
        Append16(seg, static_cast<uint16_t>(8 + payload_.size()));
        checksumAt = seg.size();
        Append16(seg, 0);
    }
    AppendAll(seg, payload_);
    if ((kind_ == Kind::Tcp || kind_ == Kind::Udp) && !(kind_ == Kind::Udp && noUdpChecksum_)) {
        Bytes addresses;
        if (ipv6_) {
            AppendAll(addresses, kIpv6Src);
            AppendAll(addresses, kIpv6Dst);
        } else {
            AppendAll(addresses, ipSrc_);
            AppendAll(addresses, ipDst_);
        }
        uint16_t checksum = InternetChecksum(
            seg.data(), seg.size(), PseudoSum(addresses.data(), addresses.size(), ProtocolNumber(), seg.size()));
        if (kind_ == Kind::Udp && checksum == 0) checksum = 0xFFFF;  // 0 would mean "no checksum"
        Put16(seg, checksumAt, checksum);
    }
    return seg;
}

Frame FrameBuilder::Assemble(const Bytes& ipPayload, uint16_t fragmentField) const {
    Frame f;
    AppendAll(f, ethDst_);
    AppendAll(f, ethSrc_);
    if (kind_ == Kind::Arp) {
        Append16(f, etherType_.value_or(kEtherArp));
        Append16(f, 1);  // hardware type: Ethernet
        Append16(f, arpProtocolType_);
        f.push_back(6);
        f.push_back(4);
        Append16(f, arpOpcode_);
        AppendAll(f, arpSender_.first);
        AppendAll(f, arpSender_.second);
        AppendAll(f, arpTarget_.first);
        AppendAll(f, arpTarget_.second);
        AppendAll(f, payload_);
    } else if (ipv6_) {
        Append16(f, etherType_.value_or(kEtherIpv6));
        Append32(f, 0x60000000);
        Append16(f, static_cast<uint16_t>(ipPayload.size()));
        f.push_back(ProtocolNumber());
        f.push_back(ttl_);
        AppendAll(f, kIpv6Src);
        AppendAll(f, kIpv6Dst);
        AppendAll(f, ipPayload);
    } else {
        Append16(f, etherType_.value_or(kEtherIpv4));
        const size_t headerSize = 20 + ipOptions_.size();
        f.push_back(static_cast<uint8_t>(0x40 | (headerSize / 4)));
        f.push_back(0);  // type of service
        Append16(f, static_cast<uint16_t>(headerSize + ipPayload.size()));
        Append16(f, ipId_);
        Append16(f, fragmentField);
        f.push_back(ttl_);
        f.push_back(ProtocolNumber());
        Append16(f, 0);
        AppendAll(f, ipSrc_);
        AppendAll(f, ipDst_);
        AppendAll(f, ipOptions_);
        Put16(f, 24, InternetChecksum(f.data() + 14, headerSize));
        AppendAll(f, ipPayload);
    }
    if (f.size() < padTo_) f.resize(padTo_, 0);
    return f;
}

Frame FrameBuilder::Build() const { return Assemble(kind_ == Kind::Arp ? Bytes{} : IpPayload(), fragmentField_); }

FragmentList FrameBuilder::BuildFragments(size_t fragmentData) const {
    if (kind_ == Kind::Arp || ipv6_ || fragmentData == 0 || fragmentData % 8 != 0)
        throw std::invalid_argument("FrameBuilder: fragments need IPv4 and a multiple of 8");
    const Bytes whole = IpPayload();
    FragmentList fragments;
    for (size_t offset = 0; offset < whole.size(); offset += fragmentData) {
        const size_t end = std::min(whole.size(), offset + fragmentData);
        const Bytes piece(whole.begin() + static_cast<long>(offset), whole.begin() + static_cast<long>(end));
        const bool more = end < whole.size();
        fragments.push_back(Assemble(piece, static_cast<uint16_t>((more ? 0x2000 : 0) | (offset / 8))));
    }
    return fragments;
}

}  // namespace ndtest
