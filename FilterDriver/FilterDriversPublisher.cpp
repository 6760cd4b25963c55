#include "FilterDriver/FilterDriversPublisher.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

#include "Logging/Logger.h"
#include "Packet/NatException.h"
#include "Platform/Events.h"

namespace NativeNetworkDriver {

namespace {

constexpr int kDebug = 0;

bool IsGroupFrame(const uint8_t* frame, size_t length) { return length >= 6 && (frame[0] & 0x01) != 0; }

bool Holds(const std::vector<IFilterDriversSubscriber*>& subscribers, const IFilterDriversSubscriber* subscriber) {
    return std::find(subscribers.begin(), subscribers.end(), subscriber) != subscribers.end();
}

bool StartsWithMac(const Nat::Frame& frame, const std::vector<uint8_t>& mac) {
    return mac.size() == 6 && frame.size() >= 6 && std::equal(mac.begin(), mac.end(), frame.begin());
}

}  // namespace

FilterDriversPublisher::FilterDriversPublisher() { (void)StartDispatchThread(); }

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
        Log("Error opening Dispatch thread events.", kDebug);
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
        queue_.clear();
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
        Log("Error in DispatchThread: NULL events", kDebug);
        return;
    }
    WaitHandle* const waits[2] = {&quitEvent_, &workEvent_};
    try {
        while (WaitAny(waits) == 1) {
            std::unique_lock lock(queueLock_);
            while (!queue_.empty() && !quitting_) {
                QueuedFrame item = std::move(queue_.front());
                queue_.pop_front();
                lock.unlock();
                DispatchCaught(item);
                lock.lock();
            }
        }
        Log("Quit event received in DispatchThread", kDebug);
    } catch (const std::exception& e) {
        Log(std::string("Error in DispatchThread: ") + e.what(), kDebug);
    }
    std::lock_guard lock(queueLock_);
    dispatchRunning_ = false;
}

// A subscriber's error costs its frame, not the dispatch thread.
void FilterDriversPublisher::DispatchCaught(const QueuedFrame& item) {
    try {
        Dispatch(item);
    } catch (const Nat::Exception& e) {
        Log("Error dispatching a frame of adapter " + item.guid + ": " + e.Message(), kDebug);
    } catch (const std::exception& e) {
        Log("Error dispatching a frame of adapter " + item.guid + ": " + e.what(), kDebug);
    } catch (...) {
        Log("Error dispatching a frame of adapter " + item.guid + ".", kDebug);
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
            Log("Error opening Virtual Ethernet adapter GUID: " + guid + ").", kDebug);
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
    adapters_.erase(found);  // the FilterDriver closes its adapter
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
                                            const Nat::Frame& frame, WriteTarget target) {
    std::lock_guard adapters(adaptersLock_);
    auto found = adapters_.find(guid);
    if (found == adapters_.end() || !Holds(found->second.subscribers, subscriber)) return false;
    FilterDriver* driver = found->second.driver.get();
    if (driver == nullptr || !driver->IsOpened()) return false;
    driver->WriteFrame(frame, target);
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
                                           const Nat::Frame& frame) {
    (void)WriteToAdapter(subscriber, guid, frame, ToAdapter);
}

void FilterDriversPublisher::SendToAllAdapters(IFilterDriversSubscriber* subscriber, const Nat::Frame& frame) {
    WriteToAllAdapters(subscriber, frame, ToBoth);
}

std::string FilterDriversPublisher::FindGuidByMac(IFilterDriversSubscriber* subscriber, const Nat::Frame& macOrFrame) {
    std::lock_guard adapters(adaptersLock_);
    for (const auto& [guid, entry] : adapters_) {
        if (!Holds(entry.subscribers, subscriber) || !entry.driver) continue;
        if (StartsWithMac(macOrFrame, entry.driver->Mac())) return guid;
    }
    return {};
}

void FilterDriversPublisher::OnDataRead(const uint8_t* frame, uint32_t length, FilterDriver* source, bool isSend) {
    if (source == nullptr || (frame == nullptr && length != 0)) return;
    // Group frames go on at once, whatever the subscribers are doing; they are still
    // queued so that subscribers see them.
    if (IsGroupFrame(frame, length)) source->WriteFrame(frame, length, isSend ? ToAdapter : ToStack);

    std::lock_guard lock(queueLock_);
    if (!dispatchRunning_) return;
    queue_.push_back(QueuedFrame{Nat::Frame(frame, frame + length), isSend, source->Guid()});
    (void)Platform::SetEvent(workEvent_.Handle());
}

bool FilterDriversPublisher::Offer(AdapterEntry& entry, const QueuedFrame& item) {
    // By index: a subscriber that re-enters Dispatch must not invalidate this walk.
    for (size_t i = 0; i < entry.subscribers.size(); ++i) {
        IFilterDriversSubscriber* subscriber = entry.subscribers[i];
        const bool consumed = item.isSend ? subscriber->OnSentFrame(item.frame, item.guid)
                                          : subscriber->OnReceivedFrame(item.frame, item.guid);
        if (consumed) return true;
    }
    return false;
}

bool FilterDriversPublisher::OfferFragments(AdapterEntry& entry, const Nat::FragmentList& fragments,
                                            const QueuedFrame& item) {
    for (size_t i = 0; i < entry.subscribers.size(); ++i) {
        IFilterDriversSubscriber* subscriber = entry.subscribers[i];
        const bool consumed = item.isSend ? subscriber->OnSentFragments(fragments, item.guid)
                                          : subscriber->OnReceivedFragments(fragments, item.guid);
        if (consumed) return true;
    }
    return false;
}

void FilterDriversPublisher::Dispatch(const QueuedFrame& item) {
    std::lock_guard subscribers(subscribersLock_);
    auto found = adapters_.find(item.guid);
    if (found == adapters_.end()) return;
    AdapterEntry& entry = found->second;

    FragmentFields fields;
    if (!ReadFragmentFields(item.frame, fields) || !fields.IsFragment()) {
        if (!Offer(entry, item)) PassOn(entry.driver.get(), item.frame, item.isSend);
        return;
    }

    FragmentCollector::Result collected;
    {
        std::lock_guard lock(fragmentsLock_);
        collected = fragments_.Add(item.guid, item.isSend, item.frame, fields);
    }
    for (const auto& givenUp : collected.givenUp) {
        auto owner = adapters_.find(givenUp.guid);
        if (owner == adapters_.end()) continue;
        for (const auto& fragment : givenUp.fragments) PassOn(owner->second.driver.get(), fragment, givenUp.isSend);
    }
    if (!collected.complete) return;
    if (OfferFragments(entry, collected.fragments, item)) return;
    for (const auto& fragment : collected.fragments) PassOn(entry.driver.get(), fragment, item.isSend);
}

void FilterDriversPublisher::PassOn(FilterDriver* driver, const Nat::Frame& frame, bool isSend) {
    if (driver == nullptr) return;
    if (IsGroupFrame(frame.data(), frame.size())) return;  // already passed on at capture
    // Unicast for other hosts reaches the local stack only when virtual machines behind
    // it are being served.
    if (!isSend && !handleVirtualMachine_ && !StartsWithMac(frame, driver->Mac())) return;
    driver->WriteFrame(frame, isSend ? ToAdapter : ToStack);
}

}  // namespace NativeNetworkDriver
