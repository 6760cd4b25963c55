#include "support/PacketLogCapture.h"

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "Logging/Logger.h"

namespace ndtest {

namespace fs = std::filesystem;

PacketLogCapture::PacketLogCapture(int threshold) {
    static std::atomic<int> counter{0};
    directory_ = (fs::temp_directory_path() /
                  ("ndlog_" + std::to_string(getpid()) + "_" + std::to_string(counter.fetch_add(1))))
                     .string();
    fs::remove_all(directory_);
    fs::create_directories(directory_);
    auto& logger = TorvUtils::Logger::Instance();
    logger.SetToConsole(false);
    logger.SetToDebugger(false);
    logger.SetDirectory(directory_ + "/");
    logger.SetPrefix("log_");
    logger.SetExtension(".txt");
    logger.SetFileCount(3);
    logger.SetMaxFileSize(0);
    logger.SetToFile(true);
    logger.SetThreshold(threshold);
}

PacketLogCapture::~PacketLogCapture() {
    auto& logger = TorvUtils::Logger::Instance();
    logger.SetThreshold(2);
    logger.SetToFile(false);
    logger.SetDirectory("");
    std::error_code ec;
    fs::remove_all(directory_, ec);
}

std::string PacketLogCapture::Text() const {
    std::string all;
    for (int i = 0; i < 3; ++i) {
        std::ifstream in(directory_ + "/log_" + std::to_string(i) + ".txt");
        std::stringstream content;
        content << in.rdbuf();
        all += content.str();
    }
    return all;
}

int PacketLogCapture::CountLines(const std::string& level, const std::string& text) const {
    std::istringstream lines(Text());
    std::string line;
    int count = 0;
    const std::string wanted = ";" + level + ";" + text;
    while (std::getline(lines, line)) {
        const size_t at = line.find(';');
        if (at != std::string::npos && line.compare(at, std::string::npos, wanted) == 0) ++count;
    }
    return count;
}

}  // namespace ndtest
