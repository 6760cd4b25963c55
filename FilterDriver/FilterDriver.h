#pragma once
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "FilterDriver/FilterDriverApiAdapter.h"
#include "FilterDriver/IFilterDriverDataRead.h"
#include "FilterDriver/WaitHandle.h"
#include "Packet/Frame.h"

namespace NativeNetworkDriver {

// Where WriteFrame sends a frame; any other value sends nothing.
enum WriteTarget : uint32_t {
    ToAdapter = 0,  // out on the wire
    ToStack = 1,    // up into the local TCP/IP stack
    ToBoth = 2,     // wire first, then stack
};

// One adapter under the driver's control: tunnel mode, promiscuous hardware filter, a
// catch-all redirect filter, and a capture thread that hands every diverted frame to the
// reader. Frames are written back towards the wire, the stack, or both.
class FilterDriver {
public:
    FilterDriver(std::string guid, IFilterDriverDataRead* reader);
    ~FilterDriver();

    FilterDriver(const FilterDriver&) = delete;
    FilterDriver& operator=(const FilterDriver&) = delete;

    // Failures are logged and leave the adapter unopened (IsOpened() false).
    void Open();
    // Throws std::runtime_error when the adapter is not open.
    void Close();
    // Safe from any thread; takes no lock. A frame with offload state (a super-frame or a
    // partial checksum) goes out as such where the backend can take it.
    void WriteFrame(const uint8_t* frame, uint32_t length, uint32_t target, const Nat::FrameOffload& offload = {});
    void WriteFrame(const Nat::Frame& frame, uint32_t target, const Nat::FrameOffload& offload = {});

    bool IsOpened() const { return opened_.load(); }
    const std::string& Guid() const { return guid_; }
    // The adapter's own MAC (6 bytes, zero until the adapter is found).
    const std::vector<uint8_t>& Mac() const { return mac_; }
    NdisApi::Handle AdapterHandle() const { return adapterHandle_; }

    // Frames the capture thread reads per driver call.
    static constexpr size_t kCaptureBatch = 32;

private:
    void CaptureThread();
    // Stops the capture thread and gives the adapter back to normal pass-through.
    void StopAndRestore();
    void InstallFilterTable();

    std::string guid_;
    std::vector<uint8_t> mac_;
    NdisApi::Handle adapterHandle_ = 0;
    uint32_t savedHwFilter_ = 0;
    std::thread captureThread_;
    AutoResetEvent quitEvent_;
    std::optional<WaitHandle> packetEvent_;
    std::atomic<bool> opened_{false};
    std::unique_ptr<FilterDriverApiAdapter> api_;
    IFilterDriverDataRead* reader_;
    // Ends a drain of the driver queue early when Close is waiting for the thread.
    std::atomic<bool> stopping_{false};
};

}  // namespace NativeNetworkDriver
