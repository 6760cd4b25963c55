#include "NetworkDriver/SessionSettings.h"

#include <limits>

#include "Packet/IpProtocol.h"

namespace NativeNetworkDriver {

IcsSettings ToIcsSettings(const StartICSRequest& request) {
    IcsSettings out;
    out.sharedAdapter = ToEngineAdapter(request.sharedAdapter);
    for (const auto& a : request.internalAdapters) out.internalAdapters.push_back(ToEngineAdapter(a));
    out.proxy = ToEngineProxy(request.proxy);
    out.macWhiteList = request.MacAddressWhiteList;
    out.tcpPoolSize = request.TcpPortPoolSize;
    out.udpPoolSize = request.UdpPortPoolSize;
    out.entryTimeoutMs = TimeoutToMilliseconds(request.IcsTableEntryTimeout);
    return out;
}

NatSettings ToNatSettings(const StartNATRequest& request) {
    NatSettings out;
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
        out.rules.push_back(rule);
        (r.protocol == Nat::IpProtocol::kTcp ? out.customTcpPorts : out.customUdpPorts).insert(r.fromPort);
    }
    for (const auto& m : request.mappings) out.mappings.push_back({ToEngineAdapter(m.external), ToEngineAdapter(m.internal)});
    out.proxy = ToEngineProxy(request.proxy);
    out.macWhiteList = request.MacAddressWhiteList;
    out.tcpPoolSize = request.TcpPortPoolSize;
    out.udpPoolSize = request.UdpPortPoolSize;
    out.entryTimeoutMs = TimeoutToMilliseconds(request.DNatTableEntryTimeout);
    return out;
}

Nat::AdapterInfo ToEngineAdapter(const AdapterInfo& a) {
    Nat::AdapterInfo out;
    out.id = a.ID;
    out.name = a.name;
    out.mac = a.MAC;
    for (const auto& ip : a.IPs) out.ips.push_back({ip.address, ip.mask});
    out.gatewayMac = a.GWMAC;
    out.gatewayIp = a.GWIP;
    return out;
}

Nat::ProxyInfo ToEngineProxy(const ProxyInfo& p) {
    Nat::ProxyInfo out;
    out.hasProxy = p.hasProxy;
    out.mac = p.ProxyMacAddress;
    out.ip = p.ProxyIpAddress;
    out.port = p.ProxyPort;
    return out;
}

uint32_t TimeoutToMilliseconds(uint32_t seconds) {
    constexpr uint32_t kMax = std::numeric_limits<uint32_t>::max();
    return seconds > kMax / 1000 ? kMax : seconds * 1000;
}

}  // namespace NativeNetworkDriver
