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
//   ASSERT_TRUE(network->WaitForStack(Guid(1), 1));
//
// To check that a frame went nowhere, inject a frame that is known to pass after it (for
// example one sent by the stack that no subscriber takes) and wait for that one with
// WaitForFrameOnWire: one adapter's frames are dispatched in capture order.
// tests/FilterDriver/TestFrames.h has IPv4 fragment builders, such markers and a
// recording subscriber.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
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

// An Ethernet II frame: destination, source, EtherType, then `payloadBytes` bytes of `fill`.
Nat::Frame EthernetFrame(const Nat::MacAddress& destination, const Nat::MacAddress& source, uint16_t etherType,
                         size_t payloadBytes, uint8_t fill = 0);

inline constexpr Nat::MacAddress kBroadcastMac{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

class InMemoryNetwork : public std::enable_shared_from_this<InMemoryNetwork> {
public:
    // Calls that tests can make fail.
    enum class Call { GetTcpipBoundAdaptersInfo, GetHwPacketFilter, SetHwPacketFilter, SetAdapterMode, CreateAdapterEvent };

    // Restores the empty factory when it goes.
    class FactoryGuard {
    public:
        FactoryGuard() = default;
        FactoryGuard(FactoryGuard&& other) noexcept : active_(other.active_) { other.active_ = false; }
        FactoryGuard& operator=(FactoryGuard&&) = delete;
        ~FactoryGuard();

    private:
        friend class InMemoryNetwork;
        bool active_ = false;
    };

    static std::shared_ptr<InMemoryNetwork> Create();

    // An adapter named "\DEVICE\" + guid. Handle 0 picks the next free one. The hardware
    // filter starts at `hwFilter`.
    NdisApi::Handle AddAdapter(const std::string& guid, const Nat::MacAddress& mac, NdisApi::Handle handle = 0,
                               uint32_t hwFilter = 0x0B);
    // An adapter with a given internal name; `key` is how the test refers to it.
    NdisApi::Handle AddAdapterNamed(const std::string& key, const std::string& internalName,
                                    const Nat::MacAddress& mac, NdisApi::Handle handle = 0);

    std::unique_ptr<IFilterDriverApi> CreateClient();
    [[nodiscard]] FactoryGuard Install();

    void SetDriverLoaded(bool loaded);
    void SetFailing(Call call, bool failing);

    // True when the frame was diverted to the driver, false when it passed straight through.
    bool InjectFromWire(const std::string& key, const Nat::Frame& frame);
    bool InjectFromStack(const std::string& key, const Nat::Frame& frame);

    std::vector<Nat::Frame> SentToWire(const std::string& key) const;
    std::vector<Nat::Frame> SentToStack(const std::string& key) const;
    void ClearSent(const std::string& key);
    // Waits (bounded) until at least `count` frames were sent to that side.
    bool WaitForWire(const std::string& key, size_t count,
                     std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) const;
    bool WaitForStack(const std::string& key, size_t count,
                      std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) const;
    // Waits (bounded) until this exact frame has been sent to that side.
    bool WaitForFrameOnWire(const std::string& key, const Nat::Frame& frame,
                            std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) const;
    bool WaitForFrameOnStack(const std::string& key, const Nat::Frame& frame,
                             std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) const;
    // Waits (bounded) until the driver queue of the adapter has been read empty.
    bool WaitUntilDrained(const std::string& key,
                          std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) const;

    uint32_t AdapterMode(const std::string& key) const;
    uint32_t HwFilter(const std::string& key) const;
    // How many times the adapter went from normal to tunnel mode.
    int TunnelEntries(const std::string& key) const;
    // Filter tables installed for the adapter (matched by the handle's low half), and the last filter.
    int FilterTablesInstalled(const std::string& key) const;
    NdisApi::STATIC_FILTER LastFilter(const std::string& key) const;
    NdisApi::Handle PacketEvent(const std::string& key) const;
    size_t QueuedFrames(const std::string& key) const;
    // Events created through CreateAdapterEvent and not closed yet.
    int OpenAdapterEvents() const;
    int LiveClients() const;

private:
    friend class InMemoryClient;
    struct Captured {
        Nat::Frame frame;
        uint32_t flags;
    };
    struct Adapter {
        std::string internalName;
        NdisApi::Handle handle = 0;
        Nat::MacAddress mac{};
        uint32_t mode = 0;
        uint32_t hwFilter = 0;
        NdisApi::Handle packetEvent = 0;
        std::deque<Captured> queue;
        std::vector<Nat::Frame> wire;
        std::vector<Nat::Frame> stack;
        int tunnelEntries = 0;
        int filterTables = 0;
        NdisApi::STATIC_FILTER lastFilter{};
    };

    InMemoryNetwork() = default;
    Adapter* FindLocked(const std::string& key);
    const Adapter& GetLocked(const std::string& key) const;
    Adapter* ByHandleLocked(NdisApi::Handle handle);
    bool Inject(const std::string& key, const Nat::Frame& frame, bool fromWire);
    bool WaitFor(const std::string& key, size_t count, bool wire, std::chrono::milliseconds timeout) const;
    bool WaitForFrame(const std::string& key, const Nat::Frame& frame, bool wire,
                      std::chrono::milliseconds timeout) const;
    bool Failing(Call call) const;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::map<std::string, Adapter> adapters_;  // by test key (the GUID text for AddAdapter)
    std::vector<std::string> order_;            // the driver's adapter list order
    NdisApi::Handle nextHandle_ = 0x1000;
    bool driverLoaded_ = true;
    std::map<Call, bool> failing_;
    int openEvents_ = 0;
    int liveClients_ = 0;
};

}  // namespace NativeNetworkDriver::Testing
