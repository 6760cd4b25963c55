#pragma once
// An in-process stand-in for the packet-filter driver: adapters with a wire side and a
// stack side. Tests inject frames "from the wire" or "from the stack" and read back what
// the program sent to either side. While an adapter is in tunnel mode the injected frames
// are diverted to the driver queue (and the adapter's packet event is set); otherwise
// they pass straight through to the other side, as on a machine without the driver.
//
//   auto network = InMemoryNetwork::Create();
//   network->AddAdapter(Guid(1), {2, 0, 0, 0, 0, 1});
//   auto guard = network->Install();           // CreateFilterDriverApi() now uses it
//   ... publisher.Register(&session, {Guid(1)});
//   network->InjectFromWire(Guid(1), frame);
//   ASSERT_TRUE(network->Settle(Guid(1)));     // everything injected so far is dispatched
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "FilterDriver/IFilterDriverApi.h"
#include "Packet/Frame.h"

namespace NativeNetworkDriver::Testing {

// "{0000000N-0000-0000-0000-000000000000}": a GUID text for test adapter n.
std::string Guid(uint32_t n);

inline constexpr Nat::MacAddress kBroadcastMac{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

// The frames that Settle sends through; SentToWire and SentToStack leave them out.
bool IsMarker(const Nat::Frame& frame);

class InMemoryNetwork : public std::enable_shared_from_this<InMemoryNetwork> {
public:
    // The driver call that fails, if any.
    enum class Call { None, GetTcpipBoundAdaptersInfo, GetHwPacketFilter, SetHwPacketFilter, SetAdapterMode,
                      CreateAdapterEvent };

    struct Adapter {
        NdisApi::Handle handle = 0;
        Nat::MacAddress mac{};
        uint32_t mode = 0;
        uint32_t hwFilter = 0x0B;
        NdisApi::Handle packetEvent = 0;
        std::deque<CapturedFrame> queue;
        std::vector<Nat::Frame> wire;
        std::vector<Nat::Frame> stack;
    };

    // Restores the empty factory when it goes.
    struct FactoryGuard {
        FactoryGuard() = default;
        FactoryGuard(const FactoryGuard&) = delete;
        ~FactoryGuard() { SetFilterDriverApiFactory({}); }
    };

    static std::shared_ptr<InMemoryNetwork> Create() { return std::shared_ptr<InMemoryNetwork>(new InMemoryNetwork); }
    // An adapter named "\DEVICE\" + guid; handle 0 picks the next free one.
    NdisApi::Handle AddAdapter(const std::string& guid, const Nat::MacAddress& mac, NdisApi::Handle handle = 0);
    [[nodiscard]] FactoryGuard Install();

    // Edits the adapter list after it is filled, before the caller sees it.
    std::function<void(NdisApi::TCP_AdapterList&)> editList;
    std::atomic<bool> driverLoaded{true};
    std::atomic<Call> failing{Call::None};
    // Events created through CreateAdapterEvent and not closed yet, and driver clients alive.
    std::atomic<int> openEvents{0};
    std::atomic<int> liveClients{0};
    std::vector<NdisApi::STATIC_FILTER> filters;  // the first entry of each filter table set

    // True when the frame was diverted to the driver, false when it passed straight through.
    // Frames are read with the offload state they were injected with; the driver's default
    // send cuts super-frames into the wire frames they stand for.
    bool InjectFromWire(const std::string& guid, const Nat::Frame& frame, const Nat::FrameOffload& offload = {}) {
        return Inject(guid, frame, true, offload);
    }
    bool InjectFromStack(const std::string& guid, const Nat::Frame& frame) { return Inject(guid, frame, false, {}); }
    // Waits (bounded) until everything captured on the adapter before this call has been
    // dispatched: a marker sent by the stack goes out on the wire once its turn comes.
    bool Settle(const std::string& guid);

    std::vector<Nat::Frame> SentToWire(const std::string& guid) const { return Sent(guid, &Adapter::wire); }
    std::vector<Nat::Frame> SentToStack(const std::string& guid) const { return Sent(guid, &Adapter::stack); }
    void ClearSent(const std::string& guid);
    Adapter State(const std::string& guid) const;
    uint32_t AdapterMode(const std::string& guid) const { return State(guid).mode; }

private:
    friend class InMemoryClient;

    InMemoryNetwork() = default;
    Adapter* ByHandle(NdisApi::Handle handle);
    bool Inject(const std::string& guid, const Nat::Frame& frame, bool fromWire, const Nat::FrameOffload& offload);
    std::vector<Nat::Frame> Sent(const std::string& guid, std::vector<Nat::Frame> Adapter::*side) const;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    mutable std::map<std::string, Adapter> adapters_;
    std::vector<std::string> order_;  // the driver's adapter list order
    NdisApi::Handle nextHandle_ = 0x1000;
    uint8_t markerSerial_ = 0;  // Settle is called from the test's thread only
};

}  // namespace NativeNetworkDriver::Testing
