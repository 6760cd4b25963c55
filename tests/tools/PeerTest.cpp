// The peer against the real daemon: steps that wait for a file.
#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "Peer.h"
#include "support/TestFiles.h"

using nlohmann::json;

namespace {

int RunAgainstDaemon(const json& document, const std::string& pipeDir) {
    ndpeer::PeerOptions options;
    options.pipeDir = pipeDir;
    options.daemonPath = ND_DAEMON_PATH;
    ndpeer::Peer peer(options);
    return peer.Run(ndpeer::ParseScenario(document, "inline"));
}

}  // namespace

TEST(Peer, WaitFileHoldsTheNextStepUntilTheFileAppearsOrTimesOut) {
    ndtest::TempDir pipes, appData, files;
    setenv("NETWORKDRIVER_APPDATA_DIR", appData.Path().c_str(), 1);
    const std::string go = files.Path() + "/go";
    const json waits = {{"steps",
                         {{{"waitFile", go}, {"within", 10}},
                          {{"send", "InitializeConfiguration"}, {"expect", {{"result", 1}}}}}}};

    const auto begin = std::chrono::steady_clock::now();
    std::thread creator([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        std::ofstream(go) << "";
    });
    const int status = RunAgainstDaemon(waits, pipes.Path());
    creator.join();
    EXPECT_EQ(status, 0);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(400));

    const json timesOut = {{"steps", {{{"waitFile", files.Path() + "/never"}, {"within", 0.3}}}}};
    EXPECT_EQ(RunAgainstDaemon(timesOut, pipes.Path()), 1);
}
