// Windows adapters: those that GetAdaptersAddresses lists, named by GUID text, adapter
// name or friendly name.
#include "SystemAdapters.h"

#include <winsock2.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>
#include <windows.h>

#include <cstring>
#include <stdexcept>
#include <vector>

namespace ndpeer {

using NativeNetworkDriver::Bytes;

namespace {

std::string Narrow(const wchar_t* text) {
    std::string narrow;
    for (const wchar_t* p = text; p != nullptr && *p != 0; ++p) narrow.push_back(static_cast<char>(*p));
    return narrow;
}

Bytes Ipv4Of(const SOCKADDR* address) {
    if (address == nullptr || address->sa_family != AF_INET) return {};
    const auto* p = reinterpret_cast<const uint8_t*>(&reinterpret_cast<const sockaddr_in*>(address)->sin_addr);
    return Bytes(p, p + 4);
}

Bytes MaskOf(unsigned prefixLength) {
    const uint32_t mask = prefixLength == 0 ? 0 : 0xFFFFFFFFu << (32 - (prefixLength > 32 ? 32 : prefixLength));
    return Bytes{static_cast<uint8_t>(mask >> 24), static_cast<uint8_t>(mask >> 16), static_cast<uint8_t>(mask >> 8),
                 static_cast<uint8_t>(mask)};
}

// Calls `visit` with each adapter until it returns true; true when one did.
template <typename Visit>
bool ForEachAdapter(Visit&& visit) {
    ULONG size = 16384;
    std::vector<uint8_t> buffer;
    ULONG result = ERROR_BUFFER_OVERFLOW;
    for (int attempt = 0; attempt < 4 && result == ERROR_BUFFER_OVERFLOW; ++attempt) {
        buffer.resize(size);
        result = GetAdaptersAddresses(AF_INET, GAA_FLAG_INCLUDE_GATEWAYS, nullptr,
                                      reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()), &size);
    }
    if (result != NO_ERROR) return false;
    for (auto* a = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()); a != nullptr; a = a->Next)
        if (visit(*a)) return true;
    return false;
}

bool Names(const IP_ADAPTER_ADDRESSES& a, const std::string& name) {
    return (a.AdapterName != nullptr && _stricmp(a.AdapterName, name.c_str()) == 0) || Narrow(a.FriendlyName) == name;
}

Bytes NeighbourMac(DWORD ifIndex, const Bytes& ip) {
    if (ip.size() != 4) return {};
    ULONG size = 0;
    if (GetIpNetTable(nullptr, &size, FALSE) != ERROR_INSUFFICIENT_BUFFER) return {};
    std::vector<uint8_t> buffer(size);
    auto* table = reinterpret_cast<MIB_IPNETTABLE*>(buffer.data());
    if (GetIpNetTable(table, &size, FALSE) != NO_ERROR) return {};
    for (DWORD i = 0; i < table->dwNumEntries; ++i) {
        const MIB_IPNETROW& row = table->table[i];
        if (row.dwIndex != ifIndex || row.dwPhysAddrLen != 6 || std::memcmp(&row.dwAddr, ip.data(), 4) != 0) continue;
        return Bytes(row.bPhysAddr, row.bPhysAddr + 6);
    }
    return {};
}

}  // namespace

Bytes InterfaceGuid(const std::string& interfaceName) {
    if (auto guid = ParseGuid(interfaceName)) return *guid;
    Bytes guid;
    ForEachAdapter([&](const IP_ADAPTER_ADDRESSES& a) {
        if (!Names(a, interfaceName) || a.AdapterName == nullptr) return false;
        if (auto parsed = ParseGuid(a.AdapterName)) guid = *parsed;
        return !guid.empty();
    });
    if (guid.empty()) throw std::invalid_argument("no network adapter named \"" + interfaceName + "\"");
    return guid;
}

NativeNetworkDriver::AdapterInfo ReadAdapter(const std::string& name) {
    NativeNetworkDriver::AdapterInfo info;
    DWORD ifIndex = 0;
    const bool found = ForEachAdapter([&](const IP_ADAPTER_ADDRESSES& a) {
        const bool byGuid = a.AdapterName != nullptr && ParseGuid(name) && ParseGuid(name) == ParseGuid(a.AdapterName);
        if (!byGuid && !Names(a, name)) return false;
        info.ID = a.AdapterName != nullptr ? a.AdapterName : "";
        if (auto guid = ParseGuid(info.ID)) info.ID = NativeNetworkDriver::FormatGuid(*guid);
        info.name = Narrow(a.FriendlyName);
        if (a.PhysicalAddressLength == 6) info.MAC.assign(a.PhysicalAddress, a.PhysicalAddress + 6);
        for (auto* u = a.FirstUnicastAddress; u != nullptr; u = u->Next) {
            Bytes ip = Ipv4Of(u->Address.lpSockaddr);
            if (!ip.empty()) info.IPs.push_back({ip, MaskOf(u->OnLinkPrefixLength)});
        }
        for (auto* g = a.FirstGatewayAddress; g != nullptr && info.GWIP.empty(); g = g->Next)
            info.GWIP = Ipv4Of(g->Address.lpSockaddr);
        ifIndex = a.IfIndex;
        return true;
    });
    if (!found) throw std::invalid_argument("no network adapter named \"" + name + "\"");
    info.GWMAC = NeighbourMac(ifIndex, info.GWIP);
    return info;
}

}  // namespace ndpeer
