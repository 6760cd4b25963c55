#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <regex>
#include <thread>

#include "Logging/BrandInfo.h"
#include "Logging/Logger.h"
#include "Logging/NoThousandSep.h"
#include "Platform/Platform.h"
#include "support/LogCapture.h"

using TorvUtils::Logger;

namespace {

// The process-wide logger writing into a fresh folder, with a ring of three files.
class LoggerTest : public ::testing::Test {
protected:
    void SetUp() override { Logger::Instance().SetFileCount(3); }
    std::vector<std::string> Entries(int index) const { return ndtest::LogEntries(log_.File(index)); }

    ndtest::LogCapture log_{2};
};

}  // namespace

TEST_F(LoggerTest, ThresholdDecidesWhichLevelsAreWritten) {
    Log("debug line", LogLevel::Debug);
    Log("info line", LogLevel::Info);
    Log("error line", LogLevel::Error);
    Log("never", static_cast<LogLevel>(3));
    Log("never", static_cast<LogLevel>(-1));
    Logger::Instance().SetThreshold(1);
    Log("info dropped", LogLevel::Info);
    Log("error kept", LogLevel::Error);
    Logger::Instance().SetThreshold(3);
    Log("debug kept", LogLevel::Debug);
    Log("still never", static_cast<LogLevel>(3));
    Logger::Instance().WriteRank("rank three", 3);
    Logger::Instance().SetThreshold(4);
    Logger::Instance().WriteRank("rank four", 4);
    EXPECT_EQ(Entries(0), (std::vector<std::string>{"INFO;info line", "ERROR;error line", "ERROR;error kept",
                                                    "DEBUG;debug kept", "DEBUG;rank three", "UNKNOWN;rank four"}));
}

TEST_F(LoggerTest, LinesCarryAUtcStampAndTheRingRotatesAndResumes) {
    Log("stamped", LogLevel::Info);
    const std::string first = ndtest::ReadFile(log_.File());
    EXPECT_TRUE(std::regex_match(first, std::regex(R"(\d{4}-\d{2}-\d{2} T\d{2}:\d{2}:\d{2},\d{3};INFO;stamped\n)")))
        << first;

    Logger::Instance().SetMaxFileSize(100);
    const std::string text(60, 'x');  // each line is about 90 bytes with its stamp
    for (int i = 1; i < 7; ++i) Log(text + std::to_string(i), LogLevel::Info);
    // Two lines per file: stamped,1 | 2,3 | 4,5 | then 6 goes to file 0, which starts empty.
    EXPECT_EQ(Entries(0), (std::vector<std::string>{"INFO;" + text + "6"}));
    EXPECT_EQ(Entries(2).back(), "INFO;" + text + "5");
    // On a new ring setting the logger goes on in the newest file of the ring, as a restarted
    // process would, and leaves a file beyond a shorter ring alone even when it is newer.
    for (int i = 7; i < 11; ++i) Log(text + std::to_string(i), LogLevel::Info);  // 6,7 | 8,9 | 10
    const auto later = std::filesystem::file_time_type::clock::now() + std::chrono::hours(1);
    std::filesystem::last_write_time(log_.File(1), later);
    std::filesystem::last_write_time(log_.File(2), later + std::chrono::hours(1));
    Logger::Instance().SetFileCount(2);
    Log("resumed", LogLevel::Info);  // file 1 is full: the next file is file 0
    EXPECT_EQ(Entries(0), std::vector<std::string>{"INFO;resumed"});
    EXPECT_EQ(Entries(2), std::vector<std::string>{"INFO;" + text + "10"});
}

// A fatal line after ordinary ones takes the ring's next file like any line, and a new
// folder or name prefix takes the lines that follow at once.
TEST_F(LoggerTest, FatalLinesAndANewFolderFollowOnFromOrdinaryLines) {
    Logger::Instance().SetMaxFileSize(100);
    Log(std::string(60, 'x'), LogLevel::Info);
    Log(std::string(60, 'y'), LogLevel::Info);  // file 0 is full
    Logger::Instance().WriteFatal("fatal");
    EXPECT_EQ(Entries(1), std::vector<std::string>{"ERROR;fatal"});
    ndtest::TempDir other;
    Logger::Instance().SetDirectory(other.Path() + "/");
    Log("moved", LogLevel::Info);
    Logger::Instance().SetPrefix("next_");
    Log("renamed", LogLevel::Info);
    EXPECT_EQ(ndtest::LogEntries(other.Path() + "/log_0.txt"), std::vector<std::string>{"INFO;moved"});
    EXPECT_EQ(ndtest::LogEntries(other.Path() + "/next_0.txt"), std::vector<std::string>{"INFO;renamed"});
}

TEST_F(LoggerTest, ConcurrentWritersNeverInterleaveLines) {
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t)
        writers.emplace_back([t] {
            for (int i = 0; i < 200; ++i) Log(std::to_string(t) + " line " + std::to_string(i), LogLevel::Info);
        });
    for (auto& w : writers) w.join();
    const auto entries = Entries(0);
    ASSERT_EQ(entries.size(), 800u);
    for (const auto& e : entries) EXPECT_TRUE(std::regex_match(e, std::regex(R"(INFO;\d line \d+)"))) << e;
}

namespace {
struct GroupingPunct : std::numpunct<char> {
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
};
}  // namespace

TEST(NoThousandSep, LogNumbersAreNeverGroupedWhateverTheGlobalLocale) {
    const std::locale previous = std::locale::global(std::locale(std::locale::classic(), new GroupingPunct));
    TorvUtils::LogStream s;
    s << 1234567 << " " << 4000000000u;
    std::locale::global(previous);
    EXPECT_EQ(s.str(), "1234567 4000000000");
}

TEST(BrandInfo, TheExecutablePathChoosesTheBrand) {
    const std::string s(1, Platform::kPathSeparator);
    const std::pair<const char*, std::string> cases[] = {
        {"/opt/VUD/Halbrook/NetworkDriver", "VUD" + s + "TARVELIS connect"},
        {"/opt/Halbrook/NetworkDriver", "Halbrook Automation" + s + "Cobaltreach Remote Access"},
        {"/opt/vud/NetworkDriver", "TORV" + s + "Tessaril"},  // case matters
    };
    for (const auto& [path, folder] : cases)
        EXPECT_EQ(TorvUtils::ChooseBrand(path)->logDirectory,
                  Platform::CommonAppDataFolder() + s + folder + s + "Runtime" + s);
}
