#pragma once
// Sends the process logger to a private file at DEBUG threshold for one test, and reads
// the lines back as "LEVEL;text".
#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <unistd.h>

#include "Logging/Logger.h"

namespace NativeNetworkDriver::Testing {

class LogCapture {
public:
    LogCapture() {
        static std::atomic<int> counter{0};
        directory_ = std::filesystem::temp_directory_path() /
                     ("ndlog_" + std::to_string(getpid()) + "_" + std::to_string(counter++));
        std::filesystem::create_directories(directory_);
        auto& logger = TorvUtils::Logger::Instance();
        logger.SetToConsole(false);
        logger.SetToDebugger(false);
        logger.SetToFile(true);
        logger.SetFileCount(1);
        logger.SetMaxFileSize(0);
        logger.SetPrefix("log_");
        logger.SetDirectory(directory_.string() + "/");
        logger.SetThreshold(3);
    }
    ~LogCapture() {
        auto& logger = TorvUtils::Logger::Instance();
        logger.SetToFile(false);
        logger.SetDirectory("");
        std::error_code ec;
        std::filesystem::remove_all(directory_, ec);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> Lines() const {
        std::vector<std::string> lines;
        std::ifstream file(directory_ / "log_0.txt");
        std::string line;
        while (std::getline(file, line)) {
            const auto cut = line.find(';');
            lines.push_back(cut == std::string::npos ? line : line.substr(cut + 1));
        }
        return lines;
    }

    bool Has(const std::string& levelAndText) const {
        for (const auto& line : Lines()) {
            if (line == levelAndText) return true;
        }
        return false;
    }

    // Lines from the first one that equals `first`, on.
    std::vector<std::string> From(const std::string& first) const {
        auto lines = Lines();
        for (size_t i = 0; i < lines.size(); ++i) {
            if (lines[i] == first) return std::vector<std::string>(lines.begin() + static_cast<long>(i), lines.end());
        }
        return {};
    }

private:
    std::filesystem::path directory_;
};

}  // namespace NativeNetworkDriver::Testing
