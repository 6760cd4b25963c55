// Port pools, time-outs, sweeps and port reuse.
#include <gtest/gtest.h>

#include "support/NatRig.h"

using namespace NatTest;

namespace {

Frame HostSyn(uint16_t srcPort, const Ipv4Address& dst = kFarIp, uint16_t dstPort = 80) {
    return Tcp({kHostMac, kIntMac, kHostIp, dst, srcPort, dstPort, 1, 0, kSyn});
}

Frame ReplyTo(uint16_t externalPort, uint8_t flags = kAck, const Ipv4Address& from = kFarIp, uint16_t fromPort = 80) {
    return Tcp({kGatewayMac, kExtMac, from, kExtIp, fromPort, externalPort, 1, 2, flags});
}

// Opens a connection from `srcPort` to far:dstPort, closes it with a reset unless `keep`,
// and answers the external port it took.
uint16_t Connect(Rig& rig, uint16_t srcPort, uint16_t dstPort, bool keep = false) {
    Frame syn = HostSyn(srcPort, kFarIp, dstPort);
    EXPECT_EQ(rig.Out(syn), 1u);
    const uint16_t port = Parse(syn).srcPort;
    Frame rst = ReplyTo(port, kRst | kAck, kFarIp, dstPort);
    EXPECT_TRUE(keep || rig.In(rst) == 1u);
    return port;
}

}  // namespace

TEST(NatKeys, EntriesPrintInOneLine) {
    const Nat::ExternalKey a{5000, kExtMac, kFarIp, 80};
    const Nat::InternalKey internal{kHostMac, kHostIp, 40000, kIntMac, kFarIp, 80};
    EXPECT_EQ(Nat::EntryText(internal, a),
              "InternalHost  02::00::00::00::00::11 192.168.1.10 40000 InternalAdapterMac 02::00::00::00::00::01 "
              "Destination 93.184.216.34 80 External 5000 02::00::00::00::00::02 Remote 93.184.216.34 80");
}

TEST(NatPorts, ExhaustedPoolRecoversThroughASweepInKeyOrder) {
    Rig rig({}, {Rig::DefaultMapping()}, Rig::Ports(5000, 2), Rig::Ports(6000, 2), 60000);
    Frame a = HostSyn(40000, kFarIp, 443), b = HostSyn(40001, kFarIp, 80), c = HostSyn(40002);
    rig.Out(a);
    rig.now += 10;
    rig.Out(b);
    EXPECT_EQ(Thrown([&] { rig.Out(c); }), "There are no port available");
    Frame again = HostSyn(40001, kFarIp, 80);
    EXPECT_EQ(rig.Out(again), 1u);  // a known flow takes no port
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
    Connect(rig, 40000, 80, true);
    rig.now += 59999;
    Frame early = ReplyTo(5000), late = ReplyTo(5000), after = ReplyTo(5000);
    EXPECT_EQ(rig.In(early), 1u);  // refreshed
    rig.now += 60000;
    EXPECT_EQ(Thrown([&] { rig.In(late); }),
              "Internal host info timeout exceeded for remoteIP: 93.184.216.34 remotePort: 80 externalPort: 5000. "
              "The packet will be discarded");
    EXPECT_EQ(rig.nat->TcpTable().EntryCount(), 0u);
    EXPECT_EQ(rig.nat->TcpTable().FreePorts().back(), 5000u);
    EXPECT_EQ(rig.In(after), 0u);

    // Outbound, an idle SNAT entry is refreshed without a check.
    const uint16_t port = Connect(rig, 41000, 80, true);
    rig.now += 100000;
    EXPECT_EQ(Connect(rig, 41000, 80), port);
}

TEST(NatLifetime, RuleEntriesExpireOnTheWayOutAndNewRuleEntriesSweep) {
    Rig rig({Rule(6, 8080, 80, false)}, {Rig::DefaultMapping()});
    rig.Learn(kServerIp, kServerMac);
    Connect(rig, 40000, 80, true);
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

// A closed connection's port is kept from the same remote endpoint for two minutes (the
// remote may hold the old connection in TIME_WAIT), stays usable for every other
// endpoint, and is used anyway, least recently closed first, when no other port is free;
// among such ports one the remote holds no TIME_WAIT for is preferred.
TEST(NatPorts, AClosedPortIsNotReusedTowardsTheSameEndpointWhileAnotherIsFree) {
    Rig rig({}, {Rig::DefaultMapping()}, Rig::Ports(5000, 2));
    EXPECT_EQ(Connect(rig, 40000, 80), 5000);  // queue now 5001, 5000
    EXPECT_EQ(Connect(rig, 40001, 81), 5001);  // queue 5000 (closed to :80), 5001 (closed to :81)
    EXPECT_EQ(Connect(rig, 40002, 80), 5001) << "5000 is quiet towards far:80";
    EXPECT_EQ(Connect(rig, 40003, 82), 5000) << "5000 is free for another endpoint";
    // Queue: 5001 (closed to :80 first), 5000 (closed to :82 last); both quiet towards :80
    // once 5000 also closes towards it.
    EXPECT_EQ(Connect(rig, 40004, 80), 5000);
    EXPECT_EQ(Connect(rig, 40005, 80), 5001) << "every port quiet: the least recently closed";
    rig.now += Nat::NatTable::kReuseQuietMs - 1;
    EXPECT_EQ(Connect(rig, 40006, 80), 5000) << "both still quiet: the least recently closed again";
    rig.now += 1;
    EXPECT_EQ(Connect(rig, 40007, 80, true), 5001) << "the quiet time is over";
    EXPECT_EQ(rig.nat->TcpTable().FreePorts(), std::vector<uint32_t>{5000});

    // 5001 closes towards far:80 with the server closing first (it keeps TIME_WAIT), then
    // 5000 by a reset: both quiet, and only 5001's remote holds TIME_WAIT.
    Frame serverFin = ReplyTo(5001, kFin | kAck);
    Frame hostFin = Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40007, 80, 2, 2, kFin | kAck});
    Frame lastAck = Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 80, 5001, 2, 3, kAck});
    ASSERT_EQ(rig.In(serverFin), 1u);
    ASSERT_EQ(rig.Out(hostFin), 1u);
    ASSERT_EQ(rig.In(lastAck), 1u);
    ASSERT_EQ(rig.nat->TcpTable().EntryCount(), 0u);
    EXPECT_EQ(Connect(rig, 40008, 80), 5000);
    EXPECT_EQ(Connect(rig, 40009, 80), 5000) << "5001's remote holds TIME_WAIT";
}
