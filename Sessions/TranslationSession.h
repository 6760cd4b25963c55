#pragma once
// NAT and ICS sessions as the command dispatch sees them, and the ARP cache they share.
#include <cstdint>
#include <memory>

#include "NetworkDriver/Messages.h"

namespace NativeNetworkDriver {

class FilterDriversPublisher;

class ITranslationSession {
public:
    virtual ~ITranslationSession() = default;
    // 1 when the session came up.
    virtual uint32_t Status() const = 0;
};

class ISharedArpCache {
public:
    virtual ~ISharedArpCache() = default;
};

std::unique_ptr<ISharedArpCache> CreateArpCache(FilterDriversPublisher* publisher);
std::unique_ptr<ITranslationSession> CreateIcsSession(FilterDriversPublisher* publisher, ISharedArpCache* arpCache,
                                                      const StartICSRequest& request);
std::unique_ptr<ITranslationSession> CreateNatSession(FilterDriversPublisher* publisher, ISharedArpCache* arpCache,
                                                      const StartNATRequest& request);

}  // namespace NativeNetworkDriver
