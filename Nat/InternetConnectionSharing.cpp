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

TranslationKind InternetConnectionSharing::ClassifyInternalPacket(uint8_t protocol, const MacAddress& srcMac,
                                                                  const MacAddress& dstMac, const Ipv4Address& srcIp,
                                                                  const Ipv4Address& dstIp, uint32_t srcPort,
                                                                  uint32_t dstPort) {
    // Name look-ups and proxy traffic are shared even towards private addresses.
    if (dstPort != 53 && !GoesToProxy(dstIp, dstPort) && IsPrivateAddress(dstIp)) return TranslationKind::None;
    return NetworkAddressTranslator::ClassifyInternalPacket(protocol, srcMac, dstMac, srcIp, dstIp, srcPort, dstPort);
}

}  // namespace Nat
