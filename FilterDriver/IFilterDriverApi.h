#pragma once
#include <cstddef>
#include <functional>
#include <memory>

#include "Platform/NdisApiTypes.h"
#include "Packet/Frame.h"
#include "Packet/SuperFrame.h"

namespace NativeNetworkDriver {

// One frame of a batch read: its bytes (the vector is resized to the frame; its capacity
// is reused from read to read), its offload state and its direction.
struct CapturedFrame {
    Nat::Frame bytes;
    Nat::FrameOffload offload;
    bool isSend = false;  // true: on its way out of the local stack
};

// The packet-filter driver's operations, one call per driver function. Implemented by the
// Windows DLL client, by Linux kernel interception and by an in-memory fake for tests.
class IFilterDriverApi {
public:
    virtual ~IFilterDriverApi() = default;

    virtual bool IsDriverLoaded() = 0;
    virtual bool GetTcpipBoundAdaptersInfo(NdisApi::TCP_AdapterList* list) = 0;
    virtual bool SetAdapterMode(const NdisApi::ADAPTER_MODE* mode) = 0;
    virtual bool GetHwPacketFilter(NdisApi::Handle adapter, uint32_t* filter) = 0;
    virtual bool SetHwPacketFilter(NdisApi::Handle adapter, uint32_t filter) = 0;
    virtual bool SetPacketFilterTable(const NdisApi::STATIC_FILTER_TABLE* table) = 0;
    virtual bool SetPacketEvent(NdisApi::Handle adapter, NdisApi::Handle event) = 0;
    // Reads one diverted frame into request->EthPacket; false when none is waiting.
    virtual bool ReadPacket(NdisApi::ETH_REQUEST* request) = 0;
    virtual bool SendPacketToAdapter(const NdisApi::ETH_REQUEST* request) = 0;
    virtual bool SendPacketToMstcp(const NdisApi::ETH_REQUEST* request) = 0;
    virtual bool FlushAdapterPacketQueue(NdisApi::Handle adapter) = 0;

    // The notification event for an adapter's diverted frames: a new auto-reset event on
    // Windows (registered with SetPacketEvent), the backend's own pollable descriptor on
    // Linux. 0 on failure. Released with CloseAdapterEvent.
    virtual NdisApi::Handle CreateAdapterEvent(NdisApi::Handle adapter) = 0;
    virtual void CloseAdapterEvent(NdisApi::Handle adapter, NdisApi::Handle event) = 0;

    // Batch and offload calls. A backend that has nothing better gets these, built on the
    // single-frame calls above: wire frames only, one call per frame.

    // Reads up to `count` waiting frames; how many were read.
    virtual size_t ReadPackets(NdisApi::Handle adapter, CapturedFrame* frames, size_t count);
    // Sends one frame with its offload state to the wire or to the stack. A backend that
    // cannot take super-frames or partial checksums gets the wire frames they stand for.
    virtual bool SendFrame(NdisApi::Handle adapter, const uint8_t* frame, size_t length,
                           const Nat::FrameOffload& offload, bool toStack);
};

// Creates a driver client through the installed factory: the process entry installs its
// platform's, tests an in-memory one. With none installed (or an empty one) the result is
// null, which every adapter reads as "driver not loaded".
using FilterDriverApiFactory = std::function<std::unique_ptr<IFilterDriverApi>()>;
std::unique_ptr<IFilterDriverApi> CreateFilterDriverApi();
void SetFilterDriverApiFactory(FilterDriverApiFactory factory);

}  // namespace NativeNetworkDriver
