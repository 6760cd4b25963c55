// The real NetworkDriver binary driven over the real pipe sockets.
#include <gtest/gtest.h>

#include <algorithm>

#include "NetworkDriver/Messages.h"
#include "PeerChannel.h"
#include "support/DaemonProcess.h"
#include "support/TestFiles.h"

using namespace NativeNetworkDriver;

namespace {

const std::vector<std::string> kStartLines = {"INFO;------------------------------------------",
                                              "INFO;Network Driver 1.0.0 started.",
                                              "INFO;------------------------------------------"};

class DaemonTest : public ::testing::Test {
protected:
    void Connect() {
        native_.Listen();
        daemon_.Start();
        ASSERT_TRUE(native_.Accept(10000)) << "the daemon did not connect";
    }
    ndpeer::Message Ask(uint32_t type, const Bytes& payload = {}) {
        EXPECT_TRUE(native_.Send(type, payload));
        ndpeer::Message answer;
        EXPECT_TRUE(native_.Receive(answer, 10000)) << "no answer to type " << type;
        return answer;
    }
    bool Has(const std::string& entry) const {
        const auto entries = daemon_.LogEntries();
        return std::find(entries.begin(), entries.end(), entry) != entries.end();
    }

    ndtest::TempDir pipes_;
    ndtest::TempDir appData_;
    ndpeer::PeerChannel native_{pipes_.Path()};
    ndtest::DaemonProcess daemon_{pipes_.Path(), appData_.Path()};
};

const Bytes kResultOne = {0, 1, 1, 0, 0, 0};
const Bytes kResultZero = {0, 1, 0, 0, 0, 0};

}  // namespace

TEST_F(DaemonTest, AnswersEveryRequestByteForByte) {
    Connect();
    auto a = Ask(kInitializeConfiguration, Encode(InitializeConfigurationRequest{true}));
    EXPECT_EQ(a.type, 1u);
    EXPECT_EQ(a.payload, kResultOne);
    a = Ask(kAddSupervisorMACToVPN, Encode(AddSupervisorMACToVPNRequest{{2, 0, 0, 0, 0, 1}, true}));
    EXPECT_EQ(a.type, 4u);
    EXPECT_EQ(a.payload, kResultOne);  // answered with 1 even with no VPN
    a = Ask(kRemoveSupervisorMACFromVPN, Encode(RemoveSupervisorMACFromVPNRequest{{2, 0, 0, 0, 0, 1}}));
    EXPECT_EQ(a.type, 5u);
    EXPECT_EQ(a.payload, kResultOne);
    for (uint32_t stop : {kStopVPN, kStopICS, kStopNAT}) {
        a = Ask(stop);
        EXPECT_EQ(a.type, stop);
        EXPECT_TRUE(a.payload.empty());
    }
    // A VPN on an interface that does not exist does not come up.
    a = Ask(kStartVPN, Encode(StartVPNRequest{{2, 0, 0, 0, 0, 1}, false, {Bytes(16, 'z')}}));
    EXPECT_EQ(a.type, 3u);
    EXPECT_NE(a.payload, kResultOne);

    native_.CloseToDaemon();
    EXPECT_EQ(daemon_.WaitExit(10), 0);
    const auto entries = daemon_.LogEntries();
    ASSERT_GE(entries.size(), 4u);
    EXPECT_TRUE(std::equal(kStartLines.begin(), kStartLines.end(), entries.begin()));
    EXPECT_EQ(entries[3], "INFO;Named Pipes created.");
    EXPECT_TRUE(Has("INFO;Received InitializeConfigurationRequest message: HandleVirtualMachine: true"));
    EXPECT_TRUE(Has("INFO;Received StopICSRequest message"));
    // The native side closing its end reads as a broken pipe and ends the process cleanly.
    EXPECT_TRUE(Has("INFO;Error in ReadFile, error code: 32"));
    EXPECT_EQ(entries.back(), "INFO;Closed pipes");
}

TEST_F(DaemonTest, LargePayloadsAreReadWholeAndTheStreamStaysInStep) {
    Connect();
    Bytes frame(200000);
    for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<uint8_t>(i * 7);
    ASSERT_TRUE(native_.Send(kVpnFrame, frame));  // no VPN: dropped without an answer
    ASSERT_TRUE(native_.Send(kVpnFrame, {}));     // empty payload
    auto a = Ask(kAddSupervisorMACToVPN, Encode(AddSupervisorMACToVPNRequest{{2, 0, 0, 0, 0, 1}, false}));
    EXPECT_EQ(a.type, 4u);
    EXPECT_EQ(a.payload, kResultOne);
    native_.CloseToDaemon();
    EXPECT_EQ(daemon_.WaitExit(10), 0);
}

TEST_F(DaemonTest, TypesOutsideTheRangeEndTheLoop) {
    for (uint32_t type : {0u, 11u}) {
        ndtest::TempDir pipes, appData;
        ndpeer::PeerChannel native(pipes.Path());
        ndtest::DaemonProcess daemon(pipes.Path(), appData.Path());
        native.Listen();
        daemon.Start();
        ASSERT_TRUE(native.Accept(10000));
        ASSERT_TRUE(native.Send(type, {}));
        EXPECT_EQ(daemon.WaitExit(10), 0) << type;
        const auto entries = daemon.LogEntries();
        EXPECT_NE(std::find(entries.begin(), entries.end(), "ERROR;Header mesagge type error: " + std::to_string(type)),
                  entries.end());
        EXPECT_EQ(entries.back(), "INFO;Closed pipes");
    }
}

TEST_F(DaemonTest, WithoutANativeSideOnlyTheStartLinesAreWritten) {
    daemon_.Start();  // nobody listens on the pipes
    EXPECT_EQ(daemon_.WaitExit(10), 0);
    EXPECT_EQ(daemon_.LogEntries(), kStartLines);
}

TEST_F(DaemonTest, AMalformedPayloadEndsTheProcessWithTheReasonLogged) {
    Connect();
    // InitializeConfiguration whose value carries a zero byte where the Bool tag (5) belongs.
    ASSERT_TRUE(native_.Send(kInitializeConfiguration, {0, 0, 1, 0, 0, 0}));
    const auto status = daemon_.WaitExit(10);
    ASSERT_TRUE(status.has_value());
    EXPECT_NE(*status, 0);  // ended abnormally, not through the orderly shutdown
    const auto entries = daemon_.LogEntries();
    ASSERT_FALSE(entries.empty());
    // The whole text: the zero byte, written as a character, does not cut it short.
    EXPECT_EQ(entries.back(),
              std::string("ERROR;Fatal error, the process ends: Deserialization error: found type: \0 expected: 5", 85));
    EXPECT_FALSE(Has("INFO;Closed pipes"));
}

TEST_F(DaemonTest, ATruncatedStartRequestEndsTheProcessToo) {
    Connect();
    Bytes payload = Encode(StartNATRequest{});
    payload.resize(payload.size() - 3);
    ASSERT_TRUE(native_.Send(kStartNAT, payload));
    const auto status = daemon_.WaitExit(10);
    ASSERT_TRUE(status.has_value());
    EXPECT_NE(*status, 0);
    EXPECT_EQ(daemon_.LogEntries().back().rfind("ERROR;Fatal error, the process ends: Deserialization error:", 0), 0u);
}
