#pragma once
#include <atomic>
#include <deque>
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
#include "FilterDriver/IFilterDriversSubscriber.h"
#include "FilterDriver/WaitHandle.h"
#include "Packet/Frame.h"

namespace NativeNetworkDriver {

struct QueuedFrame {
    Nat::Frame frame;
    bool isSend = false;  // true: the frame left the local stack
    std::string guid;
};

// The one way sessions reach adapters. Each subscribed adapter is opened once and shared;
// captured frames are queued and offered, on one dispatch thread, to the adapter's
// subscribers in subscription order. A frame nobody consumes goes on in its direction.
//
// Locks: subscribersLock (re-entrant) before adaptersLock; the queue lock is never held
// with another. Subscribers are called with subscribersLock held, so they must not
// Register or Unregister from a callback, but may send and look up adapters.
class FilterDriversPublisher : public IFilterDriverDataRead {
public:
    FilterDriversPublisher();  // starts the dispatch thread
    ~FilterDriversPublisher() override;

    FilterDriversPublisher(const FilterDriversPublisher&) = delete;
    FilterDriversPublisher& operator=(const FilterDriversPublisher&) = delete;

    // Opens the adapters not open yet. False when one cannot be opened; the GUIDs before
    // it stay registered.
    bool Register(IFilterDriversSubscriber* subscriber, const std::set<std::string>& guids);
    void Unregister(IFilterDriversSubscriber* subscriber);
    void Unregister(IFilterDriversSubscriber* subscriber, const std::set<std::string>& guids);

    // To the wire of one adapter the subscriber is registered on.
    void SendToAdapter(IFilterDriversSubscriber* subscriber, const std::string& guid, const Nat::Frame& frame);
    // To wire and stack of every adapter the subscriber is registered on.
    void SendToAllAdapters(IFilterDriversSubscriber* subscriber, const Nat::Frame& frame);
    // The same with a chosen target. False when the subscriber is not registered on an
    // open adapter of that GUID.
    bool WriteToAdapter(IFilterDriversSubscriber* subscriber, const std::string& guid, const Nat::Frame& frame,
                        WriteTarget target);
    void WriteToAllAdapters(IFilterDriversSubscriber* subscriber, const Nat::Frame& frame, WriteTarget target);

    // The first adapter (in GUID order) the subscriber is registered on whose own MAC is
    // the first 6 bytes of macOrFrame; empty if none.
    std::string FindGuidByMac(IFilterDriversSubscriber* subscriber, const Nat::Frame& macOrFrame);

    // Offers one frame to its adapter's subscribers on the calling thread.
    void Dispatch(const QueuedFrame& item);

    void SetHandleVirtualMachine(bool flag) { handleVirtualMachine_ = flag; }
    bool HandleVirtualMachine() const { return handleVirtualMachine_; }

    // Capture threads.
    void OnDataRead(const uint8_t* frame, uint32_t length, FilterDriver* source, bool isSend) override;

    // True while the dispatch thread takes frames (frames captured otherwise are dropped).
    bool IsDispatchRunning();

private:
    struct AdapterEntry {
        std::unique_ptr<FilterDriver> driver;
        std::vector<IFilterDriversSubscriber*> subscribers;  // in subscription order, may repeat
    };

    bool StartDispatchThread();
    void DispatchThread();
    void DispatchCaught(const QueuedFrame& item);
    void PassOn(FilterDriver* driver, const Nat::Frame& frame, bool isSend);
    bool Offer(AdapterEntry& entry, const QueuedFrame& item);
    bool OfferFragments(AdapterEntry& entry, const Nat::FragmentList& fragments, const QueuedFrame& item);
    void CloseAdapter(const std::string& guid);

    std::recursive_mutex subscribersLock_;
    std::recursive_mutex adaptersLock_;
    std::mutex queueLock_;
    std::map<std::string, AdapterEntry> adapters_;
    bool dispatchRunning_ = false;  // under queueLock_
    std::deque<QueuedFrame> queue_;
    AutoResetEvent workEvent_;
    AutoResetEvent quitEvent_;
    std::thread dispatchThread_;
    std::atomic<bool> quitting_{false};  // lets the destructor cut a long drain short
    std::atomic<bool> handleVirtualMachine_{false};
    std::mutex fragmentsLock_;
    FragmentCollector fragments_;
};

}  // namespace NativeNetworkDriver
