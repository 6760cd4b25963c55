#include "support/FrameBuilder.h"

#include <algorithm>
#include <initializer_list>
#include <stdexcept>

namespace ndtest {

namespace {

// A big-endian field of 1 to 4 bytes.
struct Field {
    uint32_t value;
    int bytes;
};

void Append(Bytes& out, std::initializer_list<Field> fields) {
    for (const Field& f : fields)
        for (int i = f.bytes - 1; i >= 0; --i) out.push_back(static_cast<uint8_t>(f.value >> (8 * i)));
}

template <typename... Ranges>
void AppendAll(Bytes& out, const Ranges&... ranges) {
    (out.insert(out.end(), ranges.begin(), ranges.end()), ...);
}

void Put16(Bytes& out, size_t offset, uint16_t value) {
    out[offset] = static_cast<uint8_t>(value >> 8);
    out[offset + 1] = static_cast<uint8_t>(value);
}

// fd00::1 and fd00::2, one after the other as the pseudo-header has them.
const Bytes kIpv6Addresses = {0xFD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1,
                              0xFD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};

uint32_t Sum(const uint8_t* data, size_t length, uint32_t sum = 0) {
    for (size_t i = 0; i < length; i += 2) sum += (uint32_t{data[i]} << 8) | (i + 1 < length ? data[i + 1] : 0);
    return sum;
}

uint16_t Fold(uint32_t sum) {
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(sum);
}

struct Layout {
    size_t segmentStart;
    size_t segmentLength;
    size_t checksumOffset;  // inside the frame
    uint32_t pseudo;        // the pseudo-header sum
};

// The TCP or UDP segment of an IPv4 or IPv6 frame, as long as its IP header says.
std::optional<Layout> TransportLayout(const Frame& frame) {
    Layout l{};
    size_t addresses, addressBytes;
    uint8_t protocol;
    if (frame.size() >= 34 && Be16(frame, 12) == 0x0800) {
        const size_t header = static_cast<size_t>(frame[14] & 0x0F) * 4;
        const size_t total = Be16(frame, 16);
        if (header < 20 || total < header || 14 + total > frame.size()) return std::nullopt;
        l.segmentStart = 14 + header;
        l.segmentLength = total - header;
        protocol = frame[23];
        addresses = 26;
        addressBytes = 8;
    } else if (frame.size() >= 54 && Be16(frame, 12) == 0x86DD) {
        l.segmentStart = 54;
        l.segmentLength = Be16(frame, 18);
        if (54 + l.segmentLength > frame.size()) return std::nullopt;
        protocol = frame[20];
        addresses = 22;
        addressBytes = 32;
    } else {
        return std::nullopt;
    }
    if (protocol != kProtoTcp && protocol != kProtoUdp) return std::nullopt;
    l.pseudo = Sum(frame.data() + addresses, addressBytes) + protocol + static_cast<uint32_t>(l.segmentLength);
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

Bytes ToBytes(const MacAddress& mac) { return Bytes(mac.begin(), mac.end()); }
Bytes ToBytes(const Ipv4Address& ip) { return Bytes(ip.begin(), ip.end()); }

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
    Frame zeroed = frame;
    Put16(zeroed, l.checksumOffset, 0);
    return InternetChecksum(zeroed.data() + l.segmentStart, l.segmentLength, l.pseudo);
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
    if (frame.size() < 34 || Be16(frame, 12) != 0x0800) return false;
    const size_t h = static_cast<size_t>(frame[14] & 0x0F) * 4;
    return h >= 20 && 14 + h <= frame.size() && InternetChecksum(frame.data() + 14, h) == 0;
}

bool TransportChecksumValid(const Frame& frame) {
    const auto l = TransportLayout(frame);
    return l && InternetChecksum(frame.data() + l->segmentStart, l->segmentLength, l->pseudo) == 0;
}

Frame Reassemble(const FragmentList& fragments) {
    const auto offset = [](const Frame& f) { return static_cast<size_t>(Be16(f, 20) & 0x1FFF) * 8; };
    const auto headers = [](const Frame& f) { return 14 + static_cast<long>(f.at(14) & 0x0F) * 4; };
    FragmentList sorted = fragments;
    std::sort(sorted.begin(), sorted.end(), [&](const Frame& x, const Frame& y) { return offset(x) < offset(y); });
    if (sorted.empty()) return {};
    Frame whole(sorted[0].begin(), sorted[0].begin() + headers(sorted[0]));
    for (const Frame& f : sorted) {
        // A hole, or no first fragment.
        if (offset(f) + static_cast<size_t>(headers(whole)) != whole.size()) return {};
        const long end = std::min<long>(static_cast<long>(f.size()), 14 + Be16(f, 16));
        whole.insert(whole.end(), f.begin() + headers(f), f.begin() + end);
    }
    Put16(whole, 16, static_cast<uint16_t>(whole.size() - 14));
    Put16(whole, 20, 0);
    return whole;
}

Frame EthernetFrame(const MacAddress& destination, const MacAddress& source, uint16_t etherType,
                    size_t payloadBytes, uint8_t fill) {
    Frame frame;
    AppendAll(frame, destination, source);
    Append(frame, {{etherType, 2}});
    frame.resize(frame.size() + payloadBytes, fill);
    return frame;
}

Frame Ipv4Fragment(const MacAddress& destination, const MacAddress& source, uint16_t id, uint32_t offsetBytes,
                   bool more, size_t payloadBytes, uint8_t fill) {
    return FrameBuilder::Ipv4(kProtoUdp).EthDst(destination).EthSrc(source).IpId(id).FragmentAt(offsetBytes, more)
        .Payload(Bytes(payloadBytes, fill)).Build();
}

Bytes FrameBuilder::PadOptions(Bytes options) {
    if (options.size() > 40) throw std::invalid_argument("FrameBuilder: options longer than 40 bytes");
    options.resize((options.size() + 3) / 4 * 4, 0);
    return options;
}

FrameBuilder FrameBuilder::Tcp() { return FrameBuilder(Kind::Tcp, kProtoTcp); }
FrameBuilder FrameBuilder::Udp() { return FrameBuilder(Kind::Udp, kProtoUdp).DstPort(53); }
FrameBuilder FrameBuilder::Arp() { return FrameBuilder(Kind::Arp, 0).EthDst({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}); }
FrameBuilder FrameBuilder::Ipv4(uint8_t protocol) { return FrameBuilder(Kind::Raw, protocol); }

FrameBuilder& FrameBuilder::FragmentAt(uint32_t offsetBytes, bool more) {
    if (offsetBytes % 8 != 0) throw std::invalid_argument("FrameBuilder: fragment offsets are multiples of 8");
    fragmentField_ = static_cast<uint16_t>((more ? 0x2000 : 0) | (offsetBytes / 8));
    return *this;
}

Bytes FrameBuilder::IpPayload() const {
    Bytes seg;
    if (kind_ == Kind::Tcp) {
        const uint32_t dataOffset = static_cast<uint32_t>((20 + tcpOptions_.size()) / 4) << 4;
        // Window 64240, then zero checksum and urgent pointer.
        Append(seg, {{srcPort_, 2}, {dstPort_, 2}, {seq_, 4}, {ack_, 4}, {dataOffset, 1}, {flags_, 1},
                     {64240, 2}, {0, 4}});
        AppendAll(seg, tcpOptions_);
    } else if (kind_ == Kind::Udp) {
        Append(seg, {{srcPort_, 2}, {dstPort_, 2}, {static_cast<uint32_t>(8 + payload_.size()), 2}, {0, 2}});
    }
    AppendAll(seg, payload_);
    if (kind_ == Kind::Raw || kind_ == Kind::Arp || (kind_ == Kind::Udp && noUdpChecksum_)) return seg;
    Bytes addresses = ipv6_ ? kIpv6Addresses : Bytes{};
    if (!ipv6_) AppendAll(addresses, ipSrc_, ipDst_);
    const uint32_t pseudo = Sum(addresses.data(), addresses.size()) + protocol_ + static_cast<uint32_t>(seg.size());
    const uint16_t checksum = InternetChecksum(seg.data(), seg.size(), pseudo);
    // A UDP checksum of 0 would mean "no checksum".
    Put16(seg, kind_ == Kind::Tcp ? 16 : 6, kind_ == Kind::Udp && checksum == 0 ? 0xFFFF : checksum);
    return seg;
}

Frame FrameBuilder::Assemble(const Bytes& ipPayload, uint16_t fragmentField) const {
    Frame f;
    AppendAll(f, ethDst_, ethSrc_);
    if (kind_ == Kind::Arp) {
        // Ethernet hardware, IPv4 protocol, address sizes 6 and 4.
        Append(f, {{0x0806, 2}, {1, 2}, {0x0800, 2}, {6, 1}, {4, 1}, {arpOpcode_, 2}});
        AppendAll(f, arpSender_.first, arpSender_.second, arpTarget_.first, arpTarget_.second, payload_);
    } else if (ipv6_) {
        Append(f, {{0x86DD, 2}, {0x60000000, 4}, {static_cast<uint32_t>(ipPayload.size()), 2}, {protocol_, 1},
                   {64, 1}});
        AppendAll(f, kIpv6Addresses, ipPayload);
    } else {
        const size_t headerSize = 20 + ipOptions_.size();
        const uint32_t total = static_cast<uint32_t>(headerSize + ipPayload.size());
        Append(f, {{0x0800, 2}, {0x40 | static_cast<uint32_t>(headerSize / 4), 1}, {0, 1}, {total, 2}, {ipId_, 2},
                   {fragmentField, 2}, {64, 1}, {protocol_, 1}, {0, 2}});
        AppendAll(f, ipSrc_, ipDst_, ipOptions_);
        Put16(f, 24, InternetChecksum(f.data() + 14, headerSize));
        AppendAll(f, ipPayload);
    }
    if (f.size() < padTo_) f.resize(padTo_, 0);
    return f;
}

Frame FrameBuilder::Build() const { return Assemble(IpPayload(), fragmentField_); }

FragmentList FrameBuilder::BuildFragments(size_t fragmentData) const {
    if (kind_ == Kind::Arp || ipv6_ || fragmentData == 0 || fragmentData % 8 != 0)
        throw std::invalid_argument("FrameBuilder: fragments need IPv4 and a multiple of 8");
    const Bytes whole = IpPayload();
    FragmentList fragments;
    for (size_t offset = 0; offset < whole.size(); offset += fragmentData) {
        const size_t end = std::min(whole.size(), offset + fragmentData);
        const Bytes piece(whole.begin() + static_cast<long>(offset), whole.begin() + static_cast<long>(end));
        fragments.push_back(Assemble(piece, static_cast<uint16_t>((end < whole.size() ? 0x2000 : 0) | (offset / 8))));
    }
    return fragments;
}

}  // namespace ndtest
