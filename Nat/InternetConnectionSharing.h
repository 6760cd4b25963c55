#pragma once
// Connection sharing: the hosts behind the internal adapters reach the network of one
// shared adapter through translation. No redirect rules; one mapping per internal
// adapter; traffic between private networks is left alone.
#include "Nat/NetworkAddressTranslator.h"

namespace Nat {

class InternetConnectionSharing : public NetworkAddressTranslator {
public:
    InternetConnectionSharing(const std::vector<uint32_t>& tcpPorts, const std::vector<uint32_t>& udpPorts,
                              uint32_t entryTimeoutMs, AdapterInfo sharedAdapter,
                              std::vector<AdapterInfo> internalAdapters, ProxyInfo proxy,
                              std::vector<std::vector<uint8_t>> macWhiteList,
                              NativeNetworkDriver::IArpCache* arpCache, Clock clock = {});
    ~InternetConnectionSharing() override;

    Decision ClassifyInternalPacket(const FrameView& view) override;

    static bool IsPrivateAddress(const Ipv4Address& ip);
};

}  // namespace Nat
