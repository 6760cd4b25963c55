#include "Sessions/ICS.h"

#include "Nat/InternetConnectionSharing.h"

namespace NativeNetworkDriver {

ICS::ICS(FilterDriversPublisher* publisher, IArpCache* arpCache, const IcsSettings& ics)
    : TranslationSession("ICS", publisher, arpCache) {
    OpenSettings settings;
    settings.tcpPoolSize = ics.tcpPoolSize;
    settings.udpPoolSize = ics.udpPoolSize;
    settings.externalAdapters.push_back(ics.sharedAdapter);
    settings.internalAdapters = ics.internalAdapters;
    Open(settings, [&](const std::vector<uint32_t>& tcp, const std::vector<uint32_t>& udp) {
        return std::make_unique<Nat::InternetConnectionSharing>(tcp, udp, ics.entryTimeoutMs, ics.sharedAdapter,
                                                                settings.internalAdapters, ics.proxy,
                                                                ics.macWhiteList, arpCache);
    });
}

}  // namespace NativeNetworkDriver
