#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "FilterDriver/FilterDriver.h"
#include "support/FrameBuilder.h"
#include "support/InMemoryFilterDriverApi.h"
#include "support/LogCapture.h"
#include "support/Thrown.h"

namespace NativeNetworkDriver {
namespace {

using ndtest::EthernetFrame;
using Testing::Guid;
using Testing::InMemoryNetwork;

const Nat::MacAddress kAdapterMac{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
const Nat::MacAddress kOtherMac{0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE};

class RecordingReader : public IFilterDriverDataRead {
public:
    struct Read {
        Nat::Frame frame;
        bool isSend;
        FilterDriver* source;
    };
    void OnDataRead(const uint8_t* frame, uint32_t length, FilterDriver* source, bool isSend) override {
        std::lock_guard lock(mutex_);
        reads_.push_back(Read{Nat::Frame(frame, frame + length), isSend, source});
        changed_.notify_all();
    }
    bool WaitFor(size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(5), [&] { return reads_.size() >= count; });
    }
    std::vector<Read> Reads() {
        std::lock_guard lock(mutex_);
        return reads_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Read> reads_;
};

class FilterDriverTest : public ::testing::Test {
protected:
    FilterDriverTest() : network(InMemoryNetwork::Create()), guard(network->Install()) {
        handle = network->AddAdapter(guid, kAdapterMac, 0x0000001200005678ull, 0x0B);
    }

    ndtest::LogCapture log;
    std::shared_ptr<InMemoryNetwork> network;
    InMemoryNetwork::FactoryGuard guard;
    std::string guid = Guid(7);
    NdisApi::Handle handle = 0;
    RecordingReader reader;
};

TEST_F(FilterDriverTest, OpenTakesTheAdapterAndCloseGivesItBack) {
    {
        FilterDriver driver(guid, &reader);
        EXPECT_EQ(driver.Mac(), std::vector<uint8_t>(6, 0));
        driver.Open();
        ASSERT_TRUE(driver.IsOpened());
        EXPECT_EQ(driver.AdapterHandle(), handle);
        EXPECT_EQ(driver.Mac(), std::vector<uint8_t>(kAdapterMac.begin(), kAdapterMac.end()));
        EXPECT_EQ(network->AdapterMode(guid), 0x43u);
        EXPECT_EQ(network->State(guid).hwFilter, NdisApi::NDIS_PACKET_TYPE_PROMISCUOUS);
        ASSERT_EQ(network->State(guid).filterTables, 1);
        const NdisApi::STATIC_FILTER filter = network->State(guid).lastFilter;
        EXPECT_EQ(filter.m_Adapter, 0x5678u);  // the handle's low half only
        EXPECT_EQ(filter.m_dwDirectionFlags, 3u);
        EXPECT_EQ(filter.m_FilterAction, 3u);
        EXPECT_EQ(filter.m_ValidFields, 0u);

        driver.Close();
        EXPECT_FALSE(driver.IsOpened());
        EXPECT_EQ(network->AdapterMode(guid), 0u);
        EXPECT_EQ(network->State(guid).hwFilter, 0x0Bu);
        EXPECT_EQ(network->State(guid).packetEvent, 0u);
        EXPECT_EQ(network->OpenAdapterEvents(), 0);
    }
    EXPECT_EQ(network->LiveClients(), 0);

    const std::vector<std::string> expected = {
        "INFO;Opening virtual Ethernet adapter (GUID: " + guid + ").", "INFO;Initializing adapter handle.",
        "DEBUG;New Virtual Ethernet adapter (GUID: " + guid + ") found!", "INFO;Setting adapter mode.",
        "INFO;Setting adapter filters."};
    auto lines = log.From(expected[0]);
    ASSERT_GE(lines.size(), expected.size());
    EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 5), expected);
    for (const auto& text : {"Virtual Ethernet adapter (GUID: " + guid + ") opened.",
                             "Starting CaptureThread of virtual Ethernet adapter (GUID: " + guid + ").",
                             "CaptureThread of virtual Ethernet adapter (GUID: " + guid + ") started.",
                             std::string("Quit event received in CaptureThread"),
                             "Closing virtual Ethernet adapter (GUID: " + guid + ").",
                             "Virtual Ethernet adapter (GUID: " + guid + ") closed."}) {
        EXPECT_TRUE(log.Has("INFO;" + text)) << text;
    }
}

TEST_F(FilterDriverTest, CapturedFramesReachTheReaderWithTheirDirection) {
    FilterDriver driver(guid, &reader);
    driver.Open();
    ASSERT_TRUE(driver.IsOpened());
    const Nat::Frame received = EthernetFrame(kAdapterMac, kOtherMac, 0x0800, 60, 1);
    const Nat::Frame sent = EthernetFrame(kOtherMac, kAdapterMac, 0x0800, 1500, 2);
    EXPECT_TRUE(network->InjectFromWire(guid, received));
    EXPECT_TRUE(network->InjectFromStack(guid, sent));
    ASSERT_TRUE(reader.WaitFor(2));
    const auto reads = reader.Reads();
    EXPECT_EQ(reads[0].frame, received);
    EXPECT_FALSE(reads[0].isSend);
    EXPECT_EQ(reads[1].frame, sent);
    EXPECT_TRUE(reads[1].isSend);
    EXPECT_EQ(reads[0].source, &driver);
    // Diverted frames go nowhere by themselves.
    EXPECT_TRUE(network->SentToWire(guid).empty());
    EXPECT_TRUE(network->SentToStack(guid).empty());

    driver.Close();
    EXPECT_FALSE(network->InjectFromWire(guid, received));  // pass-through again
    EXPECT_EQ(network->SentToStack(guid).size(), 1u);
}

TEST_F(FilterDriverTest, WriteTargets) {
    FilterDriver driver(guid, &reader);
    driver.Open();
    ASSERT_TRUE(driver.IsOpened());
    const Nat::Frame full = EthernetFrame(kOtherMac, kAdapterMac, 0x0800, 1500, 9);  // 1514 bytes
    ASSERT_EQ(full.size(), 1514u);

    driver.WriteFrame(full, ToAdapter);
    driver.WriteFrame(full, ToStack);
    driver.WriteFrame(full, ToBoth);
    driver.WriteFrame(full, 3);
    EXPECT_EQ(network->SentToWire(guid), std::vector<Nat::Frame>(2, full));
    EXPECT_EQ(network->SentToStack(guid), std::vector<Nat::Frame>(2, full));

    const Nat::Frame oversize = EthernetFrame(kOtherMac, kAdapterMac, 0x0800, 1501);
    driver.WriteFrame(oversize, ToBoth);
    EXPECT_EQ(network->SentToWire(guid).size(), 2u);
    EXPECT_EQ(network->SentToStack(guid).size(), 2u);
    EXPECT_TRUE(log.Has("ERROR;The frame size exceeds the max ethernet frame size: 1515. The packet will be dropped."));

    driver.Close();
    const size_t linesAfterClose = log.Lines().size();
    driver.WriteFrame(full, ToBoth);
    driver.WriteFrame(oversize, ToBoth);
    EXPECT_EQ(network->SentToWire(guid).size(), 2u);
    EXPECT_EQ(log.Lines().size(), linesAfterClose);
}

TEST_F(FilterDriverTest, FirstAdapterWhoseNameContainsTheGuidWins) {
    const std::string shared = "{ABCDEF01-0000-0000-0000-000000000000}";
    const Nat::MacAddress first{0x02, 0, 0, 0, 0, 1};
    network->AddAdapterNamed("first", "\\DEVICE\\" + shared + "_TAP", first, 0x9001);
    network->AddAdapterNamed("second", "\\DEVICE\\" + shared, kOtherMac, 0x9002);
    FilterDriver driver(shared, &reader);
    driver.Open();
    ASSERT_TRUE(driver.IsOpened());
    EXPECT_EQ(driver.AdapterHandle(), 0x9001u);
    EXPECT_EQ(driver.Mac(), std::vector<uint8_t>(first.begin(), first.end()));
    EXPECT_EQ(network->AdapterMode("second"), 0u);
}

struct OpenFailure {
    const char* name;
    std::function<void(InMemoryNetwork&)> arrange;
    bool unknownGuid;
    const char* debugLine;  // "%s" stands for the GUID
};

class FilterDriverOpenFailure : public FilterDriverTest, public ::testing::WithParamInterface<OpenFailure> {};

TEST_P(FilterDriverOpenFailure, IsLoggedAndLeavesTheAdapterAlone) {
    const OpenFailure& failure = GetParam();
    failure.arrange(*network);
    const std::string target = failure.unknownGuid ? Guid(99) : guid;
    {
        FilterDriver driver(target, &reader);
        driver.Open();
        EXPECT_FALSE(driver.IsOpened());
        EXPECT_EQ(ndtest::Thrown<std::runtime_error>([&] { driver.Close(); }),
                  "Error closing the virtual Ethernet adapter (GUID: " + target + "): it has not been opened.");
    }  // destroying an unopened driver is quiet

    std::string debug = failure.debugLine;
    if (auto at = debug.find("%s"); at != std::string::npos) debug.replace(at, 2, target);
    const auto lines = log.From("INFO;Opening virtual Ethernet adapter (GUID: " + target + ").");
    ASSERT_FALSE(lines.empty());
    const auto debugAt = std::find(lines.begin(), lines.end(), "DEBUG;" + debug);
    ASSERT_NE(debugAt, lines.end()) << debug;
    ASSERT_NE(debugAt + 1, lines.end());
    EXPECT_EQ(*(debugAt + 1), "INFO;Error opening Virtual Ethernet adapter (GUID: " + target + ").");
    EXPECT_FALSE(log.Has("INFO;Virtual Ethernet adapter (GUID: " + target + ") opened."));

    EXPECT_EQ(network->AdapterMode(guid), 0u);
    EXPECT_EQ(network->State(guid).hwFilter, 0x0Bu);
    EXPECT_EQ(network->OpenAdapterEvents(), 0);
    EXPECT_EQ(network->LiveClients(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FilterDriverOpenFailure,
    ::testing::Values(
        OpenFailure{"DriverNotLoaded", [](InMemoryNetwork& n) { n.SetDriverLoaded(false); }, false,
                    "Error in OpenFilterDriver() of Virtual Ethernet adapter (GUID: %s)."},
        OpenFailure{"NoDriverClient", [](InMemoryNetwork&) { SetFilterDriverApiFactory({}); }, false,
                    "Error in OpenFilterDriver() of Virtual Ethernet adapter (GUID: %s)."},
        OpenFailure{"AdapterNotFound", [](InMemoryNetwork&) {}, true,
                    "Not found adapter handle of Virtual Ethernet adapter (GUID: %s)."},
        OpenFailure{"AdapterListRefused",
                    [](InMemoryNetwork& n) { n.SetFailing(InMemoryNetwork::Call::GetTcpipBoundAdaptersInfo, true); },
                    false, "Not found adapter handle of Virtual Ethernet adapter (GUID: %s)."},
        OpenFailure{"GetFilterRefused",
                    [](InMemoryNetwork& n) { n.SetFailing(InMemoryNetwork::Call::GetHwPacketFilter, true); }, false,
                    "Failed to get current packet filter from the network interface."},
        OpenFailure{"PromiscuousRefused",
                    [](InMemoryNetwork& n) { n.SetFailing(InMemoryNetwork::Call::SetHwPacketFilter, true); }, false,
                    "Failed to set promiscuous mode for the network interface."},
        OpenFailure{"ModeRefused",
                    [](InMemoryNetwork& n) { n.SetFailing(InMemoryNetwork::Call::SetAdapterMode, true); }, false,
                    "Failed to set adapter mode for the network interface."}),
    [](const ::testing::TestParamInfo<OpenFailure>& info) { return std::string(info.param.name); });

TEST_F(FilterDriverTest, MissingPacketEventEndsOnlyTheCaptureThread) {
    network->SetFailing(InMemoryNetwork::Call::CreateAdapterEvent, true);
    FilterDriver driver(guid, &reader);
    driver.Open();
    EXPECT_TRUE(driver.IsOpened());
    driver.Close();
    EXPECT_TRUE(log.Has("DEBUG;Failed to create notification event or set it for virtual Ethernet adapter (GUID: " +
                        guid + ")."));
    EXPECT_TRUE(log.Has("INFO;Error in CaptureThread of Virtual Ethernet adapter (GUID: " + guid + ")."));
    EXPECT_EQ(network->AdapterMode(guid), 0u);
}

TEST_F(FilterDriverTest, SecondOpenFailsAndTheDestructorStillStopsTheAdapter) {
    {
        FilterDriver driver(guid, &reader);
        driver.Open();
        ASSERT_TRUE(driver.IsOpened());
        driver.Open();
        EXPECT_FALSE(driver.IsOpened());
        EXPECT_TRUE(log.Has("INFO;Error opening Virtual Ethernet adapter (GUID: " + guid + ")."));
        EXPECT_EQ(network->AdapterMode(guid), 0x43u);  // the first open stands
    }
    EXPECT_EQ(network->AdapterMode(guid), 0u);
    EXPECT_EQ(network->State(guid).hwFilter, 0x0Bu);
    EXPECT_EQ(network->OpenAdapterEvents(), 0);
}

TEST_F(FilterDriverTest, DestroyingAnOpenDriverClosesIt) {
    {
        FilterDriver driver(guid, &reader);
        driver.Open();
        ASSERT_TRUE(driver.IsOpened());
        ASSERT_TRUE(network->InjectFromWire(guid, EthernetFrame(kAdapterMac, kOtherMac, 0x0800, 46)));
        ASSERT_TRUE(reader.WaitFor(1));
    }
    EXPECT_EQ(network->AdapterMode(guid), 0u);
    EXPECT_TRUE(log.Has("INFO;Virtual Ethernet adapter (GUID: " + guid + ") closed."));
}

}  // namespace
}  // namespace NativeNetworkDriver
