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
#include "support/LogCapture.h"

TEST(FatalErrorDeathTest, AFailureInsideALogWriteIsStillLogged) {
    ndtest::LogCapture log(2);
    EXPECT_EXIT(
        {
            std::set_terminate(NativeNetworkDriver::LogFatalAndAbort);
            alarm(10);  // a hang ends the child by SIGALRM, which fails the expectation below
            TorvUtils::Logger::Instance().SetToConsole(true);
            ::close(STDOUT_FILENO);  // the console write fails and throws inside the logger's lock
            std::cout.exceptions(std::ios::badbit);
            // Uncaught on its own thread: terminate runs with the lock still held by that thread.
            std::thread([] { Log("a line that cannot be written", LogLevel::Info); }).join();
        },
        testing::KilledBySignal(SIGABRT), "");
    const auto lines = log.Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("ERROR;Fatal error, the process ends: ", 0), 0u) << lines[0];
}

TEST(FatalErrorDeathTest, ALogWriteStuckOnAnotherThreadDoesNotHoldTheProcess) {
    ndtest::LogCapture log(2);
    ASSERT_EQ(mkfifo(log.File().c_str(), 0600), 0);
    EXPECT_EXIT(
        {
            std::set_terminate(NativeNetworkDriver::LogFatalAndAbort);
            alarm(10);
            // Opening a FIFO nobody reads blocks: that thread keeps the lock for good.
            std::thread([] { Log("blocked", LogLevel::Info); }).detach();
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            std::terminate();
        },
        testing::KilledBySignal(SIGABRT), "");
}
