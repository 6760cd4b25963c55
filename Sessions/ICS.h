#pragma once
#include "Sessions/TranslationSession.h"

namespace NativeNetworkDriver {

// Connection sharing: the hosts behind the internal adapters reach the shared adapter's network.
class ICS : public TranslationSession {
public:
    ICS(FilterDriversPublisher* publisher, IArpCache* arpCache, const IcsSettings& ics);
    ~ICS() override { Unsubscribe(); }
};

}  // namespace NativeNetworkDriver
