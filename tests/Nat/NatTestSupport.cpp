#include "NatTestSupport.h"

#include <algorithm>
#include <map>
#include <stdexcept>

namespace NatTest {

namespace {

void Put16(Frame& f, size_t at, uint16_t v) {
    f[at] = static_cast<uint8_t>(v >> 8);
    f[at + 1] = static_cast<uint8_t>(v);
}
void Put32(Frame& f, size_t at, uint32_t v) {
    Put16(f, at, static_cast<uint16_t>(v >> 16));
    Put16(f, at + 2, static_cast<uint16_t>(v));
}
uint16_t Get16(const Frame& f, size_t at) { return static_cast<uint16_t>((f[at] << 8) | f[at + 1]); }
uint32_t Get32(const Frame& f, size_t at) { return (uint32_t(Get16(f, at)) << 16) | Get16(f, at + 2); }

uint32_t Sum(const uint8_t* data, size_t size, uint32_t sum = 0) {
    for (size_t i = 0; i + 1 < size; i += 2) sum += (uint32_t(data[i]) << 8) | data[i + 1];
    if (size % 2) sum += uint32_t(data[size - 1]) << 8;
    return sum;
}
uint16_t Fold(uint32_t sum) {
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

// Ethernet + IPv4 header around a transport segment; checksums filled in.
Frame Datagram(const MacAddress& srcMac, const MacAddress& dstMac, const Ipv4Address& srcIp,
               const Ipv4Address& dstIp, uint8_t protocol, const std::vector<uint8_t>& ipOptions,
               const std::vector<uint8_t>& segment, uint16_t id, uint16_t fragmentField) {
    const size_t ihl = 20 + ipOptions.size();
    Frame f(14 + ihl, 0);
    std::copy(dstMac.begin(), dstMac.end(), f.begin());
    std::copy(srcMac.begin(), srcMac.end(), f.begin() + 6);
    Put16(f, 12, 0x0800);
    f[14] = static_cast<uint8_t>(0x40 | (ihl / 4));
    Put16(f, 16, static_cast<uint16_t>(ihl + segment.size()));
    Put16(f, 18, id);
    Put16(f, 20, fragmentField);
    f[22] = 64;
    f[23] = protocol;
    std::copy(srcIp.begin(), srcIp.end(), f.begin() + 26);
    std::copy(dstIp.begin(), dstIp.end(), f.begin() + 30);
    std::copy(ipOptions.begin(), ipOptions.end(), f.begin() + 34);
    Put16(f, 24, Fold(Sum(f.data() + 14, ihl)));
    f.insert(f.end(), segment.begin(), segment.end());
    if (f.size() < 60) f.resize(60, 0);
    return f;
}

uint16_t PseudoChecksum(const Ipv4Address& src, const Ipv4Address& dst, uint8_t protocol,
                        const std::vector<uint8_t>& segment) {
    uint32_t sum = Sum(src.data(), 4);
    sum = Sum(dst.data(), 4, sum);
    sum += protocol;
    sum += static_cast<uint32_t>(segment.size());
    return Fold(Sum(segment.data(), segment.size(), sum));
}

std::vector<uint8_t> UdpSegment(const UdpSpec& s) {
    std::vector<uint8_t> seg(8 + s.payload.size());
    Frame& f = seg;
    Put16(f, 0, s.srcPort);
    Put16(f, 2, s.dstPort);
    Put16(f, 4, static_cast<uint16_t>(seg.size()));
    std::copy(s.payload.begin(), s.payload.end(), seg.begin() + 8);
    if (!s.noChecksum) {
        uint16_t c = PseudoChecksum(s.srcIp, s.dstIp, 17, seg);
        Put16(f, 6, c == 0 ? 0xFFFF : c);
    }
    return seg;
}

}  // namespace

MacAddress Mac(uint8_t last) { return {0x02, 0x00, 0x00, 0x00, 0x00, last}; }
Ipv4Address Ip(uint8_t a, uint8_t b, uint8_t c, uint8_t d) { return {a, b, c, d}; }
Bytes B(const MacAddress& mac) { return Bytes(mac.begin(), mac.end()); }
Bytes B(const Ipv4Address& ip) { return Bytes(ip.begin(), ip.end()); }

Frame Tcp(const TcpSpec& s) {
    const size_t thl = 20 + s.tcpOptions.size();
    std::vector<uint8_t> seg(thl + s.payload.size(), 0);
    Frame& g = seg;
    Put16(g, 0, s.srcPort);
    Put16(g, 2, s.dstPort);
    Put32(g, 4, s.seq);
    Put32(g, 8, s.ack);
    seg[12] = static_cast<uint8_t>((thl / 4) << 4);
    seg[13] = s.flags;
    Put16(g, 14, 64240);
    std::copy(s.tcpOptions.begin(), s.tcpOptions.end(), seg.begin() + 20);
    std::copy(s.payload.begin(), s.payload.end(), seg.begin() + static_cast<std::ptrdiff_t>(thl));
    Put16(g, 16, PseudoChecksum(s.srcIp, s.dstIp, 6, seg));
    return Datagram(s.srcMac, s.dstMac, s.srcIp, s.dstIp, 6, s.ipOptions, seg, s.ipId, 0x4000);
}

Frame Udp(const UdpSpec& s) { return Datagram(s.srcMac, s.dstMac, s.srcIp, s.dstIp, 17, {}, UdpSegment(s), s.ipId, 0); }

FragmentList UdpFragments(const UdpSpec& s, size_t chunk) {
    std::vector<uint8_t> seg = UdpSegment(s);
    FragmentList list;
    for (size_t at = 0; at < seg.size(); at += chunk) {
        size_t end = std::min(seg.size(), at + chunk);
        std::vector<uint8_t> part(seg.begin() + static_cast<std::ptrdiff_t>(at),
                                  seg.begin() + static_cast<std::ptrdiff_t>(end));
        uint16_t field = static_cast<uint16_t>((end < seg.size() ? 0x2000 : 0) | (at / 8));
        list.push_back(Datagram(s.srcMac, s.dstMac, s.srcIp, s.dstIp, 17, {}, part, s.ipId, field));
    }
    return list;
}

Fields Parse(const Frame& f) {
    if (f.size() < 34) throw std::runtime_error("frame too short to parse");
    Fields r;
    std::copy(f.begin(), f.begin() + 6, r.dstMac.begin());
    std::copy(f.begin() + 6, f.begin() + 12, r.srcMac.begin());
    std::copy(f.begin() + 26, f.begin() + 30, r.srcIp.begin());
    std::copy(f.begin() + 30, f.begin() + 34, r.dstIp.begin());
    r.protocol = f[23];
    r.totalLength = Get16(f, 16);
    const size_t ihl = (f[14] & 0x0F) * 4u;
    const size_t t = 14 + ihl;
    const bool headFragment = (Get16(f, 20) & 0x1FFF) == 0;
    if (!headFragment || f.size() < t + 8) return r;
    r.srcPort = Get16(f, t);
    r.dstPort = Get16(f, t + 2);
    const size_t end = std::min<size_t>(f.size(), 14 + r.totalLength);
    if (r.protocol == 6 && f.size() >= t + 20) {
        r.seq = Get32(f, t + 4);
        r.ack = Get32(f, t + 8);
        r.flags = f[t + 13];
        const size_t begin = t + (f[t + 12] >> 4) * 4u;
        if (begin < end) r.payload.assign(f.begin() + static_cast<std::ptrdiff_t>(begin), f.begin() + static_cast<std::ptrdiff_t>(end));
    } else if (r.protocol == 17 && t + 8 < end) {
        r.payload.assign(f.begin() + static_cast<std::ptrdiff_t>(t + 8), f.begin() + static_cast<std::ptrdiff_t>(end));
    }
    return r;
}

bool IpChecksumOk(const Frame& f) {
    const size_t ihl = (f[14] & 0x0F) * 4u;
    if (f.size() < 14 + ihl) return false;
    return Fold(Sum(f.data() + 14, ihl)) == 0;
}

bool TransportChecksumOk(const Frame& f) {
    const size_t ihl = (f[14] & 0x0F) * 4u;
    const size_t total = Get16(f, 16);
    if (f.size() < 14 + total || total < ihl) return false;
    const uint8_t protocol = f[23];
    std::vector<uint8_t> seg(f.begin() + static_cast<std::ptrdiff_t>(14 + ihl),
                             f.begin() + static_cast<std::ptrdiff_t>(14 + total));
    if (protocol == 17 && Get16(seg, 6) == 0) return true;
    Ipv4Address src{}, dst{};
    std::copy(f.begin() + 26, f.begin() + 30, src.begin());
    std::copy(f.begin() + 30, f.begin() + 34, dst.begin());
    // Summing the segment with its checksum in place gives 0 when it is right.
    uint32_t sum = Sum(src.data(), 4);
    sum = Sum(dst.data(), 4, sum);
    sum += protocol;
    sum += static_cast<uint32_t>(seg.size());
    return Fold(Sum(seg.data(), seg.size(), sum)) == 0;
}

bool DatagramChecksumOk(const FragmentList& fragments) {
    std::map<size_t, std::vector<uint8_t>> parts;
    const Frame* head = nullptr;
    for (const Frame& f : fragments) {
        const size_t ihl = (f[14] & 0x0F) * 4u;
        const size_t total = Get16(f, 16);
        const size_t offset = (Get16(f, 20) & 0x1FFF) * 8u;
        if (offset == 0) head = &f;
        parts[offset].assign(f.begin() + static_cast<std::ptrdiff_t>(14 + ihl),
                             f.begin() + static_cast<std::ptrdiff_t>(14 + total));
    }
    if (head == nullptr) return false;
    std::vector<uint8_t> seg;
    for (auto& [offset, bytes] : parts) {
        if (offset != seg.size()) return false;
        seg.insert(seg.end(), bytes.begin(), bytes.end());
    }
    Frame whole(head->begin(), head->begin() + 14 + ((*head)[14] & 0x0F) * 4);
    Put16(whole, 16, static_cast<uint16_t>(whole.size() - 14 + seg.size()));
    whole.insert(whole.end(), seg.begin(), seg.end());
    for (const Frame& f : fragments) {
        if (!IpChecksumOk(f)) return false;
        if (!std::equal(f.begin() + 26, f.begin() + 34, head->begin() + 26)) return false;
    }
    return TransportChecksumOk(whole);
}

FakeArpCache::FakeArpCache(NativeNetworkDriver::ArpTable::Clock clock) : table(std::move(clock)) {
    table.Subscribe(this);
}

FakeArpCache::~FakeArpCache() { table.Unsubscribe(this); }

void FakeArpCache::OnResolvedFragments(const std::set<Frame>& fragments, const std::string& guid) {
    releasedFragments.emplace_back(fragments, guid);
}

void FakeArpCache::OnResolvedFrame(const Frame& frame, const std::string& guid) { released.emplace_back(frame, guid); }

Nat::AdapterInfo Net::Internal() {
    return {"int0", "Internal", B(Mac(0x01)), {{B(Ip(192, 168, 1, 1)), {255, 255, 255, 0}}}, {}, {}};
}

Nat::AdapterInfo Net::External() {
    return {"ext0", "External", B(Mac(0x02)), {{B(Ip(10, 0, 0, 2)), {255, 255, 255, 0}}}, B(GatewayMac()),
            B(Ip(10, 0, 0, 1))};
}

Nat::AdapterInfo Net::Servers() {
    return {"srv0", "Servers", B(Mac(0x03)), {{B(Ip(172, 20, 0, 1)), {255, 255, 255, 0}}}, {}, {}};
}

Nat::RedirectRule Rule(uint8_t protocol, uint32_t fromPort, uint32_t toPort, bool translateSource) {
    Nat::RedirectRule rule;
    rule.fromAdapter = Net::External();
    rule.fromPort = fromPort;
    rule.protocol = protocol;
    rule.toAdapter = Net::Servers();
    rule.toIp = B(Net::ServerIp());
    rule.toPort = toPort;
    rule.translateSource = translateSource;
    return rule;
}

Rig::Rig(std::vector<Nat::RedirectRule> rules, std::vector<Nat::AdapterMapping> mappings,
         std::vector<uint32_t> tcpPorts, std::vector<uint32_t> udpPorts, uint32_t timeoutMs,
         std::vector<Bytes> whiteList, Nat::ProxyInfo proxy)
    : arp([this] { return now; }) {
    nat = std::make_unique<Nat::NetworkAddressTranslator>(tcpPorts, udpPorts, timeoutMs, std::move(rules),
                                                          std::move(mappings), std::move(proxy),
                                                          std::move(whiteList), &arp, [this] { return now; });
}

std::vector<uint32_t> Rig::Ports(uint32_t first, uint32_t count) {
    std::vector<uint32_t> ports;
    for (uint32_t i = 0; i < count; ++i) ports.push_back(first + i);
    return ports;
}

uint32_t Rig::Out(Frame& frame, const std::string& guid) {
    Fields f = Parse(frame);
    uint32_t kind = nat->ClassifyInternalPacket(f.protocol, f.srcMac, f.dstMac, f.srcIp, f.dstIp, f.srcPort, f.dstPort);
    if (kind != 0) lastAdapter = &nat->TranslateInternalToExternal(kind, frame, guid);
    return kind;
}

uint32_t Rig::In(Frame& frame, const std::string& guid) {
    Fields f = Parse(frame);
    uint32_t kind = nat->ClassifyExternalPacket(f.protocol, f.dstMac, f.srcIp, f.srcPort, f.dstPort);
    if (kind != 0) lastAdapter = &nat->TranslateExternalToInternal(kind, frame, guid);
    return kind;
}

}  // namespace NatTest
