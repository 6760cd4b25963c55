// The established-flow path allocates nothing: a counting global allocator watches
// classification and translation of frames of known flows in both directions.
#include <gtest/gtest.h>

#include <limits>

#include "support/AllocationCounter.h"
#include "support/NatRig.h"

using namespace NatTest;

TEST(NatAllocation, EstablishedFlowsTranslateWithoutHeapAllocation) {
    Rig rig({Rule(6, 8080, 80, true)}, {Rig::DefaultMapping()});
    rig.Learn(kServerIp, kServerMac);
    rig.Learn(kPeerIp, kPeerMac);  // on-link: the next hop comes from the ARP table on every frame
    const Frame toHost = Tcp({kIntMac, kHostMac, kFarIp, kHostIp, 443, 40000, 1, 1, kAck});
    const Frame toFar = Tcp({kExtMac, kGatewayMac, kExtIp, kFarIp, 5000, 443, 1, 1, kAck});
    // SNAT through the gateway and to an on-link peer, 64-byte and full-size; a published
    // service with translate source; an echo flow; errors quoting the SNAT flow.
    const struct {
        const char* what;
        bool outbound;
        Frame frame;
    } flows[] = {
        {"out", true, Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40000, 443, 1, 1, kAck})},
        {"full size", true, Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40000, 443, 1, 1, kAck, std::string(1460, 'd')})},
        {"in", false, Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 443, 5000, 1, 1, kAck})},
        {"published in", false, Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 33000, 8080, 1, 1, kAck})},
        {"published out", true, Tcp({kServerMac, kSrvMac, kServerIp, kSrvSideIp, 80, 5001, 1, 1, kAck})},
        {"on-link", true, Tcp({kHostMac, kIntMac, kHostIp, kPeerIp, 40000, 22, 1, 1, kAck})},
        {"echo out", true, Icmp(kHostMac, kIntMac, kHostIp, kFarIp, EchoMessage(8, 77, 1, std::string(56, 'p')))},
        {"echo in", false, Icmp(kGatewayMac, kExtMac, kFarIp, kExtIp, EchoMessage(0, 6000, 1, std::string(56, 'p')))},
        {"error in", false, Icmp(kGatewayMac, kExtMac, kFarIp, kExtIp, ErrorMessage(3, 4, 1280, toFar, 548))},
        {"error out", true, Icmp(kHostMac, kIntMac, kHostIp, kFarIp, ErrorMessage(3, 3, 0, toHost, 548))},
    };
    Frame work;
    work.reserve(Nat::kMaxFrameSize);
    // Translates the frame the way the publisher and a session do, `rounds` times, into
    // `work` (whose capacity is already there): the allocations that took, or the maximum
    // when a round was not translated.
    auto allocations = [&](const Frame& frame, bool outbound, int rounds) {
        bool translated = true;
        const size_t count = AllocationsOf([&] {
            for (int i = 0; i < rounds && translated; ++i) {
                work.assign(frame.begin(), frame.end());
                const std::string guid = outbound ? "int0" : "ext0";
                translated = rig.nat->Translate(!outbound, work, Nat::ReadFrameView(work), guid) != nullptr;
            }
        });
        return translated ? count : std::numeric_limits<size_t>::max();
    };
    for (const auto& f : flows) {
        SCOPED_TRACE(f.what);
        allocations(f.frame, f.outbound, 1);  // a first frame sets its flow up, and may allocate
        EXPECT_EQ(allocations(f.frame, f.outbound, 200), 0u);
    }
    // The counter itself works: a new flow allocates its entries.
    const Frame fresh = Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40001, 443, 1, 0, kSyn});
    EXPECT_GT(allocations(fresh, true, 1), 0u);
}
