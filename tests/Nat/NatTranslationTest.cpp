// Whole conversations through the translator: SNAT out and back, DNAT through redirect
// rules, classification rules, next-hop choice and fragments.
#include <gtest/gtest.h>

#include "support/NatRig.h"

using namespace NatTest;
using Nat::AdapterMapping;
using Nat::NetworkAddressTranslator;

namespace {


void ExpectChecksums(const Frame& frame) {
    EXPECT_TRUE(IpChecksumValid(frame));
    EXPECT_TRUE(TransportChecksumValid(frame));
}

TcpSpec FromHost(uint16_t srcPort, const Ipv4Address& dst, uint16_t dstPort, uint32_t seq, uint32_t ack, uint8_t flags,
                 std::string payload = {}) {
    return {kHostMac, kIntMac, kHostIp, dst, srcPort, dstPort, seq, ack, flags, std::move(payload)};
}

TcpSpec ToExt(const MacAddress& from, const Ipv4Address& src, uint16_t srcPort, uint16_t dstPort, uint32_t seq,
              uint32_t ack, uint8_t flags, std::string payload = {}) {
    return {from, kExtMac, src, kExtIp, srcPort, dstPort, seq, ack, flags, std::move(payload)};
}

}  // namespace

TEST(NatSnat, TcpConversationIsRestoredExactlyAndEndsWithTheCloseHandshake) {
    Rig rig({}, {Rig::DefaultMapping()});
    const Ipv4Address far = kFarIp;

    Frame syn = Tcp(FromHost(40000, far, 80, 100, 0, kSyn));
    ASSERT_EQ(rig.Out(syn), 1u);
    EXPECT_EQ(rig.lastAdapter->id, "ext0");
    EXPECT_EQ(syn, Tcp({kExtMac, kGatewayMac, kExtIp, far, 5000, 80, 100, 0, kSyn}));
    EXPECT_EQ(rig.nat->TcpTable().FreePortCount(), 7u);

    Frame synAck = Tcp(ToExt(kGatewayMac, far, 80, 5000, 900, 101, kSyn | kAck));
    ASSERT_EQ(rig.In(synAck), 1u);
    EXPECT_EQ(rig.lastAdapter->id, "int0");
    EXPECT_EQ(synAck, Tcp({kIntMac, kHostMac, far, kHostIp, 80, 40000, 900, 101, kSyn | kAck}));

    Frame request = Tcp(FromHost(40000, far, 80, 101, 901, kAck | kPsh, "GET / HTTP/1.1\r\n\r\n"));
    ASSERT_EQ(rig.Out(request), 1u);
    EXPECT_EQ(Parse(request).srcPort, 5000);
    EXPECT_EQ(Parse(request).payload, "GET / HTTP/1.1\r\n\r\n");
    ExpectChecksums(request);

    // The server closes first; the host acknowledges and closes too.
    Frame serverFin = Tcp(ToExt(kGatewayMac, far, 80, 5000, 901, 119, kFin | kAck));
    ASSERT_EQ(rig.In(serverFin), 1u);
    ExpectChecksums(serverFin);
    Frame hostFin = Tcp(FromHost(40000, far, 80, 119, 902, kFin | kAck));
    ASSERT_EQ(rig.Out(hostFin), 1u);
    EXPECT_EQ(rig.nat->TcpTable().EntryCount(), 1u);  // the host's FIN is not acknowledged yet
    Frame lastAck = Tcp(ToExt(kGatewayMac, far, 80, 5000, 902, 120, kAck));
    ASSERT_EQ(rig.In(lastAck), 1u);
    EXPECT_EQ(Parse(lastAck).dstPort, 40000);
    EXPECT_EQ(rig.nat->TcpTable().EntryCount(), 0u);
    EXPECT_EQ(rig.nat->TcpTable().FreePorts().back(), 5000u);
    EXPECT_EQ(rig.nat->TcpTable().FreePortCount(), 8u);
}

TEST(NatSnat, ResetFromEitherSideEndsTheEntryButHalfCloseDoesNot) {
    Rig rig({}, {Rig::DefaultMapping()});
    Frame a = Tcp(FromHost(40000, kFarIp, 80, 1, 0, kSyn));
    ASSERT_EQ(rig.Out(a), 1u);
    Frame rst = Tcp(ToExt(kGatewayMac, kFarIp, 80, 5000, 0, 2, kRst | kAck));
    ASSERT_EQ(rig.In(rst), 1u);
    EXPECT_EQ(rig.nat->TcpTable().EntryCount(), 0u);

    Frame b = Tcp(FromHost(40001, kFarIp, 80, 1, 0, kSyn));
    ASSERT_EQ(rig.Out(b), 1u);
    Frame fin = Tcp(FromHost(40001, kFarIp, 80, 2, 50, kFin | kAck));
    ASSERT_EQ(rig.Out(fin), 1u);
    Frame ack = Tcp(ToExt(kGatewayMac, kFarIp, 80, Parse(b).srcPort, 50, 3, kAck));
    ASSERT_EQ(rig.In(ack), 1u);
    EXPECT_EQ(rig.nat->TcpTable().EntryCount(), 1u);  // the other side may still send
    Frame hostRst = Tcp(FromHost(40001, kFarIp, 80, 3, 50, kRst));
    ASSERT_EQ(rig.Out(hostRst), 1u);
    EXPECT_EQ(rig.nat->TcpTable().EntryCount(), 0u);
}

// The next hop's MAC is unknown: the exception names where to ask, the ARP table holds
// the frame untouched, and the frame it releases once the address is learned goes
// through. A UDP datagram sent without a checksum leaves without one.
TEST(NatNextHop, AnUnknownMacHoldsTheUntouchedFrameUntilItIsLearned) {
    const struct {
        const char* what;
        bool published;
        Frame frame;
        Ipv4Address ip;
        MacAddress mac, adapter;
        const char* adapterName;
        std::string guid;
        Frame after;
    } cases[] = {
        {"SNAT to an on-link peer", false, Udp({kHostMac, kIntMac, kHostIp, kPeerIp, 53000, 53, "query", true}), kPeerIp,
         kPeerMac, kExtMac, "External", "int0", Udp({kExtMac, kPeerMac, kExtIp, kPeerIp, 6000, 53, "query", true})},
        {"DNAT to the published server", true, Tcp(ToExt(kGatewayMac, kFarIp, 33000, 8080, 10, 0, kSyn)), kServerIp,
         kServerMac, kSrvMac, "Servers", "ext0", Tcp({kSrvMac, kServerMac, kFarIp, kServerIp, 33000, 80, 10, 0, kSyn})},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Rig rig(c.published ? std::vector<Nat::RedirectRule>{Rule(6, 8080, 80, false)} : std::vector<Nat::RedirectRule>{},
                {Rig::DefaultMapping()});
        Frame frame = c.frame;
        try {
            c.published ? rig.In(frame) : rig.Out(frame);
            ADD_FAILURE() << "expected an unknown MAC";
        } catch (const Nat::UnknownMacException& e) {
            EXPECT_EQ(e.Message(), "Unknown MAC address for ip " + Nat::IpText(c.ip));
            EXPECT_EQ(e.adapterMac, ToBytes(c.adapter));
            EXPECT_EQ(e.resolveIp, ToBytes(c.ip));
            EXPECT_EQ(e.adapterName, c.adapterName);
        }
        EXPECT_EQ(frame, c.frame);
        rig.Learn(c.ip, c.mac);
        ASSERT_EQ(rig.arp.released.size(), 1u);
        EXPECT_EQ(rig.arp.released[0], std::make_pair(c.frame, c.guid));
        frame = c.frame;
        ASSERT_NE(c.published ? rig.In(frame) : rig.Out(frame), 0u);
        EXPECT_EQ(frame, c.after);
    }
}

TEST(NatSnat, PaddedMinimumFrameAndHeaderOptionsKeepValidChecksums) {
    Rig rig({}, {Rig::DefaultMapping()});
    TcpSpec spec = FromHost(40000, kFarIp, 443, 7, 9, kAck);
    spec.ipOptions = {0x01, 0x01, 0x01, 0x00};  // NOPs and end of options
    Frame withOptions = Tcp(spec);
    ASSERT_EQ(rig.Out(withOptions), 1u);
    ExpectChecksums(withOptions);

    Frame ack = Tcp(FromHost(40001, kFarIp, 443, 7, 9, kAck));
    ASSERT_EQ(ack.size(), 60u);  // 40-byte datagram plus Ethernet padding
    ack[58] = 0xAB;              // padding is not part of any checksum
    ASSERT_EQ(rig.Out(ack), 1u);
    EXPECT_EQ(ack.size(), 60u);
    ExpectChecksums(ack);
}

TEST(NatSnat, ClassificationHonoursWhiteListOwnAddressesAndMappingOrder) {
    Nat::AdapterInfo ext1 = Net::External();
    ext1.id = "ext1";
    ext1.mac = ToBytes(Mac(0x04));
    Rig rig({}, {Rig::DefaultMapping(), {ext1, Net::Internal()}}, Rig::Ports(5000, 8), Rig::Ports(6000, 8), 60000,
            {ToBytes(kHostMac)});
    auto classify = [&](const MacAddress& src, const Ipv4Address& dst) {
        return rig.nat->ClassifyInternalPacket(FlowView(6, src, kIntMac, kHostIp, dst, 40000, 80)).kind;
    };
    EXPECT_EQ(classify(kHostMac, kFarIp), Nat::TranslationKind::Snat);
    EXPECT_EQ(classify(Mac(0x12), kFarIp), Nat::TranslationKind::None);            // not white-listed
    EXPECT_EQ(classify(kHostMac, kIntIp), Nat::TranslationKind::None);  // this machine itself
    EXPECT_EQ(rig.nat->ClassifyInternalPacket(FlowView(6, kHostMac, Mac(0x77), kHostIp, kFarIp, 1, 2)).kind,
              Nat::TranslationKind::None);

    Frame frame = Tcp(FromHost(40000, kFarIp, 80, 1, 0, kSyn));
    ASSERT_EQ(rig.Out(frame), 1u);
    EXPECT_EQ(rig.lastAdapter->id, "ext0");  // the first of two mappings of the same adapter
}

// Far destinations go to the gateway without asking the ARP cache, or fail without one; a
// proxy on the external network is reached by its configured MAC.
TEST(NatSnat, NextHopIsTheGatewayOrTheConfiguredProxy) {
    Nat::AdapterMapping noGateway = Rig::DefaultMapping();
    noGateway.external.gatewayMac.clear();
    Rig rig({}, {noGateway});
    Frame far = Tcp(FromHost(40000, kFarIp, 80, 1, 0, kSyn));
    EXPECT_EQ(Thrown([&] { rig.Out(far); }), "Detected external destination IP but no gateway was provided");

    Nat::ProxyInfo proxy{true, ToBytes(Mac(0x55)), ToBytes(Ip(10, 0, 0, 8)), 3128};
    Rig withGateway({}, {Rig::DefaultMapping()}, Rig::Ports(5000, 8), Rig::Ports(6000, 8), 60000, {}, proxy);
    Frame viaGateway = Tcp(FromHost(40000, kFarIp, 80, 1, 0, kSyn));
    Frame toProxy = Tcp(FromHost(40001, Ip(10, 0, 0, 8), 3128, 1, 0, kSyn));
    ASSERT_EQ(withGateway.Out(viaGateway), 1u);
    ASSERT_EQ(withGateway.Out(toProxy), 1u);
    EXPECT_EQ(Parse(viaGateway).dstMac, kGatewayMac);
    EXPECT_EQ(Parse(toProxy).dstMac, Mac(0x55));
    EXPECT_EQ(withGateway.arp.table.ToString(), "");  // the ARP cache was never asked
}

// Refusals of frames handed over as a decision of each kind, without deciding.
TEST(NatSnat, ErrorsNameTheirCause) {
    Rig rig({}, {Rig::DefaultMapping()});
    const Frame frame = Tcp(FromHost(40000, kFarIp, 80, 1, 0, kSyn));
    Frame igmp = frame, icmp = frame, shortIp = frame, later = frame, shortTcp = frame, cut = frame;
    igmp[23] = 2;
    icmp[23] = 1;
    shortIp[14] = 0x44;
    later[21] = 1;
    shortTcp[46] = 0x40;
    cut.resize(50);
    const Frame stray = Tcp(ToExt(kGatewayMac, kFarIp, 80, 5007, 1, 1, kAck));
    const auto Snat = Nat::TranslationKind::Snat, Dnat = Nat::TranslationKind::Dnat;
    const struct {
        Nat::TranslationKind kind;
        bool fromExternal;
        const Frame& frame;
        const char* thrown;
    } cases[] = {
        {static_cast<Nat::TranslationKind>(3), false, frame, "Invalid translation rule"},
        {Snat, false, shortIp, "Unexpected IP header size: 16"},
        {Snat, true, later, "Unexpected IP fragment"},
        {Snat, false, cut, "Unexpected packet size: 50"},
        {Dnat, true, shortTcp, "Unexpected TCP header size: 16"},
        {Dnat, false, frame, "DNat mapped external adapter not found"},
        {Snat, false, igmp, "Unsupported port type"},
        {Snat, true, igmp, "Unexpected IP protocol"},
        {Snat, false, icmp, "Unexpected ICMP message for translation: type 156 code 64"},
        {Snat, true, stray,
         "Not found internal host info for SNAT packet remoteIP: 93.184.216.34 remotePort: 80 externalPort: 5007"},
        {Dnat, true, stray, "DNat matching rule not found"},
    };
    for (const auto& c : cases) {
        Frame work = c.frame;
        EXPECT_EQ(Thrown([&] { rig.Forced(c.kind, c.fromExternal, work, c.fromExternal ? "ext0" : "int0"); }),
                  c.thrown);
    }
    Frame unclaimed = stray;
    EXPECT_EQ(rig.In(unclaimed), 0u);
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
        Frame late = Udp({kGatewayMac, kExtMac, kFarIp, kExtIp, 41000, 5353, "q"});
        EXPECT_EQ(Thrown([&] { rig.In(late); }),
                  "Internal host info timeout exceeded for remoteIP: 93.184.216.34 remotePort: 41000 externalPort: "
                  "5353. The packet will be discarded");
        EXPECT_EQ(rig.nat->UdpTable().FreePortCount(), 8u);
    }
}

TEST(NatDnat, SourceRangesAndRuleOrderDecideWhichRuleMatches) {
    Nat::RedirectRule ranged = Rule(6, 2222, 22, false);
    ranged.fromIp = {{ToBytes(Ip(10, 0, 0, 5)), ToBytes(Ip(10, 0, 0, 9)), ToBytes(Ip(255, 255, 255, 0))}};
    Nat::RedirectRule anyone = Rule(6, 2323, 23, false);
    Rig rig({ranged, anyone});
    Rig none({}, {Rig::DefaultMapping()});
    const struct {
        Rig& rig;
        uint8_t protocol;
        MacAddress to;
        Ipv4Address from;
        uint16_t port;
        bool matches;
    } cases[] = {
        {rig, 6, kExtMac, Ip(10, 0, 0, 5), 2222, true},    {rig, 6, kExtMac, Ip(10, 0, 0, 9), 2222, true},
        {rig, 6, kExtMac, Ip(10, 0, 0, 10), 2222, false},  {rig, 6, kExtMac, Ip(10, 0, 0, 4), 2222, false},
        {rig, 6, kExtMac, Ip(200, 1, 2, 3), 2323, true},   {rig, 6, kExtMac, Ip(200, 1, 2, 3), 2424, false},
        {rig, 17, kExtMac, Ip(200, 1, 2, 3), 2323, false}, {rig, 6, Mac(0x09), Ip(200, 1, 2, 3), 2323, false},
        {none, 6, kExtMac, Ip(200, 1, 2, 3), 2323, false},
    };
    for (const auto& c : cases) {
        const Nat::Decision d = c.rig.nat->ClassifyExternalPacket(FlowView(c.protocol, {}, c.to, c.from, {}, 40000, c.port));
        EXPECT_EQ(d.kind, c.matches ? Nat::TranslationKind::Dnat : Nat::TranslationKind::None) << int(c.from[3]);
        // The decision names the rule it matched, for the translation to use.
        EXPECT_EQ(d.rule != nullptr && d.rule->fromPort == c.port, c.matches) << int(c.from[3]);
    }
}

TEST(NatDnat, WhiteListAppliesToTheHostOfAnEntryOnAMappedAdapter) {
    Rig rig({Rule(6, 8080, 80, false)}, {Rig::DefaultMapping()}, Rig::Ports(5000, 8), Rig::Ports(6000, 8), 60000,
            {ToBytes(kHostMac)});
    rig.Learn(kServerIp, kServerMac);
    Frame syn = Tcp(ToExt(kGatewayMac, kFarIp, 33000, 8080, 10, 0, kSyn));
    ASSERT_EQ(rig.In(syn), 2u);
    // Known entry on a mapped adapter, but its internal host is not white-listed.
    EXPECT_EQ(rig.nat->ClassifyExternalPacket(FlowView(6, {}, kExtMac, kFarIp, {}, 33000, 8080)).kind, Nat::TranslationKind::None);

    Frame out = Tcp(FromHost(40000, kFarIp, 80, 1, 0, kSyn));
    ASSERT_EQ(rig.Out(out), 1u);
    EXPECT_EQ(rig.nat->ClassifyExternalPacket(FlowView(6, {}, kExtMac, kFarIp, {}, 80, 5000)).kind, Nat::TranslationKind::Snat);
}

TEST(NatFragments, HeadDecidesAndLaterFragmentsGetAddressesOnly) {
    Rig rig({}, {Rig::DefaultMapping()});
    UdpSpec spec{kHostMac, kIntMac, kHostIp, kFarIp, 50000, 9000, std::string(2600, 'x')};
    spec.payload[1000] = 'y';
    FragmentList fragments = UdpFragments(spec, 1480);
    ASSERT_EQ(fragments.size(), 2u);
    const Nat::AdapterInfo* egress = rig.nat->Translate(false, fragments, Nat::ReadFrameView(fragments[0]), "int0");
    ASSERT_NE(egress, nullptr);
    EXPECT_EQ(egress->id, "ext0");
    for (const Frame& f : fragments) {
        Fields fields = Parse(f);
        EXPECT_EQ(fields.srcIp, kExtIp);
        EXPECT_EQ(fields.dstMac, kGatewayMac);
        EXPECT_TRUE(IpChecksumValid(f));
    }
    EXPECT_EQ(Parse(fragments[0]).srcPort, 6000);
    EXPECT_TRUE(TransportChecksumValid(Reassemble(fragments)));

    // The reply's fragments arrive tail first.
    UdpSpec replySpec{kGatewayMac, kExtMac, kFarIp, kExtIp, 9000, 6000, std::string(2000, 'z')};
    FragmentList reply = UdpFragments(replySpec, 1480);
    std::swap(reply[0], reply[1]);
    EXPECT_EQ(Thrown([&] { rig.nat->Translate(true, reply, Nat::ReadFrameView(reply[0]), "ext0"); }),
              "Unexpected IP fragment");  // a later fragment handed in as the head
    const Nat::AdapterInfo* ingress = rig.nat->Translate(true, reply, Nat::ReadFrameView(reply[1]), "ext0");
    ASSERT_NE(ingress, nullptr);
    EXPECT_EQ(ingress->id, "int0");
    EXPECT_EQ(Parse(reply[1]).dstPort, 50000);
    EXPECT_EQ(Parse(reply[0]).dstIp, kHostIp);
    EXPECT_TRUE(TransportChecksumValid(Reassemble(reply)));

    FragmentList empty;
    EXPECT_EQ(Thrown([&] { rig.nat->Translate(false, empty, {}, "int0"); }),
              "The fragments list is empty.");
    FragmentList tailOnly{reply[0]};
    EXPECT_EQ(Thrown([&] { rig.nat->Translate(true, tailOnly, Nat::ReadFrameView(tailOnly[0]), "ext0"); }),
              "The fragments list holds no first fragment.");
    EXPECT_EQ(Thrown([&] { rig.Forced(Nat::TranslationKind::Snat, true, tailOnly[0], "ext0"); }),
              "Unexpected IP fragment");
}

TEST(NatFragments, UnresolvedNextHopHoldsTheWholeList) {
    Rig rig({}, {Rig::DefaultMapping()});
    UdpSpec spec{kHostMac, kIntMac, kHostIp, kPeerIp, 50000, 9000, std::string(2000, 'x')};
    const FragmentList original = UdpFragments(spec, 1480);
    FragmentList fragments = original;
    EXPECT_THROW(rig.nat->Translate(false, fragments, Nat::ReadFrameView(fragments[0]), "int0"),
                 Nat::UnknownMacException);
    EXPECT_EQ(fragments, original);
    rig.Learn(kPeerIp, kPeerMac);
    ASSERT_EQ(rig.arp.releasedFragments.size(), 1u);
    EXPECT_EQ(rig.arp.releasedFragments[0].first, std::set<Frame>(original.begin(), original.end()));
}
