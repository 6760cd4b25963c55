#include "FilterDriver/FilterDriver.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "Logging/Logger.h"
#include "Platform/Events.h"

namespace NativeNetworkDriver {

namespace {

constexpr uint32_t kTunnelMode =
    NdisApi::MSTCP_FLAG_SENT_TUNNEL | NdisApi::MSTCP_FLAG_RECV_TUNNEL | NdisApi::MSTCP_FLAG_LOOPBACK_BLOCK;

// A refused open step: logged where it happens, then reported by Open's own handler.
struct OpenStepFailed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace

FilterDriver::FilterDriver(std::string guid, IFilterDriverDataRead* reader)
    : guid_(std::move(guid)), mac_(6, 0), reader_(reader) {}

FilterDriver::~FilterDriver() {
    try {
        if (opened_) {
            Close();
        } else if (captureThread_.joinable()) {
            // A second Open clears `opened` on a running adapter; it still has to stop.
            StopAndRestore();
        }
    } catch (...) {
    }
    api_.reset();
    packetEvent_.reset();
    // Never opened, or opened without a thread: nobody else closed the quit event.
    quitEvent_.Close();
}

void FilterDriver::Open() {
    bool startedHere = false;
    bool hwFilterChanged = false;
    bool modeChanged = false;
    try {
        if (opened_) {
            throw std::runtime_error("Error opening the virtual Ethernet adapter (GUID: " + guid_ +
                                     "): it is already opened.");
        }
        startedHere = true;
        opened_ = true;
        Log("Opening virtual Ethernet adapter (GUID: " + guid_ + ").", LogLevel::Info);

        api_ = std::make_unique<FilterDriverApiAdapter>();
        adapterHandle_ = 0;
        if (!api_->IsDriverLoaded()) {
            Log("Error in OpenFilterDriver() of Virtual Ethernet adapter (GUID: " + guid_ + ").", LogLevel::Debug);
            throw OpenStepFailed("driver not loaded");
        }

        Log("Initializing adapter handle.", LogLevel::Info);
        adapterHandle_ = api_->FindAdapterHandle(guid_, &mac_);
        if (adapterHandle_ == 0) {
            Log("Not found adapter handle of Virtual Ethernet adapter (GUID: " + guid_ + ").", LogLevel::Debug);
            throw OpenStepFailed("adapter not found");
        }
        Log("New Virtual Ethernet adapter (GUID: " + guid_ + ") found!", LogLevel::Debug);

        Log("Setting adapter mode.", LogLevel::Info);
        savedHwFilter_ = 0;
        if (!api_->GetHwPacketFilter(adapterHandle_, &savedHwFilter_)) {
            Log("Failed to get current packet filter from the network interface.", LogLevel::Debug);
            throw OpenStepFailed("get packet filter");
        }
        if (!api_->SetHwPacketFilter(adapterHandle_, NdisApi::NDIS_PACKET_TYPE_PROMISCUOUS)) {
            Log("Failed to set promiscuous mode for the network interface.", LogLevel::Debug);
            throw OpenStepFailed("set packet filter");
        }
        hwFilterChanged = true;
        const NdisApi::ADAPTER_MODE mode{adapterHandle_, kTunnelMode};
        if (!api_->SetAdapterMode(&mode)) {
            Log("Failed to set adapter mode for the network interface.", LogLevel::Debug);
            throw OpenStepFailed("set adapter mode");
        }
        modeChanged = true;

        Log("Setting adapter filters.", LogLevel::Info);
        InstallFilterTable();

        stopping_ = false;
        captureThread_ = std::thread([this] { CaptureThread(); });
        Log("Virtual Ethernet adapter (GUID: " + guid_ + ") opened.", LogLevel::Info);
    } catch (...) {
        Log("Error opening Virtual Ethernet adapter (GUID: " + guid_ + ").", LogLevel::Info);
        // Give back what this call changed, so a refused open never leaves the adapter
        // promiscuous or cut off in tunnel mode with nobody reading.
        if (startedHere && api_ && adapterHandle_ != 0) {
            if (modeChanged) {
                const NdisApi::ADAPTER_MODE normal{adapterHandle_, 0};
                (void)api_->SetAdapterMode(&normal);
            }
            if (hwFilterChanged) (void)api_->SetHwPacketFilter(adapterHandle_, savedHwFilter_);
            api_->ReleaseAdapterEvent(adapterHandle_);
        }
        opened_ = false;
    }
}

void FilterDriver::InstallFilterTable() {
    auto* table = static_cast<NdisApi::STATIC_FILTER_TABLE*>(std::malloc(sizeof(NdisApi::STATIC_FILTER_TABLE)));
    if (table == nullptr) {
        Log("Failed to allocate enough memory for filtersTable", LogLevel::Error);
        return;
    }
    std::memset(table, 0, sizeof(*table));
    table->m_TableSize = 1;
    NdisApi::STATIC_FILTER& filter = table->m_StaticFilters[0];
    // The driver matches the adapter by the handle's low half.
    filter.m_Adapter = adapterHandle_ & 0xFFFFFFFFull;
    filter.m_dwDirectionFlags = NdisApi::PACKET_FLAG_ON_SEND_RECEIVE;
    filter.m_FilterAction = NdisApi::FILTER_PACKET_REDIRECT;
    filter.m_ValidFields = 0;  // matches every packet
    (void)api_->SetPacketFilterTable(table);
    std::free(table);
}

void FilterDriver::CaptureThread() {
    try {
        Log("Starting CaptureThread of virtual Ethernet adapter (GUID: " + guid_ + ").", LogLevel::Info);
        if (!quitEvent_.IsValid()) {
            Log("Failed to create quit notification event for virtual Ethernet adapter (GUID: " + guid_ + ").",
                LogLevel::Debug);
            throw std::runtime_error("no quit event");
        }
        const NdisApi::Handle event = api_->AdapterEvent(adapterHandle_);
        if (event != 0) (void)api_->SetPacketEvent(adapterHandle_, event);
        packetEvent_.emplace(event);
        if (!packetEvent_->IsValid()) {
            Log("Failed to create notification event or set it for virtual Ethernet adapter (GUID: " + guid_ + ").",
                LogLevel::Debug);
            throw std::runtime_error("no packet event");
        }
        WaitHandle* const waits[2] = {&quitEvent_, &*packetEvent_};

        // The frames' vectors keep their capacity from batch to batch (or are swapped for
        // the reader's), so reading allocates nothing once the first batches are in.
        std::array<CapturedFrame, kCaptureBatch> batch;
        for (CapturedFrame& frame : batch) frame.bytes.reserve(Nat::kMaxFrameSize);
        Log("CaptureThread of virtual Ethernet adapter (GUID: " + guid_ + ") started.", LogLevel::Info);

        while (WaitAny(waits) == 1) {
            for (size_t read; !stopping_ && (read = api_->ReadPackets(adapterHandle_, batch.data(), batch.size())) > 0;) {
                if (reader_ != nullptr) reader_->OnFramesRead(batch.data(), read, this);
            }
        }
        Log("Quit event received in CaptureThread", LogLevel::Info);
    } catch (...) {
        Log("Error in CaptureThread of Virtual Ethernet adapter (GUID: " + guid_ + ").", LogLevel::Info);
    }
}

void FilterDriver::Close() {
    if (!opened_) {
        throw std::runtime_error("Error closing the virtual Ethernet adapter (GUID: " + guid_ +
                                 "): it has not been opened.");
    }
    opened_ = false;
    StopAndRestore();
}

void FilterDriver::StopAndRestore() {
    stopping_ = true;
    if (quitEvent_.IsValid()) (void)Platform::SetEvent(quitEvent_.Handle());
    if (captureThread_.joinable()) captureThread_.join();
    // Closed only once the thread is gone, so no wait can meet a reused handle. The event
    // is spent: this object is opened once.
    quitEvent_.Close();
    stopping_ = false;

    const NdisApi::ADAPTER_MODE normal{adapterHandle_, 0};
    (void)api_->SetAdapterMode(&normal);
    Log("Closing virtual Ethernet adapter (GUID: " + guid_ + ").", LogLevel::Info);
    (void)api_->FlushAdapterPacketQueue(adapterHandle_);
    (void)api_->SetHwPacketFilter(adapterHandle_, savedHwFilter_);
    api_->ReleaseAdapterEvent(adapterHandle_);
    packetEvent_.reset();
    Log("Virtual Ethernet adapter (GUID: " + guid_ + ") closed.", LogLevel::Info);
}

void FilterDriver::WriteFrame(const Nat::Frame& frame, uint32_t target, const Nat::FrameOffload& offload) {
    WriteFrame(frame.data(), static_cast<uint32_t>(frame.size() > UINT32_MAX ? UINT32_MAX : frame.size()), target,
               offload);
}

void FilterDriver::WriteFrame(const uint8_t* frame, uint32_t length, uint32_t target,
                              const Nat::FrameOffload& offload) {
    if (!opened_ || (frame == nullptr && length != 0)) return;
    try {
        const size_t limit = offload.IsSuperFrame() ? Nat::kMaxSuperFrameSize : NdisApi::kMaxEtherFrame;
        if (length > limit) {
            Log("The frame size exceeds the max ethernet frame size: " + std::to_string(length) + "." +
                    " The packet will be dropped.", LogLevel::Error);
            return;
        }
        switch (target) {
            case ToAdapter:
                (void)api_->SendFrame(adapterHandle_, frame, length, offload, false);
                break;
            case ToStack:
                (void)api_->SendFrame(adapterHandle_, frame, length, offload, true);
                break;
            case ToBoth:
                (void)api_->SendFrame(adapterHandle_, frame, length, offload, false);
                (void)api_->SendFrame(adapterHandle_, frame, length, offload, true);
                break;
            default:
                break;
        }
    } catch (...) {
        Log("Error in WriteFrame of Virtual Ethernet adapter (GUID: " + guid_ + ").", LogLevel::Debug);
    }
}

}  // namespace NativeNetworkDriver
