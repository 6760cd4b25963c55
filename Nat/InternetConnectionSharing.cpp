#include "Nat/InternetConnectionSharing.h"

namespace Nat {

InternetConnectionSharing::InternetConnectionSharing(const std::vector<uint32_t>& tcpPorts,
                                                     const std::vector<uint32_t>& udpPorts, uint32_t entryTimeoutMs,
                                                     AdapterInfo sharedAdapter,
                                                     std::vector<AdapterInfo> internalAdapters, ProxyInfo proxy,
                                                     std::vector<std::vector<uint8_t>> macWhiteList,
                                                     NativeNetworkDriver::IArpCache* arpCache, Clock clock)
    : NetworkAddressTranslator(tcpPorts, udpPorts, entryTimeoutMs, {}, {}, std::move(proxy), std::move(macWhiteList),
                               arpCache, std::move(clock)) {
    for (AdapterInfo& internal : internalAdapters) mappings_.push_back({sharedAdapter, std::move(internal)});
}

InternetConnectionSharing::~InternetConnectionSharing() = default;

bool InternetConnectionSharing::IsPrivateAddress(const Ipv4Address& ip) {
    return ip[0] == 10 || (ip[0] == 192 && ip[1] == 168) || (ip[0] == 172 && ip[1] >= 16 && ip[1] <= 31);
}

Decision InternetConnectionSharing::ClassifyInternalPacket(const FrameView& view) {
    // Name look-ups and proxy traffic are shared even towards private addresses.
    if (view.dstPort != 53 && !GoesToProxy(view.dstIp, view.dstPort) && IsPrivateAddress(view.dstIp)) return {};
    return NetworkAddressTranslator::ClassifyInternalPacket(view);
}

}  // namespace Nat
