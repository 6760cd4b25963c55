#include <gtest/gtest.h>

#include "NetworkDriver/Messages.h"

using namespace NativeNetworkDriver;

namespace {

AdapterInfo Adapter(const std::string& name, uint8_t last) {
    AdapterInfo a;
    a.ID = "{" + name + "}";
    a.name = name;
    a.MAC = {2, 0, 0, 0, 0, last};
    a.IPs = {{{10, 0, last, 1}, {255, 255, 255, 0}}, {{10, 1, last, 1}, {255, 255, 0, 0}}};
    a.GWMAC = {2, 0, 0, 0, 1, last};
    a.GWIP = {10, 0, last, 254};
    return a;
}

bool operator==(const AdapterInfo& a, const AdapterInfo& b) {
    if (a.IPs.size() != b.IPs.size()) return false;
    for (size_t i = 0; i < a.IPs.size(); ++i)
        if (a.IPs[i].address != b.IPs[i].address || a.IPs[i].mask != b.IPs[i].mask) return false;
    return a.ID == b.ID && a.name == b.name && a.MAC == b.MAC && a.GWMAC == b.GWMAC && a.GWIP == b.GWIP;
}

StartNATRequest SampleNat() {
    StartNATRequest r;
    RedirectRule rule;
    rule.fromAdapter = Adapter("ext", 1);
    rule.fromPort = 8080;
    rule.protocol = 17;
    rule.toAdapter = Adapter("int", 2);
    rule.toIP = {192, 168, 1, 20};
    rule.toPort = 80;
    rule.translateSource = true;
    rule.ftpSupport = true;
    rule.fromIPs = {{{198, 51, 100, 1}, {198, 51, 100, 9}, {255, 255, 255, 0}}};
    r.rules = {rule};
    r.mappings = {{Adapter("ext", 1), Adapter("int", 2)}};
    r.proxy = {true, {2, 0, 0, 0, 0, 9}, 3128, {10, 0, 2, 9}};
    r.MacAddressWhiteList = {{2, 0, 0, 0, 0, 7}};
    r.TcpPortPoolSize = 1000;
    r.UdpPortPoolSize = 200;
    r.DNatTableEntryTimeout = 1234567;
    r.ReservedPortPoolLowerBound = 40000;
    r.ReservedPortPoolUpperBound = 41000;
    return r;
}

}  // namespace

TEST(Messages, StartNatRequestRoundTrips) {
    const StartNATRequest in = SampleNat();
    const StartNATRequest out = DecodeStartNATRequest(Encode(in));
    ASSERT_EQ(out.rules.size(), 1u);
    const auto& rule = out.rules[0];
    EXPECT_TRUE(rule.fromAdapter == in.rules[0].fromAdapter);
    EXPECT_TRUE(rule.toAdapter == in.rules[0].toAdapter);
    EXPECT_EQ(rule.fromPort, 8080u);
    EXPECT_EQ(rule.protocol, 17u);
    EXPECT_EQ(rule.toIP, in.rules[0].toIP);
    EXPECT_EQ(rule.toPort, 80u);
    EXPECT_TRUE(rule.translateSource);
    EXPECT_FALSE(rule.httpHostFieldTranslation);
    EXPECT_TRUE(rule.ftpSupport);
    ASSERT_EQ(rule.fromIPs.size(), 1u);
    EXPECT_EQ(rule.fromIPs[0].high, (Bytes{198, 51, 100, 9}));
    ASSERT_EQ(out.mappings.size(), 1u);
    EXPECT_TRUE(out.mappings[0].internal == in.mappings[0].internal);
    EXPECT_EQ(out.proxy.ProxyPort, 3128u);
    EXPECT_EQ(out.MacAddressWhiteList, in.MacAddressWhiteList);
    EXPECT_EQ(out.DNatTableEntryTimeout, 1234567u);
    EXPECT_EQ(out.ReservedPortPoolUpperBound, 41000u);
}

TEST(Messages, StartNatLogLineCarriesEveryFieldWithoutSeparators) {
    const std::string line = ToLogLine(SampleNat());
    EXPECT_EQ(line.rfind("Received StartNATRequest message: Redirect from adapter: Adapter: ext ID: {ext}", 0), 0u);
    for (const char* piece : {", IP: 198.51.100.1-198.51.100.9", ", port: 8080", ", protocol: UDP to adapter Adapter: int",
                              ", translate source: true", ", HTTP host field translation: false", ", FTP support: true",
                              "Adapter : Adapter: ext", " mapped to Adapter: int", "Has proxy? true",
                              "ProxyPort: 3128", "ProxyIpAddress: 10.0.2.9", "MacAddressWhiteList: 02:00:00:00:00:07",
                              "TcpPortPoolSize: 1000", "UdpPortPoolSize: 200", "DNatTableEntryTimeout1234567",
                              "ReservedPortPoolLowerBound: 40000", "IPs: 10.0.1.1/255.255.255.0 10.1.1.1/255.255.0.0",
                              "GW MAC: 02:00:00:00:01:01", "GW IP: 10.0.1.254"})
        EXPECT_NE(line.find(piece), std::string::npos) << piece << "\n" << line;
    EXPECT_EQ(line.find("1,234,567"), std::string::npos);
    // The labelled IP and port are the rule's source side only, not its target's.
    EXPECT_EQ(line.find(", IP: ", line.find(", IP: ") + 1), std::string::npos) << line;
    EXPECT_EQ(line.find(", port: ", line.find(", port: ") + 1), std::string::npos) << line;
}

TEST(Messages, EmptyListsAndProtocolWording) {
    StartNATRequest empty;
    const StartNATRequest decoded = DecodeStartNATRequest(Encode(empty));
    EXPECT_TRUE(decoded.rules.empty() && decoded.mappings.empty() && decoded.MacAddressWhiteList.empty());
    EXPECT_NE(ToLogLine(decoded).find("MacAddressWhiteList: empty"), std::string::npos);

    StartNATRequest r = SampleNat();
    r.rules[0].fromIPs.clear();
    r.rules[0].protocol = 1;  // anything but 6 is worded UDP
    const std::string line = ToLogLine(r);
    EXPECT_NE(line.find(", IP: any, port: 8080, protocol: UDP"), std::string::npos) << line;
    r.rules[0].protocol = 6;
    EXPECT_NE(ToLogLine(r).find("protocol: TCP"), std::string::npos);
}

TEST(Messages, StartIcsRequestRoundTripsAndLogs) {
    StartICSRequest in;
    in.sharedAdapter = Adapter("wan", 1);
    in.internalAdapters = {Adapter("lan1", 2), Adapter("lan2", 3)};
    in.TcpPortPoolSize = 5;
    in.UdpPortPoolSize = 6;
    in.IcsTableEntryTimeout = 7;
    const StartICSRequest out = DecodeStartICSRequest(Encode(in));
    EXPECT_TRUE(out.sharedAdapter == in.sharedAdapter);
    ASSERT_EQ(out.internalAdapters.size(), 2u);
    EXPECT_TRUE(out.internalAdapters[1] == in.internalAdapters[1]);
    EXPECT_EQ(out.IcsTableEntryTimeout, 7u);
    const std::string line = ToLogLine(out);
    EXPECT_EQ(line.rfind("Received StartICSRequest message: Adapter: wan ID: {wan}", 0), 0u);
    EXPECT_NE(line.find("MacAddressWhiteList: empty, TcpPortPoolSize: 5, UdpPortPoolSize: 6, IcsTableEntryTimeout: 7"),
              std::string::npos)
        << line;
}

TEST(Messages, VpnRequestsRoundTripAndLog) {
    StartVPNRequest vpn{{2, 0, 0, 0, 0, 1}, true, {Bytes{'l', 'o', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}}};
    const StartVPNRequest out = DecodeStartVPNRequest(Encode(vpn));
    EXPECT_EQ(out.guids, vpn.guids);
    // On Linux the GUID names the interface, so the loopback adapter is found by name.
    EXPECT_EQ(ToLogLine(out),
              "Received StartVPNRequest message: SupervisorMACAddress: 02:00:00:00:00:01, VpnPromiscuousMode: true, "
              "GUID: {00006F6C-0000-0000-0000-000000000000}, name: lo");

    const auto add = DecodeAddSupervisorMACToVPNRequest(Encode(AddSupervisorMACToVPNRequest{{1, 2, 3, 4, 5, 6}, false}));
    EXPECT_EQ(ToLogLine(add), "Received AddSupervisorMACToVPNRequest message: SupervisorMACAddress: 01:02:03:04:05:06, "
                              "VpnPromiscuousMode: false");
    const auto remove = DecodeRemoveSupervisorMACFromVPNRequest(Encode(RemoveSupervisorMACFromVPNRequest{{1, 2, 3, 4, 5, 6}}));
    EXPECT_EQ(ToLogLine(remove),
              "Received RemoveSupervisorMACFromVPNRequest message: SupervisorMACAddress: 01:02:03:04:05:06");
    EXPECT_EQ(ToLogLine(DecodeInitializeConfigurationRequest({0, 5, 1})),
              "Received InitializeConfigurationRequest message: HandleVirtualMachine: true");
}

TEST(Messages, GuidTextUsesTheWindowsLayout) {
    const Bytes guid = {0x65, 0x74, 0x68, 0x30, 0x01, 0x02, 0x03, 0x04, 0xA0, 0xB1, 0xC2, 0xD3, 0xE4, 0xF5, 0x06, 0x17};
    EXPECT_EQ(FormatGuid(guid), "{30687465-0201-0403-A0B1-C2D3E4F50617}");
}

TEST(Messages, ATruncatedStartRequestThrowsTheDecodingError) {
    Bytes payload = Encode(SampleNat());
    for (size_t cut : {size_t{1}, size_t{20}, payload.size() / 2, payload.size() - 1}) {
        const Bytes truncated(payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(cut));
        EXPECT_THROW(DecodeStartNATRequest(truncated), std::runtime_error) << cut;
    }
}
