#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>

#include "FilterDriver/FilterDriversPublisher.h"
#include "Packet/NatException.h"
#include "support/FrameBuilder.h"
#include "support/LogCapture.h"
#include "support/RecordingSubscriber.h"

namespace NativeNetworkDriver {
namespace {

using ndtest::EthernetFrame;
using ndtest::Ipv4Fragment;
using Testing::Guid;
using Testing::InMemoryNetwork;
using Testing::kBroadcastMac;
using Testing::RecordingSubscriber;

const Nat::MacAddress kMacA{0x02, 0, 0, 0, 0, 0x0A};
const Nat::MacAddress kMacB{0x02, 0, 0, 0, 0, 0x0B};
const Nat::MacAddress kPeer{0x02, 0, 0, 0, 0, 0x50};
const Nat::MacAddress kStranger{0x02, 0, 0, 0, 0, 0x77};
const Nat::MacAddress kMulticast{0x01, 0x00, 0x5E, 0, 0, 1};

// Holds the dispatch thread in its first offer until Release(); consumes or not.
class BlockingSubscriber : public RecordingSubscriber {
public:
    explicit BlockingSubscriber(bool consumes) {
        consume = [this, consumes](const Nat::Frame&) {
            if (!blocked_.exchange(true)) released_.wait();
            return consumes;
        };
    }
    void Release() { release_.set_value(); }

private:
    std::promise<void> release_;
    std::shared_future<void> released_ = release_.get_future().share();
    std::atomic<bool> blocked_{false};
};

class PublisherTest : public ::testing::Test {
protected:
    PublisherTest() : network(InMemoryNetwork::Create()), guard(network->Install()) {
        network->AddAdapter(guidA, kMacA);
        network->AddAdapter(guidB, kMacB);
        publisher = std::make_unique<FilterDriversPublisher>();
    }
    ~PublisherTest() override { publisher.reset(); }

    void Settle(const std::string& guid) { ASSERT_TRUE(network->Settle(guid)); }
    std::vector<Nat::Frame> Wire(const std::string& guid) { return network->SentToWire(guid); }
    std::vector<Nat::Frame> Stack(const std::string& guid) { return network->SentToStack(guid); }

    ndtest::LogCapture log;
    std::shared_ptr<InMemoryNetwork> network;
    InMemoryNetwork::FactoryGuard guard;
    std::string guidA = Guid(1);
    std::string guidB = Guid(2);
    std::unique_ptr<FilterDriversPublisher> publisher;
};

TEST_F(PublisherTest, GroupFramesGoOnOnceWhetherOrNotASubscriberTakesThem) {
    RecordingSubscriber subscriber;
    subscriber.consume = [](const Nat::Frame& f) { return f[14] == 0xC1; };
    ASSERT_TRUE(publisher->Register(&subscriber, {guidA}));
    const Nat::Frame broadcast = EthernetFrame(kBroadcastMac, kPeer, 0x0806, 28, 0xB0);
    const Nat::Frame consumedBroadcast = EthernetFrame(kBroadcastMac, kPeer, 0x0806, 28, 0xC1);
    const Nat::Frame multicastOut = EthernetFrame(kMulticast, kMacA, 0x0800, 40, 0xB2);

    network->InjectFromWire(guidA, broadcast);
    network->InjectFromWire(guidA, consumedBroadcast);
    network->InjectFromStack(guidA, multicastOut);
    Settle(guidA);

    EXPECT_EQ(Stack(guidA), (std::vector<Nat::Frame>{broadcast, consumedBroadcast}));
    EXPECT_EQ(Wire(guidA), std::vector<Nat::Frame>{multicastOut});
    const auto offers = subscriber.Offers();
    ASSERT_EQ(offers.size(), 3u);
    EXPECT_EQ(offers[0].kind, "received");
    EXPECT_EQ(offers[0].frames[0], broadcast);
    EXPECT_EQ(offers[0].guid, guidA);
    EXPECT_EQ(offers[2].kind, "sent");
}

TEST_F(PublisherTest, UnconsumedUnicastGoesOnInItsDirection) {
    RecordingSubscriber subscriber;
    ASSERT_TRUE(publisher->Register(&subscriber, {guidA}));
    const Nat::Frame forUs = EthernetFrame(kMacA, kPeer, 0x0800, 46, 1);
    const Nat::Frame forStranger = EthernetFrame(kStranger, kPeer, 0x0800, 46, 2);
    const Nat::Frame outgoing = EthernetFrame(kStranger, kMacA, 0x0800, 46, 3);
    const Nat::Frame runt = {0x02, 0, 0};

    network->InjectFromWire(guidA, forUs);
    network->InjectFromWire(guidA, forStranger);
    network->InjectFromWire(guidA, runt);
    network->InjectFromStack(guidA, outgoing);
    Settle(guidA);
    EXPECT_EQ(Stack(guidA), std::vector<Nat::Frame>{forUs});  // other hosts' frames stop here
    EXPECT_EQ(Wire(guidA), std::vector<Nat::Frame>{outgoing});

    // Serving virtual machines behind the stack: every received frame goes up.
    publisher->SetHandleVirtualMachine(true);
    network->ClearSent(guidA);
    network->InjectFromWire(guidA, forStranger);
    network->InjectFromStack(guidA, outgoing);
    Settle(guidA);
    EXPECT_EQ(Stack(guidA), std::vector<Nat::Frame>{forStranger});
    EXPECT_EQ(Wire(guidA), std::vector<Nat::Frame>{outgoing});
    EXPECT_EQ(subscriber.Offers().size(), 6u);
}

TEST_F(PublisherTest, SubscribersAreAskedInOrderUntilOneConsumes) {
    std::vector<std::string> order;
    RecordingSubscriber first("first", &order), second("second", &order), third("third", &order);
    second.consume = [](const Nat::Frame& f) { return f[14] == 0xEE; };
    ASSERT_TRUE(publisher->Register(&first, {guidA}));
    ASSERT_TRUE(publisher->Register(&second, {guidA}));
    ASSERT_TRUE(publisher->Register(&third, {guidA}));
    EXPECT_EQ(network->State(guidA).tunnelEntries, 1);

    const Nat::Frame taken = EthernetFrame(kMacA, kPeer, 0x0800, 46, 0xEE);
    const Nat::Frame left = EthernetFrame(kMacA, kPeer, 0x0800, 46, 0x11);
    const Nat::Frame takenOut = EthernetFrame(kPeer, kMacA, 0x0800, 46, 0xEE);
    network->InjectFromWire(guidA, taken);
    network->InjectFromWire(guidA, left);
    network->InjectFromStack(guidA, takenOut);
    Settle(guidA);

    EXPECT_EQ(order, (std::vector<std::string>{"first", "second", "first", "second", "third", "first", "second"}));
    EXPECT_EQ(Stack(guidA), std::vector<Nat::Frame>{left});
    EXPECT_TRUE(Wire(guidA).empty());
}

TEST_F(PublisherTest, AnAdapterIsOpenWhileAnyoneSubscribes) {
    RecordingSubscriber one, two;
    ASSERT_TRUE(publisher->Register(&one, {guidA, ""}));
    ASSERT_TRUE(publisher->Register(&two, {guidA, guidB}));
    EXPECT_EQ(network->State(guidA).tunnelEntries, 1);
    EXPECT_EQ(network->AdapterMode(guidA), 0x43u);
    EXPECT_EQ(network->AdapterMode(guidB), 0x43u);

    publisher->Unregister(&one);
    EXPECT_EQ(network->AdapterMode(guidA), 0x43u);
    publisher->Unregister(&two, {guidB});
    EXPECT_EQ(network->AdapterMode(guidB), 0u);
    EXPECT_EQ(network->AdapterMode(guidA), 0x43u);
    publisher->Unregister(&two);
    EXPECT_EQ(network->AdapterMode(guidA), 0u);

    // A subscriber registered twice stands twice: one Unregister keeps the adapter.
    ASSERT_TRUE(publisher->Register(&one, {guidA}));
    ASSERT_TRUE(publisher->Register(&one, {guidA}));
    publisher->Unregister(&one);
    EXPECT_EQ(network->AdapterMode(guidA), 0x43u);
    publisher->Unregister(&one);
    EXPECT_EQ(network->AdapterMode(guidA), 0u);
    EXPECT_EQ(network->State(guidA).tunnelEntries, 2);
    EXPECT_EQ(network->OpenAdapterEvents(), 0);
}

TEST_F(PublisherTest, AnAdapterThatCannotBeOpenedFailsTheRegistration) {
    RecordingSubscriber subscriber;
    const std::string missing = Guid(9);  // sorts after guidA and guidB
    EXPECT_FALSE(publisher->Register(&subscriber, {guidA, missing}));
    EXPECT_TRUE(log.Has("DEBUG;Error opening Virtual Ethernet adapter GUID: " + missing + ")."));
    EXPECT_TRUE(log.Has("INFO;Error opening Virtual Ethernet adapter (GUID: " + missing + ")."));
    EXPECT_EQ(network->AdapterMode(guidA), 0x43u);  // processed before the failure, still registered
    publisher->Unregister(&subscriber);
    EXPECT_EQ(network->AdapterMode(guidA), 0u);
}

TEST_F(PublisherTest, SendingReachesOnlyTheSubscribersOwnAdapters) {
    RecordingSubscriber onA, onBoth, onNothing;
    ASSERT_TRUE(publisher->Register(&onA, {guidA}));
    ASSERT_TRUE(publisher->Register(&onBoth, {guidA, guidB}));
    const Nat::Frame frame = EthernetFrame(kPeer, kMacA, 0x0800, 46, 5);

    publisher->SendToAdapter(&onA, guidA, frame);
    publisher->SendToAdapter(&onA, guidB, frame);
    publisher->SendToAdapter(&onNothing, guidA, frame);
    EXPECT_EQ(network->SentToWire(guidA), std::vector<Nat::Frame>{frame});
    EXPECT_TRUE(network->SentToWire(guidB).empty());
    EXPECT_TRUE(network->SentToStack(guidA).empty());

    publisher->SendToAllAdapters(&onBoth, frame);
    EXPECT_EQ(network->SentToWire(guidA).size(), 2u);
    EXPECT_EQ(network->SentToStack(guidA), std::vector<Nat::Frame>{frame});
    EXPECT_EQ(network->SentToWire(guidB), std::vector<Nat::Frame>{frame});
    EXPECT_EQ(network->SentToStack(guidB), std::vector<Nat::Frame>{frame});

    EXPECT_EQ(publisher->FindGuidByMac(&onBoth, EthernetFrame(kMacB, kPeer, 0x0800, 46)), guidB);
    EXPECT_EQ(publisher->FindGuidByMac(&onBoth, Nat::Frame(kMacA.begin(), kMacA.end())), guidA);
    EXPECT_EQ(publisher->FindGuidByMac(&onA, Nat::Frame(kMacB.begin(), kMacB.end())), "");
    EXPECT_EQ(publisher->FindGuidByMac(&onNothing, Nat::Frame(kMacA.begin(), kMacA.end())), "");
    EXPECT_EQ(publisher->FindGuidByMac(&onBoth, Nat::Frame(kMacA.begin(), kMacA.begin() + 5)), "");
}

TEST_F(PublisherTest, FragmentedDatagramsAreOfferedWholeAndPassedOnInOrder) {
    RecordingSubscriber subscriber;
    subscriber.consume = [](const Nat::Frame& f) { return f[14 + 20] == 0xCC; };
    ASSERT_TRUE(publisher->Register(&subscriber, {guidA}));
    const Nat::Frame first = Ipv4Fragment(kMacA, kPeer, 41, 0, true, 24, 0x01);
    const Nat::Frame second = Ipv4Fragment(kMacA, kPeer, 41, 24, true, 24, 0x02);
    const Nat::Frame last = Ipv4Fragment(kMacA, kPeer, 41, 48, false, 10, 0x03);
    network->InjectFromWire(guidA, second);
    network->InjectFromWire(guidA, last);
    network->InjectFromWire(guidA, first);

    // Consumed by the subscriber: the whole datagram stops.
    const Nat::Frame takenHead = Ipv4Fragment(kPeer, kMacA, 42, 0, true, 8, 0xCC);
    const Nat::Frame takenTail = Ipv4Fragment(kPeer, kMacA, 42, 8, false, 8, 0x04);
    network->InjectFromStack(guidA, takenTail);
    network->InjectFromStack(guidA, takenHead);
    Settle(guidA);

    EXPECT_EQ(Stack(guidA), (std::vector<Nat::Frame>{first, second, last}));
    EXPECT_TRUE(Wire(guidA).empty());
    const auto offers = subscriber.Offers();
    ASSERT_EQ(offers.size(), 2u);
    EXPECT_EQ(offers[0].kind, "receivedFragments");
    EXPECT_EQ(offers[0].frames, (Nat::FragmentList{first, second, last}));
    EXPECT_EQ(offers[1].kind, "sentFragments");
    EXPECT_EQ(offers[1].frames, (Nat::FragmentList{takenHead, takenTail}));
}

TEST_F(PublisherTest, FragmentsGivenUpUnderPressureStillGoOn) {
    RecordingSubscriber subscriber;
    ASSERT_TRUE(publisher->Register(&subscriber, {guidA}));
    // One more incomplete datagram than the collector holds: the oldest is given up.
    const Nat::Frame oldest = Ipv4Fragment(kMacA, kPeer, 0, 0, true, 8);
    network->InjectFromWire(guidA, oldest);
    for (uint16_t id = 1; id <= 64; ++id) network->InjectFromWire(guidA, Ipv4Fragment(kMacA, kPeer, id, 0, true, 8));
    Settle(guidA);
    EXPECT_EQ(Stack(guidA), std::vector<Nat::Frame>{oldest});
    EXPECT_TRUE(subscriber.Offers().empty());
}

TEST_F(PublisherTest, GroupFramesAreNotHeldBackByABusySubscriber) {
    BlockingSubscriber slow(false);
    ASSERT_TRUE(publisher->Register(&slow, {guidA}));
    network->InjectFromWire(guidA, EthernetFrame(kMacA, kPeer, 0x0800, 46));
    ASSERT_TRUE(slow.WaitForOffers(1));
    const Nat::Frame broadcast = EthernetFrame(kBroadcastMac, kPeer, 0x0806, 28);
    network->InjectFromWire(guidA, broadcast);
    EXPECT_TRUE(network->WaitForStack(guidA, 1));
    EXPECT_EQ(Stack(guidA), std::vector<Nat::Frame>{broadcast});
    slow.Release();
    Settle(guidA);
    EXPECT_EQ(Stack(guidA).size(), 2u);
}

TEST_F(PublisherTest, ASubscriberMayDispatchAgainFromItsCallback) {
    // Like the ARP cache: hands a held frame back through Dispatch from inside a callback.
    RecordingSubscriber subscriber;
    subscriber.consume = [&](const Nat::Frame& frame) {
        if (frame[14] != 0x0A) return false;
        Nat::Frame released = frame;
        released[14] = 0x0B;
        publisher->Dispatch(guidA, released, false);
        return true;
    };
    ASSERT_TRUE(publisher->Register(&subscriber, {guidA}));
    network->InjectFromWire(guidA, EthernetFrame(kMacA, kPeer, 0x0800, 46, 0x0A));
    Settle(guidA);
    const auto stack = Stack(guidA);
    ASSERT_EQ(stack.size(), 1u);
    EXPECT_EQ(stack[0][14], 0x0B);
    EXPECT_EQ(subscriber.Offers().size(), 2u);

    // A frame for an adapter that is not (or no longer) registered goes nowhere.
    publisher->Dispatch(guidB, EthernetFrame(kMacB, kPeer, 0x0800, 46), false);
    EXPECT_TRUE(network->SentToStack(guidB).empty());
}

TEST_F(PublisherTest, ASubscribersErrorCostsOnlyItsFrame) {
    RecordingSubscriber subscriber;
    subscriber.consume = [](const Nat::Frame& frame) {
        if (frame[14] == 0xEE) throw Nat::Exception("bad frame");
        return false;
    };
    ASSERT_TRUE(publisher->Register(&subscriber, {guidA}));
    network->InjectFromWire(guidA, EthernetFrame(kMacA, kPeer, 0x0800, 46, 0xEE));
    const Nat::Frame next = EthernetFrame(kMacA, kPeer, 0x0800, 46, 0x01);
    network->InjectFromWire(guidA, next);
    Settle(guidA);
    EXPECT_EQ(Stack(guidA), std::vector<Nat::Frame>{next});
    EXPECT_TRUE(publisher->IsDispatchRunning());
}

TEST_F(PublisherTest, DestroyingThePublisherClosesItsAdapters) {
    RecordingSubscriber subscriber;
    ASSERT_TRUE(publisher->Register(&subscriber, {guidA, guidB}));
    for (int i = 0; i < 50; ++i) network->InjectFromWire(guidA, EthernetFrame(kMacA, kPeer, 0x0800, 46));
    publisher.reset();
    EXPECT_EQ(network->AdapterMode(guidA), 0u);
    EXPECT_EQ(network->AdapterMode(guidB), 0u);
    EXPECT_EQ(network->OpenAdapterEvents(), 0);
    EXPECT_EQ(network->LiveClients(), 0);
    EXPECT_TRUE(log.Has("DEBUG;Quit event received in DispatchThread"));
}

}  // namespace
}  // namespace NativeNetworkDriver

namespace NativeNetworkDriver {
namespace {

using namespace std::chrono_literals;

// The count in each "queue is full" line, in order.
std::vector<uint64_t> DropCounts(const ndtest::LogCapture& log) {
    const std::string prefix = "ERROR;The frame queue is full: ";
    std::vector<uint64_t> counts;
    for (const std::string& line : log.Lines()) {
        if (line.rfind(prefix, 0) == 0) counts.push_back(std::stoull(line.substr(prefix.size())));
    }
    return counts;
}

}  // namespace

TEST_F(PublisherTest, AFullQueueDropsAndCountsFramesByNumberAndByBytes) {
    struct Case {
        size_t frameSize;
        size_t fits;  // frames the queue holds, the one being dispatched included
    };
    const Case cases[] = {
        {60, FilterDriversPublisher::kQueueFrames},
        {40000, FilterDriversPublisher::kQueueBytes / 40000},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.frameSize);
        const size_t linesBefore = DropCounts(log).size();
        auto publisher = std::make_unique<FilterDriversPublisher>();
        BlockingSubscriber slow(true);
        ASSERT_TRUE(publisher->Register(&slow, {guidA}));
        Nat::Frame frame = EthernetFrame(kMacA, kPeer, 0x0800, 46);
        frame.resize(c.frameSize);
        network->InjectFromWire(guidA, frame);
        ASSERT_TRUE(slow.WaitForOffers(1));
        const size_t extra = 100;
        const auto start = std::chrono::steady_clock::now();
        for (size_t i = 0; i < c.fits + extra; ++i) network->InjectFromWire(guidA, frame);
        // Everything is read from the driver even while the queue is full; a loaded machine may
        // take a while to count the last batch.
        for (int i = 0; i < 3000 && publisher->DroppedFrames() < extra + 1; ++i) std::this_thread::sleep_for(10ms);
        EXPECT_EQ(publisher->DroppedFrames(), extra + 1);

        slow.Release();
        ASSERT_TRUE(slow.WaitForOffers(c.fits, 30s));
        std::this_thread::sleep_for(1100ms);
        network->InjectFromWire(guidA, frame);  // the next batch reports what is left
        ASSERT_TRUE(slow.WaitForOffers(c.fits + 1, 30s));
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        const auto counts = DropCounts(log);
        uint64_t total = 0;
        for (size_t i = linesBefore; i < counts.size(); ++i) total += counts[i];
        EXPECT_EQ(total, extra + 1);
        EXPECT_GE(counts.size(), linesBefore + 1);
        EXPECT_LE(static_cast<double>(counts.size() - linesBefore), 1 + seconds) << "one line a second at most";
        publisher->Unregister(&slow);
    }
}

}  // namespace NativeNetworkDriver
