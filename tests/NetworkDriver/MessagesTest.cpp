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

// Decoding and encoding again gives the same bytes; the fields that only the decoder
// could get wrong in a way re-encoding hides are checked by value.
TEST(Messages, StartRequestsRoundTrip) {
    const Bytes nat = Encode(SampleNat());
    const StartNATRequest out = DecodeStartNATRequest(nat);
    EXPECT_EQ(Encode(out), nat);
    ASSERT_EQ(out.rules.size(), 1u);
    EXPECT_EQ(out.rules[0].fromIPs.at(0).high, (Bytes{198, 51, 100, 9}));
    EXPECT_EQ(out.rules[0].fromAdapter.IPs.at(1).mask, (Bytes{255, 255, 0, 0}));
    EXPECT_EQ(out.rules[0].toAdapter.GWIP, (Bytes{10, 0, 2, 254}));
    EXPECT_TRUE(out.rules[0].translateSource && out.rules[0].ftpSupport && !out.rules[0].httpHostFieldTranslation);
    EXPECT_EQ(out.mappings.at(0).internal.name, "int");
    EXPECT_EQ(out.proxy.ProxyPort, 3128u);
    EXPECT_EQ(out.MacAddressWhiteList, (std::vector<Bytes>{{2, 0, 0, 0, 0, 7}}));
    EXPECT_EQ(out.DNatTableEntryTimeout + out.ReservedPortPoolUpperBound, 1234567u + 41000u);

    StartICSRequest ics;
    ics.sharedAdapter = Adapter("wan", 1);
    ics.internalAdapters = {Adapter("lan1", 2), Adapter("lan2", 3)};
    ics.TcpPortPoolSize = 5;
    ics.UdpPortPoolSize = 6;
    ics.IcsTableEntryTimeout = 7;
    const StartICSRequest icsOut = DecodeStartICSRequest(Encode(ics));
    EXPECT_EQ(Encode(icsOut), Encode(ics));
    EXPECT_EQ(icsOut.internalAdapters.at(1).MAC, (Bytes{2, 0, 0, 0, 0, 3}));
    const std::string line = ToLogLine(icsOut);
    EXPECT_EQ(line.rfind("Received StartICSRequest message: Adapter: wan ID: {wan}", 0), 0u);
    EXPECT_NE(line.find("MacAddressWhiteList: empty, TcpPortPoolSize: 5, UdpPortPoolSize: 6, IcsTableEntryTimeout: 7"),
              std::string::npos)
        << line;

    const StartNATRequest empty = DecodeStartNATRequest(Encode(StartNATRequest{}));
    EXPECT_TRUE(empty.rules.empty() && empty.mappings.empty() && empty.MacAddressWhiteList.empty());
    EXPECT_NE(ToLogLine(empty).find("MacAddressWhiteList: empty"), std::string::npos);
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

TEST(Messages, ProtocolWordingAndAnyAddress) {
    StartNATRequest r = SampleNat();
    r.rules[0].fromIPs.clear();
    r.rules[0].protocol = 1;  // anything but 6 is worded UDP
    EXPECT_NE(ToLogLine(r).find(", IP: any, port: 8080, protocol: UDP"), std::string::npos) << ToLogLine(r);
    r.rules[0].protocol = 6;
    EXPECT_NE(ToLogLine(r).find("protocol: TCP"), std::string::npos);
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
