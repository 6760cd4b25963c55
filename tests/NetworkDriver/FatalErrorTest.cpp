// The terminate handler must end the process even when the logger cannot be had.
#include "NetworkDriver/FatalError.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <iostream>
#include <thread>

#include "Logging/Logger.h"
#include "support/TestFiles.h"

namespace {

void LogInto(const std::string& dir) {
    auto& logger = TorvUtils::Logger::Instance();
    logger.SetDirectory(dir + "/");
    logger.SetPrefix("log_");
    logger.SetThreshold(2);
    logger.SetToFile(true);
    std::set_terminate(NativeNetworkDriver::LogFatalAndAbort);
    alarm(10);  // a hang ends the child by SIGALRM, which fails the expectation below
}

}  // namespace

TEST(FatalErrorDeathTest, AFailureInsideALogWriteIsStillLogged) {
    ndtest::TempDir dir;
    EXPECT_EXIT(
        {
            LogInto(dir.Path());
            TorvUtils::Logger::Instance().SetToConsole(true);
            ::close(STDOUT_FILENO);  // the console write fails and throws inside the logger's lock
            std::cout.exceptions(std::ios::badbit);
            // Uncaught on its own thread: terminate runs with the lock still held by that thread.
            std::thread([] { Log("a line that cannot be written", LogLevel::Info); }).join();
        },
        testing::KilledBySignal(SIGABRT), "");
    const auto lines = ndtest::LogEntries(dir.Path() + "/log_0.txt");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("ERROR;Fatal error, the process ends: ", 0), 0u) << lines[0];
}

TEST(FatalErrorDeathTest, ALogWriteStuckOnAnotherThreadDoesNotHoldTheProcess) {
    ndtest::TempDir dir;
    ASSERT_EQ(mkfifo((dir.Path() + "/log_0.txt").c_str(), 0600), 0);
    EXPECT_EXIT(
        {
            LogInto(dir.Path());
            // Opening a FIFO nobody reads blocks: that thread keeps the lock for good.
            std::thread([] { Log("blocked", LogLevel::Info); }).detach();
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            std::terminate();
        },
        testing::KilledBySignal(SIGABRT), "");
}
