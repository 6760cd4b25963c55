#pragma once
// The packet-filter driver on Linux. An adapter is an interface of the calling thread's
// network namespace, its handle the ifindex. Tunnel mode attaches two tcx programs that
// divert every frame of the interface to two packet sockets (one for frames from the
// wire, one for frames the stack sends); the daemon re-injects frames through two more
// packet sockets whose skb marks tell the programs where each frame goes. All kernel
// objects belong to descriptors of this process, so a crash leaves the interface working.
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "FilterDriver/IFilterDriverApi.h"
#include "Platform/FilterDriverBackend.h"
#include "Platform/posix/BpfTunnel.h"

namespace Platform {

class LinuxFilterDriverApi final : public NativeNetworkDriver::IFilterDriverApi {
public:
    struct Counters {
        uint64_t framesRead = 0;          // frames handed out by ReadPacket or ReadPackets
        uint64_t gsoFrames = 0;           // super-frames received
        uint64_t segments = 0;            // frames ReadPacket cut from them
        uint64_t checksumsCompleted = 0;  // frames whose checksum was left to the hardware
        uint64_t dropped = 0;             // frames that could not be delivered
    };

    // Why a kernel step failed goes to diagnostics (none: dropped).
    explicit LinuxFilterDriverApi(DiagnosticSink diagnostics = {});
    ~LinuxFilterDriverApi() override;
    LinuxFilterDriverApi(const LinuxFilterDriverApi&) = delete;
    LinuxFilterDriverApi& operator=(const LinuxFilterDriverApi&) = delete;

    bool IsDriverLoaded() override;
    bool GetTcpipBoundAdaptersInfo(NdisApi::TCP_AdapterList* list) override;
    bool SetAdapterMode(const NdisApi::ADAPTER_MODE* mode) override;
    bool GetHwPacketFilter(NdisApi::Handle adapter, uint32_t* filter) override;
    bool SetHwPacketFilter(NdisApi::Handle adapter, uint32_t filter) override;
    bool SetPacketFilterTable(const NdisApi::STATIC_FILTER_TABLE* table) override;
    bool SetPacketEvent(NdisApi::Handle adapter, NdisApi::Handle event) override;
    bool ReadPacket(NdisApi::ETH_REQUEST* request) override;
    bool SendPacketToAdapter(const NdisApi::ETH_REQUEST* request) override;
    bool SendPacketToMstcp(const NdisApi::ETH_REQUEST* request) override;
    bool FlushAdapterPacketQueue(NdisApi::Handle adapter) override;
    NdisApi::Handle CreateAdapterEvent(NdisApi::Handle adapter) override;
    void CloseAdapterEvent(NdisApi::Handle adapter, NdisApi::Handle event) override;
    // Super-frames whole, with their offload state; ReadPacket cuts them into wire frames.
    size_t ReadPackets(NdisApi::Handle adapter, NativeNetworkDriver::CapturedFrame* frames, size_t count) override;
    bool SendFrame(NdisApi::Handle adapter, const uint8_t* frame, size_t length, const Nat::FrameOffload& offload,
                   bool toStack) override;

    // Per-adapter figures for measurements and tests; zero for an unknown adapter.
    Counters GetCounters(NdisApi::Handle adapter) const;

    struct Adapter;

private:
    std::shared_ptr<Adapter> Find(NdisApi::Handle handle) const;
    std::shared_ptr<Adapter> FindOrCreate(NdisApi::Handle handle);
    bool EnsurePrograms();
    bool OpenTunnel(Adapter& adapter);
    void CloseTunnel(Adapter& adapter);
    bool Send(const NdisApi::ETH_REQUEST* request, bool toStack);

    mutable std::mutex adaptersMutex_;
    std::map<int, std::shared_ptr<Adapter>> adapters_;

    std::mutex programsMutex_;
    Bpf::TunnelPrograms programs_;
    DiagnosticSink diagnostics_;
};

}  // namespace Platform
