#include "Sessions/ICS.h"

#include "Nat/InternetConnectionSharing.h"

namespace NativeNetworkDriver {

ICS::ICS(FilterDriversPublisher* publisher, IArpCache* arpCache, const StartICSRequest& request)
    : TranslationSession("ICS", publisher, arpCache) {
    OpenSettings settings;
    settings.tcpPoolSize = request.TcpPortPoolSize;
    settings.udpPoolSize = request.UdpPortPoolSize;
    const Nat::AdapterInfo shared = ToEngineAdapter(request.sharedAdapter);
    settings.externalAdapters.push_back(shared);
    for (const auto& a : request.internalAdapters) settings.internalAdapters.push_back(ToEngineAdapter(a));
    const Nat::ProxyInfo proxy = ToEngineProxy(request.proxy);
    const uint32_t timeout = TimeoutToMilliseconds(request.IcsTableEntryTimeout);
    Open(settings, [&](const std::vector<uint32_t>& tcp, const std::vector<uint32_t>& udp) {
        return std::make_unique<Nat::InternetConnectionSharing>(tcp, udp, timeout, shared, settings.internalAdapters,
                                                                proxy, request.MacAddressWhiteList, arpCache);
    });
}

}  // namespace NativeNetworkDriver
