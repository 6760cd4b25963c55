// The frame view against frames built independently: one line of what the view found per
// frame, and the refusal text the engine throws for a frame without a whole IPv4 header.
#include <gtest/gtest.h>

#include "Packet/FrameView.h"
#include "support/FrameBuilder.h"
#include "support/Thrown.h"

using namespace ndtest;

namespace {

std::string Describe(const Nat::FrameView& v) {
    std::string s = "type=" + std::to_string(v.etherType);
    if (!v.ipv4) return s + " ihl=" + std::to_string(v.ipHeaderSize);
    s += " ihl=" + std::to_string(v.ipHeaderSize) + " total=" + std::to_string(v.totalLength) +
         " id=" + std::to_string(v.identification) + " off=" + std::to_string(v.fragmentOffset) +
         (v.moreFragments ? " MF" : "") + (v.dontFragment ? " DF" : "") + " proto=" + std::to_string(v.protocol) +
         " " + std::to_string(v.srcIp[3]) + ">" + std::to_string(v.dstIp[3]) + " mac " +
         std::to_string(v.srcMac[5]) + ">" + std::to_string(v.dstMac[5]);
    if (v.ports) s += " ports " + std::to_string(v.srcPort) + ">" + std::to_string(v.dstPort);
    if (v.transportHeader && v.Tcp()) {
        s += " seq=" + std::to_string(v.sequence) + " ack=" + std::to_string(v.acknowledgment) +
             " flags=" + std::to_string(v.tcpFlags) + " thl=" + std::to_string(v.tcpHeaderSize) + " payload " +
             std::to_string(v.payloadBegin) + ".." + std::to_string(v.payloadEnd) + (v.payloadIntact ? " intact" : "");
    }
    if (v.transportHeader && v.Udp()) s += v.udpWithoutChecksum ? " udp-nocsum" : " udp";
    if (v.icmp) {
        s += " icmp " + std::to_string(v.icmpMessage.type) + "/" + std::to_string(v.icmpMessage.code) + " id=" +
             std::to_string(v.icmpMessage.identifier) + " " + std::to_string(v.icmpMessage.begin) + ".." +
             std::to_string(v.icmpMessage.end);
    }
    return s + (v.Collectable() ? " collectable" : "") + (v.Translatable() ? " translatable" : "");
}

Frame With(Frame frame, size_t at, uint8_t value) {
    frame[at] = value;
    return frame;
}

Frame Cut(const Frame& frame, size_t size) { return Frame(frame.begin(), frame.begin() + static_cast<long>(size)); }

}  // namespace

TEST(FrameView, ReadsEachFieldOnceAndRefusesWhatTheEngineRefuses) {
    const Frame tcp = FrameBuilder::Tcp().IpId(9).SrcPort(40000).DstPort(80).Seq(7).AckNumber(8).Flags(kSyn | kAck)
                          .TcpOptions({2, 4, 5, 180}).Payload("hello").Build();
    const Frame udp = FrameBuilder::Udp().SrcPort(53).DstPort(5353).NoUdpChecksum().Payload("q").PadTo(60).Build();
    const Frame echo = FrameBuilder::Ipv4(kProtoIcmp).Payload(Bytes{8, 0, 0, 0, 0x12, 0x34, 0, 1}).Build();
    const FragmentList fragments =
        FrameBuilder::Udp().IpId(5).SrcPort(1).DstPort(2).Payload(std::string(40, 'x')).BuildFragments(24);
    Frame lying = tcp;  // total length past the frame
    lying[16] = 0x05;
    struct Case {
        const char* name;
        Frame frame;
        std::string view;
        std::string thrown;
    } cases[] = {
        {"TCP with options and payload", tcp,
         "type=2048 ihl=20 total=49 id=9 off=0 DF proto=6 1>2 mac 1>2 ports 40000>80 seq=7 ack=8 flags=18 thl=24 "
         "payload 58..63 intact collectable translatable",
         ""},
        {"UDP without checksum, padded", udp,
         "type=2048 ihl=20 total=29 id=4660 off=0 DF proto=17 1>2 mac 1>2 ports 53>5353 udp-nocsum collectable "
         "translatable", ""},
        {"ICMP echo", echo,
         "type=2048 ihl=20 total=28 id=4660 off=0 DF proto=1 1>2 mac 1>2 icmp 8/0 id=4660 34..42 collectable "
         "translatable", ""},
        {"first fragment", fragments[0],
         "type=2048 ihl=20 total=44 id=5 off=0 MF proto=17 1>2 mac 1>2 ports 1>2 udp collectable translatable", ""},
        {"later fragment: no ports", fragments[1],
         "type=2048 ihl=20 total=44 id=5 off=24 proto=17 1>2 mac 1>2 collectable translatable", ""},
        {"lying total length", lying,
         "type=2048 ihl=20 total=1329 id=9 off=0 DF proto=6 1>2 mac 1>2 ports 40000>80 seq=7 ack=8 flags=18 "
         "thl=24 payload 58..1343 translatable",
         ""},
        {"TCP cut inside its header", Cut(tcp, 40),
         "type=2048 ihl=20 total=49 id=9 off=0 DF proto=6 1>2 mac 1>2 ports 40000>80 translatable", ""},
        {"ARP", FrameBuilder::Arp().Build(), "type=2054 ihl=0", "Unexpected ethernet frame type: 2054"},
        {"12 bytes", Cut(tcp, 12), "type=0 ihl=0", "Error getting ethernet frame type, unexpected packet size: 12"},
        {"13 bytes", Cut(tcp, 13), "type=2048 ihl=0", "Error getting IP header size, unexpected packet size: 13"},
        {"16-byte IP header", With(tcp, 14, 0x44), "type=2048 ihl=16 total=49 id=9 off=0 DF proto=6 1>2 mac 1>2",
         "Unexpected IP header size: 16"},
        {"IP header past the frame", With(Cut(tcp, 40), 14, 0x4F),
         "type=2048 ihl=60 total=49 id=9 off=0 DF proto=6 1>2 mac 1>2", "Unexpected packet size: 40"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Nat::FrameView view = Nat::ReadFrameView(c.frame);
        EXPECT_EQ(view.size, c.frame.size());
        EXPECT_EQ(Describe(view), c.view);
        EXPECT_EQ(Thrown([&] { Nat::ThrowUnlessIpv4Header(view); }), c.thrown.empty() ? "<nothing thrown>" : c.thrown);
    }
    // Every prefix reads within its bounds and claims only fields it holds.
    for (size_t n = 0; n <= tcp.size(); ++n) {
        const Nat::FrameView view = Nat::ReadFrameView(tcp.data(), n);
        EXPECT_EQ(view.ports, n >= 38) << n;
        EXPECT_EQ(view.transportHeader, n >= 54) << n;
        EXPECT_EQ(view.Translatable(), n >= 38) << n;
    }
}
