#include "FilterDriver/FilterDriver.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>

#include "support/FrameBuilder.h"
#include "support/InMemoryFilterDriverApi.h"
#include "support/LogCapture.h"
#include "support/Thrown.h"

namespace NativeNetworkDriver {
namespace {

using Testing::InMemoryNetwork;
using Call = InMemoryNetwork::Call;

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
        reads.push_back(Read{Nat::Frame(frame, frame + length), isSend, source});
        changed_.notify_all();
    }
    bool WaitFor(size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(5), [&] { return reads.size() >= count; });
    }
    std::vector<Read> reads;  // read once WaitFor has answered

private:
    std::mutex mutex_;
    std::condition_variable changed_;
};

class FilterDriverTest : public ::testing::Test {
protected:
    FilterDriverTest() : network(InMemoryNetwork::Create()), guard(network->Install()) {
        handle = network->AddAdapter(guid, kAdapterMac, 0x0000001200005678ull);
    }
    // The adapter is back as it was before any open.
    void ExpectReleased() {
        EXPECT_EQ(network->AdapterMode(guid), 0u);
        EXPECT_EQ(network->State(guid).hwFilter, 0x0Bu);
        EXPECT_EQ(network->OpenAdapterEvents(), 0);
    }

    ndtest::LogCapture log;
    std::shared_ptr<InMemoryNetwork> network;
    InMemoryNetwork::FactoryGuard guard;
    std::string guid = Testing::Guid(7);
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
        const auto state = network->State(guid);
        EXPECT_EQ(state.hwFilter, NdisApi::NDIS_PACKET_TYPE_PROMISCUOUS);
        ASSERT_EQ(state.filterTables, 1);
        // The handle's low half only; both directions; pass everything.
        const auto& f = state.lastFilter;
        EXPECT_EQ(std::vector<uint64_t>({f.m_Adapter, f.m_dwDirectionFlags, f.m_FilterAction, f.m_ValidFields}),
                  std::vector<uint64_t>({0x5678u, 3u, 3u, 0u}));
        driver.Close();
        EXPECT_FALSE(driver.IsOpened());
        EXPECT_EQ(network->State(guid).packetEvent, 0u);
        ExpectReleased();
    }
    EXPECT_EQ(network->LiveClients(), 0);
    const std::string adapter = "(GUID: " + guid + ")";
    const std::vector<std::string> expected = {"INFO;Opening virtual Ethernet adapter " + adapter + ".",
        "INFO;Initializing adapter handle.", "DEBUG;New Virtual Ethernet adapter " + adapter + " found!",
        "INFO;Setting adapter mode.", "INFO;Setting adapter filters."};
    const auto lines = log.From(expected[0]);
    ASSERT_GE(lines.size(), expected.size());
    EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 5), expected);
    for (const std::string& text : {"Virtual Ethernet adapter " + adapter + " opened.",
                                    "Starting CaptureThread of virtual Ethernet adapter " + adapter + ".",
                                    "CaptureThread of virtual Ethernet adapter " + adapter + " started.",
                                    std::string("Quit event received in CaptureThread"),
                                    "Closing virtual Ethernet adapter " + adapter + ".",
                                    "Virtual Ethernet adapter " + adapter + " closed."})
        EXPECT_TRUE(log.Has("INFO;" + text)) << text;
}

TEST_F(FilterDriverTest, CapturedFramesReachTheReaderUntilTheDriverGoes) {
    const Nat::Frame received = ndtest::EthernetFrame(kAdapterMac, kOtherMac, 0x0800, 60, 1);
    const Nat::Frame sent = ndtest::EthernetFrame(kOtherMac, kAdapterMac, 0x0800, 1500, 2);
    {
        FilterDriver driver(guid, &reader);
        driver.Open();
        EXPECT_TRUE(network->InjectFromWire(guid, received));
        EXPECT_TRUE(network->InjectFromStack(guid, sent));
        ASSERT_TRUE(reader.WaitFor(2));
        EXPECT_EQ(reader.reads[0].frame, received);
        EXPECT_FALSE(reader.reads[0].isSend);
        EXPECT_EQ(reader.reads[1].frame, sent);
        EXPECT_TRUE(reader.reads[1].isSend);
        EXPECT_EQ(reader.reads[0].source, &driver);
        // Diverted frames go nowhere by themselves.
        EXPECT_TRUE(network->SentToWire(guid).empty() && network->SentToStack(guid).empty());
    }  // destroying an open driver closes it
    EXPECT_TRUE(log.Has("INFO;Virtual Ethernet adapter (GUID: " + guid + ") closed."));
    EXPECT_FALSE(network->InjectFromWire(guid, received));  // pass-through again
    ExpectReleased();
}

TEST_F(FilterDriverTest, WriteTargets) {
    FilterDriver driver(guid, &reader);
    driver.Open();
    const Nat::Frame full = ndtest::EthernetFrame(kOtherMac, kAdapterMac, 0x0800, 1500, 9);  // 1514 bytes
    for (uint32_t target : {uint32_t{ToAdapter}, uint32_t{ToStack}, uint32_t{ToBoth}, 3u})
        driver.WriteFrame(full, target);
    EXPECT_EQ(network->SentToWire(guid), std::vector<Nat::Frame>(2, full));
    EXPECT_EQ(network->SentToStack(guid), std::vector<Nat::Frame>(2, full));

    const Nat::Frame oversize = ndtest::EthernetFrame(kOtherMac, kAdapterMac, 0x0800, 1501);
    driver.WriteFrame(oversize, ToBoth);
    EXPECT_EQ(network->SentToWire(guid).size() + network->SentToStack(guid).size(), 4u);
    EXPECT_TRUE(log.Has("ERROR;The frame size exceeds the max ethernet frame size: 1515. The packet will be dropped."));

    driver.Close();
    const size_t linesAfterClose = log.Lines().size();
    driver.WriteFrame(full, ToBoth);
    driver.WriteFrame(oversize, ToBoth);
    EXPECT_EQ(network->SentToWire(guid).size(), 2u);
    EXPECT_EQ(log.Lines().size(), linesAfterClose);
}

// Each way an open can fail: logged with its own DEBUG line ("%s" is the GUID), then the
// common INFO line; the adapter is left alone and closing the driver throws.
TEST_F(FilterDriverTest, FailedOpensAreLoggedAndLeaveTheAdapterAlone) {
    struct Failure {
        std::function<void()> arrange;
        bool unknownGuid;
        const char* debugLine;
    };
    const std::string notFound = "Not found adapter handle of Virtual Ethernet adapter (GUID: %s).";
    const std::string noDriver = "Error in OpenFilterDriver() of Virtual Ethernet adapter (GUID: %s).";
    const Failure failures[] = {
        {[&] { network->SetDriverLoaded(false); }, false, noDriver.c_str()},
        {[&] { network->SetDriverLoaded(true); }, true, notFound.c_str()},
        {[&] { network->SetFailing(Call::GetTcpipBoundAdaptersInfo, true); }, false, notFound.c_str()},
        {[&] {
             network->SetFailing(Call::GetTcpipBoundAdaptersInfo, false);
             network->SetFailing(Call::GetHwPacketFilter, true);
         }, false, "Failed to get current packet filter from the network interface."},
        {[&] {
             network->SetFailing(Call::GetHwPacketFilter, false);
             network->SetFailing(Call::SetHwPacketFilter, true);
         }, false, "Failed to set promiscuous mode for the network interface."},
        {[&] {
             network->SetFailing(Call::SetHwPacketFilter, false);
             network->SetFailing(Call::SetAdapterMode, true);
         }, false, "Failed to set adapter mode for the network interface."},
        {[&] { SetFilterDriverApiFactory({}); }, false, noDriver.c_str()},  // no driver client at all
    };
    for (const Failure& failure : failures) {
        failure.arrange();
        const std::string target = failure.unknownGuid ? Testing::Guid(99) : guid;
        std::string debug = failure.debugLine;
        if (auto at = debug.find("%s"); at != std::string::npos) debug.replace(at, 2, target);
        SCOPED_TRACE(debug);
        const size_t linesBefore = log.Lines().size();
        {
            FilterDriver driver(target, &reader);
            driver.Open();
            EXPECT_FALSE(driver.IsOpened());
            EXPECT_EQ(ndtest::Thrown<std::runtime_error>([&] { driver.Close(); }),
                      "Error closing the virtual Ethernet adapter (GUID: " + target + "): it has not been opened.");
        }  // destroying an unopened driver is quiet
        const auto all = log.Lines();
        const std::vector<std::string> lines(all.begin() + static_cast<long>(linesBefore), all.end());
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.front(), "INFO;Opening virtual Ethernet adapter (GUID: " + target + ").");
        const auto debugAt = std::find(lines.begin(), lines.end(), "DEBUG;" + debug);
        ASSERT_NE(debugAt, lines.end());
        ASSERT_NE(debugAt + 1, lines.end());
        EXPECT_EQ(*(debugAt + 1), "INFO;Error opening Virtual Ethernet adapter (GUID: " + target + ").");
        EXPECT_FALSE(log.Has("INFO;Virtual Ethernet adapter (GUID: " + target + ") opened."));
        ExpectReleased();
        EXPECT_EQ(network->LiveClients(), 0);
    }
}

TEST_F(FilterDriverTest, MissingPacketEventEndsOnlyTheCaptureThread) {
    network->SetFailing(Call::CreateAdapterEvent, true);
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
    ExpectReleased();
}

}  // namespace
}  // namespace NativeNetworkDriver
