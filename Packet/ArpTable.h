#pragma once
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Packet/Frame.h"
#include "Packet/IArpCache.h"

namespace NativeNetworkDriver {

// IPv4-to-MAC bindings learnt from ARP replies, and frames held until their next hop resolves.
class ArpTable {
public:
    using Clock = std::function<uint32_t()>;  // millisecond ticks; injectable for tests

    explicit ArpTable(Clock clock = {});

    // The MAC of `ip`, or nothing, in which case a copy of the frame (with its fragments,
    // if any) is held for `adapterGuid` until a reply for `ip` arrives. A frame whose
    // transport checksum is partial (offloaded) is held with the checksum completed, since
    // it comes back as a wire frame.
    std::optional<Nat::MacAddress> ResolveOrHold(const Nat::Ipv4Address& ip, const Nat::Frame& frame,
                                                 const std::string& adapterGuid,
                                                 const std::set<Nat::Frame>& fragments = {},
                                                 bool partialChecksum = false);
    void LearnFromArpReply(const Nat::Ipv4Address& ip, const Nat::MacAddress& mac);
    std::string ToString() const;

    // Sets the one receiver of released frames; throws Nat::Exception if one is set already.
    void Subscribe(Nat::IResolvedPacketSubscriber* subscriber);
    void Unsubscribe(Nat::IResolvedPacketSubscriber* subscriber);

private:
    struct UnresolvedPacket {
        Nat::Frame frame;
        std::set<Nat::Frame> fragments;  // a whole fragmented datagram, released as such
        std::string adapterGuid;         // where the frame is offered again
        uint32_t added = 0;
    };
    struct ArpEntry {
        std::optional<Nat::MacAddress> mac;  // empty while unresolved
        std::vector<UnresolvedPacket> packets;
        uint32_t updated = 0;  // creation or last reply
    };

    // Drops stale entries at most every two minutes; the caller holds the lock.
    void Cleanup();
    std::string DumpLocked() const;
    void LogChange(const std::string& what, const Nat::Ipv4Address* ip) const;

    Clock clock_;
    std::map<Nat::Ipv4Address, ArpEntry> entries_;
    uint32_t lastCleanup_ = 0;
    // Re-entrant: released frames travel back through the translator on this thread.
    mutable std::recursive_mutex lock_;
    Nat::IResolvedPacketSubscriber* subscriber_ = nullptr;
};

// A 60-byte broadcast ARP request for targetIp.
Nat::Frame BuildArpRequest(const Nat::MacAddress& senderMac, const Nat::Ipv4Address& senderIp,
                           const Nat::Ipv4Address& targetIp);

}  // namespace NativeNetworkDriver
