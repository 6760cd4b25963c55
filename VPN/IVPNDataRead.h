#pragma once
#include "Packet/Frame.h"

namespace NativeNetworkDriver {

// Receives the frames the VPN sends towards the tunnel (called from the dispatch thread).
class IVPNDataRead {
public:
    virtual ~IVPNDataRead() = default;
    virtual void OnVPNDataRead(const Nat::Frame& frame) = 0;
};

}  // namespace NativeNetworkDriver
