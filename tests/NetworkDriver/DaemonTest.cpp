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
const Bytes kResultOne = {0, 1, 1, 0, 0, 0};

// A daemon in its own folders, and the native side of its pipes.
struct Daemon {
    void Connect() {
        native.Listen();
        process.Start();
        ASSERT_TRUE(native.Accept(10000)) << "the daemon did not connect";
    }
    ndpeer::Message Ask(uint32_t type, const Bytes& payload = {}) {
        EXPECT_TRUE(native.Send(type, payload));
        ndpeer::Message answer;
        EXPECT_TRUE(native.Receive(answer, 10000)) << "no answer to type " << type;
        return answer;
    }
    bool Has(const std::string& entry) const {
        const auto entries = process.LogEntries();
        return std::find(entries.begin(), entries.end(), entry) != entries.end();
    }

    ndtest::TempDir pipes, appData;
    ndpeer::PeerChannel native{pipes.Path()};
    ndtest::DaemonProcess process{pipes.Path(), appData.Path()};
};

}  // namespace

TEST(Daemon, AnswersEveryRequestByteForByte) {
    Daemon d;
    d.Connect();
    // A large frame with no VPN is read whole and dropped: the stream stays in step.
    Bytes frame(200000);
    for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<uint8_t>(i * 7);
    ASSERT_TRUE(d.native.Send(kVpnFrame, frame));
    ASSERT_TRUE(d.native.Send(kVpnFrame, {}));
    const std::pair<uint32_t, Bytes> requests[] = {
        {kInitializeConfiguration, Encode(InitializeConfigurationRequest{true})},
        {kAddSupervisorMACToVPN, Encode(AddSupervisorMACToVPNRequest{{2, 0, 0, 0, 0, 1}, true})},  // 1 even with no VPN
        {kRemoveSupervisorMACFromVPN, Encode(RemoveSupervisorMACFromVPNRequest{{2, 0, 0, 0, 0, 1}})}};
    for (const auto& [type, payload] : requests) {
        const auto a = d.Ask(type, payload);
        EXPECT_EQ(a.type, type);
        EXPECT_EQ(a.payload, kResultOne);
    }
    for (uint32_t stop : {kStopVPN, kStopICS, kStopNAT}) {
        const auto a = d.Ask(stop);
        EXPECT_EQ(a.type, stop);
        EXPECT_TRUE(a.payload.empty());
    }
    // A VPN on an interface that does not exist does not come up.
    const auto a = d.Ask(kStartVPN, Encode(StartVPNRequest{{2, 0, 0, 0, 0, 1}, false, {Bytes(16, 'z')}}));
    EXPECT_EQ(a.type, kStartVPN);
    EXPECT_NE(a.payload, kResultOne);

    d.native.CloseToDaemon();
    EXPECT_EQ(d.process.WaitExit(10), 0);
    const auto entries = d.process.LogEntries();
    ASSERT_GE(entries.size(), 4u);
    EXPECT_TRUE(std::equal(kStartLines.begin(), kStartLines.end(), entries.begin()));
    EXPECT_EQ(entries[3], "INFO;Named Pipes created.");
    EXPECT_TRUE(d.Has("INFO;Received InitializeConfigurationRequest message: HandleVirtualMachine: true"));
    EXPECT_TRUE(d.Has("INFO;Received StopICSRequest message"));
    // The native side closing its end reads as a broken pipe and ends the process cleanly.
    EXPECT_TRUE(d.Has("INFO;Error in ReadFile, error code: 32"));
    EXPECT_EQ(entries.back(), "INFO;Closed pipes");
}

TEST(Daemon, TypesOutsideTheRangeEndTheLoopAndNoNativeSideEndsAtOnce) {
    for (uint32_t type : {0u, 11u}) {
        Daemon d;
        d.Connect();
        ASSERT_TRUE(d.native.Send(type, {}));
        EXPECT_EQ(d.process.WaitExit(10), 0) << type;
        EXPECT_TRUE(d.Has("ERROR;Header mesagge type error: " + std::to_string(type)));
        EXPECT_EQ(d.process.LogEntries().back(), "INFO;Closed pipes");
    }
    Daemon alone;
    alone.process.Start();  // nobody listens on the pipes
    EXPECT_EQ(alone.process.WaitExit(10), 0);
    EXPECT_EQ(alone.process.LogEntries(), kStartLines);
}

TEST(Daemon, AMalformedPayloadEndsTheProcessWithTheReasonLogged) {
    Bytes truncated = Encode(StartNATRequest{});
    truncated.resize(truncated.size() - 3);
    // InitializeConfiguration with a zero byte where the Bool tag (5) belongs: the zero byte,
    // written as a character, does not cut the text short.
    const std::pair<uint32_t, Bytes> cases[] = {{kInitializeConfiguration, {0, 0, 1, 0, 0, 0}}, {kStartNAT, truncated}};
    for (const auto& [type, payload] : cases) {
        Daemon d;
        d.Connect();
        ASSERT_TRUE(d.native.Send(type, payload));
        const auto status = d.process.WaitExit(10);
        ASSERT_TRUE(status.has_value());
        EXPECT_NE(*status, 0);  // ended abnormally, not through the orderly shutdown
        const auto entries = d.process.LogEntries();
        ASSERT_FALSE(entries.empty());
        if (type == kInitializeConfiguration) {
            EXPECT_EQ(entries.back(), std::string("ERROR;Fatal error, the process ends: Deserialization error: "
                                                  "found type: \0 expected: 5", 85));
        }
        EXPECT_EQ(entries.back().rfind("ERROR;Fatal error, the process ends: Deserialization error:", 0), 0u);
        EXPECT_FALSE(d.Has("INFO;Closed pipes"));
    }
}
