#pragma once
// Control messages from the native side, their nested records, how they decode and
// encode, and the text each one is logged with.
#include <cstdint>
#include <string>
#include <vector>

#include "NetworkDriver/Encoding.h"

namespace NativeNetworkDriver {

enum MessageType : uint32_t {
    kInitializeConfiguration = 1,
    kVpnFrame = 2,
    kStartVPN = 3,
    kAddSupervisorMACToVPN = 4,
    kRemoveSupervisorMACFromVPN = 5,
    kStopVPN = 6,
    kStartICS = 7,
    kStopICS = 8,
    kStartNAT = 9,
    kStopNAT = 10,
};

struct IpEntry {
    Bytes address;
    Bytes mask;
};

struct AdapterInfo {
    std::string ID;
    std::string name;
    Bytes MAC;
    std::vector<IpEntry> IPs;
    Bytes GWMAC;
    Bytes GWIP;
};

struct ProxyInfo {
    bool hasProxy = false;
    Bytes ProxyMacAddress;
    uint32_t ProxyPort = 0;
    Bytes ProxyIpAddress;
};

// One accepted source range: first = low address, second = high address, third = mask.
struct FromIpRange {
    Bytes low;
    Bytes high;
    Bytes mask;
};

struct RedirectRule {
    AdapterInfo fromAdapter;
    uint32_t fromPort = 0;
    uint32_t protocol = 6;
    AdapterInfo toAdapter;
    Bytes toIP;
    uint32_t toPort = 0;
    bool translateSource = false;
    bool httpHostFieldTranslation = false;
    bool ftpSupport = false;
    std::vector<FromIpRange> fromIPs;
};

// (external adapter, internal adapter)
struct AdapterMapping {
    AdapterInfo external;
    AdapterInfo internal;
};

struct InitializeConfigurationRequest {
    bool HandleVirtualMachine = false;
};

struct StartVPNRequest {
    Bytes SupervisorMACAddress;
    bool VpnPromiscuousMode = false;
    std::vector<Bytes> guids;
};

struct AddSupervisorMACToVPNRequest {
    Bytes SupervisorMACAddress;
    bool VpnPromiscuousMode = false;
};

struct RemoveSupervisorMACFromVPNRequest {
    Bytes SupervisorMACAddress;
};

struct StartICSRequest {
    AdapterInfo sharedAdapter;
    std::vector<AdapterInfo> internalAdapters;
    ProxyInfo proxy;
    std::vector<Bytes> MacAddressWhiteList;
    uint32_t TcpPortPoolSize = 0;
    uint32_t UdpPortPoolSize = 0;
    uint32_t IcsTableEntryTimeout = 0;
};

struct StartNATRequest {
    std::vector<RedirectRule> rules;
    std::vector<AdapterMapping> mappings;
    ProxyInfo proxy;
    std::vector<Bytes> MacAddressWhiteList;
    uint32_t TcpPortPoolSize = 0;
    uint32_t UdpPortPoolSize = 0;
    uint32_t DNatTableEntryTimeout = 0;
    uint32_t ReservedPortPoolLowerBound = 0;
    uint32_t ReservedPortPoolUpperBound = 0;
};

// Decoding: every payload starts with one skipped byte; malformed input throws.
InitializeConfigurationRequest DecodeInitializeConfigurationRequest(const Bytes& payload);
StartVPNRequest DecodeStartVPNRequest(const Bytes& payload);
AddSupervisorMACToVPNRequest DecodeAddSupervisorMACToVPNRequest(const Bytes& payload);
RemoveSupervisorMACFromVPNRequest DecodeRemoveSupervisorMACFromVPNRequest(const Bytes& payload);
StartICSRequest DecodeStartICSRequest(const Bytes& payload);
StartNATRequest DecodeStartNATRequest(const Bytes& payload);

// Encoding, the mirror image, for the native-side peer and the tests.
Bytes Encode(const InitializeConfigurationRequest& request);
Bytes Encode(const StartVPNRequest& request);
Bytes Encode(const AddSupervisorMACToVPNRequest& request);
Bytes Encode(const RemoveSupervisorMACFromVPNRequest& request);
Bytes Encode(const StartICSRequest& request);
Bytes Encode(const StartNATRequest& request);
// A result answer: leading 0, then Enum32 result.
Bytes EncodeResult(uint32_t result);

// Log lines, exactly as written at INFO.
std::string ToLogLine(const InitializeConfigurationRequest& request);
std::string ToLogLine(const StartVPNRequest& request);
std::string ToLogLine(const AddSupervisorMACToVPNRequest& request);
std::string ToLogLine(const RemoveSupervisorMACFromVPNRequest& request);
std::string ToLogLine(const StartICSRequest& request);
std::string ToLogLine(const StartNATRequest& request);

// "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}" of the Windows GUID layout.
std::string FormatGuid(const Bytes& guid);
std::string FormatMac(const Bytes& mac);
std::string FormatIp(const Bytes& ip);

}  // namespace NativeNetworkDriver
