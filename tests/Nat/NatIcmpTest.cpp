// ICMP through the translator: echo as a flow with its own identifiers, and errors that
// follow the TCP, UDP or echo flow they quote. Expected frames are built independently
// with every checksum computed afresh, so a comparison checks each checksum too.
#include <gtest/gtest.h>

#include "support/NatRig.h"

using namespace NatTest;

namespace {

constexpr MacAddress kHost2Mac = Mac(0x12);
constexpr Ipv4Address kHost2Ip = Ip(192, 168, 1, 11);
constexpr Ipv4Address kRouterIp = Ip(198, 18, 0, 1);  // a router beyond the gateway

// The datagram of each flow as the internal host sends it.
enum Flow { kTcpFlow, kUdpFlow, kEchoFlow };
const Frame kHostSends[] = {
    Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40000, 80, 1000, 2000, kAck | kPsh, "GET / HTTP/1.0\r\n"}),
    Udp({kHostMac, kIntMac, kHostIp, kFarIp, 53000, 53, "a query"}),
    Icmp(kHostMac, kIntMac, kHostIp, kFarIp, EchoMessage(8, 0x1234, 7, "ping data")),
};

}  // namespace

TEST(NatIcmp, EchoTakesItsOwnIdentifierPerHostAndComesBackWithTheHostsOne) {
    Rig rig({}, {Rig::DefaultMapping()});
    rig.nat->UseEchoIdentifiers({7000, 7001});
    EXPECT_EQ(rig.OutFrame(Icmp(kHostMac, kIntMac, kHostIp, kFarIp, EchoMessage(8, 0x1234, 1, "ping a"))),
              Icmp(kExtMac, kGatewayMac, kExtIp, kFarIp, EchoMessage(8, 7000, 1, "ping a")));
    EXPECT_EQ(rig.OutFrame(Icmp(kHost2Mac, kIntMac, kHost2Ip, kFarIp, EchoMessage(8, 0x1234, 1, "ping b"))),
              Icmp(kExtMac, kGatewayMac, kExtIp, kFarIp, EchoMessage(8, 7001, 1, "ping b")));
    // The same flow keeps its identifier.
    EXPECT_EQ(rig.OutFrame(Icmp(kHostMac, kIntMac, kHostIp, kFarIp, EchoMessage(8, 0x1234, 2, "ping a"))),
              Icmp(kExtMac, kGatewayMac, kExtIp, kFarIp, EchoMessage(8, 7000, 2, "ping a")));
    EXPECT_EQ(rig.InFrame(Icmp(kGatewayMac, kExtMac, kFarIp, kExtIp, EchoMessage(0, 7001, 1, "pong b"))),
              Icmp(kIntMac, kHost2Mac, kFarIp, kHost2Ip, EchoMessage(0, 0x1234, 1, "pong b")));
    EXPECT_EQ(rig.InFrame(Icmp(kGatewayMac, kExtMac, kFarIp, kExtIp, EchoMessage(0, 7000, 2, "pong a"))),
              Icmp(kIntMac, kHostMac, kFarIp, kHostIp, EchoMessage(0, 0x1234, 2, "pong a")));

    // Entries expire as UDP ones do, and their identifiers go back to the queue.
    rig.now += 60000;
    rig.nat->EchoTable().Sweep();
    EXPECT_EQ(rig.nat->EchoTable().FreePortCount(), 2u);
}

// Each row: an error about a translated flow, sent towards the internal host by a router
// or the remote (inbound), or by the internal host towards the remote (outbound), quoting
// `quote` bytes of the datagram. The translated error must carry exactly the quote of the
// datagram as the other side of the translation saw it.
TEST(NatIcmp, ErrorsFollowTheFlowTheyQuoteWithEveryChecksumKept) {
    const struct {
        const char* what;
        Flow flow;
        bool inbound;
        uint8_t type, code;
        uint16_t mtu;
        size_t quote;
        bool fromRemote;
    } cases[] = {
        {"TCP, fragmentation needed, whole datagram", kTcpFlow, true, 3, 4, 1280, 1000, false},
        {"TCP, time exceeded, 8 bytes: no checksum in the quote", kTcpFlow, true, 11, 0, 0, 28, false},
        {"TCP, parameter problem, ports only", kTcpFlow, true, 12, 0, 0, 24, false},
        {"TCP, unreachable from the remote itself", kTcpFlow, true, 3, 1, 0, 1000, true},
        {"UDP, port unreachable, 8 bytes with checksum", kUdpFlow, true, 3, 3, 0, 28, true},
        {"UDP, time exceeded, whole datagram", kUdpFlow, true, 11, 0, 0, 1000, false},
        {"echo, time exceeded, 8 bytes", kEchoFlow, true, 11, 0, 0, 28, false},
        {"echo, host unreachable, identifier only", kEchoFlow, true, 3, 1, 0, 26, false},
        {"echo, fragmentation needed, whole", kEchoFlow, true, 3, 4, 1400, 1000, false},
        {"UDP reply refused by the internal host", kUdpFlow, false, 3, 3, 0, 1000, false},
        {"UDP reply refused by the internal host, 8 bytes", kUdpFlow, false, 3, 3, 0, 28, false},
        {"TCP reply, parameter problem from the internal host", kTcpFlow, false, 12, 0, 0, 1000, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Rig rig({}, {Rig::DefaultMapping()});
        // The datagram the error quotes, as the internal host and as the remote side see it.
        Frame host = kHostSends[c.flow], wire = host;
        ASSERT_EQ(rig.Out(wire), 1u);
        if (!c.inbound) {  // the remote's answer
            const uint16_t port = Parse(wire).srcPort;
            wire = c.flow == kTcpFlow ? Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 80, port, 2000, 1016, kAck, "OK"})
                                      : Udp({kGatewayMac, kExtMac, kFarIp, kExtIp, 53, port, "an answer"});
            host = wire;
            ASSERT_EQ(rig.In(host), 1u);
        }
        auto message = [&c](const Frame& about) { return ErrorMessage(c.type, c.code, c.mtu, about, c.quote); };
        const Ipv4Address from = c.fromRemote ? kFarIp : kRouterIp;
        Frame error = c.inbound ? Icmp(kGatewayMac, kExtMac, from, kExtIp, message(wire))
                                : Icmp(kHostMac, kIntMac, kHostIp, kFarIp, message(host));
        ASSERT_EQ(c.inbound ? rig.In(error) : rig.Out(error), 1u);
        EXPECT_EQ(rig.lastAdapter->id, c.inbound ? "int0" : "ext0");
        EXPECT_EQ(error, c.inbound ? Icmp(kIntMac, kHostMac, from, kHostIp, message(host))
                                   : Icmp(kExtMac, kGatewayMac, kExtIp, kFarIp, message(wire)));
    }
}

// Echoes that are not an internal host's flow, and errors that name no translated flow.
TEST(NatIcmp, IcmpOfNoTranslatedFlowPassesOnUnchanged) {
    Rig rig({}, {Rig::DefaultMapping()});
    Frame sent = kHostSends[kUdpFlow];
    ASSERT_EQ(rig.Out(sent), 1u);
    Frame otherPort = sent;
    otherPort[14 + 20 + 2] ^= 1;  // destination port: not the flow (checksums do not matter here)
    Frame unreachable = Icmp(kGatewayMac, kExtMac, kFarIp, kExtIp, ErrorMessage(3, 3, 0, sent, 28));
    auto toHost = [&](Bytes message) { return Icmp(kGatewayMac, kExtMac, kFarIp, kExtIp, std::move(message)); };
    auto fromHost = [&](const Ipv4Address& to, Bytes message) {
        return Icmp(kHostMac, kIntMac, kHostIp, to, std::move(message));
    };
    Frame laterFragment = fromHost(kFarIp, EchoMessage(8, 1, 1, ""));
    laterFragment[21] = 1;
    const struct {
        const char* what;
        Frame frame;
        bool out;
    } cases[] = {
        {"echo to this machine's external address", fromHost(kExtIp, EchoMessage(8, 1, 1, "")), true},
        {"echo to this machine's internal address", fromHost(kIntIp, EchoMessage(8, 1, 1, "")), true},
        {"echo request from outside", toHost(EchoMessage(8, 6000, 1, "")), false},
        {"reply to the host's own ping", toHost(EchoMessage(0, 6000, 1, "")), false},
        {"a later fragment", laterFragment, true},
        {"another port", toHost(ErrorMessage(3, 3, 0, otherPort, 28)), false},
        {"quote cut inside the ports", toHost(ErrorMessage(3, 3, 0, sent, 22)), false},
        {"quote cut inside the IP header", toHost(ErrorMessage(3, 3, 0, sent, 16)), false},
        {"an error about an error", toHost(ErrorMessage(3, 3, 0, unreachable, 100)), false},
        {"an error about the host's own datagram", fromHost(kFarIp, ErrorMessage(3, 3, 0, sent, 28)), true},
        {"an unknown type", toHost(ErrorMessage(5, 0, 0, sent, 28)), false},
    };
    for (const auto& c : cases) {
        Frame frame = c.frame;
        EXPECT_EQ(c.out ? rig.Out(frame) : rig.In(frame), 0u) << c.what;
        EXPECT_EQ(frame, c.frame) << c.what;
    }
}

// The IP header still claims the whole message; the frame ends inside the quote.
TEST(NatIcmp, AQuoteCutByTheFrameIsTranslatedAsFarAsItGoes) {
    Rig rig({}, {Rig::DefaultMapping()});
    const Frame hostSent = kHostSends[kTcpFlow];
    Frame wireSent = hostSent;
    ASSERT_EQ(rig.Out(wireSent), 1u);
    const Frame error = Icmp(kGatewayMac, kExtMac, kRouterIp, kExtIp, ErrorMessage(11, 0, 0, wireSent, 1000));
    Frame cut(error.begin(), error.begin() + 66);  // ends after the quoted ports
    ASSERT_EQ(rig.In(cut), 1u);
    const Frame expected = Icmp(kIntMac, kHostMac, kRouterIp, kHostIp, ErrorMessage(11, 0, 0, hostSent, 24));
    EXPECT_EQ(Frame(cut.begin() + 42, cut.end()), Frame(expected.begin() + 42, expected.begin() + 66));  // the quote
    EXPECT_EQ(Parse(cut).dstIp, kHostIp);
    EXPECT_TRUE(IpChecksumValid(cut));
    Frame untouched(error.begin(), error.begin() + 65);  // ends inside the quoted ports
    EXPECT_EQ(rig.In(untouched), 0u);
    EXPECT_EQ(untouched, Frame(error.begin(), error.begin() + 65));
}
