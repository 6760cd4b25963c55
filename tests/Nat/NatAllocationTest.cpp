// The established-flow path allocates nothing: a counting global allocator watches
// classification and translation of frames of known flows in both directions.
#include <gtest/gtest.h>

#include "support/AllocationCounter.h"
#include "support/NatRig.h"

using namespace NatTest;

namespace {

// Reads and translates `original` the way the publisher and a session do, `rounds` times,
// into `work` (whose capacity is already there), and answers how many allocations that took.
size_t Allocations(Nat::NetworkAddressTranslator& nat, const Frame& original, Frame& work, bool outbound,
                   int rounds) {
    return AllocationsOf([&] {
        for (int i = 0; i < rounds; ++i) {
            work.assign(original.begin(), original.end());
            if (nat.Translate(!outbound, work, Nat::ReadFrameView(work), outbound ? "int0" : "ext0") == nullptr) return;
        }
    });
}

}  // namespace

TEST(NatAllocation, EstablishedFlowsTranslateWithoutHeapAllocation) {
    Nat::RedirectRule rule = Rule(6, 8080, 80, true);
    Rig rig({rule}, {Rig::DefaultMapping()});
    rig.Learn(kServerIp, kServerMac);

    // SNAT flow through the gateway, both directions; 64-byte and full-size frames.
    const Frame out = Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40000, 443, 1, 1, kAck});
    const Frame outBig = Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40000, 443, 1, 1, kAck, std::string(1460, 'd')});
    const Frame in = Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 443, 5000, 1, 1, kAck});
    // Published service with translate source, both directions.
    const Frame dnatIn = Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 33000, 8080, 1, 1, kAck});
    const Frame dnatOut = Tcp({kServerMac, kSrvMac, kServerIp, kSrvSideIp, 80, 5001, 1, 1, kAck});

    Frame work;
    work.reserve(Nat::kMaxFrameSize);
    // First frames set the flows up (and may allocate).
    Allocations(*rig.nat, out, work, true, 1);
    Allocations(*rig.nat, dnatIn, work, false, 1);
    ASSERT_EQ(rig.nat->TcpTable().EntryCount(), 2u);

    EXPECT_EQ(Allocations(*rig.nat, out, work, true, 200), 0u);
    EXPECT_EQ(Parse(work).srcPort, 5000);
    EXPECT_EQ(Allocations(*rig.nat, outBig, work, true, 200), 0u);
    EXPECT_TRUE(TransportChecksumValid(work));
    EXPECT_EQ(Allocations(*rig.nat, in, work, false, 200), 0u);
    EXPECT_EQ(Parse(work).dstPort, 40000);
    EXPECT_EQ(Allocations(*rig.nat, dnatIn, work, false, 200), 0u);
    EXPECT_EQ(Parse(work).dstIp, kServerIp);
    EXPECT_EQ(Allocations(*rig.nat, dnatOut, work, true, 200), 0u);
    EXPECT_EQ(Parse(work).dstPort, 33000);

    // On-link destination: the next hop comes from the ARP table on every frame.
    rig.Learn(kPeerIp, kPeerMac);
    const Frame onLink = Tcp({kHostMac, kIntMac, kHostIp, kPeerIp, 40000, 22, 1, 1, kAck});
    Allocations(*rig.nat, onLink, work, true, 1);
    EXPECT_EQ(Allocations(*rig.nat, onLink, work, true, 200), 0u);
    EXPECT_EQ(Parse(work).dstMac, kPeerMac);

    // ICMP: an echo flow both ways, and errors quoting the SNAT flow in both directions.
    const Frame echoOut = Icmp(kHostMac, kIntMac, kHostIp, kFarIp, EchoMessage(8, 77, 1, std::string(56, 'p')));
    const Frame echoIn = Icmp(kGatewayMac, kExtMac, kFarIp, kExtIp, EchoMessage(0, 6000, 1, std::string(56, 'p')));
    const Frame errorIn = Icmp(kGatewayMac, kExtMac, kFarIp, kExtIp,
                               ErrorMessage(3, 4, 1280, Tcp({kExtMac, kGatewayMac, kExtIp, kFarIp, 5000, 443, 1, 1, kAck}), 548));
    const Frame errorOut = Icmp(kHostMac, kIntMac, kHostIp, kFarIp, ErrorMessage(3, 3, 0, Tcp({kIntMac, kHostMac, kFarIp, kHostIp, 443, 40000, 1, 1, kAck}), 548));
    Allocations(*rig.nat, echoOut, work, true, 1);
    EXPECT_EQ(Allocations(*rig.nat, echoOut, work, true, 200), 0u);
    EXPECT_EQ(Allocations(*rig.nat, echoIn, work, false, 200), 0u);
    EXPECT_EQ(Be16(work, 38), 77);
    EXPECT_EQ(Allocations(*rig.nat, errorIn, work, false, 200), 0u);
    EXPECT_EQ(Parse(work).dstIp, kHostIp);
    EXPECT_EQ(Allocations(*rig.nat, errorOut, work, true, 200), 0u);
    EXPECT_EQ(Parse(work).srcIp, kExtIp);

    // The counter itself works: a new flow allocates its entries.
    const Frame fresh = Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40001, 443, 1, 0, kSyn});
    EXPECT_GT(Allocations(*rig.nat, fresh, work, true, 1), 0u);
}
