#include "support/LogCapture.h"

#include <algorithm>

#include "Logging/Logger.h"

namespace ndtest {

LogCapture::LogCapture(int threshold) {
    auto& logger = TorvUtils::Logger::Instance();
    logger.SetDirectory(dir_.Path() + "/");
    logger.SetPrefix("log_");
    logger.SetFileCount(1);
    logger.SetMaxFileSize(0);  // one file that never rotates
    logger.SetToFile(true);
    logger.SetThreshold(threshold);
}

LogCapture::~LogCapture() {
    auto& logger = TorvUtils::Logger::Instance();
    logger.SetThreshold(2);
    logger.SetToFile(false);
    logger.SetDirectory("");
}

std::string LogCapture::Text() const { return ReadFile(File()); }

std::vector<std::string> LogCapture::Lines() const { return LogEntries(File()); }

int LogCapture::Count(const std::string& levelAndText) const {
    return static_cast<int>(std::ranges::count(Lines(), levelAndText));
}

std::vector<std::string> LogCapture::From(const std::string& first) const {
    auto lines = Lines();
    lines.erase(lines.begin(), std::find(lines.begin(), lines.end(), first));
    return lines;
}

}  // namespace ndtest
