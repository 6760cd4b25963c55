// The real NetworkDriver binary driven over the real pipe sockets.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "ChildProcess.h"
#include "NetworkDriver/Messages.h"
#include "PeerChannel.h"
#include "support/TestFiles.h"

using namespace NativeNetworkDriver;
using testing::Contains;

namespace {

const std::vector<std::string> kStartLines = {"INFO;------------------------------------------",
                                              "INFO;Network Driver 1.0.0 started.",
                                              "INFO;------------------------------------------"};
const Bytes kResultOne = {0, 1, 1, 0, 0, 0};

// A daemon in its own folders, and the native side of its pipes.
struct Daemon {
    void Start() {
        ASSERT_TRUE(process.Start(ND_DAEMON_PATH, {{"NETWORKDRIVER_PIPE_DIR", pipes.Path()},
                                                   {"NETWORKDRIVER_APPDATA_DIR", appData.Path()}}));
    }
    void Connect() {
        native.Listen();
        Start();
        ASSERT_TRUE(native.Accept(10000)) << "the daemon did not connect";
    }
    ndpeer::Message Ask(uint32_t type, const Bytes& payload = {}) {
        EXPECT_TRUE(native.Send(type, payload));
        ndpeer::Message answer;
        EXPECT_TRUE(native.Receive(answer, 10000)) << "no answer to type " << type;
        return answer;
    }
    std::vector<std::string> Log() const {
        return ndtest::LogEntries(appData.Path() + "/TORV/Tessaril/Runtime/NetworkDriver_log_0.txt");
    }

    ndtest::TempDir pipes, appData;
    ndpeer::PeerChannel native{pipes.Path()};
    ndpeer::ChildProcess process;
};

}  // namespace

TEST(Daemon, AnswersEveryRequestByteForByte) {
    Daemon d;
    d.Connect();
    // A large frame with no VPN is read whole and dropped: the stream stays in step.
    ASSERT_TRUE(d.native.Send(kVpnFrame, Bytes(200000, 0x5A)));
    ASSERT_TRUE(d.native.Send(kVpnFrame, {}));
    const std::tuple<uint32_t, Bytes, Bytes> requests[] = {
        {kInitializeConfiguration, Encode(InitializeConfigurationRequest{true}), kResultOne},
        {kAddSupervisorMACToVPN, Encode(AddSupervisorMACToVPNRequest{{2, 0, 0, 0, 0, 1}, true}), kResultOne},
        {kRemoveSupervisorMACFromVPN, Encode(RemoveSupervisorMACFromVPNRequest{{2, 0, 0, 0, 0, 1}}), kResultOne},
        {kStopVPN, {}, {}},
        {kStopICS, {}, {}},
        {kStopNAT, {}, {}},
        // A VPN on an interface that does not exist does not come up.
        {kStartVPN, Encode(StartVPNRequest{{2, 0, 0, 0, 0, 1}, false, {Bytes(16, 'z')}}), {0, 1, 0, 0, 0, 0}}};
    for (const auto& [type, payload, result] : requests) {
        const auto a = d.Ask(type, payload);
        EXPECT_EQ(a.type, type);
        EXPECT_EQ(a.payload, result) << type;
    }

    d.native.CloseToDaemon();
    EXPECT_EQ(d.process.WaitExit(10), 0);
    const auto entries = d.Log();
    ASSERT_GE(entries.size(), 4u);
    EXPECT_TRUE(std::equal(kStartLines.begin(), kStartLines.end(), entries.begin()));
    EXPECT_EQ(entries[3], "INFO;Named Pipes created.");
    EXPECT_THAT(entries, Contains("INFO;Received InitializeConfigurationRequest message: HandleVirtualMachine: true"));
    EXPECT_THAT(entries, Contains("INFO;Received StopICSRequest message"));
    // The native side closing its end reads as a broken pipe and ends the process cleanly.
    EXPECT_THAT(entries, Contains("INFO;Error in ReadFile, error code: 32"));
    EXPECT_EQ(entries.back(), "INFO;Closed pipes");
}

TEST(Daemon, WithNoNativeSideItEndsAtOnce) {
    Daemon alone;
    alone.Start();  // nobody listens on the pipes
    EXPECT_EQ(alone.process.WaitExit(10), 0);
    EXPECT_EQ(alone.Log(), kStartLines);
}

// A type outside the range ends the read loop in order; a malformed payload ends the process
// abnormally. The zero byte found where a tag belongs, written as a character, does not cut
// the text short.
TEST(Daemon, ABadMessageEndsTheProcessWithTheReasonLogged) {
    const std::string fatal("ERROR;Fatal error, the process ends: Deserialization error: found type: \0 expected: ",
                            84);
    const std::tuple<uint32_t, Bytes, bool, std::string> cases[] = {
        {0, {}, true, "ERROR;Header mesagge type error: 0"},
        {11, {}, true, "ERROR;Header mesagge type error: 11"},
        {kInitializeConfiguration, {0, 0, 1, 0, 0, 0}, false, fatal + "5"}};
    for (const auto& [type, payload, orderly, reason] : cases) {
        Daemon d;
        d.Connect();
        ASSERT_TRUE(d.native.Send(type, payload));
        const auto status = d.process.WaitExit(10);
        ASSERT_TRUE(status.has_value());
        EXPECT_EQ(*status == 0, orderly) << type;
        const auto entries = d.Log();
        EXPECT_THAT(entries, Contains(reason));
        EXPECT_EQ(entries.back(), orderly ? "INFO;Closed pipes" : reason);
    }
}
