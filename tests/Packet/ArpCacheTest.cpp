#include <gtest/gtest.h>

#include <algorithm>

#include "FilterDriver/FilterDriversPublisher.h"
#include "Packet/ArpCache.h"
#include "Packet/NatException.h"
#include "support/FrameBuilder.h"
#include "support/LogCapture.h"
#include "support/RecordingSubscriber.h"

using namespace ndtest;
using NativeNetworkDriver::ArpCache;
using NativeNetworkDriver::FilterDriversPublisher;
using NativeNetworkDriver::Testing::InMemoryNetwork;

namespace {

const std::string kGuidA = NativeNetworkDriver::Testing::Guid(1);
const std::string kGuidB = NativeNetworkDriver::Testing::Guid(2);
const MacAddress kMacA = {0x02, 0, 0, 0, 0, 0x0A};
const MacAddress kMacB = {0x02, 0, 0, 0, 0, 0x0B};
const Ipv4Address kGateway = {192, 168, 1, 1};
const MacAddress kGatewayMac = {0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE};
const std::string kGatewayLine = "IP 192.168.1.1 MAC 02::aa::bb::cc::dd::ee  unresolved packets count: 0\n";

Frame ReplyFrom(const Ipv4Address& ip, const MacAddress& to = kMacA) {
    return FrameBuilder::Arp().EthSrc(kGatewayMac).EthDst(to).ArpOpcode(2).ArpSender(kGatewayMac, ip)
        .ArpTarget(to, {}).PadTo(60).Build();
}

Frame Outbound(uint16_t id) { return FrameBuilder::Tcp().EthDst(kGatewayMac).IpId(id).Payload("data").Build(); }

class ArpCacheTest : public ::testing::Test {
protected:
    ArpCacheTest() {
        network->AddAdapter(kGuidA, kMacA);
        network->AddAdapter(kGuidB, kMacB);
        other.consume = [](const Frame&) { return true; };
    }

    // The cache on `guids`, with another session behind it that takes whatever it lets through.
    void Register(const std::set<std::string>& guids) {
        ASSERT_TRUE(cache.RegisterDrivers(&session1, guids));
        ASSERT_TRUE(publisher.Register(&other, guids));
    }
    void Offer(const std::string& guid, const Frame& frame) { publisher.Dispatch(guid, frame, false); }
    NativeNetworkDriver::ArpTable& Table() { return *cache.GetArpTable(); }

    LogCapture log{2};  // first in, last out: the publisher logs until it is gone
    std::shared_ptr<InMemoryNetwork> network = InMemoryNetwork::Create();
    InMemoryNetwork::FactoryGuard guard = network->Install();
    NativeNetworkDriver::Testing::RecordingSubscriber other;  // outlives the publisher
    FilterDriversPublisher publisher;
    ArpCache cache{&publisher};
    const int session1 = 0, session2 = 0;
};

}  // namespace

TEST_F(ArpCacheTest, LogsItsStartAndRegistrationsAndIsInertWithoutPublisher) {
    EXPECT_EQ(log.Count("INFO;Initializing Arp process"), 1);
    EXPECT_EQ(log.Count("INFO;Arp process successfully initialized"), 1);
    EXPECT_TRUE(cache.RegisterDrivers(&session1, {kGuidA, ""}));
    EXPECT_EQ(log.Count("ERROR;Successfully registered the drivers for Arp cache."), 1);
    EXPECT_FALSE(cache.RegisterDrivers(&session2, {"{no-such-adapter}"}));
    EXPECT_EQ(log.Count("ERROR;Unable to register the drivers for Arp cache."), 1);

    ArpCache inert(nullptr);
    EXPECT_EQ(inert.GetArpTable(), nullptr);
    Frame reply = ReplyFrom(kGateway), runt(3);
    EXPECT_FALSE(inert.OnReceivedFrame(reply, {}, {}, kGuidA));
    EXPECT_FALSE(inert.OnReceivedFrame(runt, {}, {}, kGuidA));  // not even looked at
    EXPECT_FALSE(inert.OnSentFrame(runt, {}, {}, kGuidA));
    EXPECT_EQ(log.Count("INFO;Initializing Arp process"), 1);
}

TEST_F(ArpCacheTest, LearnsFromRepliesOnlyAndNeverConsumes) {
    Register({kGuidA});
    Offer(kGuidA, FrameBuilder::Arp().ArpOpcode(1).ArpSender(kGatewayMac, kGateway).PadTo(60).Build());
    EXPECT_EQ(Table().ToString(), "");
    const Frame reply = ReplyFrom(kGateway);
    Offer(kGuidA, reply);
    EXPECT_EQ(Table().ToString(), kGatewayLine);
    const auto seen = other.Take();
    ASSERT_EQ(seen.size(), 2u);  // both went on to the next subscriber
    EXPECT_EQ(seen[1].frames[0], reply);
    // A runt frame's codec error reaches the publisher's caller.
    EXPECT_THROW(Offer(kGuidA, Frame(20, 0)), Nat::Exception);
}

TEST_F(ArpCacheTest, HeldFramesComeBackAsReceivedFramesOfTheirAdapter) {
    Register({kGuidA, kGuidB});
    EXPECT_EQ(Table().ResolveOrHold(kGateway, Outbound(1), kGuidA), std::nullopt);
    EXPECT_EQ(Table().ResolveOrHold(kGateway, Outbound(2), kGuidB), std::nullopt);
    const FragmentList parts = FrameBuilder::Udp().DontFragment(false).Payload(Bytes(60, 9)).BuildFragments(32);
    Table().ResolveOrHold(kGateway, parts[0], kGuidA, std::set<Frame>(parts.begin(), parts.end()));
    EXPECT_TRUE(other.Take().empty());

    const Frame reply = ReplyFrom(kGateway);
    Offer(kGuidA, reply);
    const auto seen = other.Take();
    ASSERT_EQ(seen.size(), 4u);
    // The cache comes first, so the released frames are offered inside the reply's offer.
    EXPECT_EQ(seen[0].guid + seen[1].guid + seen[2].guid, kGuidA + kGuidB + kGuidA);
    EXPECT_EQ(seen[0].frames, FragmentList{Outbound(1)});
    EXPECT_EQ(seen[1].frames, FragmentList{Outbound(2)});
    EXPECT_EQ(seen[2].kind, "receivedFragments");
    EXPECT_EQ(seen[2].frames, parts);  // collected again, in offset order
    EXPECT_EQ(seen[3].frames[0], reply);
    EXPECT_EQ(Table().ResolveOrHold(kGateway, Outbound(3), kGuidA), kGatewayMac);
}

// The whole path on the publisher's own threads: a reply captured on the wire releases
// the held frame from the dispatch thread, which already holds the subscribers lock.
TEST_F(ArpCacheTest, ReplyFromTheWireReleasesOnTheDispatchThread) {
    Register({kGuidA});
    Table().ResolveOrHold(kGateway, Outbound(7), kGuidA);
    ASSERT_TRUE(network->InjectFromWire(kGuidA, ReplyFrom(kGateway)));
    ASSERT_TRUE(other.WaitForOffers(2));
    const auto seen = other.Take();
    EXPECT_EQ(seen[0].frames[0], Outbound(7));
    EXPECT_EQ(seen[0].guid, kGuidA);
}

// A released frame that nobody takes goes up the stack; a destroyed cache is offered nothing more.
TEST_F(ArpCacheTest, AnAdapterIsWatchedWhileAnySessionWantsItAndTheCacheLives) {
    // Addressed to the adapter itself, so the publisher passes it up when nobody takes it.
    const Frame toUs = FrameBuilder::Udp().EthDst(kMacA).Payload("x").Build();
    {
        ArpCache local(&publisher);
        NativeNetworkDriver::ArpTable& table = *local.GetArpTable();
        ASSERT_TRUE(local.RegisterDrivers(&session1, {kGuidA}));
        ASSERT_TRUE(local.RegisterDrivers(&session2, {kGuidA, kGuidB}));
        local.UnregisterDrivers(&session1);
        table.ResolveOrHold(kGateway, toUs, kGuidA);
        table.ResolveOrHold({10, 0, 0, 9}, Outbound(1), kGuidA);
        Offer(kGuidA, ReplyFrom(kGateway));
        Offer(kGuidB, ReplyFrom({10, 0, 0, 2}, kMacB));
        EXPECT_EQ(table.ToString(), "IP 10.0.0.2 MAC 02::aa::bb::cc::dd::ee  unresolved packets count: 0\n"
                                    "IP 10.0.0.9 MAC   unresolved packets count: 1\n" + kGatewayLine);
        local.UnregisterDrivers(&session2);
        Offer(kGuidA, ReplyFrom({10, 0, 0, 3}));
        EXPECT_EQ(table.ToString().find("10.0.0.3"), std::string::npos);
        ASSERT_TRUE(local.RegisterDrivers(&session1, {kGuidA}));
    }
    const auto up = network->SentToStack(kGuidA);
    EXPECT_NE(std::find(up.begin(), up.end(), toUs), up.end());
    ASSERT_TRUE(publisher.Register(&other, {kGuidA}));
    Offer(kGuidA, ReplyFrom({10, 0, 0, 9}));
    EXPECT_EQ(other.Take().size(), 1u);  // the reply only: the held frame went with the cache
}
