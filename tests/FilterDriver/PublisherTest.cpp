#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "FilterDriver/FilterDriversPublisher.h"
#include "Packet/NatException.h"
#include "support/FrameBuilder.h"
#include "support/LogCapture.h"
#include "support/RecordingSubscriber.h"

namespace NativeNetworkDriver {
namespace {

using namespace std::chrono_literals;
using ndtest::Ipv4Fragment;
using Testing::InMemoryNetwork;
using Testing::kBroadcastMac;
using Testing::RecordingSubscriber;
using Frames = std::vector<Nat::Frame>;

const Nat::MacAddress kMacA{0x02, 0, 0, 0, 0, 0x0A};
const Nat::MacAddress kMacB{0x02, 0, 0, 0, 0, 0x0B};
const Nat::MacAddress kPeer{0x02, 0, 0, 0, 0, 0x50};
const Nat::MacAddress kStranger{0x02, 0, 0, 0, 0, 0x77};
const Nat::MacAddress kMulticast{0x01, 0x00, 0x5E, 0, 0, 1};
const std::string guidA = Testing::Guid(1);
const std::string guidB = Testing::Guid(2);

// An IPv4 frame (46 bytes of `fill` after the Ethernet header), or ARP (28 bytes).
Nat::Frame Eth(const Nat::MacAddress& to, const Nat::MacAddress& from, uint8_t fill = 0, uint16_t type = 0x0800) {
    return ndtest::EthernetFrame(to, from, type, type == 0x0806 ? 28 : 46, fill);
}

// Polls for up to 30 seconds: a loaded machine may take a while.
template <typename Done>
bool Eventually(Done done) {
    for (int i = 0; i < 3000 && !done(); ++i) std::this_thread::sleep_for(10ms);
    return done();
}

class PublisherTest : public ::testing::Test {
protected:
    PublisherTest() {
        network->AddAdapter(guidA, kMacA);
        network->AddAdapter(guidB, kMacB);
    }

    // Injects (true: from the wire, false: from the stack) and waits until all is dispatched.
    void Run(const std::vector<std::pair<bool, Nat::Frame>>& frames) {
        for (const auto& [fromWire, frame] : frames)
            fromWire ? network->InjectFromWire(guidA, frame) : network->InjectFromStack(guidA, frame);
        ASSERT_TRUE(network->Settle(guidA));
    }
    Frames Wire(const std::string& guid) { return network->SentToWire(guid); }
    Frames Stack(const std::string& guid) { return network->SentToStack(guid); }
    uint32_t Mode(const std::string& guid) { return network->AdapterMode(guid); }

    ndtest::LogCapture log;
    std::shared_ptr<InMemoryNetwork> network = InMemoryNetwork::Create();
    InMemoryNetwork::FactoryGuard guard = network->Install();
    std::unique_ptr<FilterDriversPublisher> publisher = std::make_unique<FilterDriversPublisher>();
};

TEST_F(PublisherTest, UnconsumedFramesGoOnInTheirDirectionAndGroupFramesOnce) {
    RecordingSubscriber subscriber;
    subscriber.consume = [](const Nat::Frame& f) { return f.size() > 14 && f[14] == 0xC1; };
    ASSERT_TRUE(publisher->Register(&subscriber, {guidA}));
    const Nat::Frame broadcast = Eth(kBroadcastMac, kPeer, 0xB0, 0x0806);
    const Nat::Frame consumedBroadcast = Eth(kBroadcastMac, kPeer, 0xC1, 0x0806);
    const Nat::Frame multicastOut = Eth(kMulticast, kMacA, 0xB2);
    const Nat::Frame forUs = Eth(kMacA, kPeer, 1), forStranger = Eth(kStranger, kPeer, 2);
    const Nat::Frame outgoing = Eth(kStranger, kMacA, 3);
    Run({{true, broadcast}, {true, consumedBroadcast}, {false, multicastOut}, {true, forUs}, {true, forStranger},
         {true, Nat::Frame{0x02, 0, 0}}, {false, outgoing}});
    // Other hosts' frames and runts stop here.
    EXPECT_EQ(Stack(guidA), (Frames{broadcast, consumedBroadcast, forUs}));
    EXPECT_EQ(Wire(guidA), (Frames{multicastOut, outgoing}));
    const auto offers = subscriber.Take();
    ASSERT_EQ(offers.size(), 7u);
    EXPECT_EQ(offers[0].kind + offers[2].kind + offers[0].guid, "receivedsent" + guidA);

    // Serving virtual machines behind the stack: every received frame goes up.
    publisher->SetHandleVirtualMachine(true);
    network->ClearSent(guidA);
    Run({{true, forStranger}});
    EXPECT_EQ(Stack(guidA), Frames{forStranger});
}

// Registration decides which adapters are open, and a subscriber reaches only its own.
TEST_F(PublisherTest, AnAdapterIsOpenWhileAnyoneSubscribesAndServesOnlyItsSubscribers) {
    RecordingSubscriber onA, onBoth, onNothing;
    ASSERT_TRUE(publisher->Register(&onA, {guidA, ""}));
    ASSERT_TRUE(publisher->Register(&onBoth, {guidA, guidB}));
    EXPECT_EQ(Mode(guidA) & Mode(guidB), 0x43u);
    const Nat::Frame frame = Eth(kPeer, kMacA, 5);
    publisher->SendToAdapter(&onA, guidA, frame);
    publisher->SendToAdapter(&onA, guidB, frame);
    publisher->SendToAdapter(&onNothing, guidA, frame);
    publisher->SendToAllAdapters(&onNothing, frame);
    EXPECT_EQ(Wire(guidA), Frames{frame});
    EXPECT_TRUE(Wire(guidB).empty() && Stack(guidA).empty());
    publisher->SendToAllAdapters(&onBoth, frame);
    EXPECT_EQ(Wire(guidA), Frames(2, frame));
    for (const Frames& sent : {Stack(guidA), Wire(guidB), Stack(guidB)}) EXPECT_EQ(sent, Frames{frame});
    EXPECT_EQ(publisher->FindGuidByMac(&onBoth, Eth(kMacB, kPeer)), guidB);
    EXPECT_EQ(publisher->FindGuidByMac(&onBoth, ndtest::ToBytes(kMacA)), guidA);
    EXPECT_EQ(publisher->FindGuidByMac(&onA, ndtest::ToBytes(kMacB)), "");
    EXPECT_EQ(publisher->FindGuidByMac(&onNothing, ndtest::ToBytes(kMacA)), "");
    EXPECT_EQ(publisher->FindGuidByMac(&onBoth, Nat::Frame(kMacA.begin(), kMacA.begin() + 5)), "");

    publisher->Unregister(&onA);
    EXPECT_EQ(Mode(guidA), 0x43u);
    publisher->Unregister(&onBoth, {guidB});
    EXPECT_EQ(std::make_pair(Mode(guidA), Mode(guidB)), std::make_pair(0x43u, 0u));
    publisher->Unregister(&onBoth);
    EXPECT_EQ(Mode(guidA), 0u);

    // A subscriber registered twice stands twice: one Unregister keeps the adapter. An adapter
    // that cannot be opened fails the registration, but those before it stay.
    const std::string missing = Testing::Guid(9);  // sorts after guidA
    ASSERT_TRUE(publisher->Register(&onA, {guidA}));
    EXPECT_FALSE(publisher->Register(&onA, {guidA, missing}));
    EXPECT_TRUE(log.Has("DEBUG;Error opening Virtual Ethernet adapter GUID: " + missing + ")."));
    publisher->Unregister(&onA);
    EXPECT_EQ(Mode(guidA), 0x43u);
    publisher->Unregister(&onA);
    EXPECT_EQ(Mode(guidA), 0u);
    EXPECT_EQ(network->openEvents, 0);
}

TEST_F(PublisherTest, FragmentedDatagramsAreOfferedWholeAndPassedOnInOrder) {
    RecordingSubscriber subscriber;
    subscriber.consume = [](const Nat::Frame& f) { return f[14 + 20] == 0xCC; };
    ASSERT_TRUE(publisher->Register(&subscriber, {guidA}));
    const Nat::Frame first = Ipv4Fragment(kMacA, kPeer, 41, 0, true, 24, 0x01);
    const Nat::Frame second = Ipv4Fragment(kMacA, kPeer, 41, 24, true, 24, 0x02);
    const Nat::Frame last = Ipv4Fragment(kMacA, kPeer, 41, 48, false, 10, 0x03);
    // Consumed by the subscriber: the whole datagram stops.
    const Nat::Frame takenHead = Ipv4Fragment(kPeer, kMacA, 42, 0, true, 8, 0xCC);
    const Nat::Frame takenTail = Ipv4Fragment(kPeer, kMacA, 42, 8, false, 8, 0x04);
    Run({{true, second}, {true, last}, {true, first}, {false, takenTail}, {false, takenHead}});
    EXPECT_EQ(Stack(guidA), (Frames{first, second, last}));
    EXPECT_TRUE(Wire(guidA).empty());
    const auto offers = subscriber.Take();
    ASSERT_EQ(offers.size(), 2u);
    EXPECT_EQ(offers[0].kind + "," + offers[1].kind, "receivedFragments,sentFragments");
    EXPECT_EQ(offers[1].frames, (Frames{takenHead, takenTail}));

    // One more incomplete datagram than the collector holds: the oldest is given up and goes on.
    network->ClearSent(guidA);
    for (uint16_t id = 0; id <= 64; ++id) network->InjectFromWire(guidA, Ipv4Fragment(kMacA, kPeer, id, 0, true, 8));
    ASSERT_TRUE(network->Settle(guidA));
    EXPECT_EQ(Stack(guidA), Frames{Ipv4Fragment(kMacA, kPeer, 0, 0, true, 8)});
    EXPECT_TRUE(subscriber.Take().empty());
}

// Subscribers are asked in the order they came until one consumes. The first, like the
// ARP cache, hands a held frame back through Dispatch from inside a callback; its error
// costs only its frame.
TEST_F(PublisherTest, SubscribersAreAskedInOrderUntilOneConsumesAndMayDispatchAgain) {
    RecordingSubscriber first, second;
    first.consume = [&](const Nat::Frame& frame) {
        if (frame[14] == 0xEE) throw Nat::Exception("bad frame");
        if (frame[14] == 0x0A) publisher->Dispatch(guidA, Eth(kMacA, kPeer, 0x0B), false);
        return frame[14] == 0x0A || frame[14] == 0x0C;
    };
    ASSERT_TRUE(publisher->Register(&first, {guidA}));
    ASSERT_TRUE(publisher->Register(&second, {guidA}));
    Run({{true, Eth(kMacA, kPeer, 0x0A)}, {true, Eth(kMacA, kPeer, 0xEE)}, {false, Eth(kPeer, kMacA, 0x0C)}});
    EXPECT_EQ(Stack(guidA), Frames{Eth(kMacA, kPeer, 0x0B)});
    EXPECT_TRUE(Wire(guidA).empty());
    EXPECT_EQ(first.Take().size(), 4u);
    const auto seen = second.Take();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].frames[0], Eth(kMacA, kPeer, 0x0B));
    EXPECT_TRUE(publisher->IsDispatchRunning());
    // A frame for an adapter that is not registered goes nowhere.
    publisher->Dispatch(guidB, Eth(kMacB, kPeer), false);
    EXPECT_TRUE(Stack(guidB).empty());

    // A frame read one at a time is taken as a batch of one; a null frame is ignored.
    FilterDriver driver(guidB, publisher.get());
    driver.Open();
    const Nat::Frame broadcast = Eth(kBroadcastMac, kPeer, 0, 0x0806);
    publisher->OnDataRead(nullptr, 60, &driver, false);
    publisher->OnDataRead(broadcast.data(), static_cast<uint32_t>(broadcast.size()), &driver, false);
    EXPECT_EQ(Stack(guidB), Frames{broadcast});
}

TEST_F(PublisherTest, AFullQueueDropsAndCountsFramesByNumberAndByBytes) {
    // Frames the queue holds, the one being dispatched included. 64 KiB frames fill the
    // byte limit exactly: the last one that fits is taken.
    const std::pair<size_t, size_t> cases[] = {{60, FilterDriversPublisher::kQueueFrames},
                                               {65536, FilterDriversPublisher::kQueueBytes / 65536}};
    const size_t extra = 100;
    const std::string prefix = "ERROR;The frame queue is full: ";
    for (const auto& [frameSize, fits] : cases) {
        SCOPED_TRACE(frameSize);
        ndtest::LogCapture caseLog;
        auto publisher = std::make_unique<FilterDriversPublisher>();
        // Holds the dispatch thread in its first offer until released.
        RecordingSubscriber slow;
        std::promise<void> release;
        std::shared_future<void> released = release.get_future().share();
        std::atomic<bool> blocked{false};
        slow.consume = [&](const Nat::Frame&) {
            if (!blocked.exchange(true)) released.wait();
            return true;
        };
        ASSERT_TRUE(publisher->Register(&slow, {guidA}));
        Nat::Frame frame = Eth(kMacA, kPeer);
        frame.resize(frameSize);
        network->InjectFromWire(guidA, frame);
        ASSERT_TRUE(slow.WaitForOffers(1));
        const auto start = std::chrono::steady_clock::now();
        for (size_t i = 0; i < fits + extra; ++i) network->InjectFromWire(guidA, frame);
        // Everything is read from the driver even while the queue is full.
        EXPECT_TRUE(Eventually([&] { return publisher->DroppedFrames() == extra + 1; }));

        release.set_value();
        ASSERT_TRUE(slow.WaitForOffers(fits, 30s));
        std::this_thread::sleep_for(1100ms);
        network->InjectFromWire(guidA, frame);  // the next batch reports what is left
        // The counts of the "queue is full" lines add up to every drop, one line a second at most.
        size_t lines = 0;
        EXPECT_TRUE(Eventually([&] {
            uint64_t total = 0;
            lines = 0;
            for (const std::string& line : caseLog.Lines()) {
                if (line.rfind(prefix, 0) != 0) continue;
                total += std::stoull(line.substr(prefix.size()));
                ++lines;
            }
            return total == extra + 1;
        }));
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        EXPECT_LE(static_cast<double>(lines), 1 + seconds);
        publisher->Unregister(&slow);
    }
}

}  // namespace
}  // namespace NativeNetworkDriver
