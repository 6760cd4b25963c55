#include "support/InMemoryFilterDriverApi.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "Platform/Events.h"
#include "support/AllocationScope.h"

namespace NativeNetworkDriver::Testing {

std::string Guid(uint32_t n) {
    char text[64];
    std::snprintf(text, sizeof(text), "{%08X-0000-0000-0000-000000000000}", n);
    return text;
}

namespace {
constexpr uint16_t kMarkerType = 0x88B5;
}

bool IsMarker(const Nat::Frame& frame) {
    return frame.size() >= 14 && frame[12] == (kMarkerType >> 8) && frame[13] == (kMarkerType & 0xFF);
}

class InMemoryClient final : public IFilterDriverApi {
public:
    explicit InMemoryClient(std::shared_ptr<InMemoryNetwork> network) : network_(std::move(network)) {
        std::lock_guard lock(network_->mutex_);
        ++network_->liveClients_;
    }
    ~InMemoryClient() override {
        std::lock_guard lock(network_->mutex_);
        --network_->liveClients_;
    }

    bool IsDriverLoaded() override {
        std::lock_guard lock(network_->mutex_);
        return network_->driverLoaded_;
    }

    bool GetTcpipBoundAdaptersInfo(NdisApi::TCP_AdapterList* list) override {
        std::lock_guard lock(network_->mutex_);
        if (network_->Failing(InMemoryNetwork::Call::GetTcpipBoundAdaptersInfo)) return false;
        std::memset(list, 0, sizeof(*list));
        uint32_t i = 0;
        for (const std::string& key : network_->order_) {
            if (i == NdisApi::kAdapterListSize) break;
            const auto& adapter = network_->adapters_.at(key);
            const size_t n = std::min<size_t>(adapter.internalName.size(), NdisApi::kAdapterNameSize - 1);
            std::memcpy(list->m_szAdapterNameList[i], adapter.internalName.data(), n);
            list->m_nAdapterHandle[i] = adapter.handle;
            std::memcpy(list->m_czCurrentAddress[i], adapter.mac.data(), 6);
            list->m_usMTU[i] = 1500;
            ++i;
        }
        list->m_nAdapterCount = i;
        return true;
    }

    bool SetAdapterMode(const NdisApi::ADAPTER_MODE* mode) override {
        return OnAdapter(mode->hAdapterHandle, InMemoryNetwork::Call::SetAdapterMode, [&](auto& adapter) {
            constexpr uint32_t kTunnel = NdisApi::MSTCP_FLAG_SENT_TUNNEL | NdisApi::MSTCP_FLAG_RECV_TUNNEL;
            if ((adapter.mode & kTunnel) == 0 && (mode->dwFlags & kTunnel) != 0) ++adapter.tunnelEntries;
            adapter.mode = mode->dwFlags;
        });
    }
    bool GetHwPacketFilter(NdisApi::Handle handle, uint32_t* filter) override {
        return OnAdapter(handle, InMemoryNetwork::Call::GetHwPacketFilter, [&](auto& a) { *filter = a.hwFilter; });
    }
    bool SetHwPacketFilter(NdisApi::Handle handle, uint32_t filter) override {
        return OnAdapter(handle, InMemoryNetwork::Call::SetHwPacketFilter, [&](auto& a) { a.hwFilter = filter; });
    }
    bool SetPacketFilterTable(const NdisApi::STATIC_FILTER_TABLE* table) override {
        std::lock_guard lock(network_->mutex_);
        if (table == nullptr || table->m_TableSize == 0) return false;
        const NdisApi::STATIC_FILTER filter = table->m_StaticFilters[0];
        for (auto& [key, adapter] : network_->adapters_) {
            if ((adapter.handle & 0xFFFFFFFFull) != filter.m_Adapter) continue;
            ++adapter.filterTables;
            adapter.lastFilter = filter;
        }
        return true;
    }
    bool SetPacketEvent(NdisApi::Handle handle, NdisApi::Handle event) override {
        return OnAdapter(handle, std::nullopt, [&](auto& adapter) {
            adapter.packetEvent = event;
            if (event != 0 && !adapter.queue.empty()) (void)Platform::SetEvent(event);
        });
    }
    // Frames are read through ReadPackets, which keeps their offload state.
    bool ReadPacket(NdisApi::ETH_REQUEST*) override { return false; }
    bool SendPacketToAdapter(const NdisApi::ETH_REQUEST* request) override { return Send(request, true); }
    bool SendPacketToMstcp(const NdisApi::ETH_REQUEST* request) override { return Send(request, false); }

    size_t ReadPackets(NdisApi::Handle handle, CapturedFrame* frames, size_t count) override {
        std::lock_guard lock(network_->mutex_);
        auto* adapter = network_->ByHandleLocked(handle);
        if (adapter == nullptr) return 0;
        size_t read = 0;
        for (; read < count && !adapter->queue.empty(); ++read) {
            InMemoryNetwork::Captured& captured = adapter->queue.front();
            CapturedFrame& out = frames[read];
            // As a real backend: the vector keeps its capacity, nothing is cleared first.
            out.bytes.resize(captured.frame.size());
            std::copy(captured.frame.begin(), captured.frame.end(), out.bytes.begin());
            out.offload = captured.offload;
            out.isSend = captured.flags == NdisApi::PACKET_FLAG_ON_SEND;
            ndtest::HarnessScope harness;
            adapter->queue.pop_front();
        }
        if (adapter->queue.empty()) network_->changed_.notify_all();
        return read;
    }

    bool SendFrame(NdisApi::Handle handle, const uint8_t* frame, size_t length, const Nat::FrameOffload& offload,
                   bool toStack) override {
        {
            std::lock_guard lock(network_->mutex_);
            // With super-frames they are recorded whole; otherwise the base cuts them into wire frames.
            if (network_->superFrames_) {
                ndtest::HarnessScope harness;
                auto* adapter = network_->ByHandleLocked(handle);
                if (adapter != nullptr) Record(*adapter, Nat::Frame(frame, frame + length), offload, !toStack);
                return adapter != nullptr;
            }
        }
        return IFilterDriverApi::SendFrame(handle, frame, length, offload, toStack);
    }

    bool FlushAdapterPacketQueue(NdisApi::Handle handle) override {
        return OnAdapter(handle, std::nullopt, [&](auto& adapter) {
            adapter.queue.clear();
            network_->changed_.notify_all();
        });
    }

    NdisApi::Handle CreateAdapterEvent(NdisApi::Handle) override {
        std::lock_guard lock(network_->mutex_);
        if (network_->Failing(InMemoryNetwork::Call::CreateAdapterEvent)) return 0;
        const NdisApi::Handle event = Platform::CreateAutoResetEvent();
        if (event != 0) ++network_->openEvents_;
        return event;
    }

    void CloseAdapterEvent(NdisApi::Handle, NdisApi::Handle event) override {
        std::lock_guard lock(network_->mutex_);
        if (Platform::CloseEvent(event)) --network_->openEvents_;
    }

private:
    template <typename Fn>
    bool OnAdapter(NdisApi::Handle handle, std::optional<InMemoryNetwork::Call> failing, Fn&& fn) {
        std::lock_guard lock(network_->mutex_);
        if (failing && network_->Failing(*failing)) return false;
        auto* adapter = network_->ByHandleLocked(handle);
        if (adapter != nullptr) fn(*adapter);
        return adapter != nullptr;
    }

    bool Send(const NdisApi::ETH_REQUEST* request, bool toWire) {
        std::lock_guard lock(network_->mutex_);
        auto* adapter = network_->ByHandleLocked(request->hAdapterHandle);
        if (adapter == nullptr || request->EthPacket == nullptr) return false;
        const NdisApi::INTERMEDIATE_BUFFER* buffer = request->EthPacket;
        const size_t n = std::min<size_t>(buffer->m_Length, NdisApi::kMaxEtherFrame);
        ndtest::HarnessScope harness;
        Record(*adapter, Nat::Frame(buffer->m_IBuffer, buffer->m_IBuffer + n), {}, toWire);
        return true;
    }

    void Record(InMemoryNetwork::Adapter& adapter, Nat::Frame frame, const Nat::FrameOffload& offload, bool toWire) {
        if (toWire) adapter.wireOffloads.push_back(offload);
        (toWire ? adapter.wire : adapter.stack).push_back(std::move(frame));
        network_->changed_.notify_all();
    }

    std::shared_ptr<InMemoryNetwork> network_;
};

InMemoryNetwork::FactoryGuard::~FactoryGuard() {
    if (active_) SetFilterDriverApiFactory({});
}

std::shared_ptr<InMemoryNetwork> InMemoryNetwork::Create() {
    return std::shared_ptr<InMemoryNetwork>(new InMemoryNetwork());
}

NdisApi::Handle InMemoryNetwork::AddAdapterNamed(const std::string& key, const std::string& internalName,
                                                 const Nat::MacAddress& mac, NdisApi::Handle handle) {
    std::lock_guard lock(mutex_);
    if (adapters_.count(key) != 0) throw std::logic_error("adapter added twice: " + key);
    Adapter adapter;
    adapter.internalName = internalName;
    adapter.handle = handle != 0 ? handle : nextHandle_++;
    adapter.mac = mac;
    adapters_.emplace(key, std::move(adapter));
    order_.push_back(key);
    return adapters_.at(key).handle;
}

InMemoryNetwork::FactoryGuard InMemoryNetwork::Install() {
    std::weak_ptr<InMemoryNetwork> weak = shared_from_this();
    SetFilterDriverApiFactory([weak]() -> std::unique_ptr<IFilterDriverApi> {
        auto network = weak.lock();
        if (!network) return nullptr;
        return std::make_unique<InMemoryClient>(network);
    });
    FactoryGuard guard;
    guard.active_ = true;
    return guard;
}

void InMemoryNetwork::SetDriverLoaded(bool loaded) {
    std::lock_guard lock(mutex_);
    driverLoaded_ = loaded;
}

void InMemoryNetwork::SetFailing(Call call, bool failing) {
    std::lock_guard lock(mutex_);
    failing_[call] = failing;
}

bool InMemoryNetwork::Failing(Call call) const {
    auto found = failing_.find(call);
    return found != failing_.end() && found->second;
}

InMemoryNetwork::Adapter& InMemoryNetwork::GetLocked(const std::string& key) {
    auto found = adapters_.find(key);
    if (found == adapters_.end()) throw std::logic_error("no such adapter: " + key);
    return found->second;
}

const InMemoryNetwork::Adapter& InMemoryNetwork::GetLocked(const std::string& key) const {
    return const_cast<InMemoryNetwork*>(this)->GetLocked(key);
}

InMemoryNetwork::Adapter* InMemoryNetwork::ByHandleLocked(NdisApi::Handle handle) {
    for (auto& [key, adapter] : adapters_) {
        if (adapter.handle == handle) return &adapter;
    }
    return nullptr;
}

bool InMemoryNetwork::Inject(const std::string& key, const Nat::Frame& frame, bool fromWire,
                             const Nat::FrameOffload& offload) {
    ndtest::HarnessScope harness;
    std::lock_guard lock(mutex_);
    Adapter& adapter = GetLocked(key);
    const uint32_t divertFlag = fromWire ? NdisApi::MSTCP_FLAG_RECV_TUNNEL : NdisApi::MSTCP_FLAG_SENT_TUNNEL;
    if ((adapter.mode & divertFlag) == 0) {
        (fromWire ? adapter.stack : adapter.wire).push_back(frame);
        if (!fromWire) adapter.wireOffloads.push_back(offload);
        changed_.notify_all();
        return false;
    }
    adapter.queue.push_back(
        Captured{frame, fromWire ? NdisApi::PACKET_FLAG_ON_RECEIVE : NdisApi::PACKET_FLAG_ON_SEND, offload});
    if (adapter.packetEvent != 0) (void)Platform::SetEvent(adapter.packetEvent);
    return true;
}

bool InMemoryNetwork::InjectFromWire(const std::string& key, const Nat::Frame& frame,
                                     const Nat::FrameOffload& offload) {
    return Inject(key, frame, true, offload);
}

bool InMemoryNetwork::InjectFromStack(const std::string& key, const Nat::Frame& frame) {
    return Inject(key, frame, false, {});
}

void InMemoryNetwork::SetSuperFrames(bool on) {
    std::lock_guard lock(mutex_);
    superFrames_ = on;
}

std::vector<Nat::FrameOffload> InMemoryNetwork::WireOffloads(const std::string& key) const {
    std::lock_guard lock(mutex_);
    return GetLocked(key).wireOffloads;
}

bool InMemoryNetwork::Settle(const std::string& key) {
    Nat::Frame marker;
    {
        std::lock_guard lock(mutex_);
        const Nat::MacAddress& source = GetLocked(key).mac;
        marker = {0x02, 0x4D, 0x4B, 0x00, 0x00, 0x01};  // nobody's address
        marker.insert(marker.end(), source.begin(), source.end());
        marker.insert(marker.end(), {kMarkerType >> 8, kMarkerType & 0xFF});
        marker.resize(60, ++markerSerial_);
    }
    if (!InjectFromStack(key, marker)) return false;
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(5), [&] {
        const auto& wire = GetLocked(key).wire;
        return std::find(wire.begin(), wire.end(), marker) != wire.end();
    });
}

std::vector<Nat::Frame> InMemoryNetwork::Sent(const std::string& key, bool wire) const {
    std::lock_guard lock(mutex_);
    std::vector<Nat::Frame> frames = wire ? GetLocked(key).wire : GetLocked(key).stack;
    std::erase_if(frames, IsMarker);
    return frames;
}

std::vector<Nat::Frame> InMemoryNetwork::SentToWire(const std::string& key) const { return Sent(key, true); }
std::vector<Nat::Frame> InMemoryNetwork::SentToStack(const std::string& key) const { return Sent(key, false); }

void InMemoryNetwork::ClearSent(const std::string& key) {
    std::lock_guard lock(mutex_);
    GetLocked(key).wire.clear();
    GetLocked(key).wireOffloads.clear();
    GetLocked(key).stack.clear();
}

bool InMemoryNetwork::WaitForStack(const std::string& key, size_t count) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(5), [&] { return GetLocked(key).stack.size() >= count; });
}

InMemoryNetwork::Adapter InMemoryNetwork::State(const std::string& key) const {
    std::lock_guard lock(mutex_);
    return GetLocked(key);
}

int InMemoryNetwork::OpenAdapterEvents() const {
    std::lock_guard lock(mutex_);
    return openEvents_;
}

int InMemoryNetwork::LiveClients() const {
    std::lock_guard lock(mutex_);
    return liveClients_;
}

}  // namespace NativeNetworkDriver::Testing
