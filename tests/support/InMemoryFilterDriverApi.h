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

inline constexpr Nat::MacAddress kBroadcastMac{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

// The frames that Settle sends through; SentToWire and SentToStack leave them out.
bool IsMarker(const Nat::Frame& frame);

class InMemoryNetwork : public std::enable_shared_from_this<InMemoryNetwork> {
public:
    // Calls that tests can make fail.
    enum class Call { GetTcpipBoundAdaptersInfo, GetHwPacketFilter, SetHwPacketFilter, SetAdapterMode, CreateAdapterEvent };

    struct Captured {
        Nat::Frame frame;
        uint32_t flags;
        Nat::FrameOffload offload;
    };
    struct Adapter {
        std::string internalName;
        NdisApi::Handle handle = 0;
        Nat::MacAddress mac{};
        uint32_t mode = 0;
        uint32_t hwFilter = 0x0B;
        NdisApi::Handle packetEvent = 0;
        std::deque<Captured> queue;
        std::vector<Nat::Frame> wire;
        std::vector<Nat::Frame> stack;
        std::vector<Nat::FrameOffload> wireOffloads;  // beside wire: how each frame was sent
        int tunnelEntries = 0;  // how many times it went from normal to tunnel mode
        int filterTables = 0;   // filter tables installed for it (matched by the handle's low half)
        NdisApi::STATIC_FILTER lastFilter{};
    };

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

    // An adapter with a given internal name; `key` is how the test refers to it. Handle 0
    // picks the next free one.
    NdisApi::Handle AddAdapterNamed(const std::string& key, const std::string& internalName,
                                    const Nat::MacAddress& mac, NdisApi::Handle handle = 0);
    // An adapter named "\DEVICE\" + guid.
    NdisApi::Handle AddAdapter(const std::string& guid, const Nat::MacAddress& mac, NdisApi::Handle handle = 0) {
        return AddAdapterNamed(guid, "\\DEVICE\\" + guid, mac, handle);
    }

    [[nodiscard]] FactoryGuard Install();

    void SetDriverLoaded(bool loaded);
    // Frames are read with the offload state they were injected with. With super-frames
    // they are also sent whole with it, as the Linux backend does; without (the default),
    // the driver's default send cuts them into wire frames, as for a backend without.
    void SetSuperFrames(bool on);
    void SetFailing(Call call, bool failing);

    // True when the frame was diverted to the driver, false when it passed straight through.
    bool InjectFromWire(const std::string& key, const Nat::Frame& frame, const Nat::FrameOffload& offload = {});
    bool InjectFromStack(const std::string& key, const Nat::Frame& frame);
    // Waits (bounded) until everything captured on the adapter before this call has been
    // dispatched: a marker sent by the stack goes out on the wire once its turn comes.
    bool Settle(const std::string& key);

    std::vector<Nat::Frame> SentToWire(const std::string& key) const;
    std::vector<Nat::FrameOffload> WireOffloads(const std::string& key) const;
    std::vector<Nat::Frame> SentToStack(const std::string& key) const;
    void ClearSent(const std::string& key);
    // Waits (bounded) until at least `count` frames were sent to the stack.
    bool WaitForStack(const std::string& key, size_t count) const;

    Adapter State(const std::string& key) const;
    uint32_t AdapterMode(const std::string& key) const { return State(key).mode; }
    // Events created through CreateAdapterEvent and not closed yet, and driver clients alive.
    int OpenAdapterEvents() const;
    int LiveClients() const;

private:
    friend class InMemoryClient;

    InMemoryNetwork() = default;
    Adapter& GetLocked(const std::string& key);
    const Adapter& GetLocked(const std::string& key) const;
    Adapter* ByHandleLocked(NdisApi::Handle handle);
    bool Inject(const std::string& key, const Nat::Frame& frame, bool fromWire, const Nat::FrameOffload& offload);
    std::vector<Nat::Frame> Sent(const std::string& key, bool wire) const;
    bool Failing(Call call) const;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::map<std::string, Adapter> adapters_;  // by test key (the GUID text for AddAdapter)
    std::vector<std::string> order_;            // the driver's adapter list order
    NdisApi::Handle nextHandle_ = 0x1000;
    bool driverLoaded_ = true;
    bool superFrames_ = false;
    std::map<Call, bool> failing_;
    int openEvents_ = 0;
    int liveClients_ = 0;
    uint8_t markerSerial_ = 0;
};

}  // namespace NativeNetworkDriver::Testing
