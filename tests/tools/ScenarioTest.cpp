#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "NetworkDriver/Messages.h"
#include "Scenario.h"
#include "SystemAdapters.h"

using nlohmann::json;
using NativeNetworkDriver::Bytes;
namespace nd = NativeNetworkDriver;

// The payloads are what the daemon's own encoder makes of the same requests.
TEST(Scenario, StepsEncodeTheRequestsTheyName) {
    const auto scenario = ndpeer::ParseScenario(json::parse(R"({"steps": [
        {"send": "StartVPN", "SupervisorMACAddress": "02:00:00:00:00:05", "VpnPromiscuousMode": true,
         "adapters": ["lo"], "expect": {"result": 1}},
        {"send": "StartNAT", "timeout": 30000, "rules": [{"fromAdapter": "lo", "fromPort": 8080, "protocol": "UDP",
         "toAdapter": {"interface": "lo", "gatewayIp": "127.0.0.9"}, "toIp": "127.0.0.2", "toPort": 80,
         "fromIpRanges": [{"low": "127.0.0.1", "high": "127.0.0.5"}]}],
         "mappings": [{"external": "lo", "internal": {"interface": "nope0", "absent": true,
                       "mac": "02:00:00:00:00:07", "ip": "10.5.0.1/20"}}]},
        {"send": "Frame", "hex": "0102", "padTo": 200000},
        {"send": "StartNAT"},
        {"send": "StartNAT", "truncateBy": 3},
        {"send": "StopVPN", "expect": {"messageHex": "00 01 06 00 00 00 07 00 00 00 00"}},
        {"expectFrame": {"hex": "ff 01", "within": 2.5}}]})"),
                                                "inline");
    ASSERT_EQ(scenario.steps.size(), 7u);
    const auto& steps = scenario.steps;
    const Bytes lo = {'l', 'o', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(steps[0].type, 3u);
    EXPECT_EQ(steps[0].payload, nd::Encode(nd::StartVPNRequest{{2, 0, 0, 0, 0, 5}, true, {lo}}));
    EXPECT_EQ(steps[0].expect->result, 1u);

    const auto nat = nd::DecodeStartNATRequest(steps[1].payload);
    const nd::RedirectRule& rule = nat.rules.at(0);
    EXPECT_EQ(rule.protocol, 17u);
    EXPECT_EQ(rule.fromAdapter.MAC.size(), 6u);  // read from the system
    EXPECT_EQ(rule.toAdapter.GWIP, (Bytes{127, 0, 0, 9}));
    EXPECT_EQ(rule.fromIPs.at(0).high, (Bytes{127, 0, 0, 5}));
    EXPECT_EQ(nat.DNatTableEntryTimeout, 30000u);
    // An absent adapter is made up of what the step says: its GUID is its name, no gateway.
    EXPECT_THAT(nd::ToLogLine(nd::StartICSRequest{nat.mappings.at(0).internal, {}, {}, {}}),
                testing::StartsWith("Received StartICSRequest message: Adapter: nope0 "
                                    "ID: {65706F6E-0030-0000-0000-000000000000}, MAC: 02:00:00:00:00:07, "
                                    "IPs: 10.5.0.1/255.255.240.0, GW MAC: , GW IP: ;"));

    // Stream steps change the announced length; answers can be matched whole.
    ASSERT_EQ(steps[2].payload.size(), 200000u);
    EXPECT_EQ(steps[2].payload[2], 0);
    const Bytes& whole = steps[3].payload;
    EXPECT_EQ(steps[4].payload, Bytes(whole.begin(), whole.end() - 3));
    EXPECT_EQ(steps[5].expect->message, nd::EncodeHeader(6, 0));
    EXPECT_EQ(steps[6].kind, ndpeer::Step::Kind::ExpectFrame);
    EXPECT_EQ(steps[6].payload, (Bytes{0xFF, 0x01}));
    EXPECT_EQ(steps[6].seconds, 2.5);
}

TEST(Scenario, RefusalsNameTheFieldAndWhatWasExpected) {
    // What the parser refuses, named by where the scenario came from.
    const auto refusalOf = [](const char* text) -> std::string {
        try {
            ndpeer::ParseScenario(json::parse(text), "s.json");
        } catch (const ndpeer::ScenarioError& e) {
            return e.what();
        }
        return "accepted";
    };
    const std::pair<const char*, const char*> cases[] = {
        {R"({"steps": [{"send": "StartNAT", "mappings": [{"external": "lo",
            "internal": {"interface": "nope0", "absent": true, "ip": "10.5.0.1/33"}}]}]})",
         "s.json: steps[0].mappings[0].internal.ip: expected a prefix length from 0 to 32: \"10.5.0.1/33\""},
        {R"({"steps": [{"send": "StartNAT", "mappings": [{"external": "lo",
            "internal": {"interface": "nope0", "ip": "10.5.0.1"}}]}]})",
         "s.json: steps[0].mappings[0].internal: no network interface named \"nope0\""},
        {R"({"steps": [{"waitFile": ""}]})", "s.json: steps[0].waitFile: expected a file path"},
        {R"({"steps": [{"send": "StopVPN", "truncateBy": 1}]})",
         "s.json: steps[0].truncateBy: expected a whole number from 0 to 0"},
    };
    for (const auto& [text, refusal] : cases) EXPECT_EQ(refusalOf(text), refusal);
}

TEST(Scenario, AddressTextsParseStrictly) {
    EXPECT_EQ(ndpeer::ParseIp("10.0.0.255"), (Bytes{10, 0, 0, 255}));
    for (const char* bad :
         {"", "1.2.3", "1.2.3.4.", "256.1.1.1", "01.2.3.4", "1..2.3", "1.2.3.4 ", "1.2.3.-4", "1234.1.1.1"})
        EXPECT_THROW(ndpeer::ParseIp(bad), std::invalid_argument) << bad;

    const Bytes guid = {0x40, 0xFC, 0x29, 0x6B, 0x47, 0xCA, 0x67, 0x10, 0xB3, 0x1D, 0x00, 0xDD, 0x01, 0x06, 0x62, 0xDA};
    EXPECT_EQ(ndpeer::ParseGuid("{6B29FC40-CA47-1067-B31D-00DD010662DA}"), guid);
    for (const char* bad : {"", "6B29FC40-CA47-1067-B31D-00DD010662DA", "{6B29FC40-CA47-1067-B31D-00DD010662D}",
                            "{6B29FC40-CA47-1067-B31D+00DD010662DA}", "{6B29FC40-CA47-1067-B31D-00DD010662DG}"})
        EXPECT_FALSE(ndpeer::ParseGuid(bad).has_value()) << bad;
}
