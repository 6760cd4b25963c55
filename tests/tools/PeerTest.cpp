// The peer against the real daemon: a step that waits for a file.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "Peer.h"
#include "support/TestFiles.h"

TEST(Peer, WaitFileHoldsTheNextStepUntilTheFileAppearsOrTimesOut) {
    ndtest::TempDir pipes, appData, files;
    setenv("NETWORKDRIVER_APPDATA_DIR", appData.Path().c_str(), 1);
    const auto run = [&](const std::string& path, double within) {
        ndpeer::PeerOptions options;
        options.pipeDir = pipes.Path();
        options.daemonPath = ND_DAEMON_PATH;
        const nlohmann::json steps = {{"steps",
                                       {{{"waitFile", path}, {"within", within}},
                                        {{"send", "InitializeConfiguration"}, {"expect", {{"result", 1}}}}}}};
        return ndpeer::Peer(options).Run(ndpeer::ParseScenario(steps, "inline"));
    };
    const std::string go = files.Path() + "/go";
    const auto begin = std::chrono::steady_clock::now();
    std::thread creator([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        std::ofstream(go) << "";
    });
    EXPECT_EQ(run(go, 10), 0);
    creator.join();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(400));
    EXPECT_EQ(run(files.Path() + "/never", 0.3), 1);
}
