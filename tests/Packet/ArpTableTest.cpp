#include <gtest/gtest.h>

#include "Packet/ArpTable.h"
#include "Packet/PacketUtils.h"
#include "support/FrameBuilder.h"
#include "support/LogCapture.h"
#include "support/Thrown.h"

using namespace ndtest;
using NativeNetworkDriver::ArpTable;

namespace {

class RecordingSubscriber : public Nat::IResolvedPacketSubscriber {
public:
    void OnResolvedFragments(const std::set<Frame>& fragments, const std::string& guid) override {
        fragmentSets.push_back(fragments);
        guids.push_back(guid);
    }
    void OnResolvedFrame(const Frame& frame, const std::string& guid) override {
        numbers.push_back(Be16(frame, 36));  // the destination port Numbered() gave it
        guids.push_back(guid);
        if (onFrame) onFrame(frame);
    }
    std::vector<uint16_t> numbers;
    std::vector<std::set<Frame>> fragmentSets;
    std::vector<std::string> guids;
    std::function<void(const Frame&)> onFrame;
};

const std::string kGuid = "{30687465-0000-0000-0000-000000000000}";

std::string Line(const std::string& ip, const std::string& mac, int held) {
    return "IP " + ip + " MAC " + mac + "  unresolved packets count: " + std::to_string(held) + "\n";
}
const std::string kGatewayResolved = Line("192.168.1.1", "02::aa::bb::cc::dd::ee", 0);

class ArpTableTest : public ::testing::Test {
protected:
    // Starts just below the 32-bit wrap, so every interval here crosses it.
    uint32_t now = 0xFFFFFFFFu - 50000;
    ArpTable table{[this] { return now; }};
    RecordingSubscriber subscriber;
    const Ipv4Address gateway{192, 168, 1, 1};
    const MacAddress gatewayMac{0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};

    void SetUp() override { table.Subscribe(&subscriber); }

    static Frame Numbered(uint16_t n) { return FrameBuilder::Udp().IpId(n).DstPort(n).Build(); }
    std::optional<MacAddress> Hold(uint16_t n, const std::string& guid = kGuid) {
        return table.ResolveOrHold(gateway, Numbered(n), guid);
    }
};

}  // namespace

// A fragmented datagram comes back as its fragments only.
TEST_F(ArpTableTest, HeldFramesAreReleasedInOrderOnTheReplyAndBindingsLastThirtySeconds) {
    const FragmentList parts = FrameBuilder::Udp().Payload(Bytes(100, 3)).BuildFragments(48);
    const std::set<Frame> fragments(parts.begin(), parts.end());
    EXPECT_EQ(Hold(1), std::nullopt);
    now += 1000;
    EXPECT_EQ(Hold(2, "{other}"), std::nullopt);
    EXPECT_EQ(table.ResolveOrHold(gateway, parts[0], kGuid, fragments), std::nullopt);
    EXPECT_EQ(table.ToString(), Line("192.168.1.1", "", 3));
    EXPECT_TRUE(subscriber.numbers.empty());
    now += 1000;
    table.LearnFromArpReply(gateway, gatewayMac);
    EXPECT_EQ(subscriber.numbers, (std::vector<uint16_t>{1, 2}));
    EXPECT_EQ(subscriber.guids, (std::vector<std::string>{kGuid, "{other}", kGuid}));
    EXPECT_EQ(subscriber.fragmentSets, std::vector<std::set<Frame>>{fragments});
    EXPECT_EQ(Hold(3), gatewayMac);
    EXPECT_EQ(table.ToString(), kGatewayResolved);
    table.LearnFromArpReply(gateway, gatewayMac);  // a second reply releases nothing more
    EXPECT_EQ(subscriber.numbers.size(), 2u);
    now += 29999;  // a binding is trusted for 30 s after its last reply
    EXPECT_EQ(Hold(4), gatewayMac);
    now += 1;
    EXPECT_EQ(Hold(5), std::nullopt);
    EXPECT_EQ(table.ToString(), Line("192.168.1.1", "", 1));
    // A reply nobody asked for creates a resolved entry.
    table.LearnFromArpReply({10, 0, 0, 1}, gatewayMac);
    EXPECT_EQ(table.ResolveOrHold({10, 0, 0, 1}, Numbered(6), kGuid), gatewayMac);
}

TEST_F(ArpTableTest, HeldFramesExpireAfterFiveSecondsAndAtMostTenAreKept) {
    // Held 6, exactly 5, 4.999 and 4 s before the reply.
    for (uint16_t n = 1; const uint32_t step : {1000u, 1u, 999u, 4000u}) {
        Hold(n++);
        now += step;
    }
    table.LearnFromArpReply(gateway, gatewayMac);
    EXPECT_EQ(subscriber.numbers, (std::vector<uint16_t>{3, 4}));

    // Eleven frames: the oldest goes.
    const Ipv4Address busy{10, 9, 9, 9};
    subscriber.numbers.clear();
    for (uint16_t n = 1; n <= 11; ++n, now += 100) table.ResolveOrHold(busy, Numbered(n), kGuid);
    EXPECT_EQ(table.ToString(), Line("10.9.9.9", "", 10) + kGatewayResolved);
    table.LearnFromArpReply(busy, gatewayMac);
    EXPECT_EQ(subscriber.numbers, (std::vector<uint16_t>{2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));

    // On overflow the expired frames go before the oldest fresh one: 1-3 are 6 s old at the eleventh.
    subscriber.numbers.clear();
    now += 40000;
    for (uint16_t n = 1; n <= 3; ++n) Hold(n);
    now += 4000;
    for (uint16_t n = 4; n <= 10; ++n) Hold(n);
    now += 2000;
    Hold(11);
    EXPECT_NE(table.ToString().find(Line("192.168.1.1", "", 8)), std::string::npos) << table.ToString();
    table.LearnFromArpReply(gateway, gatewayMac);
    EXPECT_EQ(subscriber.numbers, (std::vector<uint16_t>{4, 5, 6, 7, 8, 9, 10, 11}));
}

TEST_F(ArpTableTest, CleanupRunsAtMostEveryTwoMinutesOnReplies) {
    const Ipv4Address a{10, 0, 0, 1}, b{10, 0, 0, 2}, c{10, 0, 0, 3};
    const std::string macText = "02::aa::bb::cc::dd::ee";
    table.LearnFromArpReply(a, gatewayMac);
    table.ResolveOrHold(b, Numbered(1), kGuid);
    now += 120000;
    table.LearnFromArpReply(c, gatewayMac);  // two minutes after creation: a and b are stale
    EXPECT_EQ(table.ToString(), Line("10.0.0.3", macText, 0));
    // The next pass is two minutes after this one, not after creation.
    table.LearnFromArpReply(a, gatewayMac);
    now += 119999;
    table.LearnFromArpReply(b, gatewayMac);
    EXPECT_NE(table.ToString().find("10.0.0.3"), std::string::npos);
    now += 1;
    table.LearnFromArpReply(b, gatewayMac);
    EXPECT_EQ(table.ToString(), Line("10.0.0.2", macText, 0));
    EXPECT_TRUE(subscriber.numbers.empty());
}

TEST_F(ArpTableTest, OneSubscriberAtATime) {
    RecordingSubscriber second;
    EXPECT_EQ(Thrown([&] { table.Subscribe(&second); }), "Subscription for Arp resolved packets already done.");
    table.Unsubscribe(&second);  // not the subscriber: no effect
    Hold(1);
    table.LearnFromArpReply(gateway, gatewayMac);
    EXPECT_EQ(subscriber.numbers.size(), 1u);

    table.Unsubscribe(&subscriber);
    table.Subscribe(&second);
    table.Unsubscribe(&second);
    now += 31000;
    Hold(2);
    table.LearnFromArpReply(gateway, gatewayMac);  // nobody to hand it to: dropped
    EXPECT_EQ(subscriber.numbers.size(), 1u);
    EXPECT_TRUE(second.numbers.empty());
}

TEST_F(ArpTableTest, ReleasedFrameMayReenterTheTableOnTheSameThread) {
    std::optional<MacAddress> seen;
    subscriber.onFrame = [&](const Frame& frame) {
        seen = table.ResolveOrHold(gateway, frame, kGuid);  // would deadlock on a plain mutex
        table.ResolveOrHold({192, 168, 1, 77}, frame, kGuid);
    };
    Hold(1);
    table.LearnFromArpReply(gateway, gatewayMac);
    EXPECT_EQ(seen, gatewayMac);
    EXPECT_NE(table.ToString().find(Line("192.168.1.77", "", 1)), std::string::npos);
}

TEST_F(ArpTableTest, ChangesAreLoggedAtLevelThreeWithTheDump) {
    LogCapture log(3);
    Hold(1);
    Hold(2);
    table.LearnFromArpReply(gateway, gatewayMac);
    now += 30000;
    Hold(3);
    now += 200000;
    table.LearnFromArpReply({10, 1, 1, 1}, gatewayMac);
    const std::string text = log.Text();
    const std::string held1 = Line("192.168.1.1", "", 1), held2 = Line("192.168.1.1", "", 2);
    for (const std::string& entry : {";DEBUG;Added entry to Arp cache (192.168.1.1)\n" + held1,
                                     ";DEBUG;Added unresolved packet to Arp cache (192.168.1.1)\n" + held2,
                                     ";DEBUG;Updated MAC address for Arp entry (192.168.1.1)\n" + kGatewayResolved,
                                     std::string(";DEBUG;Removed entry from Arp cache (192.168.1.1)\n\n"),
                                     ";DEBUG;Removed entry from Arp cache by Cleanup\n" +
                                         Line("10.1.1.1", "02::aa::bb::cc::dd::ee", 0)})
        EXPECT_NE(text.find(entry), std::string::npos) << entry << "\n" << text;
}

TEST(ArpRequest, BroadcastRequestLayout) {
    const MacAddress mac{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    const Frame request = NativeNetworkDriver::BuildArpRequest(mac, {192, 168, 1, 50}, {192, 168, 1, 1});
    EXPECT_EQ(request, FrameBuilder::Arp().EthSrc(mac).ArpSender(mac, {192, 168, 1, 50})
                           .ArpTarget({}, {192, 168, 1, 1}).PadTo(60).Build());
}
