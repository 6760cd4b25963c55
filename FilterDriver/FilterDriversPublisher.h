#pragma once
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "FilterDriver/FilterDriver.h"
#include "FilterDriver/FragmentCollector.h"
#include "FilterDriver/IFilterDriverDataRead.h"
#include "Packet/IFilterDriversSubscriber.h"
#include "FilterDriver/WaitHandle.h"
#include "Packet/Frame.h"
#include "Packet/IFrameDispatcher.h"

namespace NativeNetworkDriver {

// A captured frame waiting for the dispatch thread. The adapter is known by its driver
// (frames of a closed adapter are dropped from the queue when it closes).
struct QueuedFrame {
    Nat::Frame frame;
    Nat::FrameOffload offload;
    bool isSend = false;  // true: the frame left the local stack
    FilterDriver* source = nullptr;
    size_t queuedBytes = 0;
};

// The one way sessions reach adapters. Each subscribed adapter is opened once and shared;
// captured frames are queued and offered, on one dispatch thread, to the adapter's
// subscribers in subscription order. A frame nobody consumes goes on in its direction.
//
// The queue is a ring of kQueueFrames frames and at most kQueueBytes bytes, filled a
// batch at a time by the capture threads (one wake-up of the dispatch thread per batch)
// and drained a batch at a time. Frame vectors are swapped in and out, never copied or
// freed, so nothing is allocated per frame once the vectors have grown. A frame that
// finds the queue full is dropped and counted; the count is logged at most once a second.
//
// Locks: subscribersLock (re-entrant) before adaptersLock before the queue lock; capture
// threads take only the queue lock. Subscribers are called with subscribersLock held, so
// they must not Register or Unregister from a callback, but may send and look up adapters.
class FilterDriversPublisher final : public IFilterDriverDataRead, public IFrameDispatcher {
public:
    FilterDriversPublisher();  // starts the dispatch thread
    ~FilterDriversPublisher() override;

    FilterDriversPublisher(const FilterDriversPublisher&) = delete;
    FilterDriversPublisher& operator=(const FilterDriversPublisher&) = delete;

    // Opens the adapters not open yet. False when one cannot be opened; the GUIDs before
    // it stay registered.
    bool Register(IFilterDriversSubscriber* subscriber, const std::set<std::string>& guids) override;
    void Unregister(IFilterDriversSubscriber* subscriber) override;
    void Unregister(IFilterDriversSubscriber* subscriber, const std::set<std::string>& guids) override;

    static constexpr size_t kQueueFrames = 512;
    static constexpr size_t kQueueBytes = 16 * 1024 * 1024;
    static constexpr size_t kDispatchBatch = 64;

    // To the wire of one adapter the subscriber is registered on.
    void SendToAdapter(IFilterDriversSubscriber* subscriber, const std::string& guid, const Nat::Frame& frame,
                       const Nat::FrameOffload& offload = {});
    // To wire and stack of every adapter the subscriber is registered on.
    void SendToAllAdapters(IFilterDriversSubscriber* subscriber, const Nat::Frame& frame);
    // The same with a chosen target. False when the subscriber is not registered on an
    // open adapter of that GUID.
    bool WriteToAdapter(IFilterDriversSubscriber* subscriber, const std::string& guid, const Nat::Frame& frame,
                        WriteTarget target, const Nat::FrameOffload& offload = {});
    void WriteToAllAdapters(IFilterDriversSubscriber* subscriber, const Nat::Frame& frame, WriteTarget target);

    // The first adapter (in GUID order) the subscriber is registered on whose own MAC is
    // the first 6 bytes of macOrFrame; empty if none.
    std::string FindGuidByMac(IFilterDriversSubscriber* subscriber, const Nat::Frame& macOrFrame);

    // Offers a copy of one wire frame to the subscribers of adapter guid on the calling
    // thread, as captured in the given direction (frames the ARP cache held come back so).
    void Dispatch(const std::string& guid, const Nat::Frame& frame, bool isSend) override;

    void SetHandleVirtualMachine(bool flag) { handleVirtualMachine_ = flag; }
    bool HandleVirtualMachine() const { return handleVirtualMachine_; }

    // Capture threads.
    void OnDataRead(const uint8_t* frame, uint32_t length, FilterDriver* source, bool isSend) override;
    void OnFramesRead(CapturedFrame* frames, size_t count, FilterDriver* source) override;

    // Frames dropped because the queue was full, since construction.
    uint64_t DroppedFrames();

    // True while the dispatch thread takes frames (frames captured otherwise are dropped).
    bool IsDispatchRunning();

private:
    struct AdapterEntry {
        std::unique_ptr<FilterDriver> driver;
        std::vector<IFilterDriversSubscriber*> subscribers;  // in subscription order, may repeat
    };

    bool StartDispatchThread();
    void DispatchThread();
    void DispatchCaught(QueuedFrame& item);
    void DispatchFrame(const std::string& guid, AdapterEntry& entry, Nat::Frame& frame,
                       const Nat::FrameOffload& offload, bool isSend);
    void PassOn(FilterDriver* driver, const Nat::Frame& frame, const Nat::FrameOffload& offload, bool isSend);
    bool Offer(AdapterEntry& entry, const std::string& guid, Nat::Frame& frame, const Nat::FrameView& view,
               const Nat::FrameOffload& offload, bool isSend);
    bool OfferFragments(AdapterEntry& entry, const std::string& guid, Nat::FragmentList& fragments,
                        const Nat::FrameView& head, bool isSend);
    void CloseAdapter(const std::string& guid);
    void LogDrops(uint64_t dropped);

    std::recursive_mutex subscribersLock_;
    std::recursive_mutex adaptersLock_;
    std::mutex queueLock_;
    std::map<std::string, AdapterEntry> adapters_;
    bool dispatchRunning_ = false;  // under queueLock_
    // The queue: count_ frames from head_ on, queuedBytes_ bytes; under queueLock_. The
    // dispatch thread works on the first frames without the lock and only then frees them.
    std::vector<QueuedFrame> ring_;
    size_t head_ = 0;
    size_t count_ = 0;
    size_t queuedBytes_ = 0;
    uint64_t droppedTotal_ = 0;
    uint64_t droppedUnlogged_ = 0;
    uint32_t lastDropLogTick_ = 0;
    AutoResetEvent workEvent_;
    AutoResetEvent quitEvent_;
    std::thread dispatchThread_;
    std::atomic<bool> quitting_{false};  // lets the destructor cut a long drain short
    std::atomic<bool> handleVirtualMachine_{false};
    std::mutex fragmentsLock_;
    FragmentCollector fragments_;
};

}  // namespace NativeNetworkDriver
