#include "FilterDriver/FilterDriverApiAdapter.h"

#include <algorithm>
#include <cstring>
#include <utility>

FilterDriverApiAdapter::FilterDriverApiAdapter() : api_(NativeNetworkDriver::CreateFilterDriverApi()) {}

FilterDriverApiAdapter::FilterDriverApiAdapter(std::unique_ptr<NativeNetworkDriver::IFilterDriverApi> api)
    : api_(std::move(api)) {}

FilterDriverApiAdapter::~FilterDriverApiAdapter() {
    if (!api_) return;
    for (const auto& [adapter, event] : adapterEvents_) {
        if (event != 0) api_->CloseAdapterEvent(adapter, event);
    }
    adapterEvents_.clear();
}

NdisApi::Handle FilterDriverApiAdapter::FindAdapterHandle(const std::string& guidText, std::vector<uint8_t>* macOut) {
    if (!api_) return 0;
    // About 10 KiB: kept off the capture and control threads' stacks.
    auto list = std::make_unique<NdisApi::TCP_AdapterList>();
    std::memset(list.get(), 0, sizeof(*list));
    if (!api_->GetTcpipBoundAdaptersInfo(list.get())) return 0;
    const uint32_t count = list->m_nAdapterCount < NdisApi::kAdapterListSize ? list->m_nAdapterCount
                                                                             : NdisApi::kAdapterListSize;
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t* name = list->m_szAdapterNameList[i];
        const uint8_t* end = std::find(name, name + NdisApi::kAdapterNameSize, uint8_t{0});
        const std::string internalName(name, end);
        if (internalName.find(guidText) == std::string::npos) continue;

        const NdisApi::Handle adapter = list->m_nAdapterHandle[i];
        if (macOut != nullptr) macOut->assign(list->m_czCurrentAddress[i], list->m_czCurrentAddress[i] + 6);
        // A second lookup of the same adapter replaces its event; the old one goes first
        // because a backend may hand out the same descriptor again.
        auto found = adapterEvents_.find(adapter);
        if (found != adapterEvents_.end() && found->second != 0) api_->CloseAdapterEvent(adapter, found->second);
        adapterEvents_[adapter] = api_->CreateAdapterEvent(adapter);
        return adapter;
    }
    return 0;
}

void FilterDriverApiAdapter::ReleaseAdapterEvent(NdisApi::Handle adapter) {
    if (!api_) return;
    (void)api_->SetPacketEvent(adapter, 0);
    auto found = adapterEvents_.find(adapter);
    if (found == adapterEvents_.end()) return;
    if (found->second != 0) api_->CloseAdapterEvent(adapter, found->second);
    adapterEvents_.erase(found);
}

NdisApi::Handle FilterDriverApiAdapter::AdapterEvent(NdisApi::Handle adapter) const {
    auto found = adapterEvents_.find(adapter);
    return found == adapterEvents_.end() ? 0 : found->second;
}

bool FilterDriverApiAdapter::IsDriverLoaded() { return api_ && api_->IsDriverLoaded(); }
bool FilterDriverApiAdapter::GetTcpipBoundAdaptersInfo(NdisApi::TCP_AdapterList* list) {
    return api_ && api_->GetTcpipBoundAdaptersInfo(list);
}
bool FilterDriverApiAdapter::SetAdapterMode(const NdisApi::ADAPTER_MODE* mode) {
    return api_ && api_->SetAdapterMode(mode);
}
bool FilterDriverApiAdapter::GetHwPacketFilter(NdisApi::Handle adapter, uint32_t* filter) {
    return api_ && api_->GetHwPacketFilter(adapter, filter);
}
bool FilterDriverApiAdapter::SetHwPacketFilter(NdisApi::Handle adapter, uint32_t filter) {
    return api_ && api_->SetHwPacketFilter(adapter, filter);
}
bool FilterDriverApiAdapter::SetPacketFilterTable(const NdisApi::STATIC_FILTER_TABLE* table) {
    return api_ && api_->SetPacketFilterTable(table);
}
bool FilterDriverApiAdapter::SetPacketEvent(NdisApi::Handle adapter, NdisApi::Handle event) {
    return api_ && api_->SetPacketEvent(adapter, event);
}
bool FilterDriverApiAdapter::ReadPacket(NdisApi::ETH_REQUEST* request) { return api_ && api_->ReadPacket(request); }
size_t FilterDriverApiAdapter::ReadPackets(NdisApi::Handle adapter, NativeNetworkDriver::CapturedFrame* frames,
                                           size_t count) {
    return api_ ? api_->ReadPackets(adapter, frames, count) : 0;
}
bool FilterDriverApiAdapter::SendFrame(NdisApi::Handle adapter, const uint8_t* frame, size_t length,
                                       const Nat::FrameOffload& offload, bool toStack) {
    return api_ && api_->SendFrame(adapter, frame, length, offload, toStack);
}
bool FilterDriverApiAdapter::SendPacketToAdapter(const NdisApi::ETH_REQUEST* request) {
    return api_ && api_->SendPacketToAdapter(request);
}
bool FilterDriverApiAdapter::SendPacketToMstcp(const NdisApi::ETH_REQUEST* request) {
    return api_ && api_->SendPacketToMstcp(request);
}
bool FilterDriverApiAdapter::FlushAdapterPacketQueue(NdisApi::Handle adapter) {
    return api_ && api_->FlushAdapterPacketQueue(adapter);
}
