// Port pools, time-outs, sweeps, temporary rules, and hostile input.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "support/NatRig.h"

using namespace NatTest;

namespace {


Frame HostSyn(uint16_t srcPort, const Ipv4Address& dst = kFarIp, uint16_t dstPort = 80) {
    return Tcp({kHostMac, kIntMac, kHostIp, dst, srcPort, dstPort, 1, 0, kSyn});
}

Frame ReplyTo(uint16_t externalPort, uint8_t flags = kAck, const Ipv4Address& from = kFarIp,
              uint16_t fromPort = 80) {
    return Tcp({kGatewayMac, kExtMac, from, kExtIp, fromPort, externalPort, 1, 2, flags});
}

void ExpectEveryPortOnce(Nat::NatTable& table, std::vector<uint32_t> pool) {
    std::vector<uint32_t> free = table.FreePorts();
    std::sort(free.begin(), free.end());
    std::sort(pool.begin(), pool.end());
    EXPECT_EQ(free, pool);
}

}  // namespace

TEST(NatKeys, OffsetsTakeNoPartInKeysAndEntriesPrintInOneLine) {
    Nat::ExternalKey a{5000, kExtMac, kFarIp, 80, 0, 0};
    Nat::ExternalKey b = a;
    b.sequenceOffset = 7;
    b.acknowledgmentOffset = -7;
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a < b || b < a);
    b.externalAdapterMac = Mac(0x04);
    EXPECT_FALSE(a == b);
    EXPECT_TRUE(a < b || b < a);
    // Ordered by external port before remote port.
    EXPECT_TRUE((Nat::ExternalKey{1, Mac(9), Ip(9, 9, 9, 9), 9, 0, 0}) < (Nat::ExternalKey{2, Mac(0), Ip(0, 0, 0, 0), 0, 0, 0}));

    Nat::InternalKey internal{kHostMac, kHostIp, 40000, kIntMac, kFarIp, 80, 0, 0};
    EXPECT_EQ(Nat::EntryText(internal, a),
              "InternalHost  02::00::00::00::00::11 192.168.1.10 40000 InternalAdapterMac 02::00::00::00::00::01 "
              "Destination 93.184.216.34 80 External 5000 02::00::00::00::00::02 Remote 93.184.216.34 80");
}

TEST(NatPorts, PortsAreTakenFromTheFrontAndFreedToTheBack) {
    Rig rig({}, {Rig::DefaultMapping()}, Rig::Ports(5000, 4));
    Frame a = HostSyn(40000), b = HostSyn(40001);
    rig.Out(a);
    rig.Out(b);
    EXPECT_EQ(Parse(a).srcPort, 5000);
    EXPECT_EQ(Parse(b).srcPort, 5001);
    Frame rst = ReplyTo(5000, kRst);
    ASSERT_EQ(rig.In(rst), 1u);
    std::vector<uint16_t> next;
    for (uint16_t port = 40002; port < 40005; ++port) {
        Frame f = HostSyn(port);
        rig.Out(f);
        next.push_back(Parse(f).srcPort);
    }
    EXPECT_EQ(next, (std::vector<uint16_t>{5002, 5003, 5000}));

    // A second frame of a known flow takes no port.
    Frame again = HostSyn(40002);
    EXPECT_EQ(Thrown([&] { rig.Out(again); }), "<nothing thrown>");
    EXPECT_EQ(rig.nat->TcpTable().FreePortCount(), 0u);
}

TEST(NatPorts, ExhaustedPoolRecoversThroughASweepInKeyOrder) {
    Rig rig({}, {Rig::DefaultMapping()}, Rig::Ports(5000, 2), Rig::Ports(6000, 2), 60000);
    Frame a = HostSyn(40000, kFarIp, 443), b = HostSyn(40001, kFarIp, 80);
    rig.Out(a);
    rig.now += 10;
    rig.Out(b);
    Frame c = HostSyn(40002);
    EXPECT_EQ(Thrown([&] { rig.Out(c); }), "There are no port available");
    EXPECT_EQ(rig.nat->TcpTable().EntryCount(), 2u);

    rig.now += 60000;  // both idle for the timeout now
    c = HostSyn(40002);
    ASSERT_EQ(rig.Out(c), 1u);
    EXPECT_EQ(Parse(c).srcPort, 5000);  // the first entry of the activity index
    EXPECT_EQ(rig.nat->TcpTable().EntryCount(), 1u);
    EXPECT_EQ(rig.nat->TcpTable().FreePorts(), std::vector<uint32_t>{5001});
}

TEST(NatLifetime, InboundTimeoutBoundaryAndOutboundRefresh) {
    Rig rig({}, {Rig::DefaultMapping()});
    Frame syn = HostSyn(40000);
    rig.Out(syn);
    rig.now += 59999;
    Frame early = ReplyTo(5000);
    EXPECT_EQ(rig.In(early), 1u);  // refreshed

    rig.now += 60000;
    Frame late = ReplyTo(5000);
    EXPECT_EQ(Thrown([&] { rig.In(late); }),
              "Internal host info timeout exceeded for remoteIP: 93.184.216.34 remotePort: 80 externalPort: 5000. "
              "The packet will be discarded");
    EXPECT_EQ(rig.nat->TcpTable().EntryCount(), 0u);
    EXPECT_EQ(rig.nat->TcpTable().FreePorts().back(), 5000u);
    Frame after = ReplyTo(5000);
    EXPECT_EQ(rig.In(after), 0u);

    // Outbound, an idle SNAT entry is refreshed without a check.
    Frame first = HostSyn(41000);
    rig.Out(first);
    const uint16_t port = Parse(first).srcPort;
    rig.now += 100000;
    Frame second = HostSyn(41000);
    ASSERT_EQ(rig.Out(second), 1u);
    EXPECT_EQ(Parse(second).srcPort, port);
    Frame reply = ReplyTo(port);
    EXPECT_EQ(rig.In(reply), 1u);
}

TEST(NatLifetime, RuleEntriesExpireOnTheWayOutAndNewRuleEntriesSweep) {
    Rig rig({Rule(6, 8080, 80, false)}, {Rig::DefaultMapping()});
    rig.Learn(kServerIp, kServerMac);
    Frame snat = HostSyn(40000);
    rig.Out(snat);
    Frame syn = Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 33000, 8080, 1, 0, kSyn});
    ASSERT_EQ(rig.In(syn), 2u);
    rig.now += 60000;
    Frame reply = Tcp({kServerMac, kSrvMac, kServerIp, kFarIp, 80, 33000, 5, 2, kSyn | kAck});
    // Still claimed as a reply of the published service, then refused.
    EXPECT_EQ(Thrown([&] { rig.Out(reply, "srv0"); }),
              "Internal host info timeout exceeded for remoteIP: 93.184.216.34 remotePort: 33000 externalPort: 8080. "
              "The packet will be discarded");
    EXPECT_EQ(rig.nat->TcpTable().EntryCount(), 1u);  // the idle SNAT entry is still there

    rig.now += 60001;  // 120001 ms since the last sweep: a new rule entry sweeps first
    rig.Learn(kServerIp, kServerMac);
    Frame syn2 = Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 33001, 8080, 1, 0, kSyn});
    ASSERT_EQ(rig.In(syn2), 2u);
    EXPECT_EQ(rig.nat->TcpTable().EntryCount(), 1u);
    EXPECT_EQ(rig.nat->TcpTable().FreePortCount(), 8u);
}

// Churn against a small pool, and frames cut short or lying about their lengths handed
// over as every kind of decision: the engine answers or refuses, and once everything has
// expired every pool port is free exactly once.
TEST(NatLifetime, ChurnAndHostileFramesLoseNoPort) {
    const std::vector<uint32_t> pool = Rig::Ports(7000, 16);
    Rig rig({Rule(6, 8080, 80, true)}, {Rig::DefaultMapping()}, pool, Rig::Ports(6000, 16), 1000);
    std::mt19937 random(7);
    size_t translated = 0, refused = 0;
    for (uint32_t i = 0; i < 20000; ++i) {
        rig.now += random() % 40;
        if (i % 3 == 0) rig.Learn(kServerIp, kServerMac);  // bindings age after 30 s
        const uint16_t port = static_cast<uint16_t>(1024 + i % 60000);
        const Ipv4Address far = Ip(93, 184, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i));
        Frame frame = (i % 3 == 0) ? Tcp({kGatewayMac, kExtMac, far, kExtIp, port, 8080, 1, 0, kSyn}) : HostSyn(port, far);
        try {
            if (i % 3 == 0 ? rig.In(frame) : rig.Out(frame)) ++translated;
            Frame rst = ReplyTo(Parse(frame).srcPort, kRst, far, 80);
            if (i % 7 == 1) rig.In(rst);
        } catch (const Nat::Exception& e) {
            EXPECT_EQ(e.Message(), "There are no port available");
            ++refused;
        }
    }
    EXPECT_GT(translated, 1000u);
    EXPECT_GT(refused, 1000u);

    TcpSpec spec{kHostMac, kIntMac, kHostIp, kFarIp, 40000, 80, 1, 0, kSyn | kAck, "payload"};
    spec.tcpOptions = {2, 4, 5, 180};
    auto drive = [&](const Frame& frame) {
        for (int kind = 0; kind < 3; ++kind) {
            for (bool fromExternal : {false, true}) {
                Frame work = frame;
                const std::string guid = fromExternal ? "ext0" : "int0";
                try {
                    if (kind == 0) rig.nat->Translate(fromExternal, work, Nat::ReadFrameView(work), guid);
                    else rig.Forced(static_cast<Nat::TranslationKind>(kind), fromExternal, work, guid);
                } catch (const Nat::Exception&) {
                }
            }
        }
    };
    for (const Frame& base : {Tcp(spec), Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 1234, 8080, 1, 0, kSyn, "x"})}) {
        for (size_t size = 0; size <= base.size(); ++size) drive(Frame(base.begin(), base.begin() + size));
        // Total length, IP header length, TCP data offset: each through its range.
        const std::vector<std::pair<size_t, std::vector<uint8_t>>> fields{
            {17, {0, 1, 19, 20, 39, 40, 255}}, {16, {0, 3, 255}}, {14, {0x40, 0x44, 0x45, 0x46, 0x4F}},
            {46, {0x00, 0x40, 0x50, 0x60, 0xF0}}};
        for (const auto& [at, values] : fields) {
            for (uint8_t value : values) {
                Frame odd = base;
                odd[at] = value;
                drive(odd);
            }
        }
        for (int i = 0; i < 1000; ++i) {
            Frame frame = base;
            for (int flips = 0; flips < 4; ++flips) frame[random() % frame.size()] = static_cast<uint8_t>(random());
            frame.resize(random() % (frame.size() + 1));
            drive(frame);
        }
    }
    EXPECT_TRUE(rig.nat->TcpTable().Consistent());
    rig.now += 1000;
    rig.nat->TcpTable().Sweep();
    EXPECT_EQ(rig.nat->TcpTable().EntryCount(), 0u);
    ExpectEveryPortOnce(rig.nat->TcpTable(), pool);
}

// A closed connection's port is kept from the same remote endpoint for two minutes (the
// remote may hold the old connection in TIME_WAIT), stays usable for every other
// endpoint, and is used anyway, least recently closed first, when no other port is free.
TEST(NatPorts, AClosedPortIsNotReusedTowardsTheSameEndpointWhileAnotherIsFree) {
    Rig rig({}, {Rig::DefaultMapping()}, Rig::Ports(5000, 2));
    // Opens a connection from `srcPort` to far:dstPort, closes it with a reset unless
    // `keep`, and answers the external port it took.
    auto connect = [&](uint16_t srcPort, uint16_t dstPort, bool keep = false) {
        Frame syn = HostSyn(srcPort, kFarIp, dstPort);
        EXPECT_EQ(rig.Out(syn), 1u);
        const uint16_t port = Parse(syn).srcPort;
        if (!keep) {
            Frame rst = ReplyTo(port, kRst | kAck, kFarIp, dstPort);
            EXPECT_EQ(rig.In(rst), 1u);
        }
        return port;
    };
    EXPECT_EQ(connect(40000, 80), 5000);  // queue now 5001, 5000
    EXPECT_EQ(connect(40001, 81), 5001);  // queue 5000 (closed to :80), 5001 (closed to :81)
    EXPECT_EQ(connect(40002, 80), 5001) << "5000 is quiet towards far:80";
    EXPECT_EQ(connect(40003, 82), 5000) << "5000 is free for another endpoint";
    // Queue: 5001 (closed to :80 first), 5000 (closed to :82 last); both quiet towards :80
    // once 5000 also closes towards it.
    EXPECT_EQ(connect(40004, 80), 5000);
    EXPECT_EQ(connect(40005, 80), 5001) << "every port quiet: the least recently closed";
    rig.now += Nat::NatTable::kReuseQuietMs - 1;
    EXPECT_EQ(connect(40006, 80), 5000) << "both still quiet: the least recently closed again";
    rig.now += 1;
    EXPECT_EQ(connect(40007, 80, true), 5001) << "the quiet time is over";
    ExpectEveryPortOnce(rig.nat->TcpTable(), {5000});
}

TEST(NatPorts, AmongQuietPortsOneTheRemoteHoldsNoTimeWaitForIsPreferred) {
    Rig rig({}, {Rig::DefaultMapping()}, Rig::Ports(5000, 2));
    Frame a = HostSyn(40000);
    Frame b = HostSyn(40001);
    ASSERT_EQ(rig.Out(a), 1u);
    ASSERT_EQ(rig.Out(b), 1u);
    // 5000: the server closes first (it keeps TIME_WAIT); 5001: reset.
    Frame serverFin = ReplyTo(5000, kFin | kAck);
    Frame hostFin = Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40000, 80, 2, 2, kFin | kAck});
    ASSERT_EQ(rig.In(serverFin), 1u);
    ASSERT_EQ(rig.Out(hostFin), 1u);
    Frame lastAckSeq = Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 80, 5000, 2, 3, kAck});
    ASSERT_EQ(rig.In(lastAckSeq), 1u);
    ASSERT_EQ(rig.nat->TcpTable().EntryCount(), 1u);
    Frame rst = ReplyTo(5001, kRst | kAck);
    ASSERT_EQ(rig.In(rst), 1u);
    Frame c = HostSyn(40002);
    ASSERT_EQ(rig.Out(c), 1u);
    EXPECT_EQ(Parse(c).srcPort, 5001) << "both quiet towards far:80; only 5000's remote holds TIME_WAIT";
}
