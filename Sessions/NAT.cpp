#include "Sessions/NAT.h"

namespace NativeNetworkDriver {

NAT::NAT(FilterDriversPublisher* publisher, IArpCache* arpCache, const NatSettings& nat)
    : TranslationSession("NAT", publisher, arpCache) {
    OpenSettings settings;
    settings.tcpPoolSize = nat.tcpPoolSize;
    settings.udpPoolSize = nat.udpPoolSize;
    // Traffic arrives on a rule's from-adapter and goes to its to-adapter.
    for (const auto& rule : nat.rules) {
        settings.externalAdapters.push_back(rule.fromAdapter);
        settings.internalAdapters.push_back(rule.toAdapter);
    }
    for (const auto& mapping : nat.mappings) {
        settings.externalAdapters.push_back(mapping.external);
        settings.internalAdapters.push_back(mapping.internal);
    }
    settings.customTcpPorts = nat.customTcpPorts;
    settings.customUdpPorts = nat.customUdpPorts;
    Open(settings, [&](const std::vector<uint32_t>& tcp, const std::vector<uint32_t>& udp) {
        return std::make_unique<Nat::NetworkAddressTranslator>(tcp, udp, nat.entryTimeoutMs, nat.rules, nat.mappings,
                                                               nat.proxy, nat.macWhiteList, arpCache);
    });
}

}  // namespace NativeNetworkDriver
