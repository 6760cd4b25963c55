#include <gtest/gtest.h>

#include <fstream>

#include "NetworkDriver/Encoding.h"
#include "NetworkDriver/Messages.h"
#include "Scenario.h"
#include "SystemAdapters.h"
#include "support/TestFiles.h"

using nlohmann::json;

namespace {

std::string RefusalOf(const std::string& text) {
    ndtest::TempDir dir;
    const std::string path = dir.Path() + "/scenario.json";
    std::ofstream(path) << text;
    try {
        ndpeer::LoadScenario(path);
    } catch (const ndpeer::ScenarioError& e) {
        const std::string message = e.what();
        EXPECT_EQ(message.rfind(path + ": ", 0), 0u) << message;  // names the file
        return message.substr(path.size() + 2);
    }
    return "accepted";
}

}  // namespace

TEST(Scenario, StepsEncodeTheRequestsTheyName) {
    const json document = {{"steps",
                            {{{"send", "StartVPN"},
                              {"SupervisorMACAddress", "02:00:00:00:00:05"},
                              {"VpnPromiscuousMode", true},
                              {"adapters", {"lo"}},
                              {"expect", {{"result", 1}}}},
                             {{"send", "StartNAT"},
                              {"rules",
                               {{{"fromAdapter", "lo"},
                                 {"fromPort", 8080},
                                 {"protocol", "UDP"},
                                 {"toAdapter", {{"interface", "lo"}, {"gatewayIp", "127.0.0.9"}}},
                                 {"toIp", "127.0.0.2"},
                                 {"toPort", 80},
                                 {"fromIpRanges", {{{"low", "127.0.0.1"}, {"high", "127.0.0.5"}}}}}}},
                              {"timeout", 30000}},
                             {{"sleep", 0.5}}}}};
    const auto scenario = ndpeer::ParseScenario(document, "inline");
    ASSERT_EQ(scenario.steps.size(), 3u);
    // The payloads are what the daemon's own encoder makes of the same requests.
    const auto vpn = NativeNetworkDriver::DecodeStartVPNRequest(scenario.steps[0].payload);
    EXPECT_EQ(NativeNetworkDriver::Encode(vpn), scenario.steps[0].payload);
    EXPECT_EQ(scenario.steps[0].type, 3u);
    EXPECT_EQ(vpn.SupervisorMACAddress, (NativeNetworkDriver::Bytes{2, 0, 0, 0, 0, 5}));
    EXPECT_TRUE(vpn.VpnPromiscuousMode);
    EXPECT_EQ(NativeNetworkDriver::FormatGuid(vpn.guids.at(0)), "{00006F6C-0000-0000-0000-000000000000}");
    EXPECT_EQ(scenario.steps[0].expect->result, 1u);
    const auto nat = NativeNetworkDriver::DecodeStartNATRequest(scenario.steps[1].payload);
    ASSERT_EQ(nat.rules.size(), 1u);
    EXPECT_EQ(nat.rules[0].protocol, 17u);
    EXPECT_EQ(nat.rules[0].fromAdapter.MAC.size(), 6u);  // read from the system
    EXPECT_EQ(nat.rules[0].toAdapter.GWIP, (NativeNetworkDriver::Bytes{127, 0, 0, 9}));
    EXPECT_EQ(nat.rules[0].fromIPs[0].high, (NativeNetworkDriver::Bytes{127, 0, 0, 5}));
    EXPECT_EQ(nat.DNatTableEntryTimeout, 30000u);
    EXPECT_EQ(scenario.steps[2].kind, ndpeer::Step::Kind::Sleep);
}

TEST(Scenario, AbsentAdaptersAndWaitFileSteps) {
    const json document = {
        {"steps",
         {{{"send", "StartNAT"},
           {"mappings",
            {{{"external", "lo"},
              {"internal", {{"interface", "nope0"}, {"absent", true}, {"mac", "02:00:00:00:00:07"}, {"ip", "10.5.0.1/20"}}}}}}},
          {{"waitFile", "/tmp/go"}, {"within", 2.5}},
          {{"waitFile", "/tmp/go2"}}}}};
    const auto scenario = ndpeer::ParseScenario(document, "inline");
    ASSERT_EQ(scenario.steps.size(), 3u);
    const auto nat = NativeNetworkDriver::DecodeStartNATRequest(scenario.steps[0].payload);
    ASSERT_EQ(nat.mappings.size(), 1u);
    const auto& absent = nat.mappings[0].internal;
    EXPECT_EQ(absent.ID, "{65706F6E-0030-0000-0000-000000000000}");
    EXPECT_EQ(absent.MAC, (NativeNetworkDriver::Bytes{2, 0, 0, 0, 0, 7}));
    ASSERT_EQ(absent.IPs.size(), 1u);
    EXPECT_EQ(absent.IPs[0].address, (NativeNetworkDriver::Bytes{10, 5, 0, 1}));
    EXPECT_EQ(absent.IPs[0].mask, (NativeNetworkDriver::Bytes{255, 255, 240, 0}));
    EXPECT_TRUE(absent.GWIP.empty());
    EXPECT_EQ(scenario.steps[1].kind, ndpeer::Step::Kind::WaitFile);
    EXPECT_EQ(scenario.steps[1].path + " " + std::to_string(scenario.steps[1].seconds) + " " +
                  std::to_string(scenario.steps[2].seconds), "/tmp/go 2.500000 60.000000");

    EXPECT_EQ(RefusalOf(R"({"steps": [{"send": "StartNAT", "mappings": [{"external": "lo",
        "internal": {"interface": "nope0", "absent": true, "ip": "10.5.0.1/33"}}]}]})"),
              "steps[0].mappings[0].internal.ip: expected a prefix length from 0 to 32: \"10.5.0.1/33\"");
    EXPECT_EQ(RefusalOf(R"({"steps": [{"send": "StartNAT", "mappings": [{"external": "lo",
        "internal": {"interface": "nope0", "ip": "10.5.0.1"}}]}]})"),
              "steps[0].mappings[0].internal: no network interface named \"nope0\"");
    EXPECT_EQ(RefusalOf(R"({"steps": [{"waitFile": ""}]})"), "steps[0].waitFile: expected a file path");
}

TEST(Scenario, StreamStepsChangeTheAnnouncedLengthAndAnswersCanBeMatchedWhole) {
    const json document = {{"steps",
                            {{{"send", "Frame"}, {"hex", "0102"}, {"padTo", 200000}},
                             {{"send", "StartNAT"}, {"truncateBy", 3}},
                             {{"send", "StopVPN"}, {"expect", {{"messageHex", "00 01 06 00 00 00 07 00 00 00 00"}}}},
                             {{"send", "StartNAT"}},
                             {{"expectFrame", {{"hex", "ff 01"}, {"within", 2}}}}}}};
    const auto scenario = ndpeer::ParseScenario(document, "inline");
    ASSERT_EQ(scenario.steps.size(), 5u);
    EXPECT_EQ(scenario.steps[4].kind, ndpeer::Step::Kind::ExpectFrame);
    EXPECT_EQ(scenario.steps[4].payload, (NativeNetworkDriver::Bytes{0xFF, 0x01}));
    EXPECT_EQ(scenario.steps[4].seconds, 2.0);
    ASSERT_EQ(scenario.steps[0].payload.size(), 200000u);
    EXPECT_EQ(scenario.steps[0].payload[2], 0);
    const auto& whole = scenario.steps[3].payload;
    ASSERT_GT(whole.size(), 3u);
    EXPECT_EQ(scenario.steps[1].payload, NativeNetworkDriver::Bytes(whole.begin(), whole.end() - 3));
    EXPECT_EQ(scenario.steps[2].expect->message, NativeNetworkDriver::EncodeHeader(6, 0));

    EXPECT_EQ(RefusalOf(R"({"steps": [{"send": "StopVPN", "truncateBy": 1}]})"),
              "steps[0].truncateBy: expected a whole number from 0 to 0");
}

TEST(Scenario, AddressTextsParseStrictly) {
    EXPECT_EQ(ndpeer::ParseIp("10.0.0.255"), (NativeNetworkDriver::Bytes{10, 0, 0, 255}));
    for (const char* bad : {"", "1.2.3", "1.2.3.4.", "256.1.1.1", "01.2.3.4", "1..2.3", "1.2.3.4 ", "1.2.3.-4", "1234.1.1.1"})
        EXPECT_THROW(ndpeer::ParseIp(bad), std::invalid_argument) << bad;

    const NativeNetworkDriver::Bytes guid = {0x40, 0xFC, 0x29, 0x6B, 0x47, 0xCA, 0x67, 0x10,
                                             0xB3, 0x1D, 0x00, 0xDD, 0x01, 0x06, 0x62, 0xDA};
    EXPECT_EQ(ndpeer::ParseGuid("{6B29FC40-CA47-1067-B31D-00DD010662DA}"), guid);
    EXPECT_EQ(ndpeer::ParseGuid("{6b29fc40-ca47-1067-b31d-00dd010662da}"), guid);
    EXPECT_EQ(ndpeer::ParseGuid(NativeNetworkDriver::FormatGuid(ndpeer::InterfaceGuid("eth0"))),
              ndpeer::InterfaceGuid("eth0"));
    for (const char* bad : {"", "6B29FC40-CA47-1067-B31D-00DD010662DA", "{6B29FC40-CA47-1067-B31D-00DD010662D}",
                            "{6B29FC40-CA47-1067-B31D+00DD010662DA}", "{6B29FC40-CA47-1067-B31D-00DD010662DG}"})
        EXPECT_FALSE(ndpeer::ParseGuid(bad).has_value()) << bad;
}
