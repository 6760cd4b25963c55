#include "support/InMemoryFilterDriverApi.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "Platform/Events.h"
#include "support/AllocationScope.h"
#include "support/FrameBuilder.h"

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
    using Call = InMemoryNetwork::Call;
    using Adapter = InMemoryNetwork::Adapter;

public:
    explicit InMemoryClient(std::shared_ptr<InMemoryNetwork> network) : net_(std::move(network)) {
        ++net_->liveClients;
    }
    ~InMemoryClient() override { --net_->liveClients; }

    bool IsDriverLoaded() override { return net_->driverLoaded; }

    bool GetTcpipBoundAdaptersInfo(NdisApi::TCP_AdapterList* list) override {
        std::lock_guard lock(net_->mutex_);
        if (net_->failing == Call::GetTcpipBoundAdaptersInfo) return false;
        std::memset(list, 0, sizeof(*list));
        for (const std::string& guid : net_->order_) {
            if (list->m_nAdapterCount == NdisApi::kAdapterListSize) break;
            const Adapter& adapter = net_->adapters_.at(guid);
            const uint32_t i = list->m_nAdapterCount++;
            std::snprintf(reinterpret_cast<char*>(list->m_szAdapterNameList[i]), NdisApi::kAdapterNameSize,
                          "\\DEVICE\\%s", guid.c_str());
            list->m_nAdapterHandle[i] = adapter.handle;
            std::memcpy(list->m_czCurrentAddress[i], adapter.mac.data(), 6);
        }
        if (net_->editList) net_->editList(*list);
        return true;
    }

    bool SetAdapterMode(const NdisApi::ADAPTER_MODE* mode) override {
        return OnAdapter(mode->hAdapterHandle, Call::SetAdapterMode, [&](Adapter& a) { a.mode = mode->dwFlags; });
    }
    bool GetHwPacketFilter(NdisApi::Handle handle, uint32_t* filter) override {
        return OnAdapter(handle, Call::GetHwPacketFilter, [&](Adapter& a) { *filter = a.hwFilter; });
    }
    bool SetHwPacketFilter(NdisApi::Handle handle, uint32_t filter) override {
        return OnAdapter(handle, Call::SetHwPacketFilter, [&](Adapter& a) { a.hwFilter = filter; });
    }
    bool SetPacketFilterTable(const NdisApi::STATIC_FILTER_TABLE* table) override {
        std::lock_guard lock(net_->mutex_);
        if (table == nullptr || table->m_TableSize == 0) return false;
        net_->filters.push_back(table->m_StaticFilters[0]);
        return true;
    }
    bool SetPacketEvent(NdisApi::Handle handle, NdisApi::Handle event) override {
        return OnAdapter(handle, Call::None, [&](Adapter& adapter) {
            adapter.packetEvent = event;
            if (event != 0 && !adapter.queue.empty()) (void)Platform::SetEvent(event);
        });
    }
    // Frames are read through ReadPackets, which keeps their offload state.
    bool ReadPacket(NdisApi::ETH_REQUEST*) override { return false; }
    bool SendPacketToAdapter(const NdisApi::ETH_REQUEST* request) override { return Send(request, true); }
    bool SendPacketToMstcp(const NdisApi::ETH_REQUEST* request) override { return Send(request, false); }

    size_t ReadPackets(NdisApi::Handle handle, CapturedFrame* frames, size_t count) override {
        std::lock_guard lock(net_->mutex_);
        Adapter* adapter = net_->ByHandle(handle);
        size_t read = 0;
        for (; adapter != nullptr && read < count && !adapter->queue.empty(); ++read) {
            // As a real backend: the vector keeps its capacity, nothing is cleared first.
            frames[read] = adapter->queue.front();
            ndtest::HarnessScope harness;
            adapter->queue.pop_front();
        }
        net_->changed_.notify_all();
        return read;
    }

    bool FlushAdapterPacketQueue(NdisApi::Handle handle) override {
        return OnAdapter(handle, Call::None, [&](Adapter& adapter) { adapter.queue.clear(); });
    }

    NdisApi::Handle CreateAdapterEvent(NdisApi::Handle) override {
        if (net_->failing == Call::CreateAdapterEvent) return 0;
        const NdisApi::Handle event = Platform::CreateAutoResetEvent();
        if (event != 0) ++net_->openEvents;
        return event;
    }

    void CloseAdapterEvent(NdisApi::Handle, NdisApi::Handle event) override {
        if (Platform::CloseEvent(event)) --net_->openEvents;
    }

private:
    template <typename Fn>
    bool OnAdapter(NdisApi::Handle handle, Call call, Fn&& fn) {
        std::lock_guard lock(net_->mutex_);
        Adapter* adapter = net_->ByHandle(handle);
        if (adapter == nullptr || (call != Call::None && net_->failing == call)) return false;
        fn(*adapter);
        net_->changed_.notify_all();
        return true;
    }

    bool Send(const NdisApi::ETH_REQUEST* request, bool toWire) {
        if (request->EthPacket == nullptr) return false;
        const NdisApi::INTERMEDIATE_BUFFER* buffer = request->EthPacket;
        const size_t n = std::min<size_t>(buffer->m_Length, NdisApi::kMaxEtherFrame);
        std::lock_guard lock(net_->mutex_);
        ndtest::HarnessScope harness;
        Adapter* adapter = net_->ByHandle(request->hAdapterHandle);
        if (adapter == nullptr) return false;
        (toWire ? adapter->wire : adapter->stack).emplace_back(buffer->m_IBuffer, buffer->m_IBuffer + n);
        net_->changed_.notify_all();
        return true;
    }

    std::shared_ptr<InMemoryNetwork> net_;
};

NdisApi::Handle InMemoryNetwork::AddAdapter(const std::string& guid, const Nat::MacAddress& mac,
                                            NdisApi::Handle handle) {
    std::lock_guard lock(mutex_);
    Adapter& adapter = adapters_[guid];
    adapter.handle = handle != 0 ? handle : nextHandle_++;
    adapter.mac = mac;
    order_.push_back(guid);
    return adapter.handle;
}

InMemoryNetwork::FactoryGuard InMemoryNetwork::Install() {
    SetFilterDriverApiFactory([weak = weak_from_this()]() -> std::unique_ptr<IFilterDriverApi> {
        auto network = weak.lock();
        return network ? std::make_unique<InMemoryClient>(network) : nullptr;
    });
    return {};
}

InMemoryNetwork::Adapter* InMemoryNetwork::ByHandle(NdisApi::Handle handle) {
    for (auto& [guid, adapter] : adapters_)
        if (adapter.handle == handle) return &adapter;
    return nullptr;
}

bool InMemoryNetwork::Inject(const std::string& guid, const Nat::Frame& frame, bool fromWire,
                             const Nat::FrameOffload& offload) {
    ndtest::HarnessScope harness;
    std::lock_guard lock(mutex_);
    Adapter& adapter = adapters_.at(guid);
    const uint32_t divertFlag = fromWire ? NdisApi::MSTCP_FLAG_RECV_TUNNEL : NdisApi::MSTCP_FLAG_SENT_TUNNEL;
    if ((adapter.mode & divertFlag) == 0) {
        (fromWire ? adapter.stack : adapter.wire).push_back(frame);
        changed_.notify_all();
        return false;
    }
    adapter.queue.push_back(CapturedFrame{frame, offload, !fromWire});
    if (adapter.packetEvent != 0) (void)Platform::SetEvent(adapter.packetEvent);
    return true;
}

bool InMemoryNetwork::Settle(const std::string& guid) {
    const Nat::MacAddress nobody{0x02, 0x4D, 0x4B, 0x00, 0x00, 0x01};
    const Nat::Frame marker = ndtest::EthernetFrame(nobody, State(guid).mac, kMarkerType, 46, ++markerSerial_);
    if (!InjectFromStack(guid, marker)) return false;
    std::unique_lock lock(mutex_);
    const auto& wire = adapters_.at(guid).wire;
    return changed_.wait_for(lock, std::chrono::seconds(5),
                             [&] { return std::find(wire.begin(), wire.end(), marker) != wire.end(); });
}

std::vector<Nat::Frame> InMemoryNetwork::Sent(const std::string& guid, std::vector<Nat::Frame> Adapter::*side) const {
    std::lock_guard lock(mutex_);
    std::vector<Nat::Frame> frames = adapters_.at(guid).*side;
    std::erase_if(frames, IsMarker);
    return frames;
}

void InMemoryNetwork::ClearSent(const std::string& guid) {
    std::lock_guard lock(mutex_);
    adapters_.at(guid).wire.clear();
    adapters_.at(guid).stack.clear();
}

InMemoryNetwork::Adapter InMemoryNetwork::State(const std::string& guid) const {
    std::lock_guard lock(mutex_);
    return adapters_.at(guid);
}

}  // namespace NativeNetworkDriver::Testing
