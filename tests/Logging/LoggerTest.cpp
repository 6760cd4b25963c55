#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <thread>

#include "Logging/BrandInfo.h"
#include "Logging/Logger.h"
#include "Logging/NoThousandSep.h"
#include "Platform/Platform.h"
#include "support/TestFiles.h"

using TorvUtils::Logger;

namespace {

// Points the process-wide logger at a fresh folder and puts its defaults back afterwards.
class LoggerTest : public ::testing::Test {
protected:
    void SetUp() override {
        auto& logger = Logger::Instance();
        logger.SetDirectory(dir_.Path() + "/");
        logger.SetPrefix("ring_");
        logger.SetThreshold(2);
        logger.SetMaxFileSize(5000000);
    }
    void TearDown() override {
        auto& logger = Logger::Instance();
        logger.SetThreshold(2);
        logger.SetMaxFileSize(5000000);
        logger.SetFileCount(3);
        logger.SetDirectory("");
        logger.SetPrefix("log_");
    }
    std::string File(int index) const { return dir_.Path() + "/ring_" + std::to_string(index) + ".txt"; }

    ndtest::TempDir dir_;
};

}  // namespace

TEST_F(LoggerTest, ThresholdDecidesWhichLevelsAreWritten) {
    Log("debug line", LogLevel::Debug);
    Log("info line", LogLevel::Info);
    Log("error line", LogLevel::Error);
    Log("never", static_cast<LogLevel>(3));
    Log("never", static_cast<LogLevel>(-1));
    EXPECT_EQ(ndtest::LogEntries(File(0)), (std::vector<std::string>{"INFO;info line", "ERROR;error line"}));

    Logger::Instance().SetThreshold(1);
    Log("info dropped", LogLevel::Info);
    Log("error kept", LogLevel::Error);
    Logger::Instance().SetThreshold(3);
    Log("debug kept", LogLevel::Debug);
    Log("still never", static_cast<LogLevel>(3));
    Logger::Instance().WriteRank("rank three", 3);
    Logger::Instance().SetThreshold(4);
    Logger::Instance().WriteRank("rank four", 4);
    EXPECT_EQ(ndtest::LogEntries(File(0)),
              (std::vector<std::string>{"INFO;info line", "ERROR;error line", "ERROR;error kept", "DEBUG;debug kept",
                                        "DEBUG;rank three", "UNKNOWN;rank four"}));
}

TEST_F(LoggerTest, LinesCarryAUtcStampAndTheRingRotatesAndResumes) {
    Log("stamped", LogLevel::Info);
    const auto lines = ndtest::ReadLines(File(0));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(R"(\d{4}-\d{2}-\d{2} T\d{2}:\d{2}:\d{2},\d{3};INFO;stamped)")))
        << lines[0];

    Logger::Instance().SetMaxFileSize(100);
    const std::string text(60, 'x');  // each line is about 90 bytes with its stamp
    for (int i = 1; i < 7; ++i) Log(text + std::to_string(i), LogLevel::Info);
    // Two lines per file: stamped,1 | 2,3 | 4,5 | then 6 goes to file 0, which starts empty.
    EXPECT_EQ(ndtest::LogEntries(File(0)), (std::vector<std::string>{"INFO;" + text + "6"}));
    EXPECT_EQ(ndtest::LogEntries(File(1)).size(), 2u);
    EXPECT_EQ(ndtest::LogEntries(File(2)).back(), "INFO;" + text + "5");
    EXPECT_FALSE(std::filesystem::exists(File(3)));
    // Re-pointing the logger makes it scan the ring again, as a new process would: it goes
    // on in the newest file, here file 1 (7 fills file 0, 8 starts file 1 afresh).
    Log(text + "7", LogLevel::Info);
    Log(text + "8", LogLevel::Info);
    Logger::Instance().SetDirectory(dir_.Path() + "/");
    Log("after restart", LogLevel::Info);
    EXPECT_EQ(ndtest::LogEntries(File(1)).back(), "INFO;after restart");
}

TEST_F(LoggerTest, AShorterRingClosesTheFileBeyondIt) {
    Logger::Instance().SetMaxFileSize(100);
    const std::string text(60, 'z');
    for (int i = 0; i < 5; ++i) Log(text + std::to_string(i), LogLevel::Info);  // 0,1 | 2,3 | 4
    Logger::Instance().SetFileCount(2);
    Log("two files now", LogLevel::Info);
    EXPECT_EQ(ndtest::LogEntries(File(2)), std::vector<std::string>{"INFO;" + text + "4"});
}

TEST_F(LoggerTest, ConcurrentWritersNeverInterleaveLines) {
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t)
        writers.emplace_back([t] {
            for (int i = 0; i < 200; ++i) Log("writer " + std::to_string(t) + " line " + std::to_string(i),
                                              LogLevel::Info);
        });
    for (auto& w : writers) w.join();
    const auto entries = ndtest::LogEntries(File(0));
    ASSERT_EQ(entries.size(), 800u);
    for (const auto& e : entries) EXPECT_TRUE(std::regex_match(e, std::regex(R"(INFO;writer \d line \d+)"))) << e;
}

namespace {
struct GroupingPunct : std::numpunct<char> {
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
};
}  // namespace

TEST(NoThousandSep, LogNumbersAreNeverGroupedWhateverTheGlobalLocale) {
    const std::locale previous = std::locale::global(std::locale(std::locale::classic(), new GroupingPunct));
    std::ostringstream grouped;
    grouped << 1234567;
    TorvUtils::LogStream s;
    s << 1234567 << " " << 4000000000u;
    std::locale::global(previous);
    EXPECT_EQ(grouped.str(), "1,234,567");  // the global locale really groups
    EXPECT_EQ(s.str(), "1234567 4000000000");
}

TEST(BrandInfo, TheExecutablePathChoosesTheBrand) {
    auto folderOf = [](const std::string& path) { return TorvUtils::ChooseBrand(path)->logDirectory; };
    const std::string sep(1, Platform::kPathSeparator);
    EXPECT_NE(folderOf("/opt/VUD/Halbrook/NetworkDriver").find(sep + "VUD" + sep + "TARVELIS connect" + sep + "Runtime" + sep),
              std::string::npos);
    EXPECT_NE(folderOf("/opt/Halbrook/NetworkDriver").find("Halbrook Automation" + sep + "Cobaltreach Remote Access"),
              std::string::npos);
    // Case matters: a lower-case "vud" is the default brand.
    const std::string plain = folderOf("/opt/vud/NetworkDriver");
    EXPECT_NE(plain.find(sep + "TORV" + sep + "Tessaril" + sep + "Runtime" + sep), std::string::npos);
    EXPECT_EQ(plain.back(), Platform::kPathSeparator);
    EXPECT_TRUE(TorvUtils::ChooseBrand("x")->extra.empty());
}

TEST(BrandInfo, DirectoryChainIsCreatedOnlyWhereMissing) {
    ndtest::TempDir dir;
    const std::string deep = dir.Path() + "/a/b/c/";
    EXPECT_TRUE(TorvUtils::CreateDirectoryChain(deep));
    EXPECT_TRUE(std::filesystem::is_directory(deep));
    EXPECT_FALSE(TorvUtils::CreateDirectoryChain(deep));  // nothing left to create
}
