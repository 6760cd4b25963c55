#include <gtest/gtest.h>

#include "NetworkDriver/Messages.h"

using namespace NativeNetworkDriver;

namespace {

AdapterInfo Adapter(const std::string& name, uint8_t last) {
    return {"{" + name + "}", name, {2, 0, 0, 0, 0, last},
            {{{10, 0, last, 1}, {255, 255, 255, 0}}, {{10, 1, last, 1}, {255, 255, 0, 0}}},
            {2, 0, 0, 0, 1, last}, {10, 0, last, 254}};
}

// How Adapter(name, last) is logged.
std::string Logged(const std::string& name, int last) {
    const std::string n = std::to_string(last);
    return "Adapter: " + name + " ID: {" + name + "}, MAC: 02:00:00:00:00:0" + n + ", IPs: 10.0." + n +
           ".1/255.255.255.0 10.1." + n + ".1/255.255.0.0, GW MAC: 02:00:00:00:01:0" + n + ", GW IP: 10.0." + n +
           ".254";
}

// Every field holds a value of its own, so that two fields mixed up show.
StartNATRequest SampleNat() {
    const RedirectRule rule{Adapter("ext", 1), 8080, 17, Adapter("int", 2), {192, 168, 1, 20}, 80, true, false, true,
                            {{{198, 51, 100, 1}, {198, 51, 100, 9}, {255, 255, 255, 0}}}};
    return {{rule}, {{Adapter("ext", 1), Adapter("int", 2)}}, {true, {2, 0, 0, 0, 0, 9}, 3128, {10, 0, 2, 9}},
            {{2, 0, 0, 0, 0, 7}}, 1000, 200, 1234567, 40000, 41000};
}

}  // namespace

// Decoding gives back every field: encoding again yields the same bytes, and the log line,
// which labels each value, is exact.
TEST(Messages, StartRequestsRoundTripAndLogEveryField) {
    const StartICSRequest ics{Adapter("wan", 1), {Adapter("lan1", 2), Adapter("lan2", 3)}, {}, {}, 5, 6, 7};
    const Bytes icsBytes = Encode(ics);
    const StartICSRequest icsOut = DecodeStartICSRequest(icsBytes);
    EXPECT_EQ(Encode(icsOut), icsBytes);
    EXPECT_EQ(ToLogLine(icsOut), "Received StartICSRequest message: " + Logged("wan", 1) + "; " + Logged("lan1", 2) +
                                     "; " + Logged("lan2", 3) +
                                     "; Has proxy? false, ProxyMacAddress: , ProxyPort: 0, ProxyIpAddress: ; "
                                     "MacAddressWhiteList: empty, TcpPortPoolSize: 5, UdpPortPoolSize: 6, "
                                     "IcsTableEntryTimeout: 7");

    // Every protocol but 6 is worded UDP; an empty range list accepts any source.
    const std::tuple<uint32_t, bool, std::string> rules[] = {
        {17, true, ", IP: 198.51.100.1-198.51.100.9, port: 8080, protocol: UDP"},
        {6, false, ", IP: any, port: 8080, protocol: TCP"},
        {1, false, ", IP: any, port: 8080, protocol: UDP"}};
    for (const auto& [protocol, ranges, logged] : rules) {
        StartNATRequest nat = SampleNat();
        nat.rules[0].protocol = protocol;
        if (!ranges) nat.rules[0].fromIPs.clear();
        const Bytes natBytes = Encode(nat);
        const StartNATRequest natOut = DecodeStartNATRequest(natBytes);
        EXPECT_EQ(Encode(natOut), natBytes);
        EXPECT_EQ(ToLogLine(natOut),
                  "Received StartNATRequest message: Redirect from adapter: " + Logged("ext", 1) + logged +
                      " to adapter " + Logged("int", 2) +
                      ", translate source: true, HTTP host field translation: false, FTP support: true; Adapter : " +
                      Logged("ext", 1) + " mapped to " + Logged("int", 2) +
                      "; Has proxy? true, ProxyMacAddress: 02:00:00:00:00:09, ProxyPort: 3128, ProxyIpAddress: "
                      "10.0.2.9; MacAddressWhiteList: 02:00:00:00:00:07, TcpPortPoolSize: 1000, UdpPortPoolSize: 200, "
                      "DNatTableEntryTimeout1234567, ReservedPortPoolLowerBound: 40000, "
                      "ReservedPortPoolUpperBound: 41000");
    }
}

TEST(Messages, VpnRequestsRoundTripAndLog) {
    const StartVPNRequest vpn{{2, 0, 0, 0, 0, 1}, true, {Bytes{'l', 'o', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}}};
    // On Linux the GUID names the interface, so the loopback adapter is found by name.
    EXPECT_EQ(ToLogLine(DecodeStartVPNRequest(Encode(vpn))),
              "Received StartVPNRequest message: SupervisorMACAddress: 02:00:00:00:00:01, VpnPromiscuousMode: true, "
              "GUID: {00006F6C-0000-0000-0000-000000000000}, name: lo");
    EXPECT_EQ(ToLogLine(DecodeAddSupervisorMACToVPNRequest(Encode(AddSupervisorMACToVPNRequest{{1, 2, 3, 4, 5, 6}}))),
              "Received AddSupervisorMACToVPNRequest message: SupervisorMACAddress: 01:02:03:04:05:06, "
              "VpnPromiscuousMode: false");
    const RemoveSupervisorMACFromVPNRequest remove{{9, 2, 3, 4, 5, 6}};
    EXPECT_EQ(ToLogLine(DecodeRemoveSupervisorMACFromVPNRequest(Encode(remove))),
              "Received RemoveSupervisorMACFromVPNRequest message: SupervisorMACAddress: 09:02:03:04:05:06");
    EXPECT_EQ(ToLogLine(DecodeInitializeConfigurationRequest({0, 5, 1})),
              "Received InitializeConfigurationRequest message: HandleVirtualMachine: true");
    const Bytes guid = {0x65, 0x74, 0x68, 0x30, 0x01, 0x02, 0x03, 0x04, 0xA0, 0xB1, 0xC2, 0xD3, 0xE4, 0xF5, 0x06, 0x17};
    EXPECT_EQ(FormatGuid(guid), "{30687465-0201-0403-A0B1-C2D3E4F50617}");
}
