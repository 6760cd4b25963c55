// Whole conversations through the translator: SNAT out and back, DNAT through redirect
// rules, classification rules, next-hop choice and fragments.
#include <gtest/gtest.h>

#include <tuple>

#include "support/NatRig.h"

using namespace NatTest;

// Three connections of the host to the far server, each frame compared whole (checksums
// included) with what the other side must get: a full close handshake, a reset from the
// server, and a reset from the host after a half close, which alone keeps the entry.
TEST(NatSnat, ConversationsAreRestoredExactlyAndEndWithTheCloseHandshakeOrAReset) {
    Rig rig({}, {Rig::DefaultMapping()});
    const struct {
        bool out;
        uint16_t hostPort, extPort;
        uint32_t seq, ack;
        uint8_t flags;
        const char* payload;
        size_t entries;
    } steps[] = {
        {true, 40000, 5000, 100, 0, kSyn, "", 1},
        {false, 40000, 5000, 900, 101, kSyn | kAck, "", 1},
        {true, 40000, 5000, 101, 901, kAck | kPsh, "GET / HTTP/1.1\r\n\r\n", 1},
        {false, 40000, 5000, 901, 119, kFin | kAck, "", 1},
        {true, 40000, 5000, 119, 902, kFin | kAck, "", 1},  // the host's FIN is not acknowledged yet
        {false, 40000, 5000, 902, 120, kAck, "", 0},
        {true, 40001, 5001, 1, 0, kSyn, "", 1},
        {false, 40001, 5001, 0, 2, kRst | kAck, "", 0},
        {true, 40002, 5002, 1, 0, kSyn, "", 1},
        {true, 40002, 5002, 2, 50, kFin | kAck, "", 1},
        {false, 40002, 5002, 50, 3, kAck, "", 1},  // the other side may still send
        {true, 40002, 5002, 3, 50, kRst, "", 0},
    };
    for (const auto& s : steps) {
        SCOPED_TRACE(std::to_string(s.hostPort) + " " + std::to_string(s.seq));
        auto segment = [&s](const MacAddress& srcMac, const MacAddress& dstMac, const Ipv4Address& srcIp,
                            const Ipv4Address& dstIp, uint16_t srcPort, uint16_t dstPort) {
            return Tcp({srcMac, dstMac, srcIp, dstIp, srcPort, dstPort, s.seq, s.ack, s.flags, s.payload});
        };
        Frame frame = s.out ? segment(kHostMac, kIntMac, kHostIp, kFarIp, s.hostPort, 80)
                            : segment(kGatewayMac, kExtMac, kFarIp, kExtIp, 80, s.extPort);
        ASSERT_EQ(s.out ? rig.Out(frame) : rig.In(frame), 1u);
        EXPECT_EQ(rig.lastAdapter->id, s.out ? "ext0" : "int0");
        EXPECT_EQ(frame, s.out ? segment(kExtMac, kGatewayMac, kExtIp, kFarIp, s.extPort, 80)
                               : segment(kIntMac, kHostMac, kFarIp, kHostIp, 80, s.hostPort));
        EXPECT_EQ(rig.nat->TcpTable().EntryCount(), s.entries);
        EXPECT_EQ(rig.nat->TcpTable().FreePortCount(), 8 - s.entries);
    }
    EXPECT_EQ(rig.nat->TcpTable().FreePorts().back(), 5002u);
}

// The next hop's MAC is unknown: the exception names where to ask, the ARP table holds
// the frame untouched, and the frame it releases once the address is learned goes
// through. A UDP datagram sent without a checksum leaves without one.
TEST(NatNextHop, AnUnknownMacHoldsTheUntouchedFrameUntilItIsLearned) {
    const struct {
        bool published;
        Frame frame;
        Ipv4Address ip;
        MacAddress mac;
        Frame after;
    } cases[] = {
        {false, Udp({kHostMac, kIntMac, kHostIp, kPeerIp, 53000, 53, "query", true}), kPeerIp, kPeerMac,
         Udp({kExtMac, kPeerMac, kExtIp, kPeerIp, 6000, 53, "query", true})},
        {true, Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 33000, 8080, 10, 0, kSyn}), kServerIp, kServerMac,
         Tcp({kSrvMac, kServerMac, kFarIp, kServerIp, 33000, 80, 10, 0, kSyn})},
    };
    for (const auto& c : cases) {
        const Nat::AdapterInfo asking = c.published ? Net::Servers() : Net::External();
        SCOPED_TRACE(asking.name);
        Rig rig({Rule(6, c.published ? 8080 : 9999, 80, false)}, {Rig::DefaultMapping()});
        Frame frame = c.frame;
        try {
            c.published ? rig.In(frame) : rig.Out(frame);
            ADD_FAILURE() << "expected an unknown MAC";
        } catch (const Nat::UnknownMacException& e) {
            EXPECT_EQ(e.Message(), "Unknown MAC address for ip " + Nat::IpText(c.ip));
            EXPECT_EQ(std::tie(e.adapterMac, e.adapterName), std::tie(asking.mac, asking.name));
            EXPECT_EQ(e.resolveIp, ToBytes(c.ip));
        }
        EXPECT_EQ(frame, c.frame);
        rig.Learn(c.ip, c.mac);
        ASSERT_EQ(rig.arp.released.size(), 1u);
        EXPECT_EQ(rig.arp.released[0], std::make_pair(c.frame, std::string(c.published ? "ext0" : "int0")));
        EXPECT_EQ(c.published ? rig.InFrame(c.frame) : rig.OutFrame(c.frame), c.after);
    }
}

TEST(NatSnat, HeaderOptionsAndEthernetPaddingAreKept) {
    Rig rig({}, {Rig::DefaultMapping()});
    const Bytes options{0x01, 0x01, 0x01, 0x00};  // NOPs and end of options
    TcpSpec in{kHostMac, kIntMac, kHostIp, kFarIp, 40000, 443, 7, 9, kAck};
    TcpSpec out{kExtMac, kGatewayMac, kExtIp, kFarIp, 5000, 443, 7, 9, kAck};
    EXPECT_EQ(rig.OutFrame(in.IpOptions(options).Build()), out.IpOptions(options).Build());

    Frame padded = Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40001, 443, 7, 9, kAck});
    Frame paddedOut = Tcp({kExtMac, kGatewayMac, kExtIp, kFarIp, 5001, 443, 7, 9, kAck});
    ASSERT_EQ(padded.size(), 60u);  // 40-byte datagram plus Ethernet padding
    padded[58] = paddedOut[58] = 0xAB;  // padding is not part of any checksum
    EXPECT_EQ(rig.OutFrame(padded), paddedOut);
}

// The white list admits internal hosts, on the way out and to entries of a published
// service on a mapped adapter alike.
TEST(NatSnat, ClassificationHonoursWhiteListOwnAddressesAndMappingOrder) {
    Nat::AdapterInfo ext1 = Net::External();
    ext1.id = "ext1";
    ext1.mac = ToBytes(Mac(0x04));
    Rig rig({Rule(6, 8080, 80, false)}, {Rig::DefaultMapping(), {ext1, Net::Internal()}}, Rig::Ports(5000, 8),
            Rig::Ports(6000, 8), 60000, {ToBytes(kHostMac)});
    auto classify = [&](const MacAddress& src, const MacAddress& to, const Ipv4Address& dst) {
        return rig.Decide(false, Tcp({src, to, kHostIp, dst, 40000, 80, 1, 0, kSyn})).kind;
    };
    EXPECT_EQ(classify(kHostMac, kIntMac, kFarIp), Nat::TranslationKind::Snat);
    EXPECT_EQ(classify(Mac(0x12), kIntMac, kFarIp), Nat::TranslationKind::None);  // not white-listed
    EXPECT_EQ(classify(kHostMac, kIntMac, kIntIp), Nat::TranslationKind::None);   // this machine itself
    EXPECT_EQ(classify(kHostMac, Mac(0x77), kFarIp), Nat::TranslationKind::None);

    ASSERT_FALSE(rig.OutFrame(Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40000, 80, 1, 0, kSyn})).empty());
    EXPECT_EQ(rig.lastAdapter->id, "ext0");  // the first of two mappings of the same adapter
    EXPECT_EQ(rig.Decide(true, Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 80, 5000, 1, 2, kAck})).kind,
              Nat::TranslationKind::Snat);

    rig.Learn(kServerIp, kServerMac);
    Frame syn = Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 33000, 8080, 10, 0, kSyn});
    ASSERT_EQ(rig.In(syn), 2u);
    // Known entry on a mapped adapter, but its internal host is not white-listed.
    EXPECT_EQ(rig.Decide(true, Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 33000, 8080, 11, 0, kAck})).kind,
              Nat::TranslationKind::None);
}

// Far destinations go to the gateway without asking the ARP cache, or fail without one; a
// proxy on the external network is reached by its configured MAC.
TEST(NatSnat, NextHopIsTheGatewayOrTheConfiguredProxy) {
    Nat::AdapterMapping noGateway = Rig::DefaultMapping();
    noGateway.external.gatewayMac.clear();
    Rig rig({}, {noGateway});
    const Frame far = Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40000, 80, 1, 0, kSyn});
    EXPECT_EQ(Thrown([&] { rig.OutFrame(far); }), "Detected external destination IP but no gateway was provided");

    Nat::ProxyInfo proxy{true, ToBytes(Mac(0x55)), ToBytes(Ip(10, 0, 0, 8)), 3128};
    Rig withGateway({}, {Rig::DefaultMapping()}, Rig::Ports(5000, 8), Rig::Ports(6000, 8), 60000, {}, proxy);
    EXPECT_EQ(withGateway.OutFrame(far), Tcp({kExtMac, kGatewayMac, kExtIp, kFarIp, 5000, 80, 1, 0, kSyn}));
    const Frame toProxy = Tcp({kHostMac, kIntMac, kHostIp, Ip(10, 0, 0, 8), 40001, 3128, 1, 0, kSyn});
    EXPECT_EQ(withGateway.OutFrame(toProxy),
              Tcp({kExtMac, Mac(0x55), kExtIp, Ip(10, 0, 0, 8), 5001, 3128, 1, 0, kSyn}));
    EXPECT_EQ(withGateway.arp.table.ToString(), "");  // the ARP cache was never asked
}

// Refusals of frames handed over as a decision of each kind, without deciding.
TEST(NatSnat, ErrorsNameTheirCause) {
    Rig rig({}, {Rig::DefaultMapping()});
    const Frame frame = Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40000, 80, 1, 0, kSyn});
    auto patched = [&frame](size_t at, uint8_t value) {
        Frame work = frame;
        work[at] = value;
        return work;
    };
    const Frame igmp = patched(23, 2), cut(frame.begin(), frame.begin() + 50);
    const Frame stray = Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 80, 5007, 1, 1, kAck});
    const auto Snat = Nat::TranslationKind::Snat, Dnat = Nat::TranslationKind::Dnat;
    const struct {
        Nat::TranslationKind kind;
        bool fromExternal;
        Frame frame;
        const char* thrown;
    } cases[] = {
        {static_cast<Nat::TranslationKind>(3), false, frame, "Invalid translation rule"},
        {Snat, false, patched(14, 0x44), "Unexpected IP header size: 16"},
        {Snat, true, patched(21, 1), "Unexpected IP fragment"},
        {Snat, false, cut, "Unexpected packet size: 50"},
        {Dnat, true, patched(46, 0x40), "Unexpected TCP header size: 16"},
        {Dnat, false, frame, "DNat mapped external adapter not found"},
        {Snat, false, igmp, "Unsupported port type"},
        {Snat, true, igmp, "Unexpected IP protocol"},
        {Snat, false, patched(23, 1), "Unexpected ICMP message for translation: type 156 code 64"},
        {Snat, true, stray,
         "Not found internal host info for SNAT packet remoteIP: 93.184.216.34 remotePort: 80 externalPort: 5007"},
        {Dnat, true, stray, "DNat matching rule not found"},
    };
    for (const auto& c : cases) {
        Frame work = c.frame;
        EXPECT_EQ(Thrown([&] { rig.Forced(c.kind, c.fromExternal, work, c.fromExternal ? "ext0" : "int0"); }),
                  c.thrown);
    }
}

// A published service, with and without translate source: the server sees the client or
// this machine's address on a pool port, the answer leaves from the published port, and
// the end of the entry gives back the pool port only where one was taken.
TEST(NatDnat, PublishedServicesShowTheClientOrThisMachine) {
    for (const bool translateSource : {false, true}) {
        SCOPED_TRACE(translateSource ? "translate source" : "client shown");
        Rig rig({Rule(17, 5353, 53, translateSource)});
        rig.Learn(kServerIp, kServerMac);
        const Ipv4Address shown = translateSource ? kSrvSideIp : kFarIp;
        const uint16_t shownPort = translateSource ? 6000 : 41000;
        Frame query = Udp({kGatewayMac, kExtMac, kFarIp, kExtIp, 41000, 5353, "q"});
        ASSERT_EQ(rig.In(query), 2u);
        EXPECT_EQ(rig.lastAdapter->id, "srv0");
        EXPECT_EQ(query, Udp({kSrvMac, kServerMac, shown, kServerIp, shownPort, 53, "q"}));
        EXPECT_EQ(rig.nat->UdpTable().FreePortCount(), translateSource ? 7u : 8u);

        Frame answer = Udp({kServerMac, kSrvMac, kServerIp, shown, 53, shownPort, "a"});
        ASSERT_EQ(rig.Out(answer, "srv0"), 2u);
        EXPECT_EQ(rig.lastAdapter->id, "ext0");
        EXPECT_EQ(answer, Udp({kExtMac, kGatewayMac, kExtIp, kFarIp, 5353, 41000, "a"}));

        rig.now += 60000;
        EXPECT_EQ(Thrown([&] { rig.InFrame(Udp({kGatewayMac, kExtMac, kFarIp, kExtIp, 41000, 5353, "q"})); }),
                  "Internal host info timeout exceeded for remoteIP: 93.184.216.34 remotePort: 41000 externalPort: "
                  "5353. The packet will be discarded");
        EXPECT_EQ(rig.nat->UdpTable().FreePortCount(), 8u);
    }
}

TEST(NatDnat, SourceRangesAndRuleOrderDecideWhichRuleMatches) {
    Nat::RedirectRule ranged = Rule(6, 2222, 22, false);
    ranged.fromIp = {{ToBytes(Ip(10, 0, 0, 5)), ToBytes(Ip(10, 0, 0, 9)), ToBytes(Ip(255, 255, 255, 0))}};
    Rig rig({ranged, Rule(6, 2323, 23, false)});
    const struct {
        bool tcp;
        MacAddress to;
        Ipv4Address from;
        uint16_t port;
        bool matches;
    } cases[] = {
        {true, kExtMac, Ip(10, 0, 0, 5), 2222, true},    {true, kExtMac, Ip(10, 0, 0, 9), 2222, true},
        {true, kExtMac, Ip(10, 0, 0, 10), 2222, false},  {true, kExtMac, Ip(10, 0, 0, 4), 2222, false},
        {true, kExtMac, Ip(200, 1, 2, 3), 2323, true},   {true, kExtMac, Ip(200, 1, 2, 3), 2424, false},
        {false, kExtMac, Ip(200, 1, 2, 3), 2323, false}, {true, Mac(0x09), Ip(200, 1, 2, 3), 2323, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.from[3]) + ":" + std::to_string(c.port));
        const Frame frame = c.tcp ? Tcp({kGatewayMac, c.to, c.from, kExtIp, 40000, c.port, 1, 0, kSyn})
                                  : Udp({kGatewayMac, c.to, c.from, kExtIp, 40000, c.port});
        const Nat::Decision d = rig.Decide(true, frame);
        EXPECT_EQ(d.kind, c.matches ? Nat::TranslationKind::Dnat : Nat::TranslationKind::None);
        // The decision names the rule it matched, for the translation to use.
        EXPECT_EQ(d.rule != nullptr && d.rule->fromPort == c.port, c.matches);
    }
}

// Two fragments of one UDP datagram; the later one first when `tailFirst`. The head decides,
// later fragments get addresses only, and an unknown next hop holds the whole list.
TEST(NatFragments, HeadDecidesLaterFragmentsGetAddressesOnlyAndAnUnknownHopHoldsTheList) {
    Rig rig({}, {Rig::DefaultMapping()});
    auto fragments = [](const MacAddress& srcMac, const MacAddress& dstMac, const Ipv4Address& srcIp,
                        const Ipv4Address& dstIp, uint16_t srcPort, uint16_t dstPort, bool tailFirst = false) {
        FragmentList list = UdpSpec(srcMac, dstMac, srcIp, dstIp, srcPort, dstPort, std::string(2600, 'x'))
                                .BuildFragments(1480);
        if (tailFirst) std::swap(list[0], list[1]);
        return list;
    };
    auto translate = [&rig](bool fromExternal, FragmentList& list, size_t head) {
        const auto* adapter = rig.nat->Translate(fromExternal, list, Nat::ReadFrameView(list[head]),
                                                 fromExternal ? "ext0" : "int0");
        return adapter ? adapter->id : "";
    };
    FragmentList out = fragments(kHostMac, kIntMac, kHostIp, kFarIp, 50000, 9000);
    EXPECT_EQ(translate(false, out, 0), "ext0");
    EXPECT_EQ(out, fragments(kExtMac, kGatewayMac, kExtIp, kFarIp, 6000, 9000));

    FragmentList reply = fragments(kGatewayMac, kExtMac, kFarIp, kExtIp, 9000, 6000, true);
    EXPECT_EQ(Thrown([&] { translate(true, reply, 0); }), "Unexpected IP fragment");  // a later one as the head
    EXPECT_EQ(translate(true, reply, 1), "int0");
    EXPECT_EQ(reply, fragments(kIntMac, kHostMac, kFarIp, kHostIp, 9000, 50000, true));

    FragmentList empty;
    EXPECT_EQ(Thrown([&] { rig.nat->Translate(false, empty, {}, "int0"); }), "The fragments list is empty.");
    FragmentList tailOnly{reply[0]};
    EXPECT_EQ(Thrown([&] { translate(true, tailOnly, 0); }), "The fragments list holds no first fragment.");

    const FragmentList toPeer = fragments(kHostMac, kIntMac, kHostIp, kPeerIp, 50000, 9000);
    FragmentList held = toPeer;
    EXPECT_THROW(translate(false, held, 0), Nat::UnknownMacException);
    EXPECT_EQ(held, toPeer);
    rig.Learn(kPeerIp, kPeerMac);
    ASSERT_EQ(rig.arp.releasedFragments.size(), 1u);
    EXPECT_EQ(rig.arp.releasedFragments[0],
              std::make_pair(std::set<Frame>(toPeer.begin(), toPeer.end()), std::string("int0")));
}
