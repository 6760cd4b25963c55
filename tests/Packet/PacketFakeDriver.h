#pragma once
// A driver client in memory, enough for the publisher to open adapters, capture frames
// put in by the test, and record what it writes. Installed as the process's driver
// factory for the object's lifetime.
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "FilterDriver/IFilterDriverApi.h"
#include "Packet/Frame.h"
#include "Platform/Events.h"

namespace ndtest {

class PacketFakeDriver {
public:
    struct Written {
        std::string guid;
        Nat::Frame frame;
        bool toStack;
    };

    PacketFakeDriver() : state_(std::make_shared<State>()) {
        auto state = state_;
        NativeNetworkDriver::SetFilterDriverApiFactory([state] { return std::make_unique<Api>(state); });
    }
    ~PacketFakeDriver() { NativeNetworkDriver::SetFilterDriverApiFactory({}); }

    void AddAdapter(const std::string& guid, const Nat::MacAddress& mac) {
        std::lock_guard lock(state_->mutex);
        const NdisApi::Handle handle = 0x100 + state_->adapters.size();
        state_->adapters.push_back(Adapter{guid, mac, handle, 0, {}});
    }

    // A frame arriving from the wire of the adapter: read by its capture thread.
    void Receive(const std::string& guid, const Nat::Frame& frame) {
        NdisApi::Handle event = 0;
        {
            std::lock_guard lock(state_->mutex);
            for (Adapter& a : state_->adapters) {
                if (a.guid != guid) continue;
                a.incoming.push_back(frame);
                event = a.event;
            }
        }
        if (event != 0) Platform::SetEvent(event);
    }

    std::vector<Written> WrittenFrames() const {
        std::lock_guard lock(state_->mutex);
        return state_->written;
    }

private:
    struct Adapter {
        std::string guid;
        Nat::MacAddress mac;
        NdisApi::Handle handle;
        NdisApi::Handle event;
        std::deque<Nat::Frame> incoming;
    };
    struct State {
        mutable std::mutex mutex;
        std::vector<Adapter> adapters;
        std::vector<Written> written;

        Adapter* Find(NdisApi::Handle handle) {
            for (Adapter& a : adapters)
                if (a.handle == handle) return &a;
            return nullptr;
        }
    };

    class Api : public NativeNetworkDriver::IFilterDriverApi {
    public:
        explicit Api(std::shared_ptr<State> state) : state_(std::move(state)) {}
        bool IsDriverLoaded() override { return true; }
        bool GetTcpipBoundAdaptersInfo(NdisApi::TCP_AdapterList* list) override {
            std::lock_guard lock(state_->mutex);
            list->m_nAdapterCount = static_cast<uint32_t>(state_->adapters.size());
            for (size_t i = 0; i < state_->adapters.size(); ++i) {
                const std::string name = "\\DEVICE\\" + state_->adapters[i].guid;
                std::memcpy(list->m_szAdapterNameList[i], name.c_str(), name.size() + 1);
                list->m_nAdapterHandle[i] = state_->adapters[i].handle;
                std::memcpy(list->m_czCurrentAddress[i], state_->adapters[i].mac.data(), 6);
            }
            return true;
        }
        bool SetAdapterMode(const NdisApi::ADAPTER_MODE*) override { return true; }
        bool GetHwPacketFilter(NdisApi::Handle, uint32_t* filter) override {
            *filter = 0;
            return true;
        }
        bool SetHwPacketFilter(NdisApi::Handle, uint32_t) override { return true; }
        bool SetPacketFilterTable(const NdisApi::STATIC_FILTER_TABLE*) override { return true; }
        bool SetPacketEvent(NdisApi::Handle, NdisApi::Handle) override { return true; }
        bool ReadPacket(NdisApi::ETH_REQUEST* request) override {
            std::lock_guard lock(state_->mutex);
            Adapter* a = state_->Find(request->hAdapterHandle);
            if (a == nullptr || a->incoming.empty()) return false;
            const Nat::Frame frame = std::move(a->incoming.front());
            a->incoming.pop_front();
            std::memcpy(request->EthPacket->m_IBuffer, frame.data(), frame.size());
            request->EthPacket->m_Length = static_cast<uint32_t>(frame.size());
            request->EthPacket->m_dwDeviceFlags = NdisApi::PACKET_FLAG_ON_RECEIVE;
            return true;
        }
        bool SendPacketToAdapter(const NdisApi::ETH_REQUEST* request) override { return Record(request, false); }
        bool SendPacketToMstcp(const NdisApi::ETH_REQUEST* request) override { return Record(request, true); }
        bool FlushAdapterPacketQueue(NdisApi::Handle) override { return true; }
        NdisApi::Handle CreateAdapterEvent(NdisApi::Handle adapter) override {
            const NdisApi::Handle event = Platform::CreateAutoResetEvent();
            std::lock_guard lock(state_->mutex);
            if (Adapter* a = state_->Find(adapter)) a->event = event;
            return event;
        }
        void CloseAdapterEvent(NdisApi::Handle adapter, NdisApi::Handle event) override {
            {
                std::lock_guard lock(state_->mutex);
                if (Adapter* a = state_->Find(adapter); a != nullptr && a->event == event) a->event = 0;
            }
            Platform::CloseEvent(event);
        }

    private:
        bool Record(const NdisApi::ETH_REQUEST* request, bool toStack) {
            std::lock_guard lock(state_->mutex);
            Adapter* a = state_->Find(request->hAdapterHandle);
            if (a == nullptr) return false;
            const uint8_t* data = request->EthPacket->m_IBuffer;
            state_->written.push_back({a->guid, Nat::Frame(data, data + request->EthPacket->m_Length), toStack});
            return true;
        }
        std::shared_ptr<State> state_;
    };

    std::shared_ptr<State> state_;
};

}  // namespace ndtest
