#pragma once
#include <set>
#include <string>

#include "Packet/Frame.h"
#include "Packet/IFilterDriversSubscriber.h"

namespace NativeNetworkDriver {

// What the ARP cache needs of the publisher, which sits above it: subscribing to the
// adapters its sessions watch, and offering the frames it held back once their next hop
// is known. Implemented by FilterDriversPublisher.
class IFrameDispatcher {
public:
    virtual ~IFrameDispatcher() = default;
    // False when an adapter cannot be opened; the GUIDs before it stay registered.
    virtual bool Register(IFilterDriversSubscriber* subscriber, const std::set<std::string>& guids) = 0;
    virtual void Unregister(IFilterDriversSubscriber* subscriber) = 0;
    virtual void Unregister(IFilterDriversSubscriber* subscriber, const std::set<std::string>& guids) = 0;
    // Offers a copy of one wire frame to the subscribers of adapter guid on the calling
    // thread, as captured in the given direction; a subscriber may call it re-entrantly.
    virtual void Dispatch(const std::string& guid, const Nat::Frame& frame, bool isSend) = 0;
};

}  // namespace NativeNetworkDriver
