#include <gtest/gtest.h>

#include <algorithm>

#include "FilterDriver/FragmentCollector.h"
#include "support/FrameBuilder.h"

namespace NativeNetworkDriver {
namespace {

using ndtest::FrameBuilder;
using ndtest::Ipv4Fragment;

const Nat::MacAddress kA{0x02, 0, 0, 0, 0, 0x0A};
const Nat::MacAddress kB{0x02, 0, 0, 0, 0, 0x0B};

class FragmentCollectorTest : public ::testing::Test {
protected:
    FragmentCollector::Result Add(FragmentCollector& collector, const Nat::Frame& frame, const std::string& guid = "g",
                                  bool isSend = false) {
        const Nat::FrameView view = Nat::ReadFrameView(frame);
        EXPECT_TRUE(view.IsFragment() && view.Collectable());
        return collector.Add(guid, isSend, frame, view);
    }
    uint32_t now = 1000;
    FragmentCollector::Clock clock = [this] { return now; };
};

TEST_F(FragmentCollectorTest, OutOfOrderFragmentsComeBackInOffsetOrderWithTheHeadsView) {
    FragmentCollector collector({}, clock);
    const Nat::Frame first = Ipv4Fragment(kA, kB, 7, 0, true, 16, 1);
    const Nat::Frame second = Ipv4Fragment(kA, kB, 7, 16, true, 16, 2);
    const Nat::Frame last = Ipv4Fragment(kA, kB, 7, 32, false, 5, 3);

    EXPECT_FALSE(Add(collector, last).complete);
    EXPECT_FALSE(Add(collector, first).complete);
    EXPECT_FALSE(Add(collector, first).complete);  // duplicate, dropped
    EXPECT_EQ(collector.FragmentCount(), 2u);
    const auto result = Add(collector, second);
    ASSERT_TRUE(result.complete);
    EXPECT_EQ(result.fragments, (Nat::FragmentList{first, second, last}));
    EXPECT_EQ(result.head.fragmentOffset, 0u);
    EXPECT_EQ(collector.DatagramCount() + collector.FragmentCount() + result.givenUp.size(), 0u);

    // A hole keeps a datagram incomplete until it is filled. The last fragment here is a
    // bare header: 34 bytes, the shortest frame that is read as IPv4.
    EXPECT_FALSE(Add(collector, Ipv4Fragment(kA, kB, 1, 0, true, 16)).complete);
    EXPECT_FALSE(Add(collector, Ipv4Fragment(kA, kB, 1, 24, false, 0)).complete);  // 16..24 missing
    EXPECT_TRUE(Add(collector, Ipv4Fragment(kA, kB, 1, 16, true, 8)).complete);
}

TEST_F(FragmentCollectorTest, DatagramsAreKeptApartAndAClosedAdaptersAreForgotten) {
    FragmentCollector collector({}, clock);
    const Nat::Frame head = Ipv4Fragment(kA, kB, 7, 0, true, 16);
    const Nat::Frame tail = Ipv4Fragment(kA, kB, 7, 16, false, 4);
    const Nat::Frame otherId = Ipv4Fragment(kA, kB, 8, 16, false, 4);
    const Nat::Frame otherSource = FrameBuilder::Ipv4(17).EthDst(kA).EthSrc(kB).IpSrc({10, 9, 9, 9}).IpId(7)
                                       .FragmentAt(16, false).Payload("abcd").Build();

    EXPECT_FALSE(Add(collector, head).complete);
    EXPECT_FALSE(Add(collector, head, "closing").complete);
    EXPECT_FALSE(Add(collector, tail, "other").complete);
    EXPECT_FALSE(Add(collector, tail, "g", true).complete);
    EXPECT_FALSE(Add(collector, otherId).complete);
    EXPECT_FALSE(Add(collector, otherSource).complete);
    EXPECT_EQ(collector.DatagramCount(), 6u);
    EXPECT_TRUE(Add(collector, tail).complete);

    // The adapter closes: its half datagram goes, and its tail, arriving on an adapter
    // opened again under the same GUID, completes nothing.
    collector.Forget("closing");
    EXPECT_EQ(collector.DatagramCount() + collector.FragmentCount(), 8u);
    EXPECT_FALSE(Add(collector, tail, "closing").complete);
    collector.Clear();
    EXPECT_EQ(collector.DatagramCount() + collector.FragmentCount(), 0u);
}

TEST_F(FragmentCollectorTest, DatagramsAreGivenUpOldestFirstWhenOverTheLimitsOrStale) {
    FragmentCollector collector({.timeoutMs = 5000, .maxDatagrams = 4, .maxFragments = 10}, clock);
    size_t givenUpFragments = 0;
    std::vector<uint16_t> givenUpIds;
    for (uint16_t id = 0; id < 200; ++id) {
        for (uint32_t part = 0; part < 2; ++part) {
            const auto result = Add(collector, Ipv4Fragment(kA, kB, id, part * 8, true, 8));
            for (const auto& given : result.givenUp) {
                givenUpFragments += given.fragments.size();
                givenUpIds.push_back(Nat::ReadFrameView(given.fragments[0]).identification);
            }
            EXPECT_LE(collector.DatagramCount(), 4u);
            EXPECT_LE(collector.FragmentCount(), 10u);
        }
    }
    // Nothing is lost without a trace: every fragment is either held or handed back.
    EXPECT_EQ(givenUpFragments + collector.FragmentCount(), 400u);
    ASSERT_FALSE(givenUpIds.empty());
    EXPECT_TRUE(std::is_sorted(givenUpIds.begin(), givenUpIds.end()));

    // One datagram larger than the fragment budget is given up as a whole.
    FragmentCollector small({.timeoutMs = 5000, .maxDatagrams = 4, .maxFragments = 3}, clock);
    FragmentCollector::Result last;
    for (uint32_t part = 0; part < 4; ++part) last = Add(small, Ipv4Fragment(kA, kB, 9, part * 8, true, 8));
    ASSERT_EQ(last.givenUp.size(), 1u);
    EXPECT_EQ(last.givenUp[0].fragments.size(), 4u);
    EXPECT_EQ(small.FragmentCount(), 0u);

    // Stale datagrams are given up when the next fragment arrives.
    FragmentCollector timed({.timeoutMs = 5000}, clock);
    const Nat::Frame stale = Ipv4Fragment(kA, kB, 1, 0, true, 16);
    Add(timed, stale, "g", true);
    now += 4999;
    EXPECT_TRUE(Add(timed, Ipv4Fragment(kA, kB, 2, 0, true, 16)).givenUp.empty());
    now += 1;
    const auto result = Add(timed, Ipv4Fragment(kA, kB, 3, 0, true, 16));
    ASSERT_EQ(result.givenUp.size(), 1u);
    EXPECT_EQ(result.givenUp[0].guid + (result.givenUp[0].isSend ? " sent" : ""), "g sent");
    EXPECT_EQ(result.givenUp[0].fragments, Nat::FragmentList{stale});
    EXPECT_EQ(timed.DatagramCount(), 2u);

    // The tick counter wraps; ages are unsigned differences.
    FragmentCollector wrapping({.timeoutMs = 5000}, clock);
    now = 0xFFFFFF00u;
    Add(wrapping, Ipv4Fragment(kA, kB, 1, 0, true, 16));
    now = 0x100u;  // 512 ms later
    EXPECT_TRUE(Add(wrapping, Ipv4Fragment(kA, kB, 2, 0, true, 16)).givenUp.empty());
}

}  // namespace
}  // namespace NativeNetworkDriver
