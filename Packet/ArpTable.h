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
    // if any) is held for `adapterGuid` until a reply for `ip` arrives.
    std::optional<Nat::MacAddress> ResolveOrHold(const Nat::Ipv4Address& ip, const Nat::Frame& frame,
                                                 const std::string& adapterGuid,
                                                 const std::set<Nat::Frame>& fragments = {});
    void LearnFromArpReply(const Nat::Ipv4Address& ip, const Nat::MacAddress& mac);
    std::string ToString() const;

    // Sets the one receiver of released frames; throws Nat::Exception if one is set already.
    void Subscribe(Nat::IResolvedPacketSubscriber* subscriber);
    void Unsubscribe(Nat::IResolvedPacketSubscriber* subscriber);

    // (implementation details are the owner's: entries, lock, lastCleanup, Cleanup())
};

// A 60-byte broadcast ARP request for targetIp.
Nat::Frame BuildArpRequest(const Nat::MacAddress& senderMac, const Nat::Ipv4Address& senderIp,
                           const Nat::Ipv4Address& targetIp);

}  // namespace NativeNetworkDriver
