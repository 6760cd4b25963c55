#pragma once
#include <optional>
#include <set>
#include <string>

#include "Packet/Frame.h"

namespace NativeNetworkDriver {
class ArpTable;

// What a NAT or ICS session sees of the shared ARP cache.
class IArpCache {
public:
    virtual ~IArpCache() = default;
    // `session` only identifies the caller; `adapterGuids` are the adapters to watch.
    virtual bool RegisterDrivers(const void* session, const std::set<std::string>& adapterGuids) = 0;
    virtual void UnregisterDrivers(const void* session) = 0;
    virtual ArpTable* GetArpTable() = 0;
};

}  // namespace NativeNetworkDriver

namespace Nat {

// Receives frames held for an unknown MAC once the address is resolved.
class IResolvedPacketSubscriber {
public:
    virtual ~IResolvedPacketSubscriber() = default;
    virtual void OnResolvedFragments(const std::set<Frame>& fragments, const std::string& adapterGuid) = 0;
    virtual void OnResolvedFrame(const Frame& frame, const std::string& adapterGuid) = 0;
};

}  // namespace Nat
