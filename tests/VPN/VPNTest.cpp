#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

#include "FilterDriver/FilterDriversPublisher.h"
#include "VPN/VPN.h"
#include "support/FrameBuilder.h"
#include "support/LogCapture.h"
#include "support/RecordingSubscriber.h"

namespace NativeNetworkDriver {
namespace {

using ndtest::EthernetFrame;
using ndtest::Ipv4Fragment;
using ndtest::ToBytes;
using Testing::Guid;
using Testing::InMemoryNetwork;
using Testing::kBroadcastMac;

const Nat::MacAddress kAdapterMac{0x02, 0, 0, 0, 0, 0x0A};
const Nat::MacAddress kSupervisor{0x02, 0, 0, 0, 0, 0x5E};
const Nat::MacAddress kThirdHost{0x02, 0, 0, 0, 0, 0x33};
const Nat::MacAddress kOtherSupervisor{0x02, 0, 0, 0, 0, 0x5F};


class TunnelRecorder : public IVPNDataRead {
public:
    void OnVPNDataRead(const Nat::Frame& frame) override {
        if (Testing::IsMarker(frame)) return;
        std::lock_guard lock(mutex_);
        frames_.push_back(frame);
    }
    std::vector<Nat::Frame> Frames() {
        std::lock_guard lock(mutex_);
        return frames_;
    }

private:
    std::mutex mutex_;
    std::vector<Nat::Frame> frames_;
};

class VPNTest : public ::testing::Test {
protected:
    VPNTest() : network(InMemoryNetwork::Create()), guard(network->Install()) {
        network->AddAdapter(guid, kAdapterMac);
        publisher = std::make_unique<FilterDriversPublisher>();
    }
    ~VPNTest() override {
        vpn.reset();
        publisher.reset();
    }

    void OpenWithSupervisor(bool promiscuous) {
        vpn = std::make_unique<VPN>(publisher.get());
        vpn->Open({guid});
        ASSERT_EQ(vpn->State(), VpnState::Opened);
        vpn->AddSupervisorMAC({ToBytes(kSupervisor), promiscuous});
        vpn->SetReader(&tunnel);
    }

    void Settle() { ASSERT_TRUE(network->Settle(guid)); }
    std::vector<Nat::Frame> Wire() { return network->SentToWire(guid); }
    std::vector<Nat::Frame> Stack() { return network->SentToStack(guid); }

    ndtest::LogCapture log;
    std::shared_ptr<InMemoryNetwork> network;
    InMemoryNetwork::FactoryGuard guard;
    std::string guid = Guid(3);
    std::unique_ptr<FilterDriversPublisher> publisher;
    std::unique_ptr<VPN> vpn;
    TunnelRecorder tunnel;
};

TEST_F(VPNTest, OpenRegistersAndASecondOpenKeepsTheRegistration) {
    vpn = std::make_unique<VPN>(publisher.get());
    EXPECT_EQ(vpn->State(), VpnState::Closed);
    vpn->Open({guid});
    EXPECT_EQ(vpn->State(), VpnState::Opened);
    EXPECT_EQ(network->AdapterMode(guid), 0x43u);

    vpn->Open({guid});
    EXPECT_EQ(vpn->State(), VpnState::AlreadyOpened);
    EXPECT_TRUE(log.Has("DEBUG;Error opening VPN: drivers already opened."));
    EXPECT_EQ(network->AdapterMode(guid), 0x43u);

    vpn.reset();
    EXPECT_EQ(network->AdapterMode(guid), 0u);
}

TEST_F(VPNTest, AFailedOpenUnregistersAndTheNextOpenStartsClean) {
    vpn = std::make_unique<VPN>(publisher.get());
    vpn->Open({guid, Guid(9)});
    EXPECT_EQ(vpn->State(), VpnState::Failed);
    EXPECT_TRUE(log.Has("DEBUG;Error opening VPN: Publisher registration failed"));
    EXPECT_EQ(network->AdapterMode(guid), 0u);  // opened on the way, closed again

    vpn->Open({guid});
    EXPECT_EQ(vpn->State(), VpnState::Opened);
    EXPECT_EQ(network->AdapterMode(guid), 0x43u);

    VPN orphan(nullptr);
    orphan.Open({guid});
    EXPECT_EQ(orphan.State(), VpnState::Failed);
    EXPECT_TRUE(log.Has("DEBUG;Error opening VPN: publisher is NULL."));
    orphan.SendFrame(EthernetFrame(kAdapterMac, kSupervisor, 0x0800, 46));
    EXPECT_TRUE(network->SentToStack(guid).empty());
}

TEST_F(VPNTest, CapturedFramesTowardsTheTunnel) {
    OpenWithSupervisor(false);
    const Nat::Frame broadcast = EthernetFrame(kBroadcastMac, kThirdHost, 0x0806, 28, 1);
    const Nat::Frame toSupervisor = EthernetFrame(kSupervisor, kAdapterMac, 0x0800, 46, 2);
    const Nat::Frame toThirdHost = EthernetFrame(kThirdHost, kAdapterMac, 0x0800, 46, 3);
    const Nat::Frame forUs = EthernetFrame(kAdapterMac, kThirdHost, 0x0800, 46, 4);
    network->InjectFromWire(guid, broadcast);
    network->InjectFromStack(guid, toSupervisor);
    network->InjectFromStack(guid, toThirdHost);
    network->InjectFromWire(guid, forUs);
    Settle();

    EXPECT_EQ(tunnel.Frames(), (std::vector<Nat::Frame>{broadcast, toSupervisor}));
    EXPECT_EQ(Stack(), (std::vector<Nat::Frame>{broadcast, forUs}));  // the broadcast once
    EXPECT_EQ(Wire(), std::vector<Nat::Frame>{toThirdHost});           // not the supervisor's frame
}

TEST_F(VPNTest, APromiscuousSupervisorAlsoGetsOtherHostsFrames) {
    OpenWithSupervisor(true);
    const Nat::Frame toThirdHost = EthernetFrame(kThirdHost, kAdapterMac, 0x0800, 46, 3);
    const Nat::Frame forUs = EthernetFrame(kAdapterMac, kThirdHost, 0x0800, 46, 4);
    const Nat::Frame toSupervisor = EthernetFrame(kSupervisor, kAdapterMac, 0x0800, 46, 5);
    network->InjectFromStack(guid, toThirdHost);
    network->InjectFromWire(guid, forUs);
    network->InjectFromStack(guid, toSupervisor);
    Settle();

    EXPECT_EQ(tunnel.Frames(), (std::vector<Nat::Frame>{toThirdHost, toSupervisor}));
    EXPECT_EQ(Wire(), std::vector<Nat::Frame>{toThirdHost});  // also on its normal way
    EXPECT_EQ(Stack(), std::vector<Nat::Frame>{forUs});

    // Runts never match and are read no further than they go.
    EXPECT_FALSE(vpn->Classify(Nat::Frame{0x02, 0, 0}));
    EXPECT_FALSE(vpn->Classify(Nat::Frame{}));
}

TEST_F(VPNTest, WithoutAReaderFramesAreClassifiedButNotForwarded) {
    vpn = std::make_unique<VPN>(publisher.get());
    vpn->Open({guid});
    vpn->AddSupervisorMAC({ToBytes(kSupervisor), false});
    EXPECT_TRUE(vpn->Classify(EthernetFrame(kSupervisor, kAdapterMac, 0x0800, 46)));
    EXPECT_TRUE(vpn->Classify(EthernetFrame(kBroadcastMac, kAdapterMac, 0x0800, 46)));
    EXPECT_FALSE(vpn->Classify(Nat::Frame(kSupervisor.begin(), kSupervisor.begin() + 5)));
    EXPECT_TRUE(tunnel.Frames().empty());
}

TEST_F(VPNTest, SupervisorListKeepsTheFirstEntryOfAMac) {
    VPN session(publisher.get());
    session.AddSupervisorMAC({ToBytes(kSupervisor), false});
    session.AddSupervisorMAC({ToBytes(kOtherSupervisor), true});
    session.AddSupervisorMAC({ToBytes(kSupervisor), true});
    auto list = session.Supervisors();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].mac, ToBytes(kSupervisor));
    EXPECT_FALSE(list[0].promiscuous);
    EXPECT_TRUE(session.IsPromiscuous());

    session.RemoveSupervisorMAC(ToBytes(kOtherSupervisor));
    EXPECT_FALSE(session.IsPromiscuous());
    session.RemoveSupervisorMAC(ToBytes(kThirdHost));
    EXPECT_EQ(session.Supervisors().size(), 1u);

    // Compared over the new MAC's length: two empty MACs are equal.
    VPN fresh(publisher.get());
    fresh.AddSupervisorMAC({{}, true});
    fresh.AddSupervisorMAC({{}, false});
    ASSERT_EQ(fresh.Supervisors().size(), 1u);
    EXPECT_TRUE(fresh.IsPromiscuous());
}

TEST_F(VPNTest, FragmentsAreOfferedOneByOne) {
    OpenWithSupervisor(false);
    const Nat::Frame a = Ipv4Fragment(kSupervisor, kAdapterMac, 5, 0, true, 16, 1);
    const Nat::Frame b = Ipv4Fragment(kThirdHost, kAdapterMac, 5, 16, true, 16, 2);
    const Nat::Frame c = Ipv4Fragment(kSupervisor, kAdapterMac, 5, 32, false, 4, 3);
    Nat::FragmentList sent{a, b, c}, received{b, b};
    EXPECT_TRUE(vpn->OnSentFragments(sent, {}, guid));
    EXPECT_EQ(tunnel.Frames(), (std::vector<Nat::Frame>{a, c}));
    EXPECT_FALSE(vpn->OnReceivedFragments(received, {}, guid));

    // Through the publisher: a datagram to the supervisor goes whole to the tunnel only.
    const Nat::Frame head = Ipv4Fragment(kSupervisor, kAdapterMac, 6, 0, true, 16, 4);
    const Nat::Frame tail = Ipv4Fragment(kSupervisor, kAdapterMac, 6, 16, false, 16, 5);
    network->InjectFromStack(guid, tail);
    network->InjectFromStack(guid, head);
    Settle();
    EXPECT_EQ(tunnel.Frames(), (std::vector<Nat::Frame>{a, c, head, tail}));
    EXPECT_TRUE(Wire().empty());
}

TEST_F(VPNTest, FramesFromTheTunnelGoWhereTheirDestinationIs) {
    OpenWithSupervisor(false);
    const Nat::Frame forUs = EthernetFrame(kAdapterMac, kSupervisor, 0x0800, 46, 1);
    const Nat::Frame forOther = EthernetFrame(kThirdHost, kSupervisor, 0x0800, 46, 2);
    const Nat::Frame broadcast = EthernetFrame(kBroadcastMac, kSupervisor, 0x0806, 28, 3);

    vpn->SendFrame(forUs);
    EXPECT_EQ(network->SentToStack(guid), std::vector<Nat::Frame>{forUs});
    EXPECT_TRUE(network->SentToWire(guid).empty());

    vpn->SendFrame(forOther);
    EXPECT_EQ(network->SentToWire(guid), std::vector<Nat::Frame>{forOther});
    EXPECT_EQ(network->SentToStack(guid).size(), 1u);

    vpn->SendFrame(broadcast);
    EXPECT_EQ(network->SentToWire(guid), (std::vector<Nat::Frame>{forOther, broadcast}));
    EXPECT_EQ(network->SentToStack(guid), (std::vector<Nat::Frame>{forUs, broadcast}));

    network->ClearSent(guid);
    publisher->SetHandleVirtualMachine(true);
    vpn->SendFrame(forOther);
    EXPECT_EQ(network->SentToWire(guid), std::vector<Nat::Frame>{forOther});
    EXPECT_EQ(network->SentToStack(guid), std::vector<Nat::Frame>{forOther});

    // A runt matches no adapter and is read no further than it goes.
    network->ClearSent(guid);
    publisher->SetHandleVirtualMachine(false);
    vpn->SendFrame(Nat::Frame{0x02, 0, 0});
    EXPECT_EQ(network->SentToWire(guid).size(), 1u);
    EXPECT_TRUE(network->SentToStack(guid).empty());
}

TEST_F(VPNTest, TunnelFramesAreDroppedWithoutARegisteredAdapter) {
    vpn = std::make_unique<VPN>(publisher.get());
    vpn->SendFrame(EthernetFrame(kThirdHost, kSupervisor, 0x0800, 46));
    vpn->SendFrame(EthernetFrame(kBroadcastMac, kSupervisor, 0x0800, 46));
    // Another session's adapter is not the VPN's to write to.
    Testing::RecordingSubscriber other;
    ASSERT_TRUE(publisher->Register(&other, {guid}));
    vpn->SendFrame(EthernetFrame(kAdapterMac, kSupervisor, 0x0800, 46));
    vpn->SendFrame(EthernetFrame(kThirdHost, kSupervisor, 0x0800, 46));
    EXPECT_TRUE(network->SentToWire(guid).empty());
    EXPECT_TRUE(network->SentToStack(guid).empty());
    publisher->Unregister(&other);
}

TEST_F(VPNTest, TunnelFramesOfAnyShapeAreWrittenOrDroppedNeverOverread) {
    OpenWithSupervisor(false);
    uint32_t seed = 12345;
    auto next = [&] { return seed = seed * 1103515245u + 12345u; };
    size_t written = 0;
    for (size_t length : {0u, 1u, 5u, 6u, 13u, 59u, 60u, 1514u, 1515u, 4000u}) {
        Nat::Frame frame(length);
        for (auto& b : frame) b = static_cast<uint8_t>(next() >> 16);
        if (length > 0) frame[0] &= 0xFE;  // unicast, so that it goes to exactly one place
        vpn->SendFrame(frame);
        if (length <= Nat::kMaxFrameSize) ++written;
    }
    // Everything up to the Ethernet maximum goes out; larger frames are refused by size.
    EXPECT_EQ(network->SentToWire(guid).size() + network->SentToStack(guid).size(), written);
    EXPECT_TRUE(log.Has("ERROR;The frame size exceeds the max ethernet frame size: 1515. The packet will be dropped."));
    EXPECT_TRUE(log.Has("ERROR;The frame size exceeds the max ethernet frame size: 4000. The packet will be dropped."));
}

TEST_F(VPNTest, ASuperFrameGoesToTheTunnelAsTheWireFramesItStandsFor) {
    OpenWithSupervisor(false);
    Nat::Frame big = ndtest::FrameBuilder::Tcp()
                         .EthDst(kSupervisor)
                         .EthSrc(kThirdHost)
                         .Seq(1000)
                         .Payload(ndtest::Pattern(3 * 1448 + 10))
                         .Build();
    Nat::FrameOffload offload;
    offload.flags = Nat::kOffloadNeedsChecksum;
    offload.gsoType = Nat::kGsoTcpV4;
    offload.gsoSize = 1448;
    offload.csumStart = static_cast<uint16_t>(ndtest::TransportOffset(big));
    offload.csumOffset = 16;
    const size_t field = ndtest::TransportChecksumOffset(big);
    const uint16_t pseudo = ndtest::PseudoHeaderChecksum(big);
    big[field] = static_cast<uint8_t>(pseudo >> 8);
    big[field + 1] = static_cast<uint8_t>(pseudo);
    network->InjectFromWire(guid, big, offload);
    Settle();
    const auto frames = tunnel.Frames();
    ASSERT_EQ(frames.size(), 4u);
    uint32_t seq = 1000;
    for (const Nat::Frame& f : frames) {
        EXPECT_LE(f.size(), Nat::kMaxFrameSize);
        EXPECT_TRUE(ndtest::IpChecksumValid(f) && ndtest::TransportChecksumValid(f));
        EXPECT_EQ(ndtest::Be32(f, 38), seq);
        seq += static_cast<uint32_t>(f.size() - 54);
    }
    EXPECT_EQ(seq, 1000u + 3 * 1448 + 10);
    EXPECT_TRUE(Stack().empty());
}

}  // namespace
}  // namespace NativeNetworkDriver
