// The NAT session on the in-memory driver: the whole chain from capture through the
// publisher, the session and the engine to the send, as the daemon runs it.
#include <gtest/gtest.h>

#include <memory>

#include "FilterDriver/FilterDriversPublisher.h"
#include "Packet/ArpCache.h"
#include "Sessions/NAT.h"
#include "support/AllocationCounter.h"
#include "support/InMemoryFilterDriverApi.h"
#include "support/LogCapture.h"
#include "support/NatRig.h"

using namespace NativeNetworkDriver;
using namespace NativeNetworkDriver::Testing;
using namespace NatTest;

namespace {

const std::string kInt = Guid(1);
const std::string kExt = Guid(2);

// Source NAT from kInt to kExt, the rig's network on the test adapters.
NatSettings Settings(uint32_t poolSize) {
    NatSettings s;
    Nat::AdapterMapping mapping = Rig::DefaultMapping();
    mapping.external.id = kExt;
    mapping.internal.id = kInt;
    mapping.external.ips.push_back({{11, 0, 0, 9}, {255, 255, 255, 0}});  // a second subnet on the same wire
    s.mappings.push_back(mapping);
    s.tcpPoolSize = s.udpPoolSize = poolSize;
    s.entryTimeoutMs = 60000;
    return s;
}

// A host behind kInt reaches the world behind kExt's gateway through source NAT.
class SessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        network->AddAdapter(kInt, kIntMac);
        network->AddAdapter(kExt, kExtMac);
        publisher = std::make_unique<FilterDriversPublisher>();
        arp = std::make_unique<ArpCache>(publisher.get());
        nat = std::make_unique<NAT>(publisher.get(), arp.get(), Settings(4));
        ASSERT_EQ(nat->Status(), 1u);
    }
    // Injects and waits until everything injected on both adapters is dispatched; the
    // harness's own allocations are not counted.
    void Pass(const std::vector<std::pair<std::string, Frame>>& frames, const Nat::FrameOffload& offload = {}) {
        ndtest::HarnessScope harness;
        for (const auto& [guid, frame] : frames) network->InjectFromWire(guid, frame, offload);
        ASSERT_TRUE(network->Settle(kInt));
        ASSERT_TRUE(network->Settle(kExt));
    }
    std::vector<Frame> Wire(const std::string& guid) { return network->SentToWire(guid); }

    std::shared_ptr<InMemoryNetwork> network = InMemoryNetwork::Create();
    InMemoryNetwork::FactoryGuard guard = network->Install();
    std::unique_ptr<FilterDriversPublisher> publisher;
    std::unique_ptr<ArpCache> arp;
    std::unique_ptr<NAT> nat;
};

}  // namespace

TEST_F(SessionTest, EstablishedFlowsGoFromCaptureToSendWithoutHeapAllocationAndSuperFramesAsWireFrames) {
    const Frame syn = Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40000, 443, 1, 0, kSyn});
    Pass({{kInt, syn}});
    ASSERT_EQ(Wire(kExt).size(), 1u);
    const uint16_t port = Parse(Wire(kExt)[0]).srcPort;
    const Frame out = Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40000, 443, 2, 1, kAck, std::string(1400, 'o')});
    const Frame in = Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 443, port, 1, 2, kAck});
    std::vector<std::pair<std::string, Frame>> both;
    for (int i = 0; i < 100; ++i) both.insert(both.end(), {{kInt, out}, {kExt, in}});

    // Until every queue slot and capture buffer has held a frame of this size, vectors grow.
    for (int round = 0; round < 8; ++round) Pass(both);
    network->ClearSent(kInt);
    network->ClearSent(kExt);
    EXPECT_EQ(ndtest::AllocationsOf([&] { Pass(both); }), 0u);

    // Every frame went through, translated.
    const auto toWorld = Wire(kExt);
    const auto toHost = Wire(kInt);
    ASSERT_EQ(toWorld.size() + toHost.size(), 200u);
    EXPECT_EQ(std::make_pair(Parse(toWorld.back()).srcIp, Parse(toHost.back()).dstIp), std::make_pair(kExtIp, kHostIp));

    // The offload state goes with a super-frame to the driver, whose send cuts it into wire frames.
    network->ClearSent(kExt);
    Frame big = Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40000, 443, 2, 1, kAck, std::string(4 * 1448, 'b')});
    Nat::FrameOffload offload = LeaveChecksumToHardware(big);
    offload.gsoType = Nat::kGsoTcpV4;
    offload.gsoSize = 1448;
    Pass({{kInt, big}}, offload);
    const auto sent = Wire(kExt);
    ASSERT_EQ(sent.size(), 4u);
    for (const Frame& f : sent) {
        EXPECT_EQ(f.size(), 14u + 20 + 20 + 1448);
        EXPECT_TRUE(IpChecksumValid(f) && TransportChecksumValid(f));
        EXPECT_EQ(Parse(f).srcIp, kExtIp);
    }
}

// The next hop of a frame leaving on the external side is unknown: the session asks for
// it on that adapter, from the adapter's own address in the hop's subnet, and the held
// frame goes out once the answer comes. Frames of neither side, and ones the engine does
// not take, pass untouched.
TEST_F(SessionTest, AnUnknownNextHopIsAskedForAndTheHeldFrameFollowsTheAnswer) {
    const Frame query = Udp({kHostMac, kIntMac, kHostIp, kPeerIp, 53000, 53, "query"});
    Pass({{kInt, query}});
    ASSERT_EQ(Wire(kExt), std::vector<Frame>{BuildArpRequest(kExtMac, kExtIp, kPeerIp)});
    EXPECT_TRUE(Wire(kInt).empty());  // not on the other adapter of the session
    network->ClearSent(kExt);
    Pass({{kInt, Udp({kHostMac, kIntMac, kHostIp, Ip(11, 0, 0, 50), 53000, 53, "query"})}});
    ASSERT_EQ(Wire(kExt), std::vector<Frame>{BuildArpRequest(kExtMac, Ip(11, 0, 0, 9), Ip(11, 0, 0, 50))});
    network->ClearSent(kExt);

    Pass({{kExt, FrameBuilder::Arp().ArpOpcode(2).EthDst(kExtMac).EthSrc(kPeerMac).ArpSender(kPeerMac, kPeerIp)
                     .ArpTarget(kExtMac, kExtIp).Build()}});
    const auto sent = Wire(kExt);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0], Udp({kExtMac, kPeerMac, kExtIp, kPeerIp, Parse(sent[0]).srcPort, 53, "query"}));

    // Not this session's flow: from the outside to a port nobody holds, and a frame of
    // the internal side to this machine itself, go on to the stack as they came.
    const Frame stray = Udp({kGatewayMac, kExtMac, kFarIp, kExtIp, 53, 6001, "x"});
    const Frame own = Udp({kHostMac, kIntMac, kHostIp, kIntIp, 53000, 53, "y"});
    Pass({{kExt, stray}, {kInt, own}});
    EXPECT_EQ(network->SentToStack(kExt).back(), stray);
    EXPECT_EQ(network->SentToStack(kInt).back(), own);
}

TEST(SessionOpen, ARefusedAdapterGivesBackTheOnesRegisteredBeforeIt) {
    auto network = InMemoryNetwork::Create();
    auto guard = network->Install();
    network->AddAdapter(kInt, kIntMac);  // kExt is missing: the publisher refuses it, after kInt
    FilterDriversPublisher publisher;
    ArpCache arp(&publisher);
    NAT nat(&publisher, &arp, Settings(1));
    EXPECT_EQ(nat.Status(), 0u);
    EXPECT_EQ(network->AdapterMode(kInt), 0u) << "kInt still held by the failed session";
    // The adapter works as without the daemon: nothing is diverted any more.
    EXPECT_FALSE(network->InjectFromWire(kInt, Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 1, 2, 1, 0, kSyn})));
}

// A frame the engine takes and then fails on (here: no port left for a new flow) is
// logged and dropped, not passed on.
TEST_F(SessionTest, AFrameTheEngineFailsOnIsLoggedAndDropped) {
    ndtest::LogCapture log;
    for (uint16_t port = 40001; port <= 40005; ++port)
        Pass({{kInt, Tcp({kHostMac, kIntMac, kHostIp, kFarIp, port, 443, 1, 0, kSyn})}});
    EXPECT_EQ(Wire(kExt).size(), 4u);
    EXPECT_TRUE(network->SentToStack(kInt).empty()) << "passed on to the stack";
    EXPECT_TRUE(log.Has("ERROR;Error translating a NAT packet from internal to external: There are no port available"));
}
