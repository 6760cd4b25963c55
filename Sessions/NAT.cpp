#include "Sessions/NAT.h"

#include "Packet/IpProtocol.h"

namespace NativeNetworkDriver {

NAT::NAT(FilterDriversPublisher* publisher, IArpCache* arpCache, const StartNATRequest& request)
    : TranslationSession("NAT", publisher, arpCache) {
    OpenSettings settings;
    settings.tcpPoolSize = request.TcpPortPoolSize;
    settings.udpPoolSize = request.UdpPortPoolSize;
    std::vector<Nat::RedirectRule> rules;
    for (const auto& r : request.rules) {
        Nat::RedirectRule rule;
        rule.fromAdapter = ToEngineAdapter(r.fromAdapter);
        for (const auto& range : r.fromIPs) rule.fromIp.push_back({range.low, range.high, range.mask});
        rule.fromPort = r.fromPort;
        rule.protocol = static_cast<uint8_t>(r.protocol);
        rule.toAdapter = ToEngineAdapter(r.toAdapter);
        rule.toIp = r.toIP;
        rule.toPort = r.toPort;
        rule.translateSource = r.translateSource;
        rule.httpHostTranslation = r.httpHostFieldTranslation;
        rule.ftpSupport = r.ftpSupport;
        rules.push_back(rule);
        // Traffic arrives on the rule's from-adapter and goes to its to-adapter; the
        // published port is held in the system so that no local program takes it.
        settings.externalAdapters.push_back(rule.fromAdapter);
        settings.internalAdapters.push_back(rule.toAdapter);
        (r.protocol == Nat::IpProtocol::kTcp ? settings.customTcpPorts : settings.customUdpPorts).insert(r.fromPort);
    }
    std::vector<Nat::AdapterMapping> mappings;
    for (const auto& m : request.mappings) {
        mappings.push_back({ToEngineAdapter(m.external), ToEngineAdapter(m.internal)});
        settings.externalAdapters.push_back(mappings.back().external);
        settings.internalAdapters.push_back(mappings.back().internal);
    }
    const Nat::ProxyInfo proxy = ToEngineProxy(request.proxy);
    const uint32_t timeout = TimeoutToMilliseconds(request.DNatTableEntryTimeout);
    Open(settings, [&](const std::vector<uint32_t>& tcp, const std::vector<uint32_t>& udp) {
        return std::make_unique<Nat::NetworkAddressTranslator>(tcp, udp, timeout, rules, mappings, proxy,
                                                               request.MacAddressWhiteList, arpCache);
    });
}

}  // namespace NativeNetworkDriver
