#pragma once
// What a start request asks of a session, in the engine's own records. The control layer
// builds these from its messages, so the sessions never see the wire format.
#include <cstdint>
#include <set>
#include <vector>

#include "Nat/NatTypes.h"

namespace NativeNetworkDriver {

struct IcsSettings {
    Nat::AdapterInfo sharedAdapter;
    std::vector<Nat::AdapterInfo> internalAdapters;
    Nat::ProxyInfo proxy;
    std::vector<std::vector<uint8_t>> macWhiteList;
    uint32_t tcpPoolSize = 0;
    uint32_t udpPoolSize = 0;
    uint32_t entryTimeoutMs = 0;
};

struct NatSettings {
    std::vector<Nat::RedirectRule> rules;
    std::vector<Nat::AdapterMapping> mappings;
    Nat::ProxyInfo proxy;
    std::vector<std::vector<uint8_t>> macWhiteList;
    uint32_t tcpPoolSize = 0;
    uint32_t udpPoolSize = 0;
    uint32_t entryTimeoutMs = 0;
    // The rules' published ports, held in the system so that no local program takes them.
    std::set<uint32_t> customTcpPorts;
    std::set<uint32_t> customUdpPorts;
};

}  // namespace NativeNetworkDriver
