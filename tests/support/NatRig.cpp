#include "support/NatRig.h"

#include <algorithm>
#include <stdexcept>

namespace NatTest {

TcpSpec::TcpSpec(const MacAddress& srcMac, const MacAddress& dstMac, const Ipv4Address& srcIp,
                 const Ipv4Address& dstIp, uint16_t srcPort, uint16_t dstPort, uint32_t seq, uint32_t ack,
                 uint8_t flags, const std::string& payload)
    : FrameBuilder(FrameBuilder::Tcp().EthSrc(srcMac).EthDst(dstMac).IpSrc(srcIp).IpDst(dstIp).SrcPort(srcPort)
                       .DstPort(dstPort).Seq(seq).AckNumber(ack).Flags(flags).Payload(payload).PadTo(60)) {}

UdpSpec::UdpSpec(const MacAddress& srcMac, const MacAddress& dstMac, const Ipv4Address& srcIp,
                 const Ipv4Address& dstIp, uint16_t srcPort, uint16_t dstPort, const std::string& payload,
                 bool noChecksum)
    : FrameBuilder(FrameBuilder::Udp().EthSrc(srcMac).EthDst(dstMac).IpSrc(srcIp).IpDst(dstIp).SrcPort(srcPort)
                       .DstPort(dstPort).DontFragment(false).Payload(payload).PadTo(60)) {
    if (noChecksum) NoUdpChecksum();
}

Frame Icmp(const MacAddress& srcMac, const MacAddress& dstMac, const Ipv4Address& srcIp, const Ipv4Address& dstIp,
           Bytes message) {
    const uint16_t checksum = InternetChecksum(message.data(), message.size());
    message[2] = static_cast<uint8_t>(checksum >> 8);
    message[3] = static_cast<uint8_t>(checksum);
    return FrameBuilder::Ipv4(kProtoIcmp).EthSrc(srcMac).EthDst(dstMac).IpSrc(srcIp).IpDst(dstIp).DontFragment(false)
        .Payload(message).PadTo(60).Build();
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

Fields Parse(const Frame& f) {
    const size_t t = f.size() < 34 ? f.size() : 14 + (f[14] & 0x0F) * 4u;
    if (f.size() < t + 2) throw std::invalid_argument("frame too short to parse");
    Fields r;
    std::copy_n(f.begin() + 26, 4, r.srcIp.begin());
    std::copy_n(f.begin() + 30, 4, r.dstIp.begin());
    r.srcPort = Be16(f, t);
    return r;
}

Nat::RedirectRule Rule(uint8_t protocol, uint32_t fromPort, uint32_t toPort, bool translateSource, bool http,
                       bool ftp) {
    return {.fromAdapter = Net::External(), .fromIp = {}, .fromPort = fromPort, .protocol = protocol,
            .toAdapter = Net::Servers(), .toIp = ToBytes(kServerIp), .toPort = toPort,
            .translateSource = translateSource, .httpHostTranslation = http, .ftpSupport = ftp, .linkedKeys = {}};
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

}  // namespace NatTest
