#pragma once
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "FilterDriver/IFilterDriverApi.h"

// One driver client (made by CreateFilterDriverApi) plus what the client lacks: finding
// an adapter's handle by GUID text and owning one notification event per found adapter.
// Every call on a missing client fails, so a process without a driver backend reads as
// "driver not loaded".
class FilterDriverApiAdapter {
public:
    FilterDriverApiAdapter();
    explicit FilterDriverApiAdapter(std::unique_ptr<NativeNetworkDriver::IFilterDriverApi> api);
    virtual ~FilterDriverApiAdapter();

    FilterDriverApiAdapter(const FilterDriverApiAdapter&) = delete;
    FilterDriverApiAdapter& operator=(const FilterDriverApiAdapter&) = delete;

    // The handle of the first bound adapter whose internal name contains guidText, 0 if
    // none. Copies that adapter's MAC into macOut (resized to 6) and creates its event.
    NdisApi::Handle FindAdapterHandle(const std::string& guidText, std::vector<uint8_t>* macOut);
    // Unregisters and closes the adapter's event.
    void ReleaseAdapterEvent(NdisApi::Handle adapter);
    // The event created for the adapter by FindAdapterHandle, 0 if none.
    NdisApi::Handle AdapterEvent(NdisApi::Handle adapter) const;

    bool IsDriverLoaded();
    bool GetTcpipBoundAdaptersInfo(NdisApi::TCP_AdapterList* list);
    bool SetAdapterMode(const NdisApi::ADAPTER_MODE* mode);
    bool GetHwPacketFilter(NdisApi::Handle adapter, uint32_t* filter);
    bool SetHwPacketFilter(NdisApi::Handle adapter, uint32_t filter);
    bool SetPacketFilterTable(const NdisApi::STATIC_FILTER_TABLE* table);
    bool SetPacketEvent(NdisApi::Handle adapter, NdisApi::Handle event);
    bool ReadPacket(NdisApi::ETH_REQUEST* request);
    bool SendPacketToAdapter(const NdisApi::ETH_REQUEST* request);
    bool SendPacketToMstcp(const NdisApi::ETH_REQUEST* request);
    bool FlushAdapterPacketQueue(NdisApi::Handle adapter);
    size_t ReadPackets(NdisApi::Handle adapter, NativeNetworkDriver::CapturedFrame* frames, size_t count);
    bool SendFrame(NdisApi::Handle adapter, const uint8_t* frame, size_t length, const Nat::FrameOffload& offload,
                   bool toStack);

private:
    std::unique_ptr<NativeNetworkDriver::IFilterDriverApi> api_;
    std::map<NdisApi::Handle, NdisApi::Handle> adapterEvents_;
};
