#include <windows.h>

#include <cstdint>

#include "Platform/Events.h"
#include "Platform/FilterDriverBackendWindows.h"

namespace Platform {

namespace {

using NdisApi::ADAPTER_MODE;
using NdisApi::ETH_REQUEST;
using NdisApi::STATIC_FILTER_TABLE;
using NdisApi::TCP_AdapterList;

// The DLL's exported C functions.
using OpenFilterDriverFn = HANDLE(WINAPI*)(const char*);
using CloseFilterDriverFn = VOID(WINAPI*)(HANDLE);
using IsDriverLoadedFn = BOOL(WINAPI*)(HANDLE);
using GetTcpipBoundAdaptersInfoFn = BOOL(WINAPI*)(HANDLE, TCP_AdapterList*);
using SetAdapterModeFn = BOOL(WINAPI*)(HANDLE, ADAPTER_MODE*);
using GetHwPacketFilterFn = BOOL(WINAPI*)(HANDLE, HANDLE, DWORD*);
using SetHwPacketFilterFn = BOOL(WINAPI*)(HANDLE, HANDLE, DWORD);
using SetPacketFilterTableFn = BOOL(WINAPI*)(HANDLE, STATIC_FILTER_TABLE*);
using SetPacketEventFn = BOOL(WINAPI*)(HANDLE, HANDLE, HANDLE);
using ReadPacketFn = BOOL(WINAPI*)(HANDLE, ETH_REQUEST*);
using SendPacketFn = BOOL(WINAPI*)(HANDLE, ETH_REQUEST*);
using FlushAdapterPacketQueueFn = BOOL(WINAPI*)(HANDLE, HANDLE);

constexpr const char* kDriverInstanceName = "NDISTQFD";

HANDLE ToHandle(NdisApi::Handle h) { return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(h)); }

template <typename Fn>
bool Resolve(HMODULE module, const char* name, Fn& out) {
    FARPROC proc = GetProcAddress(module, name);
    if (proc == nullptr) return false;
    out = reinterpret_cast<Fn>(reinterpret_cast<void*>(proc));
    return true;
}

class NdisApiFilterDriverApi final : public NativeNetworkDriver::IFilterDriverApi {
public:
    NdisApiFilterDriverApi() {
        module_ = LoadLibraryA("ndisapi.dll");
        if (module_ == nullptr) return;
        const bool complete =
            Resolve(module_, "OpenFilterDriver", open_) && Resolve(module_, "CloseFilterDriver", close_) &&
            Resolve(module_, "IsDriverLoaded", isDriverLoaded_) &&
            Resolve(module_, "GetTcpipBoundAdaptersInfo", getAdapters_) &&
            Resolve(module_, "SetAdapterMode", setAdapterMode_) &&
            Resolve(module_, "GetHwPacketFilter", getHwFilter_) &&
            Resolve(module_, "SetHwPacketFilter", setHwFilter_) &&
            Resolve(module_, "SetPacketFilterTable", setFilterTable_) &&
            Resolve(module_, "SetPacketEvent", setPacketEvent_) && Resolve(module_, "ReadPacket", readPacket_) &&
            Resolve(module_, "SendPacketToAdapter", sendToAdapter_) &&
            Resolve(module_, "SendPacketToMstcp", sendToMstcp_) &&
            Resolve(module_, "FlushAdapterPacketQueue", flush_);
        if (!complete) return;
        HANDLE driver = open_(kDriverInstanceName);
        if (driver == nullptr || driver == INVALID_HANDLE_VALUE) return;
        driver_ = driver;
    }

    ~NdisApiFilterDriverApi() override {
        if (driver_ != nullptr) close_(driver_);
        if (module_ != nullptr) FreeLibrary(module_);
    }

    NdisApiFilterDriverApi(const NdisApiFilterDriverApi&) = delete;
    NdisApiFilterDriverApi& operator=(const NdisApiFilterDriverApi&) = delete;

    bool IsDriverLoaded() override { return driver_ != nullptr && isDriverLoaded_(driver_) != FALSE; }

    bool GetTcpipBoundAdaptersInfo(TCP_AdapterList* list) override {
        return driver_ != nullptr && getAdapters_(driver_, list) != FALSE;
    }

    bool SetAdapterMode(const ADAPTER_MODE* mode) override {
        if (driver_ == nullptr) return false;
        ADAPTER_MODE copy = *mode;
        return setAdapterMode_(driver_, &copy) != FALSE;
    }

    bool GetHwPacketFilter(NdisApi::Handle adapter, uint32_t* filter) override {
        if (driver_ == nullptr) return false;
        DWORD value = 0;
        if (getHwFilter_(driver_, ToHandle(adapter), &value) == FALSE) return false;
        *filter = value;
        return true;
    }

    bool SetHwPacketFilter(NdisApi::Handle adapter, uint32_t filter) override {
        return driver_ != nullptr && setHwFilter_(driver_, ToHandle(adapter), filter) != FALSE;
    }

    bool SetPacketFilterTable(const STATIC_FILTER_TABLE* table) override {
        return driver_ != nullptr && setFilterTable_(driver_, const_cast<STATIC_FILTER_TABLE*>(table)) != FALSE;
    }

    bool SetPacketEvent(NdisApi::Handle adapter, NdisApi::Handle event) override {
        return driver_ != nullptr && setPacketEvent_(driver_, ToHandle(adapter), ToHandle(event)) != FALSE;
    }

    bool ReadPacket(ETH_REQUEST* request) override { return driver_ != nullptr && readPacket_(driver_, request) != FALSE; }

    // The driver only reads the request; the DLL's prototypes are not const.
    bool SendPacketToAdapter(const ETH_REQUEST* request) override {
        return driver_ != nullptr && sendToAdapter_(driver_, const_cast<ETH_REQUEST*>(request)) != FALSE;
    }

    bool SendPacketToMstcp(const ETH_REQUEST* request) override {
        return driver_ != nullptr && sendToMstcp_(driver_, const_cast<ETH_REQUEST*>(request)) != FALSE;
    }

    bool FlushAdapterPacketQueue(NdisApi::Handle adapter) override {
        return driver_ != nullptr && flush_(driver_, ToHandle(adapter)) != FALSE;
    }

    NdisApi::Handle CreateAdapterEvent(NdisApi::Handle) override { return Platform::CreateAutoResetEvent(); }

    void CloseAdapterEvent(NdisApi::Handle, NdisApi::Handle event) override { (void)Platform::CloseEvent(event); }

private:
    HMODULE module_ = nullptr;
    HANDLE driver_ = nullptr;
    OpenFilterDriverFn open_ = nullptr;
    CloseFilterDriverFn close_ = nullptr;
    IsDriverLoadedFn isDriverLoaded_ = nullptr;
    GetTcpipBoundAdaptersInfoFn getAdapters_ = nullptr;
    SetAdapterModeFn setAdapterMode_ = nullptr;
    GetHwPacketFilterFn getHwFilter_ = nullptr;
    SetHwPacketFilterFn setHwFilter_ = nullptr;
    SetPacketFilterTableFn setFilterTable_ = nullptr;
    SetPacketEventFn setPacketEvent_ = nullptr;
    ReadPacketFn readPacket_ = nullptr;
    SendPacketFn sendToAdapter_ = nullptr;
    SendPacketFn sendToMstcp_ = nullptr;
    FlushAdapterPacketQueueFn flush_ = nullptr;
};

}  // namespace

std::unique_ptr<NativeNetworkDriver::IFilterDriverApi> CreateWindowsFilterDriverApi() {
    return std::make_unique<NdisApiFilterDriverApi>();
}

}  // namespace Platform
