#include <gtest/gtest.h>

#include "FilterDriver/FilterDriversPublisher.h"
#include "VPN/VPN.h"
#include "support/FrameBuilder.h"
#include "support/InMemoryFilterDriverApi.h"
#include "support/LogCapture.h"

namespace NativeNetworkDriver {
namespace {

using ndtest::Ipv4Fragment;
using ndtest::ToBytes;
using Testing::InMemoryNetwork;
using Testing::kBroadcastMac;
using Frames = std::vector<Nat::Frame>;

const Nat::MacAddress kAdapterMac{0x02, 0, 0, 0, 0, 0x0A};
const Nat::MacAddress kSupervisor{0x02, 0, 0, 0, 0, 0x5E};
const Nat::MacAddress kThirdHost{0x02, 0, 0, 0, 0, 0x33};
const Nat::MacAddress kOtherSupervisor{0x02, 0, 0, 0, 0, 0x5F};

Nat::Frame Eth(const Nat::MacAddress& to, const Nat::MacAddress& from, uint8_t fill = 0) {
    return ndtest::EthernetFrame(to, from, 0x0800, 46, fill);
}

// Read after Settle, which orders the reads after the dispatch thread's writes.
struct TunnelRecorder : IVPNDataRead {
    void OnVPNDataRead(const Nat::Frame& frame) override {
        if (!Testing::IsMarker(frame)) received.push_back(frame);
    }
    Frames received;
};

class VPNTest : public ::testing::Test {
protected:
    VPNTest() { network->AddAdapter(guid, kAdapterMac); }

    void Open(bool promiscuous) {
        vpn = std::make_unique<VPN>(publisher.get());
        vpn->Open({guid});
        ASSERT_EQ(vpn->State(), VpnState::Opened);
        vpn->AddSupervisorMAC({ToBytes(kSupervisor), promiscuous});
        vpn->SetReader(&tunnel);
    }

    ndtest::LogCapture log;
    std::shared_ptr<InMemoryNetwork> network = InMemoryNetwork::Create();
    InMemoryNetwork::FactoryGuard guard = network->Install();
    std::string guid = Testing::Guid(3);
    TunnelRecorder tunnel;
    std::unique_ptr<FilterDriversPublisher> publisher = std::make_unique<FilterDriversPublisher>();
    std::unique_ptr<VPN> vpn;
};

TEST_F(VPNTest, OpenRegistersOnceAndAFailedOpenUnregisters) {
    vpn = std::make_unique<VPN>(publisher.get());
    EXPECT_EQ(vpn->State(), VpnState::Closed);
    vpn->Open({guid, Testing::Guid(9)});
    EXPECT_EQ(vpn->State(), VpnState::Failed);
    EXPECT_TRUE(log.Has("DEBUG;Error opening VPN: Publisher registration failed"));
    EXPECT_EQ(network->AdapterMode(guid), 0u);  // opened on the way, closed again
    vpn->Open({guid});
    EXPECT_EQ(vpn->State(), VpnState::Opened);
    // Without a reader frames are classified but go nowhere.
    vpn->AddSupervisorMAC({ToBytes(kSupervisor), false});
    EXPECT_TRUE(vpn->Classify(Eth(kSupervisor, kAdapterMac)) && vpn->Classify(Eth(kBroadcastMac, kAdapterMac)));
    EXPECT_FALSE(vpn->Classify(Eth(kThirdHost, kAdapterMac)));
    vpn->Open({guid});
    EXPECT_EQ(vpn->State(), VpnState::AlreadyOpened);
    EXPECT_TRUE(log.Has("DEBUG;Error opening VPN: drivers already opened."));
    EXPECT_EQ(network->AdapterMode(guid), 0x43u);
    vpn.reset();
    EXPECT_EQ(network->AdapterMode(guid), 0u);

    VPN orphan(nullptr);
    orphan.Open({guid});
    EXPECT_EQ(orphan.State(), VpnState::Failed);
    EXPECT_TRUE(log.Has("DEBUG;Error opening VPN: publisher is NULL."));
    orphan.SendFrame(Eth(kAdapterMac, kSupervisor));
    EXPECT_TRUE(network->SentToStack(guid).empty());
}

TEST_F(VPNTest, CapturedFramesTowardsTheTunnel) {
    const Nat::Frame broadcast = ndtest::EthernetFrame(kBroadcastMac, kThirdHost, 0x0806, 28, 1);
    const Nat::Frame toSupervisor = Eth(kSupervisor, kAdapterMac, 2), toThirdHost = Eth(kThirdHost, kAdapterMac, 3);
    const Nat::Frame forUs = Eth(kAdapterMac, kThirdHost, 4);
    for (bool promiscuous : {false, true}) {
        SCOPED_TRACE(promiscuous);
        Open(promiscuous);
        network->ClearSent(guid);
        tunnel.received.clear();
        network->InjectFromWire(guid, broadcast);
        network->InjectFromStack(guid, toSupervisor);
        network->InjectFromStack(guid, toThirdHost);
        network->InjectFromWire(guid, forUs);
        ASSERT_TRUE(network->Settle(guid));
        // A promiscuous supervisor also gets other hosts' frames, which still go on their way too.
        Frames expected{broadcast, toSupervisor};
        if (promiscuous) expected.push_back(toThirdHost);
        EXPECT_EQ(tunnel.received, expected);
        EXPECT_EQ(network->SentToStack(guid), (Frames{broadcast, forUs}));  // the broadcast once
        EXPECT_EQ(network->SentToWire(guid), Frames{toThirdHost});          // never the supervisor's frame
    }
}

TEST_F(VPNTest, SupervisorListKeepsTheFirstEntryOfAMac) {
    VPN session(publisher.get());
    session.AddSupervisorMAC({ToBytes(kSupervisor), false});
    session.AddSupervisorMAC({ToBytes(kOtherSupervisor), true});
    session.AddSupervisorMAC({ToBytes(kSupervisor), true});
    const auto list = session.Supervisors();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].mac, ToBytes(kSupervisor));
    EXPECT_TRUE(session.IsPromiscuous());
    session.RemoveSupervisorMAC(ToBytes(kOtherSupervisor));
    EXPECT_FALSE(session.IsPromiscuous());
    session.RemoveSupervisorMAC(ToBytes(kThirdHost));
    // Compared over the new MAC's length: an empty MAC is already there.
    session.AddSupervisorMAC({{}, true});
    EXPECT_EQ(session.Supervisors().size(), 1u);
    EXPECT_FALSE(session.IsPromiscuous());
}

TEST_F(VPNTest, FramesFromTheTunnelGoWhereTheirDestinationIsAndFragmentsGoOneByOne) {
    Open(false);
    const Nat::Frame forUs = Eth(kAdapterMac, kSupervisor, 1), forOther = Eth(kThirdHost, kSupervisor, 2);
    const Nat::Frame broadcast = ndtest::EthernetFrame(kBroadcastMac, kSupervisor, 0x0806, 28, 3);
    for (const Nat::Frame& f : {forUs, forOther, broadcast}) vpn->SendFrame(f);
    EXPECT_EQ(network->SentToStack(guid), (Frames{forUs, broadcast}));
    EXPECT_EQ(network->SentToWire(guid), (Frames{forOther, broadcast}));

    network->ClearSent(guid);
    publisher->SetHandleVirtualMachine(true);
    vpn->SendFrame(forOther);
    EXPECT_EQ(network->SentToWire(guid), Frames{forOther});
    EXPECT_EQ(network->SentToStack(guid), Frames{forOther});

    // Frames of any length up to the largest Ethernet frame are written (0x42...: unicast,
    // so that each goes to exactly one place).
    network->ClearSent(guid);
    publisher->SetHandleVirtualMachine(false);
    for (size_t length : {0u, 1u, 5u, 13u, 60u, 1514u, 1515u, 4000u}) vpn->SendFrame(Nat::Frame(length, 0x42));
    EXPECT_EQ(network->SentToWire(guid).size() + network->SentToStack(guid).size(), 6u);

    // Fragments are offered one by one: those for the supervisor go to the tunnel.
    const Nat::Frame a = Ipv4Fragment(kSupervisor, kAdapterMac, 5, 0, true, 16, 1);
    const Nat::Frame b = Ipv4Fragment(kThirdHost, kAdapterMac, 5, 16, true, 16, 2);
    const Nat::Frame c = Ipv4Fragment(kSupervisor, kAdapterMac, 5, 32, false, 4, 3);
    Nat::FragmentList sent{a, b, c}, received{b, b};
    EXPECT_TRUE(vpn->OnSentFragments(sent, {}, guid));
    EXPECT_EQ(tunnel.received, (Frames{a, c}));
    EXPECT_FALSE(vpn->OnReceivedFragments(received, {}, guid));
}

TEST_F(VPNTest, ASuperFrameGoesToTheTunnelAsTheWireFramesItStandsFor) {
    Open(false);
    Nat::Frame big = ndtest::FrameBuilder::Tcp().EthDst(kSupervisor).EthSrc(kThirdHost)
                         .Payload(ndtest::Pattern(3 * 1448 + 10)).Build();
    Nat::FrameOffload offload = ndtest::LeaveChecksumToHardware(big);
    offload.gsoType = Nat::kGsoTcpV4;
    offload.gsoSize = 1448;
    network->InjectFromWire(guid, big, offload);
    ASSERT_TRUE(network->Settle(guid));
    const Frames& frames = tunnel.received;
    ASSERT_EQ(frames.size(), 4u);
    for (const Nat::Frame& f : frames) EXPECT_TRUE(ndtest::IpChecksumValid(f) && ndtest::TransportChecksumValid(f));
    EXPECT_EQ(frames.back().size(), 54u + 10);
    EXPECT_TRUE(network->SentToStack(guid).empty());
}

}  // namespace
}  // namespace NativeNetworkDriver
