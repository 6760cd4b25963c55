#include <gtest/gtest.h>

#include "Packet/ArpTable.h"
#include "Packet/PacketUtils.h"
#include "PacketTestHelpers.h"
#include "support/LogCapture.h"

using namespace ndtest;
using NativeNetworkDriver::ArpTable;

namespace {

struct Released {
    Frame frame;
    std::set<Frame> fragments;
    std::string guid;
};

class RecordingSubscriber : public Nat::IResolvedPacketSubscriber {
public:
    void OnResolvedFragments(const std::set<Frame>& fragments, const std::string& guid) override {
        released.push_back({{}, fragments, guid});
    }
    void OnResolvedFrame(const Frame& frame, const std::string& guid) override {
        released.push_back({frame, {}, guid});
        if (onFrame) onFrame(frame);
    }
    std::vector<Released> released;
    std::function<void(const Frame&)> onFrame;
};

const std::string kGuid = "{30687465-0000-0000-0000-000000000000}";

class ArpTableTest : public ::testing::Test {
protected:
    // Starts just below the 32-bit wrap, so every interval here crosses it.
    uint32_t now = 0xFFFFFFFFu - 50000;
    ArpTable table{[this] { return now; }};
    RecordingSubscriber subscriber;
    const Ipv4Address gateway = Ip("192.168.1.1");
    const MacAddress gatewayMac = Mac("02:aa:bb:cc:dd:ee");

    void SetUp() override { table.Subscribe(&subscriber); }

    static Frame Numbered(uint16_t n) { return FrameBuilder::Udp().IpId(n).DstPort(n).Build(); }
};

}  // namespace

TEST_F(ArpTableTest, ReplyForUnaskedAddressCreatesResolvedEntry) {
    table.LearnFromArpReply(gateway, gatewayMac);
    EXPECT_TRUE(subscriber.released.empty());
    EXPECT_EQ(table.ResolveOrHold(gateway, Numbered(1), kGuid), gatewayMac);
    EXPECT_EQ(table.ToString(), "IP 192.168.1.1 MAC 02::aa::bb::cc::dd::ee  unresolved packets count: 0\n");
}

TEST_F(ArpTableTest, HeldFramesAreReleasedInOrderWhenTheReplyArrives) {
    EXPECT_EQ(table.ResolveOrHold(gateway, Numbered(1), kGuid), std::nullopt);
    now += 1000;
    EXPECT_EQ(table.ResolveOrHold(gateway, Numbered(2), "{other}"), std::nullopt);
    EXPECT_EQ(table.ToString(), "IP 192.168.1.1 MAC   unresolved packets count: 2\n");
    EXPECT_TRUE(subscriber.released.empty());

    now += 1000;
    table.LearnFromArpReply(gateway, gatewayMac);
    ASSERT_EQ(subscriber.released.size(), 2u);
    EXPECT_EQ(subscriber.released[0].frame, Numbered(1));
    EXPECT_EQ(subscriber.released[0].guid, kGuid);
    EXPECT_EQ(subscriber.released[1].frame, Numbered(2));
    EXPECT_EQ(subscriber.released[1].guid, "{other}");
    EXPECT_EQ(table.ResolveOrHold(gateway, Numbered(3), kGuid), gatewayMac);
    EXPECT_EQ(table.ToString(), "IP 192.168.1.1 MAC 02::aa::bb::cc::dd::ee  unresolved packets count: 0\n");

    // A second reply releases nothing more.
    table.LearnFromArpReply(gateway, gatewayMac);
    EXPECT_EQ(subscriber.released.size(), 2u);
}

TEST_F(ArpTableTest, FragmentedDatagramIsReleasedAsItsFragmentsOnly) {
    const FragmentList parts = FrameBuilder::Udp().Payload(Bytes(100, 3)).BuildFragments(48);
    ASSERT_EQ(parts.size(), 3u);
    const std::set<Frame> fragments(parts.begin(), parts.end());
    table.ResolveOrHold(gateway, parts[0], kGuid, fragments);
    table.LearnFromArpReply(gateway, gatewayMac);
    ASSERT_EQ(subscriber.released.size(), 1u);
    EXPECT_EQ(subscriber.released[0].fragments, fragments);
    EXPECT_TRUE(subscriber.released[0].frame.empty());
}

TEST_F(ArpTableTest, FramesHeldFiveSecondsOrMoreAreDropped) {
    table.ResolveOrHold(gateway, Numbered(1), kGuid);  // will be 6 s old
    now += 1000;
    table.ResolveOrHold(gateway, Numbered(2), kGuid);  // exactly 5 s old
    now += 1;
    table.ResolveOrHold(gateway, Numbered(3), kGuid);  // 4.999 s old
    now += 999;
    table.ResolveOrHold(gateway, Numbered(4), kGuid);  // 4 s old
    now += 4000;
    table.LearnFromArpReply(gateway, gatewayMac);
    ASSERT_EQ(subscriber.released.size(), 2u);
    EXPECT_EQ(subscriber.released[0].frame, Numbered(3));
    EXPECT_EQ(subscriber.released[1].frame, Numbered(4));
}

TEST_F(ArpTableTest, AtMostTenFramesPerAddress) {
    for (uint16_t n = 1; n <= 11; ++n) {
        table.ResolveOrHold(gateway, Numbered(n), kGuid);
        now += 100;
    }
    EXPECT_EQ(table.ToString(), "IP 192.168.1.1 MAC   unresolved packets count: 10\n");
    table.LearnFromArpReply(gateway, gatewayMac);
    ASSERT_EQ(subscriber.released.size(), 10u);
    for (uint16_t i = 0; i < 10; ++i) EXPECT_EQ(subscriber.released[i].frame, Numbered(i + 2));
}

TEST_F(ArpTableTest, OverflowDropsExpiredFramesBeforeTheOldestFresh) {
    // Three frames, then seven more 4 s later: at the eleventh the first three are 6 s old.
    for (uint16_t n = 1; n <= 3; ++n) table.ResolveOrHold(gateway, Numbered(n), kGuid);
    now += 4000;
    for (uint16_t n = 4; n <= 10; ++n) table.ResolveOrHold(gateway, Numbered(n), kGuid);
    now += 2000;
    table.ResolveOrHold(gateway, Numbered(11), kGuid);
    EXPECT_EQ(table.ToString(), "IP 192.168.1.1 MAC   unresolved packets count: 8\n");
    table.LearnFromArpReply(gateway, gatewayMac);
    ASSERT_EQ(subscriber.released.size(), 8u);
    EXPECT_EQ(subscriber.released.front().frame, Numbered(4));
    EXPECT_EQ(subscriber.released.back().frame, Numbered(11));
}

TEST_F(ArpTableTest, BindingsAgeAfterThirtySeconds) {
    table.LearnFromArpReply(gateway, gatewayMac);
    now += 29999;
    EXPECT_EQ(table.ResolveOrHold(gateway, Numbered(1), kGuid), gatewayMac);
    now += 1;  // exactly 30 s: stale
    EXPECT_EQ(table.ResolveOrHold(gateway, Numbered(2), kGuid), std::nullopt);
    EXPECT_EQ(table.ToString(), "IP 192.168.1.1 MAC   unresolved packets count: 1\n");
    // An unresolved entry ages alike: its held frame goes with it.
    now += 31000;
    EXPECT_EQ(table.ResolveOrHold(gateway, Numbered(3), kGuid), std::nullopt);
    table.LearnFromArpReply(gateway, gatewayMac);
    ASSERT_EQ(subscriber.released.size(), 1u);
    EXPECT_EQ(subscriber.released[0].frame, Numbered(3));
}

TEST_F(ArpTableTest, CleanupRunsAtMostEveryTwoMinutesOnReplies) {
    const Ipv4Address a = Ip("10.0.0.1"), b = Ip("10.0.0.2"), c = Ip("10.0.0.3");
    table.LearnFromArpReply(a, Mac("02:00:00:00:00:0a"));
    table.ResolveOrHold(b, Numbered(1), kGuid);
    now += 100000;
    table.LearnFromArpReply(c, Mac("02:00:00:00:00:0c"));  // 100 s after creation: no pass yet
    EXPECT_EQ(table.ToString(),
              "IP 10.0.0.1 MAC 02::00::00::00::00::0a  unresolved packets count: 0\n"
              "IP 10.0.0.2 MAC   unresolved packets count: 1\n"
              "IP 10.0.0.3 MAC 02::00::00::00::00::0c  unresolved packets count: 0\n");
    now += 21000;
    table.LearnFromArpReply(c, Mac("02:00:00:00:00:0c"));  // 121 s: a and b are stale
    EXPECT_EQ(table.ToString(), "IP 10.0.0.3 MAC 02::00::00::00::00::0c  unresolved packets count: 0\n");
    // The next pass is two minutes after this one, not after creation.
    table.LearnFromArpReply(a, Mac("02:00:00:00:00:0a"));
    now += 119999;
    table.LearnFromArpReply(b, Mac("02:00:00:00:00:0b"));
    EXPECT_NE(table.ToString().find("10.0.0.3"), std::string::npos);
    now += 1;
    table.LearnFromArpReply(b, Mac("02:00:00:00:00:0b"));
    EXPECT_EQ(table.ToString(), "IP 10.0.0.2 MAC 02::00::00::00::00::0b  unresolved packets count: 0\n");
    EXPECT_TRUE(subscriber.released.empty());
}

TEST_F(ArpTableTest, OneSubscriberAtATime) {
    RecordingSubscriber second;
    try {
        table.Subscribe(&second);
        FAIL() << "second subscription accepted";
    } catch (const Nat::Exception& e) {
        EXPECT_EQ(e.Message(), "Subscription for Arp resolved packets already done.");
    }
    table.Unsubscribe(&second);  // not the subscriber: no effect
    table.ResolveOrHold(gateway, Numbered(1), kGuid);
    table.LearnFromArpReply(gateway, gatewayMac);
    EXPECT_EQ(subscriber.released.size(), 1u);

    table.Unsubscribe(&subscriber);
    table.Subscribe(&second);
    table.Unsubscribe(&second);
    now += 31000;
    table.ResolveOrHold(gateway, Numbered(2), kGuid);
    table.LearnFromArpReply(gateway, gatewayMac);  // nobody to hand it to: dropped
    EXPECT_EQ(subscriber.released.size(), 1u);
    EXPECT_TRUE(second.released.empty());
}

TEST_F(ArpTableTest, ReleasedFrameMayReenterTheTableOnTheSameThread) {
    const Ipv4Address other = Ip("192.168.1.77");
    std::optional<MacAddress> seen = Nat::MacAddress{};
    subscriber.onFrame = [&](const Frame& frame) {
        seen = table.ResolveOrHold(gateway, frame, kGuid);  // would deadlock on a plain mutex
        table.ResolveOrHold(other, frame, kGuid);
    };
    table.ResolveOrHold(gateway, Numbered(1), kGuid);
    table.LearnFromArpReply(gateway, gatewayMac);
    EXPECT_EQ(seen, gatewayMac);
    EXPECT_NE(table.ToString().find("IP 192.168.1.77 MAC   unresolved packets count: 1"), std::string::npos);
}

TEST_F(ArpTableTest, ChangesAreLoggedAtLevelThreeWithTheDump) {
    LogCapture log(3);
    table.ResolveOrHold(gateway, Numbered(1), kGuid);
    table.ResolveOrHold(gateway, Numbered(2), kGuid);
    table.LearnFromArpReply(gateway, gatewayMac);
    now += 30000;
    table.ResolveOrHold(gateway, Numbered(3), kGuid);
    now += 200000;
    table.LearnFromArpReply(Ip("10.1.1.1"), gatewayMac);
    const std::string text = log.Text();
    for (const char* entry : {";DEBUG;Added entry to Arp cache (192.168.1.1)\n"
                              "IP 192.168.1.1 MAC   unresolved packets count: 1\n",
                              ";DEBUG;Added unresolved packet to Arp cache (192.168.1.1)\n"
                              "IP 192.168.1.1 MAC   unresolved packets count: 2\n",
                              ";DEBUG;Updated MAC address for Arp entry (192.168.1.1)\n"
                              "IP 192.168.1.1 MAC 02::aa::bb::cc::dd::ee  unresolved packets count: 0\n",
                              ";DEBUG;Removed entry from Arp cache (192.168.1.1)\n\n",
                              ";DEBUG;Removed entry from Arp cache by Cleanup\n"
                              "IP 10.1.1.1 MAC 02::aa::bb::cc::dd::ee  unresolved packets count: 0\n"})
        EXPECT_NE(text.find(entry), std::string::npos) << entry << "\n" << text;
}

TEST(ArpRequest, BroadcastRequestLayout) {
    const Frame request =
        NativeNetworkDriver::BuildArpRequest(Mac("02:11:22:33:44:55"), Ip("192.168.1.50"), Ip("192.168.1.1"));
    const Frame expected = FrameBuilder::Arp()
                               .EthDst(Mac("ff:ff:ff:ff:ff:ff"))
                               .EthSrc(Mac("02:11:22:33:44:55"))
                               .ArpOpcode(1)
                               .ArpSender(Mac("02:11:22:33:44:55"), Ip("192.168.1.50"))
                               .ArpTarget(MacAddress{}, Ip("192.168.1.1"))
                               .PadTo(60)
                               .Build();
    EXPECT_EQ(request, expected);
    EXPECT_FALSE(Nat::PacketUtils::IsArpReply(request));
}
