#include "support/NatRig.h"

#include <algorithm>
#include <stdexcept>

namespace NatTest {

namespace {

FrameBuilder UdpBuilder(const UdpSpec& s) {
    FrameBuilder b = FrameBuilder::Udp().EthSrc(s.srcMac).EthDst(s.dstMac).IpSrc(s.srcIp).IpDst(s.dstIp)
                         .SrcPort(s.srcPort).DstPort(s.dstPort).DontFragment(false).Payload(s.payload).PadTo(60);
    if (s.noChecksum) b.NoUdpChecksum();
    return b;
}

}  // namespace

Frame Tcp(const TcpSpec& s) {
    return FrameBuilder::Tcp().EthSrc(s.srcMac).EthDst(s.dstMac).IpSrc(s.srcIp).IpDst(s.dstIp).SrcPort(s.srcPort)
        .DstPort(s.dstPort).Seq(s.seq).AckNumber(s.ack).Flags(s.flags).Payload(s.payload).TcpOptions(s.tcpOptions)
        .IpOptions(s.ipOptions).PadTo(60).Build();
}

Frame Udp(const UdpSpec& s) { return UdpBuilder(s).Build(); }

FragmentList UdpFragments(const UdpSpec& s, size_t chunk) { return UdpBuilder(s).BuildFragments(chunk); }

Fields Parse(const Frame& f) {
    if (f.size() < 34) throw std::invalid_argument("frame too short to parse");
    Fields r;
    std::copy(f.begin(), f.begin() + 6, r.dstMac.begin());
    std::copy(f.begin() + 6, f.begin() + 12, r.srcMac.begin());
    std::copy(f.begin() + 26, f.begin() + 30, r.srcIp.begin());
    std::copy(f.begin() + 30, f.begin() + 34, r.dstIp.begin());
    r.protocol = f[23];
    const size_t t = 14 + (f[14] & 0x0F) * 4u;
    const bool first = (Be16(f, 20) & 0x1FFF) == 0;
    if (!first || f.size() < t + 8) return r;
    r.srcPort = Be16(f, t);
    r.dstPort = Be16(f, t + 2);
    const size_t end = std::min<size_t>(f.size(), 14 + Be16(f, 16));
    size_t begin = t + 8;
    if (r.protocol == kProtoTcp && f.size() >= t + 20) {
        r.seq = Be32(f, t + 4);
        r.ack = Be32(f, t + 8);
        r.flags = f[t + 13];
        begin = t + (f[t + 12] >> 4) * 4u;
    }
    if ((r.protocol == kProtoTcp || r.protocol == kProtoUdp) && begin < end)
        r.payload.assign(f.begin() + static_cast<long>(begin), f.begin() + static_cast<long>(end));
    return r;
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
    return {"int0", "Internal", ToBytes(kIntMac), {{ToBytes(kIntIp), {255, 255, 255, 0}}}, {}, {}};
}

Nat::AdapterInfo Net::External() {
    return {"ext0", "External", ToBytes(kExtMac), {{ToBytes(kExtIp), {255, 255, 255, 0}}}, ToBytes(kGatewayMac),
            {10, 0, 0, 1}};
}

Nat::AdapterInfo Net::Servers() {
    return {"srv0", "Servers", ToBytes(kSrvMac), {{ToBytes(kSrvSideIp), {255, 255, 255, 0}}}, {}, {}};
}

Nat::RedirectRule Rule(uint8_t protocol, uint32_t fromPort, uint32_t toPort, bool translateSource) {
    Nat::RedirectRule rule;
    rule.fromAdapter = Net::External();
    rule.fromPort = fromPort;
    rule.protocol = protocol;
    rule.toAdapter = Net::Servers();
    rule.toIp = ToBytes(kServerIp);
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

Frame Icmp(const MacAddress& srcMac, const MacAddress& dstMac, const Ipv4Address& srcIp, const Ipv4Address& dstIp,
           Bytes message) {
    message.resize(std::max<size_t>(message.size(), 4));
    message[2] = message[3] = 0;
    const uint16_t checksum = InternetChecksum(message.data(), message.size());
    message[2] = static_cast<uint8_t>(checksum >> 8);
    message[3] = static_cast<uint8_t>(checksum);
    Frame frame = Udp({srcMac, dstMac, srcIp, dstIp, 1, 1});
    frame.resize(34);
    frame[23] = 1;
    frame.insert(frame.end(), message.begin(), message.end());
    const size_t total = frame.size() - 14;
    frame[16] = static_cast<uint8_t>(total >> 8);
    frame[17] = static_cast<uint8_t>(total);
    frame[24] = frame[25] = 0;
    const uint16_t ipChecksum = InternetChecksum(frame.data() + 14, 20);
    frame[24] = static_cast<uint8_t>(ipChecksum >> 8);
    frame[25] = static_cast<uint8_t>(ipChecksum);
    if (frame.size() < 60) frame.resize(60);
    return frame;
}

Bytes EchoMessage(uint8_t type, uint16_t identifier, uint16_t sequence, const std::string& payload) {
    Bytes message{type, 0, 0, 0, static_cast<uint8_t>(identifier >> 8), static_cast<uint8_t>(identifier),
                  static_cast<uint8_t>(sequence >> 8), static_cast<uint8_t>(sequence)};
    message.insert(message.end(), payload.begin(), payload.end());
    return message;
}

Bytes ErrorMessage(uint8_t type, uint8_t code, uint16_t mtu, const Frame& about, size_t quoteBytes) {
    Bytes message{type, code, 0, 0, 0, 0, static_cast<uint8_t>(mtu >> 8), static_cast<uint8_t>(mtu)};
    const size_t datagram = std::min<size_t>(Be16(about, 16), about.size() - 14);
    message.insert(message.end(), about.begin() + 14,
                   about.begin() + 14 + static_cast<std::ptrdiff_t>(std::min(quoteBytes, datagram)));
    return message;
}

uint32_t Rig::Pass(bool fromExternal, Frame& frame, const std::string& guid, bool partialChecksum) {
    const Nat::FrameView view = Nat::ReadFrameView(frame);
    const Nat::Decision decision = nat->Decide(fromExternal, frame, view);
    if (decision.kind != Nat::TranslationKind::None)
        lastAdapter = &nat->Apply(decision, fromExternal, frame, view, guid, partialChecksum);
    return static_cast<uint32_t>(decision.kind);
}

const Nat::AdapterInfo& Rig::Forced(Nat::TranslationKind kind, bool fromExternal, Frame& frame,
                                    const std::string& guid) {
    // SNAT out leaves by the first mapping, as a decision on a frame to its adapter would.
    const bool mapped = kind == Nat::TranslationKind::Snat && !fromExternal && !nat->Mappings().empty();
    const Nat::Decision decision = Nat::Decision::Of(kind, nullptr, mapped ? &nat->Mappings()[0] : nullptr);
    return nat->Apply(decision, fromExternal, frame, Nat::ReadFrameView(frame), guid);
}

Nat::FrameView FlowView(uint8_t protocol, const MacAddress& srcMac, const MacAddress& dstMac, const Ipv4Address& srcIp,
                    const Ipv4Address& dstIp, uint16_t srcPort, uint16_t dstPort) {
    Nat::FrameView view;
    view.size = 60;
    view.etherType = 0x0800;
    view.ipv4 = view.ports = view.transportHeader = true;
    view.ipHeaderSize = 20;
    view.tcpHeaderSize = protocol == 6 ? 20 : 0;
    view.protocol = protocol;
    view.srcMac = srcMac;
    view.dstMac = dstMac;
    view.srcIp = srcIp;
    view.dstIp = dstIp;
    view.srcPort = srcPort;
    view.dstPort = dstPort;
    return view;
}

}  // namespace NatTest
