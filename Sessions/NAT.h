#pragma once
#include "Sessions/TranslationSession.h"

namespace NativeNetworkDriver {

// Source NAT through the adapter mappings and published ports through the redirect rules.
class NAT : public TranslationSession {
public:
    NAT(FilterDriversPublisher* publisher, IArpCache* arpCache, const NatSettings& nat);
    ~NAT() override { Unsubscribe(); }
};

}  // namespace NativeNetworkDriver
