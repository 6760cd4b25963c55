#include "Packet/ArpCache.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Logging/Logger.h"
#include "Packet/PacketUtils.h"

namespace NativeNetworkDriver {

ArpCache::ArpCache(IFrameDispatcher* publisher, ArpTable::Clock clock) : publisher_(publisher) {
    if (publisher_ == nullptr) return;
    Log("Initializing Arp process", LogLevel::Info);
    try {
        table_ = std::make_unique<ArpTable>(std::move(clock));
    } catch (const std::bad_alloc&) {
        Log("Error opening Arp: error initializing Arp process", LogLevel::Debug);
        return;
    }
    table_->Subscribe(this);
    Log("Arp process successfully initialized", LogLevel::Info);
}

ArpCache::~ArpCache() {
    // After this no dispatch can reach the cache: the publisher offers under the same lock.
    if (publisher_ != nullptr) publisher_->Unregister(this);
    if (table_) table_->Unsubscribe(this);
    {
        std::lock_guard lock(registrationLock_);
        registrations_.clear();
    }
    table_.reset();
}

bool ArpCache::OnSentFragments(Nat::FragmentList&, const Nat::FrameView&, const std::string&) { return false; }
bool ArpCache::OnSentFrame(Nat::Frame&, const Nat::FrameView&,
                           const Nat::FrameOffload&, const std::string&) { return false; }
bool ArpCache::OnReceivedFragments(Nat::FragmentList&, const Nat::FrameView&, const std::string&) { return false; }

bool ArpCache::OnReceivedFrame(Nat::Frame& frame, const Nat::FrameView&, const Nat::FrameOffload&,
                               const std::string&) {
    if (!table_ || !Nat::PacketUtils::IsArpReply(frame)) return false;
    const Nat::PacketUtils::Bytes mac = Nat::PacketUtils::GetArpSenderMacAddress(frame);
    const Nat::PacketUtils::Bytes ip = Nat::PacketUtils::GetArpSenderIpAddress(frame);
    Nat::MacAddress senderMac;
    Nat::Ipv4Address senderIp;
    std::copy(mac.begin(), mac.end(), senderMac.begin());
    std::copy(ip.begin(), ip.end(), senderIp.begin());
    table_->LearnFromArpReply(senderIp, senderMac);
    // A reply is also meant for its destination and for other subscribers.
    return false;
}

bool ArpCache::RegisterDrivers(const void* session, const std::set<std::string>& adapterGuids) {
    std::lock_guard lock(registrationLock_);
    std::set<std::string> newGuids;
    for (const std::string& guid : adapterGuids) {
        if (guid.empty()) continue;
        auto found = registrations_.find(guid);
        if (found != registrations_.end()) {
            found->second.push_back(session);
        } else {
            registrations_.emplace(guid, std::vector<const void*>{session});
            newGuids.insert(guid);
        }
    }
    const bool registered = publisher_ != nullptr && publisher_->Register(this, newGuids);
    Log(registered ? "Successfully registered the drivers for Arp cache." : "Unable to register the drivers for Arp cache.",
        LogLevel::Error);
    return registered;
}

void ArpCache::UnregisterDrivers(const void* session) {
    std::lock_guard lock(registrationLock_);
    std::set<std::string> released;
    for (auto it = registrations_.begin(); it != registrations_.end();) {
        auto& sessions = it->second;
        auto found = std::find(sessions.begin(), sessions.end(), session);
        if (found != sessions.end()) sessions.erase(found);
        if (sessions.empty()) {
            released.insert(it->first);
            it = registrations_.erase(it);
        } else {
            ++it;
        }
    }
    if (publisher_ != nullptr) publisher_->Unregister(this, released);
}

ArpTable* ArpCache::GetArpTable() { return table_.get(); }

void ArpCache::OnResolvedFragments(const std::set<Nat::Frame>& fragments, const std::string& adapterGuid) {
    if (publisher_ == nullptr) return;
    for (const Nat::Frame& fragment : fragments) publisher_->Dispatch(adapterGuid, fragment, false);
}

void ArpCache::OnResolvedFrame(const Nat::Frame& frame, const std::string& adapterGuid) {
    if (publisher_ != nullptr) publisher_->Dispatch(adapterGuid, frame, false);
}

}  // namespace NativeNetworkDriver
