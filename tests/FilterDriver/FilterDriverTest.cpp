#include "FilterDriver/FilterDriver.h"
#include "FilterDriver/FilterDriverApiAdapter.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <tuple>

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
    using Read = std::tuple<Nat::Frame, bool, FilterDriver*>;  // the frame, isSend, the source
    void OnDataRead(const uint8_t* frame, uint32_t length, FilterDriver* source, bool isSend) override {
        std::lock_guard lock(mutex);
        reads.emplace_back(Nat::Frame(frame, frame + length), isSend, source);
        changed.notify_all();
    }
    std::vector<Read> WaitFor(size_t count) {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, std::chrono::seconds(5), [&] { return reads.size() >= count; });
        return reads;
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Read> reads;
};

class FilterDriverTest : public ::testing::Test {
protected:
    // The adapter is back as it was before any open, and every driver client is gone.
    void ExpectReleased() {
        const auto state = network->State(guid);
        EXPECT_EQ(std::make_tuple(state.mode, state.hwFilter, state.packetEvent, network->openEvents.load(),
                                  network->liveClients.load()), std::make_tuple(0u, 0x0Bu, 0u, 0, 0));
    }

    ndtest::LogCapture log;
    std::shared_ptr<InMemoryNetwork> network = InMemoryNetwork::Create();
    InMemoryNetwork::FactoryGuard guard = network->Install();
    std::string guid = Testing::Guid(7);
    NdisApi::Handle handle = network->AddAdapter(guid, kAdapterMac, 0x0000001200005678ull);
    RecordingReader reader;
};

TEST_F(FilterDriverTest, AnOpenDriverTakesTheAdapterAndReadsItsFramesUntilItGoes) {
    const Nat::Frame received = ndtest::EthernetFrame(kAdapterMac, kOtherMac, 0x0800, 60, 1);
    const Nat::Frame sent = ndtest::EthernetFrame(kOtherMac, kAdapterMac, 0x0800, 1500, 2);
    {
        FilterDriver driver(guid, &reader);
        EXPECT_EQ(driver.Mac(), std::vector<uint8_t>(6, 0));
        driver.Open();
        ASSERT_TRUE(driver.IsOpened());
        EXPECT_EQ(driver.AdapterHandle(), handle);
        EXPECT_EQ(driver.Mac(), ndtest::ToBytes(kAdapterMac));
        const auto state = network->State(guid);
        // The handle's low half only; both directions; pass everything.
        const auto& f = network->filters.at(0);
        EXPECT_EQ(std::vector<uint64_t>({state.mode, state.hwFilter, network->filters.size(), f.m_Adapter,
                                         f.m_dwDirectionFlags, f.m_FilterAction, f.m_ValidFields}),
                  std::vector<uint64_t>({0x43u, NdisApi::NDIS_PACKET_TYPE_PROMISCUOUS, 1u, 0x5678u, 3u, 3u, 0u}));

        EXPECT_TRUE(network->InjectFromWire(guid, received));
        EXPECT_TRUE(network->InjectFromStack(guid, sent));
        EXPECT_EQ(reader.WaitFor(2), (std::vector<RecordingReader::Read>{{received, false, &driver},
                                                                          {sent, true, &driver}}));
        // Diverted frames go nowhere by themselves.
        EXPECT_TRUE(network->SentToWire(guid).empty() && network->SentToStack(guid).empty());
        driver.Open();  // a second open fails; the first one stands until the driver goes
        EXPECT_FALSE(driver.IsOpened());
        EXPECT_EQ(network->AdapterMode(guid), 0x43u);
    }
    EXPECT_FALSE(network->InjectFromWire(guid, received));  // pass-through again
    ExpectReleased();
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

// Writing needs no packet event: without one only the capture thread ends.
TEST_F(FilterDriverTest, WriteTargetsAndAMissingPacketEvent) {
    network->failing = Call::CreateAdapterEvent;
    FilterDriver driver(guid, &reader);
    driver.Open();
    ASSERT_TRUE(driver.IsOpened());
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
    EXPECT_EQ(network->AdapterMode(guid), 0u);
    EXPECT_TRUE(log.Has("DEBUG;Failed to create notification event or set it for virtual Ethernet adapter (GUID: " +
                        guid + ")."));
    EXPECT_TRUE(log.Has("INFO;Error in CaptureThread of Virtual Ethernet adapter (GUID: " + guid + ")."));
    const size_t linesAfterClose = log.Lines().size();
    driver.WriteFrame(full, ToBoth);
    driver.WriteFrame(oversize, ToBoth);
    EXPECT_EQ(network->SentToWire(guid).size(), 2u);
    EXPECT_EQ(log.Lines().size(), linesAfterClose);
}



// Each way an open can fail: logged with its own DEBUG line ("%s" is the GUID), then the
// common INFO line; the adapter is left alone and closing the driver throws.
TEST_F(FilterDriverTest, FailedOpensAreLoggedAndLeaveTheAdapterAlone) {
    const auto fail = [this](Call call) { return [this, call] { network->failing = call; }; };
    const std::string notFound = "Not found adapter handle of Virtual Ethernet adapter (GUID: %s).";
    const std::string noDriver = "Error in OpenFilterDriver() of Virtual Ethernet adapter (GUID: %s).";
    const std::pair<std::function<void()>, std::string> failures[] = {
        {[&] { network->driverLoaded = false; }, noDriver},
        {[&] { network->driverLoaded = true; }, notFound},  // an adapter the driver does not list
        {fail(Call::GetTcpipBoundAdaptersInfo), notFound},
        {fail(Call::GetHwPacketFilter), "Failed to get current packet filter from the network interface."},
        {fail(Call::SetHwPacketFilter), "Failed to set promiscuous mode for the network interface."},
        {fail(Call::SetAdapterMode), "Failed to set adapter mode for the network interface."},
        {[&] { SetFilterDriverApiFactory({}); }, noDriver},  // no driver client at all
    };
    for (const auto& [arrange, debugLine] : failures) {
        arrange();
        const std::string target = debugLine == notFound ? Testing::Guid(99) : guid;
        std::string debug = debugLine;
        if (auto at = debug.find("%s"); at != std::string::npos) debug.replace(at, 2, target);
        SCOPED_TRACE(debug);
        ndtest::LogCapture caseLog;
        {
            FilterDriver driver(target, &reader);
            driver.Open();
            EXPECT_FALSE(driver.IsOpened());
            EXPECT_EQ(ndtest::Thrown<std::runtime_error>([&] { driver.Close(); }),
                      "Error closing the virtual Ethernet adapter (GUID: " + target + "): it has not been opened.");
        }  // destroying an unopened driver is quiet
        const auto from = caseLog.From("DEBUG;" + debug);
        ASSERT_EQ(from.size(), 2u);
        EXPECT_EQ(from[1], "INFO;Error opening Virtual Ethernet adapter (GUID: " + target + ").");
        ExpectReleased();
    }
}

// The adapter wrapper's lookup of an adapter by its GUID text in the driver's adapter list.
TEST_F(FilterDriverTest, TheFirstAdapterNameContainingTheGuidTextWinsWithinTheListsBounds) {
    const std::string target = "{6B29FC40-CA47-1067-B31D-00DD010662DA}";
    network->AddAdapter("{6b29fc40-ca47-1067-b31d-00dd010662da}", {2, 0, 0, 0, 0, 2});  // other case: no match
    const NdisApi::Handle found = network->AddAdapter(target + "_NDISWANIP", {2, 0, 0, 0, 0, 3});
    network->AddAdapter(target, {2, 0, 0, 0, 0, 4});
    auto adapter = std::make_unique<FilterDriverApiAdapter>(CreateFilterDriverApi());

    std::vector<uint8_t> mac;
    EXPECT_EQ(adapter->FindAdapterHandle(target, &mac), found);
    EXPECT_EQ(mac, (std::vector<uint8_t>{0x02, 0, 0, 0, 0, 3}));
    EXPECT_NE(adapter->AdapterEvent(found), 0u);
    // A second lookup gives the adapter a new event and closes the old one.
    EXPECT_EQ(adapter->FindAdapterHandle(target, nullptr), found);
    EXPECT_EQ(network->openEvents, 1);
    adapter->ReleaseAdapterEvent(found);
    EXPECT_EQ(adapter->AdapterEvent(found), 0u);
    EXPECT_EQ(network->openEvents, 0);

    std::vector<uint8_t> untouched(6, 0xEE);
    EXPECT_EQ(adapter->FindAdapterHandle("{6B29FC40-CA47-1067-B31D-00DD010662DB}", &untouched), 0u);
    EXPECT_EQ(untouched, std::vector<uint8_t>(6, 0xEE));
    EXPECT_EQ(adapter->FindAdapterHandle("", nullptr), handle);  // the empty text is in every name
    EXPECT_EQ(FilterDriverApiAdapter(nullptr).FindAdapterHandle(guid, nullptr), 0u);

    // A full list is read within its bounds: the last name fills all 256 bytes with no
    // terminator, and the count claims more than 32.
    for (uint32_t i = 4; i < NdisApi::kAdapterListSize; ++i) network->AddAdapter(std::to_string(i), {}, 0x100 + i);
    network->editList = [](NdisApi::TCP_AdapterList& list) {
        uint8_t* last = list.m_szAdapterNameList[NdisApi::kAdapterListSize - 1];
        std::memset(last, 'A', NdisApi::kAdapterNameSize);
        std::memcpy(last + NdisApi::kAdapterNameSize - 4, "GUID", 4);
        list.m_nAdapterCount = 1000;
    };
    EXPECT_EQ(adapter->FindAdapterHandle("AGUID", nullptr), 0x100u + NdisApi::kAdapterListSize - 1);
    EXPECT_EQ(adapter->FindAdapterHandle("GUIDX", nullptr), 0u);
    network->failing = Call::GetTcpipBoundAdaptersInfo;
    EXPECT_EQ(adapter->FindAdapterHandle(guid, nullptr), 0u);
    EXPECT_EQ(network->openEvents, 2);  // those of "" and "AGUID", closed with the wrapper
    adapter.reset();
    EXPECT_EQ(network->openEvents, 0);
}

}  // namespace
}  // namespace NativeNetworkDriver
