#include "FilterDriver/FilterDriversPublisher.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

#include "Logging/Logger.h"
#include "Packet/NatException.h"
#include "Platform/Events.h"
#include "Platform/Platform.h"

namespace NativeNetworkDriver {

namespace {

constexpr uint32_t kDropLogIntervalMs = 1000;

bool Holds(const std::vector<IFilterDriversSubscriber*>& subscribers, const IFilterDriversSubscriber* subscriber) {
    return std::find(subscribers.begin(), subscribers.end(), subscriber) != subscribers.end();
}

}  // namespace

FilterDriversPublisher::FilterDriversPublisher() : ring_(kQueueFrames) {
    // Room for a wire frame in every slot from the start: wire frames never allocate.
    for (QueuedFrame& slot : ring_) slot.frame.reserve(Nat::kMaxFrameSize);
    (void)StartDispatchThread();
}

bool FilterDriversPublisher::StartDispatchThread() {
    // Marked running before the thread starts: frames captured in between wait in the
    // queue instead of being dropped.
    if (workEvent_.IsValid() && quitEvent_.IsValid()) {
        std::lock_guard lock(queueLock_);
        dispatchRunning_ = true;
    }
    dispatchThread_ = std::thread([this] { DispatchThread(); });
    try {
        if (!workEvent_.IsValid() || !quitEvent_.IsValid()) throw std::runtime_error("dispatch events");
        return true;
    } catch (...) {
        Log("Error opening Dispatch thread events.", LogLevel::Debug);
        return false;
    }
}

FilterDriversPublisher::~FilterDriversPublisher() {
    quitting_ = true;
    if (quitEvent_.IsValid()) (void)Platform::SetEvent(quitEvent_.Handle());
    if (dispatchThread_.joinable()) dispatchThread_.join();
    quitEvent_.Close();
    {
        std::lock_guard lock(queueLock_);
        dispatchRunning_ = false;
        count_ = 0;
        queuedBytes_ = 0;
    }
    {
        std::lock_guard subscribers(subscribersLock_);
        std::lock_guard adapters(adaptersLock_);
        adapters_.clear();  // each FilterDriver closes its adapter and joins its capture thread
    }
    {
        std::lock_guard lock(fragmentsLock_);
        fragments_.Clear();
    }
    // Only now: capture threads set this event until their drivers are gone.
    workEvent_.Close();
}

bool FilterDriversPublisher::IsDispatchRunning() {
    std::lock_guard lock(queueLock_);
    return dispatchRunning_;
}

void FilterDriversPublisher::DispatchThread() {
    if (!workEvent_.IsValid() || !quitEvent_.IsValid()) {
        Log("Error in DispatchThread: NULL events", LogLevel::Debug);
        return;
    }
    WaitHandle* const waits[2] = {&quitEvent_, &workEvent_};
    try {
        while (WaitAny(waits) == 1) {
            while (!quitting_) {
                size_t first = 0;
                size_t taken = 0;
                {
                    std::lock_guard lock(queueLock_);
                    first = head_;
                    taken = std::min(count_, kDispatchBatch);
                }
                if (taken == 0) break;
                // Capture threads only append behind count_, so these stay ours until freed.
                size_t bytes = 0;
                {
                    std::lock_guard subscribers(subscribersLock_);
                    for (size_t i = 0; i < taken; ++i) {
                        QueuedFrame& item = ring_[(first + i) % ring_.size()];
                        bytes += item.queuedBytes;
                        if (item.source != nullptr) DispatchCaught(item);
                    }
                }
                std::lock_guard lock(queueLock_);
                head_ = (head_ + taken) % ring_.size();
                count_ -= taken;
                queuedBytes_ -= bytes;
            }
        }
        Log("Quit event received in DispatchThread", LogLevel::Debug);
    } catch (const std::exception& e) {
        Log(std::string("Error in DispatchThread: ") + e.what(), LogLevel::Debug);
    }
    std::lock_guard lock(queueLock_);
    dispatchRunning_ = false;
}

// A subscriber's error costs its frame, not the dispatch thread.
void FilterDriversPublisher::DispatchCaught(QueuedFrame& item) {
    auto found = adapters_.begin();
    while (found != adapters_.end() && found->second.driver.get() != item.source) ++found;
    if (found == adapters_.end()) return;
    const std::string& guid = found->first;
    try {
        DispatchFrame(guid, found->second, item.frame, item.offload, item.isSend);
    } catch (const Nat::Exception& e) {
        Log("Error dispatching a frame of adapter " + guid + ": " + e.Message(), LogLevel::Debug);
    } catch (const std::exception& e) {
        Log("Error dispatching a frame of adapter " + guid + ": " + e.what(), LogLevel::Debug);
    } catch (...) {
        Log("Error dispatching a frame of adapter " + guid + ".", LogLevel::Debug);
    }
}

bool FilterDriversPublisher::Register(IFilterDriversSubscriber* subscriber, const std::set<std::string>& guids) {
    std::lock_guard subscribers(subscribersLock_);
    std::lock_guard adapters(adaptersLock_);
    for (const std::string& guid : guids) {
        if (guid.empty()) continue;
        auto found = adapters_.find(guid);
        if (found != adapters_.end()) {
            found->second.subscribers.push_back(subscriber);
            continue;
        }
        auto driver = std::make_unique<FilterDriver>(guid, this);
        driver->Open();
        if (!driver->IsOpened()) {
            Log("Error opening Virtual Ethernet adapter GUID: " + guid + ").", LogLevel::Debug);
            return false;
        }
        AdapterEntry entry;
        entry.driver = std::move(driver);
        entry.subscribers.push_back(subscriber);
        adapters_.emplace(guid, std::move(entry));
    }
    return true;
}

void FilterDriversPublisher::CloseAdapter(const std::string& guid) {
    auto found = adapters_.find(guid);
    if (found == adapters_.end()) return;
    const FilterDriver* driver = found->second.driver.get();
    adapters_.erase(found);  // the FilterDriver closes its adapter and joins its capture thread
    {
        // Its frames still queued must not reach an adapter opened later at the same address.
        std::lock_guard lock(queueLock_);
        for (size_t i = 0; i < count_; ++i) {
            QueuedFrame& item = ring_[(head_ + i) % ring_.size()];
            if (item.source == driver) item.source = nullptr;
        }
    }
    std::lock_guard lock(fragmentsLock_);
    fragments_.Forget(guid);
}

void FilterDriversPublisher::Unregister(IFilterDriversSubscriber* subscriber) {
    std::lock_guard subscribers(subscribersLock_);
    std::lock_guard adapters(adaptersLock_);
    std::vector<std::string> emptied;
    for (auto& [guid, entry] : adapters_) {
        auto found = std::find(entry.subscribers.begin(), entry.subscribers.end(), subscriber);
        if (found == entry.subscribers.end()) continue;
        entry.subscribers.erase(found);
        if (entry.subscribers.empty()) emptied.push_back(guid);
    }
    for (const std::string& guid : emptied) CloseAdapter(guid);
}

void FilterDriversPublisher::Unregister(IFilterDriversSubscriber* subscriber, const std::set<std::string>& guids) {
    std::lock_guard subscribers(subscribersLock_);
    std::lock_guard adapters(adaptersLock_);
    for (const std::string& guid : guids) {
        auto entry = adapters_.find(guid);
        if (entry == adapters_.end()) continue;
        auto& list = entry->second.subscribers;
        auto found = std::find(list.begin(), list.end(), subscriber);
        if (found == list.end()) continue;
        list.erase(found);
        if (list.empty()) CloseAdapter(guid);
    }
}

bool FilterDriversPublisher::WriteToAdapter(IFilterDriversSubscriber* subscriber, const std::string& guid,
                                            const Nat::Frame& frame, WriteTarget target,
                                            const Nat::FrameOffload& offload) {
    std::lock_guard adapters(adaptersLock_);
    auto found = adapters_.find(guid);
    if (found == adapters_.end() || !Holds(found->second.subscribers, subscriber)) return false;
    FilterDriver* driver = found->second.driver.get();
    if (driver == nullptr || !driver->IsOpened()) return false;
    driver->WriteFrame(frame, target, offload);
    return true;
}

void FilterDriversPublisher::WriteToAllAdapters(IFilterDriversSubscriber* subscriber, const Nat::Frame& frame,
                                                WriteTarget target) {
    std::lock_guard adapters(adaptersLock_);
    for (auto& [guid, entry] : adapters_) {
        if (!Holds(entry.subscribers, subscriber)) continue;
        if (entry.driver && entry.driver->IsOpened()) entry.driver->WriteFrame(frame, target);
    }
}

void FilterDriversPublisher::SendToAdapter(IFilterDriversSubscriber* subscriber, const std::string& guid,
                                           const Nat::Frame& frame, const Nat::FrameOffload& offload) {
    (void)WriteToAdapter(subscriber, guid, frame, ToAdapter, offload);
}

void FilterDriversPublisher::SendToAllAdapters(IFilterDriversSubscriber* subscriber, const Nat::Frame& frame) {
    WriteToAllAdapters(subscriber, frame, ToBoth);
}

std::string FilterDriversPublisher::FindGuidByMac(IFilterDriversSubscriber* subscriber, const Nat::Frame& macOrFrame) {
    std::lock_guard adapters(adaptersLock_);
    for (const auto& [guid, entry] : adapters_) {
        if (!Holds(entry.subscribers, subscriber) || !entry.driver) continue;
        if (Nat::IsAddressedTo(macOrFrame, entry.driver->Mac())) return guid;
    }
    return {};
}

void FilterDriversPublisher::OnDataRead(const uint8_t* frame, uint32_t length, FilterDriver* source, bool isSend) {
    if (source == nullptr || (frame == nullptr && length != 0)) return;
    CapturedFrame captured;
    captured.bytes.assign(frame, frame + length);
    captured.isSend = isSend;
    OnFramesRead(&captured, 1, source);
}

void FilterDriversPublisher::OnFramesRead(CapturedFrame* frames, size_t count, FilterDriver* source) {
    if (source == nullptr || count == 0) return;
    // Group frames go on at once, whatever the subscribers are doing; they are still
    // queued so that subscribers see them.
    for (size_t i = 0; i < count; ++i) {
        const CapturedFrame& f = frames[i];
        if (Nat::IsGroupFrame(f.bytes.data(), f.bytes.size())) {
            source->WriteFrame(f.bytes, f.isSend ? ToAdapter : ToStack, f.offload);
        }
    }

    size_t queued = 0;
    uint64_t dropped = 0;
    {
        std::lock_guard lock(queueLock_);
        if (!dispatchRunning_) return;
        for (size_t i = 0; i < count; ++i) {
            CapturedFrame& f = frames[i];
            const size_t size = f.bytes.size();
            if (count_ == ring_.size() || queuedBytes_ + size > kQueueBytes) {
                ++dropped;
                continue;
            }
            QueuedFrame& slot = ring_[(head_ + count_) % ring_.size()];
            slot.frame.swap(f.bytes);  // the capture thread reads into the vector it gets back
            slot.offload = f.offload;
            slot.isSend = f.isSend;
            slot.source = source;
            slot.queuedBytes = size;
            ++count_;
            queuedBytes_ += size;
            ++queued;
        }
        droppedTotal_ += dropped;
        droppedUnlogged_ += dropped;
        dropped = droppedUnlogged_;
        if (dropped != 0) {
            const uint32_t now = Platform::TickCount();
            if (now - lastDropLogTick_ >= kDropLogIntervalMs) {
                lastDropLogTick_ = now;
                droppedUnlogged_ = 0;
            } else {
                dropped = 0;
            }
        }
    }
    if (queued != 0) (void)Platform::SetEvent(workEvent_.Handle());
    if (dropped != 0) LogDrops(dropped);
}

void FilterDriversPublisher::LogDrops(uint64_t dropped) {
    Log("The frame queue is full: " + std::to_string(dropped) + " frames dropped.", LogLevel::Error);
}

uint64_t FilterDriversPublisher::DroppedFrames() {
    std::lock_guard lock(queueLock_);
    return droppedTotal_;
}

bool FilterDriversPublisher::Offer(AdapterEntry& entry, const std::string& guid, Nat::Frame& frame,
                                   const Nat::FrameView& view, const Nat::FrameOffload& offload, bool isSend) {
    // By index: a subscriber that re-enters Dispatch must not invalidate this walk.
    for (size_t i = 0; i < entry.subscribers.size(); ++i) {
        IFilterDriversSubscriber* subscriber = entry.subscribers[i];
        const bool consumed = isSend ? subscriber->OnSentFrame(frame, view, offload, guid)
                                     : subscriber->OnReceivedFrame(frame, view, offload, guid);
        if (consumed) return true;
    }
    return false;
}

bool FilterDriversPublisher::OfferFragments(AdapterEntry& entry, const std::string& guid,
                                            Nat::FragmentList& fragments, const Nat::FrameView& head, bool isSend) {
    for (size_t i = 0; i < entry.subscribers.size(); ++i) {
        IFilterDriversSubscriber* subscriber = entry.subscribers[i];
        const bool consumed = isSend ? subscriber->OnSentFragments(fragments, head, guid)
                                     : subscriber->OnReceivedFragments(fragments, head, guid);
        if (consumed) return true;
    }
    return false;
}

void FilterDriversPublisher::Dispatch(const std::string& guid, const Nat::Frame& frame, bool isSend) {
    std::lock_guard subscribers(subscribersLock_);
    auto found = adapters_.find(guid);
    if (found == adapters_.end()) return;
    Nat::Frame copy = frame;
    DispatchFrame(found->first, found->second, copy, {}, isSend);
}

void FilterDriversPublisher::DispatchFrame(const std::string& guid, AdapterEntry& entry, Nat::Frame& frame,
                                           const Nat::FrameOffload& offload, bool isSend) {
    // The one read of the frame: the collector and every subscriber work from this view.
    const Nat::FrameView view = Nat::ReadFrameView(frame);
    if (offload.Any() || !view.IsFragment() || !view.Collectable()) {
        if (!Offer(entry, guid, frame, view, offload, isSend)) PassOn(entry.driver.get(), frame, offload, isSend);
        return;
    }

    FragmentCollector::Result collected;
    {
        std::lock_guard lock(fragmentsLock_);
        collected = fragments_.Add(guid, isSend, frame, view);
    }
    for (const auto& givenUp : collected.givenUp) {
        auto owner = adapters_.find(givenUp.guid);
        if (owner == adapters_.end()) continue;
        for (const auto& fragment : givenUp.fragments) PassOn(owner->second.driver.get(), fragment, {}, givenUp.isSend);
    }
    if (!collected.complete) return;
    if (OfferFragments(entry, guid, collected.fragments, collected.head, isSend)) return;
    for (const auto& fragment : collected.fragments) PassOn(entry.driver.get(), fragment, {}, isSend);
}

void FilterDriversPublisher::PassOn(FilterDriver* driver, const Nat::Frame& frame, const Nat::FrameOffload& offload,
                                    bool isSend) {
    if (driver == nullptr) return;
    if (Nat::IsGroupFrame(frame.data(), frame.size())) return;  // already passed on at capture
    // Unicast for other hosts reaches the local stack only when virtual machines behind
    // it are being served.
    if (!isSend && !handleVirtualMachine_ && !Nat::IsAddressedTo(frame, driver->Mac())) return;
    driver->WriteFrame(frame, isSend ? ToAdapter : ToStack, offload);
}

}  // namespace NativeNetworkDriver
