#include "NetworkDriver/Messages.h"

#include <cstdio>

#include "Logging/NoThousandSep.h"
#include "Packet/IpProtocol.h"
#include "Platform/Adapters.h"

namespace NativeNetworkDriver {

namespace {

const char* BoolText(bool value) { return value ? "true" : "false"; }

IpEntry ReadIpEntry(Decoder& d) {
    d.ReadStructHeader();
    IpEntry e;
    e.address = d.ReadBytes();
    e.mask = d.ReadBytes();
    return e;
}

AdapterInfo ReadAdapterInfo(Decoder& d) {
    d.ReadStructHeader();
    AdapterInfo a;
    a.ID = d.ReadString();
    a.name = d.ReadString();
    a.MAC = d.ReadBytes();
    a.IPs = d.ReadList<IpEntry>(ReadIpEntry);
    a.GWMAC = d.ReadBytes();
    a.GWIP = d.ReadBytes();
    return a;
}

ProxyInfo ReadProxyInfo(Decoder& d) {
    d.ReadStructHeader();
    ProxyInfo p;
    p.hasProxy = d.ReadBool();
    p.ProxyMacAddress = d.ReadBytes();
    p.ProxyPort = d.ReadUInt32();
    p.ProxyIpAddress = d.ReadBytes();
    return p;
}

FromIpRange ReadFromIpRange(Decoder& d) {
    d.ReadStructHeader();
    FromIpRange r;
    r.low = d.ReadBytes();
    r.high = d.ReadBytes();
    r.mask = d.ReadBytes();
    return r;
}

RedirectRule ReadRedirectRule(Decoder& d) {
    d.ReadStructHeader();
    RedirectRule r;
    r.fromAdapter = ReadAdapterInfo(d);
    r.fromPort = d.ReadUInt32();
    r.protocol = d.ReadEnum32();
    r.toAdapter = ReadAdapterInfo(d);
    r.toIP = d.ReadBytes();
    r.toPort = d.ReadUInt32();
    r.translateSource = d.ReadBool();
    r.httpHostFieldTranslation = d.ReadBool();
    r.ftpSupport = d.ReadBool();
    r.fromIPs = d.ReadList<FromIpRange>(ReadFromIpRange);
    return r;
}

AdapterMapping ReadAdapterMapping(Decoder& d) {
    d.ReadStructHeader();
    AdapterMapping m;
    m.external = ReadAdapterInfo(d);
    m.internal = ReadAdapterInfo(d);
    return m;
}

Bytes ReadMac(Decoder& d) { return d.ReadBytes(); }

void WriteIpEntry(Encoder& e, const IpEntry& ip) { e.StructHeader(2).Bytes(ip.address).Bytes(ip.mask); }

void WriteAdapterInfo(Encoder& e, const AdapterInfo& a) {
    e.StructHeader(6).String(a.ID).String(a.name).Bytes(a.MAC).ListHeader(static_cast<int32_t>(a.IPs.size()));
    for (const auto& ip : a.IPs) WriteIpEntry(e, ip);
    e.Bytes(a.GWMAC).Bytes(a.GWIP);
}

void WriteProxyInfo(Encoder& e, const ProxyInfo& p) {
    e.StructHeader(4).Bool(p.hasProxy).Bytes(p.ProxyMacAddress).UInt32(p.ProxyPort).Bytes(p.ProxyIpAddress);
}

void WriteRedirectRule(Encoder& e, const RedirectRule& r) {
    e.StructHeader(10);
    WriteAdapterInfo(e, r.fromAdapter);
    e.UInt32(r.fromPort).Enum32(r.protocol);
    WriteAdapterInfo(e, r.toAdapter);
    e.Bytes(r.toIP).UInt32(r.toPort).Bool(r.translateSource).Bool(r.httpHostFieldTranslation).Bool(r.ftpSupport);
    e.ListHeader(static_cast<int32_t>(r.fromIPs.size()));
    for (const auto& range : r.fromIPs) e.StructHeader(3).Bytes(range.low).Bytes(range.high).Bytes(range.mask);
}

void WriteMacList(Encoder& e, const std::vector<Bytes>& macs) {
    e.ListHeader(static_cast<int32_t>(macs.size()));
    for (const auto& mac : macs) e.Bytes(mac);
}

void LogAdapter(TorvUtils::LogStream& s, const AdapterInfo& a) {
    s << "Adapter: " << a.name << " ID: " << a.ID << ", MAC: " << FormatMac(a.MAC) << ", IPs: ";
    for (size_t i = 0; i < a.IPs.size(); ++i)
        s << (i ? " " : "") << FormatIp(a.IPs[i].address) << "/" << FormatIp(a.IPs[i].mask);
    s << ", GW MAC: " << FormatMac(a.GWMAC) << ", GW IP: " << FormatIp(a.GWIP);
}

void LogProxy(TorvUtils::LogStream& s, const ProxyInfo& p) {
    s << "Has proxy? " << BoolText(p.hasProxy) << ", ProxyMacAddress: " << FormatMac(p.ProxyMacAddress)
      << ", ProxyPort: " << p.ProxyPort << ", ProxyIpAddress: " << FormatIp(p.ProxyIpAddress);
}

void LogWhiteList(TorvUtils::LogStream& s, const std::vector<Bytes>& macs) {
    s << "MacAddressWhiteList: ";
    if (macs.empty()) s << "empty";
    for (size_t i = 0; i < macs.size(); ++i) s << (i ? " " : "") << FormatMac(macs[i]);
}

}  // namespace

std::string FormatGuid(const Bytes& g) {
    if (g.size() != 16) return {};
    char text[40];
    const uint32_t data1 = static_cast<uint32_t>(g[0]) | static_cast<uint32_t>(g[1]) << 8 |
                           static_cast<uint32_t>(g[2]) << 16 | static_cast<uint32_t>(g[3]) << 24;
    const unsigned data2 = static_cast<unsigned>(g[4] | g[5] << 8);
    const unsigned data3 = static_cast<unsigned>(g[6] | g[7] << 8);
    std::snprintf(text, sizeof(text), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", data1, data2, data3, g[8],
                  g[9], g[10], g[11], g[12], g[13], g[14], g[15]);
    return text;
}

std::string FormatMac(const Bytes& mac) {
    std::string text;
    char part[4];
    for (size_t i = 0; i < mac.size(); ++i) {
        std::snprintf(part, sizeof(part), i ? ":%02x" : "%02x", mac[i]);
        text += part;
    }
    return text;
}

std::string FormatIp(const Bytes& ip) {
    if (ip.size() != 4) return FormatMac(ip);
    return std::to_string(ip[0]) + "." + std::to_string(ip[1]) + "." + std::to_string(ip[2]) + "." +
           std::to_string(ip[3]);
}

InitializeConfigurationRequest DecodeInitializeConfigurationRequest(const Bytes& payload) {
    Decoder d(payload, 1);
    return {d.ReadBool()};
}

StartVPNRequest DecodeStartVPNRequest(const Bytes& payload) {
    Decoder d(payload, 1);
    StartVPNRequest r;
    r.SupervisorMACAddress = d.ReadBytes();
    r.VpnPromiscuousMode = d.ReadBool();
    r.guids = d.ReadList<Bytes>([](Decoder& e) { return e.ReadGuid(); });
    return r;
}

AddSupervisorMACToVPNRequest DecodeAddSupervisorMACToVPNRequest(const Bytes& payload) {
    Decoder d(payload, 1);
    AddSupervisorMACToVPNRequest r;
    r.SupervisorMACAddress = d.ReadBytes();
    r.VpnPromiscuousMode = d.ReadBool();
    return r;
}

RemoveSupervisorMACFromVPNRequest DecodeRemoveSupervisorMACFromVPNRequest(const Bytes& payload) {
    Decoder d(payload, 1);
    return {d.ReadBytes()};
}

StartICSRequest DecodeStartICSRequest(const Bytes& payload) {
    Decoder d(payload, 1);
    StartICSRequest r;
    r.sharedAdapter = ReadAdapterInfo(d);
    r.internalAdapters = d.ReadList<AdapterInfo>(ReadAdapterInfo);
    r.proxy = ReadProxyInfo(d);
    r.MacAddressWhiteList = d.ReadList<Bytes>(ReadMac);
    r.TcpPortPoolSize = d.ReadUInt32();
    r.UdpPortPoolSize = d.ReadUInt32();
    r.IcsTableEntryTimeout = d.ReadUInt32();
    return r;
}

StartNATRequest DecodeStartNATRequest(const Bytes& payload) {
    Decoder d(payload, 1);
    StartNATRequest r;
    r.rules = d.ReadList<RedirectRule>(ReadRedirectRule);
    r.mappings = d.ReadList<AdapterMapping>(ReadAdapterMapping);
    r.proxy = ReadProxyInfo(d);
    r.MacAddressWhiteList = d.ReadList<Bytes>(ReadMac);
    r.TcpPortPoolSize = d.ReadUInt32();
    r.UdpPortPoolSize = d.ReadUInt32();
    r.DNatTableEntryTimeout = d.ReadUInt32();
    r.ReservedPortPoolLowerBound = d.ReadUInt32();
    r.ReservedPortPoolUpperBound = d.ReadUInt32();
    return r;
}

Bytes Encode(const InitializeConfigurationRequest& r) { return Encoder::Payload().Bool(r.HandleVirtualMachine).Take(); }

Bytes Encode(const StartVPNRequest& r) {
    Encoder e = Encoder::Payload();
    e.Bytes(r.SupervisorMACAddress).Bool(r.VpnPromiscuousMode).ListHeader(static_cast<int32_t>(r.guids.size()));
    for (const auto& guid : r.guids) e.Bytes(guid);
    return e.Take();
}

Bytes Encode(const AddSupervisorMACToVPNRequest& r) {
    return Encoder::Payload().Bytes(r.SupervisorMACAddress).Bool(r.VpnPromiscuousMode).Take();
}

Bytes Encode(const RemoveSupervisorMACFromVPNRequest& r) {
    return Encoder::Payload().Bytes(r.SupervisorMACAddress).Take();
}

Bytes Encode(const StartICSRequest& r) {
    Encoder e = Encoder::Payload();
    WriteAdapterInfo(e, r.sharedAdapter);
    e.ListHeader(static_cast<int32_t>(r.internalAdapters.size()));
    for (const auto& a : r.internalAdapters) WriteAdapterInfo(e, a);
    WriteProxyInfo(e, r.proxy);
    WriteMacList(e, r.MacAddressWhiteList);
    e.UInt32(r.TcpPortPoolSize).UInt32(r.UdpPortPoolSize).UInt32(r.IcsTableEntryTimeout);
    return e.Take();
}

Bytes Encode(const StartNATRequest& r) {
    Encoder e = Encoder::Payload();
    e.ListHeader(static_cast<int32_t>(r.rules.size()));
    for (const auto& rule : r.rules) WriteRedirectRule(e, rule);
    e.ListHeader(static_cast<int32_t>(r.mappings.size()));
    for (const auto& m : r.mappings) {
        e.StructHeader(2);
        WriteAdapterInfo(e, m.external);
        WriteAdapterInfo(e, m.internal);
    }
    WriteProxyInfo(e, r.proxy);
    WriteMacList(e, r.MacAddressWhiteList);
    e.UInt32(r.TcpPortPoolSize).UInt32(r.UdpPortPoolSize).UInt32(r.DNatTableEntryTimeout);
    e.UInt32(r.ReservedPortPoolLowerBound).UInt32(r.ReservedPortPoolUpperBound);
    return e.Take();
}

Bytes EncodeResult(uint32_t result) { return Encoder::Payload().Enum32(result).Take(); }

std::string ToLogLine(const InitializeConfigurationRequest& r) {
    return std::string("Received InitializeConfigurationRequest message: HandleVirtualMachine: ") +
           BoolText(r.HandleVirtualMachine);
}

std::string ToLogLine(const StartVPNRequest& r) {
    TorvUtils::LogStream s;
    s << "Received StartVPNRequest message: SupervisorMACAddress: " << FormatMac(r.SupervisorMACAddress)
      << ", VpnPromiscuousMode: " << BoolText(r.VpnPromiscuousMode);
    for (const auto& guid : r.guids) {
        const std::string text = FormatGuid(guid);
        s << ", GUID: " << text << ", name: " << Platform::AdapterNameForGuid(guid, text);
    }
    return s.str();
}

std::string ToLogLine(const AddSupervisorMACToVPNRequest& r) {
    return "Received AddSupervisorMACToVPNRequest message: SupervisorMACAddress: " + FormatMac(r.SupervisorMACAddress) +
           ", VpnPromiscuousMode: " + BoolText(r.VpnPromiscuousMode);
}

std::string ToLogLine(const RemoveSupervisorMACFromVPNRequest& r) {
    return "Received RemoveSupervisorMACFromVPNRequest message: SupervisorMACAddress: " +
           FormatMac(r.SupervisorMACAddress);
}

std::string ToLogLine(const StartICSRequest& r) {
    TorvUtils::LogStream s;
    s << "Received StartICSRequest message: ";
    LogAdapter(s, r.sharedAdapter);
    for (const auto& a : r.internalAdapters) {
        s << "; ";
        LogAdapter(s, a);
    }
    s << "; ";
    LogProxy(s, r.proxy);
    s << "; ";
    LogWhiteList(s, r.MacAddressWhiteList);
    s << ", TcpPortPoolSize: " << r.TcpPortPoolSize << ", UdpPortPoolSize: " << r.UdpPortPoolSize
      << ", IcsTableEntryTimeout: " << r.IcsTableEntryTimeout;
    return s.str();
}

std::string ToLogLine(const StartNATRequest& r) {
    TorvUtils::LogStream s;
    s << "Received StartNATRequest message: ";
    for (const auto& rule : r.rules) {
        s << "Redirect from adapter: ";
        LogAdapter(s, rule.fromAdapter);
        s << ", IP: ";
        if (rule.fromIPs.empty()) s << "any";
        for (size_t i = 0; i < rule.fromIPs.size(); ++i)
            s << (i ? " " : "") << FormatIp(rule.fromIPs[i].low) << "-" << FormatIp(rule.fromIPs[i].high);
        s << ", port: " << rule.fromPort << ", protocol: " << (rule.protocol == Nat::IpProtocol::kTcp ? "TCP" : "UDP")
          << " to adapter ";
        LogAdapter(s, rule.toAdapter);
        s << ", translate source: " << BoolText(rule.translateSource)
          << ", HTTP host field translation: " << BoolText(rule.httpHostFieldTranslation)
          << ", FTP support: " << BoolText(rule.ftpSupport) << "; ";
    }
    for (const auto& m : r.mappings) {
        s << "Adapter : ";
        LogAdapter(s, m.external);
        s << " mapped to ";
        LogAdapter(s, m.internal);
        s << "; ";
    }
    LogProxy(s, r.proxy);
    s << "; ";
    LogWhiteList(s, r.MacAddressWhiteList);
    s << ", TcpPortPoolSize: " << r.TcpPortPoolSize << ", UdpPortPoolSize: " << r.UdpPortPoolSize
      << ", DNatTableEntryTimeout" << r.DNatTableEntryTimeout
      << ", ReservedPortPoolLowerBound: " << r.ReservedPortPoolLowerBound
      << ", ReservedPortPoolUpperBound: " << r.ReservedPortPoolUpperBound;
    return s.str();
}

}  // namespace NativeNetworkDriver
