#pragma once
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Packet/IFilterDriversSubscriber.h"
#include "Packet/ArpTable.h"
#include "Packet/IArpCache.h"
#include "Packet/IFrameDispatcher.h"

namespace NativeNetworkDriver {

// Learns bindings from the ARP replies seen on the adapters its sessions watch, and puts
// frames held for an unresolved next hop back into the publisher once the reply is seen.
// Never consumes a frame and never sends one itself.
class ArpCache : public IFilterDriversSubscriber, public IArpCache, public Nat::IResolvedPacketSubscriber {
public:
    // A null publisher gives an inert cache without a table.
    explicit ArpCache(IFrameDispatcher* publisher, ArpTable::Clock clock = {});
    ~ArpCache() override;
    ArpCache(const ArpCache&) = delete;
    ArpCache& operator=(const ArpCache&) = delete;

    bool OnSentFragments(Nat::FragmentList& fragments, const Nat::FrameView&, const std::string& guid) override;
    bool OnSentFrame(Nat::Frame& frame, const Nat::FrameView&,
                     const Nat::FrameOffload& offload, const std::string& guid) override;
    bool OnReceivedFragments(Nat::FragmentList& fragments, const Nat::FrameView&, const std::string& guid) override;
    // Learns from ARP replies; codec errors on runt frames go to the publisher.
    bool OnReceivedFrame(Nat::Frame& frame, const Nat::FrameView&,
                         const Nat::FrameOffload& offload, const std::string& guid) override;

    bool RegisterDrivers(const void* session, const std::set<std::string>& adapterGuids) override;
    void UnregisterDrivers(const void* session) override;
    ArpTable* GetArpTable() override;

    // Released frames are offered again, on the calling thread, as received from the wire.
    void OnResolvedFragments(const std::set<Nat::Frame>& fragments, const std::string& adapterGuid) override;
    void OnResolvedFrame(const Nat::Frame& frame, const std::string& adapterGuid) override;

private:
    std::mutex registrationLock_;  // never held together with the table's lock
    IFrameDispatcher* publisher_;
    std::unique_ptr<ArpTable> table_;
    // A GUID is registered with the publisher while at least one session wants it.
    std::map<std::string, std::vector<const void*>> registrations_;
};

}  // namespace NativeNetworkDriver
