#include "Logging/Logger.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>

#include "Platform/Platform.h"

namespace TorvUtils {

namespace fs = std::filesystem;

Logger& Logger::Instance() {
    static Logger instance;  // thread-safe first-use initialisation
    return instance;
}

std::string Logger::LevelWord(int rank) {
    switch (rank) {
        case 1: return "ERROR";
        case 2: return "INFO";
        case 3: return "DEBUG";
        default: return "UNKNOWN";
    }
}

std::string Logger::Timestamp() {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const auto day = floor<days>(now);
    const year_month_day ymd{day};
    const hh_mm_ss hms{floor<milliseconds>(now - day)};
    char text[32];
    std::snprintf(text, sizeof(text), "%04d-%02u-%02u T%02d:%02d:%02d,%03d", static_cast<int>(ymd.year()),
                  static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                  static_cast<int>(hms.hours().count()), static_cast<int>(hms.minutes().count()),
                  static_cast<int>(hms.seconds().count()), static_cast<int>(hms.subseconds().count()));
    return text;
}

void Logger::Log(const std::string& text, LogLevel level) {
    int rank;
    switch (level) {
        case LogLevel::Debug: rank = kDebugRank; break;
        case LogLevel::Info: rank = 2; break;
        case LogLevel::Error: rank = 1; break;
        default: return;
    }
    WriteRank(text, rank);
}

bool Logger::IsRankEnabled(int rank) const {
    Guard lock(*this);
    return (toConsole_ || toDebugger_ || toFile_) && rank <= threshold_;
}

bool Logger::DebugEnabled() const { return IsRankEnabled(kDebugRank); }

Logger::Guard::Guard(const Logger& logger) : logger_(logger) {
    logger_.mutex_.lock();
    logger_.holder_.store(std::this_thread::get_id());
}

Logger::Guard::~Guard() {
    logger_.holder_.store(std::thread::id());
    logger_.mutex_.unlock();
}

std::string Logger::FormatLine(const std::string& text, int rank) const {
    std::string line = Timestamp();
    line += ';';
    line += LevelWord(rank);
    line += ';';
    line += text;
    line += '\n';
    return line;
}

void Logger::WriteRank(const std::string& text, int rank) {
    Guard lock(*this);
    if (!(toConsole_ || toDebugger_ || toFile_) || rank > threshold_) return;
    WriteLineLocked(FormatLine(text, rank));
}

void Logger::WriteFatal(const std::string& text) {
    constexpr int kErrorRank = 1;
    if (holder_.load() == std::this_thread::get_id()) {
        // This thread failed in the middle of a write and still holds the lock: the stream's
        // state is unknown, so the line goes to the current ring file through a new handle.
        if (!toFile_ || kErrorRank > threshold_) return;
        std::ofstream aside(FilePath(currentIndex_), std::ios::binary | std::ios::out | std::ios::app);
        const std::string line = FormatLine(text, kErrorRank);
        aside.write(line.data(), static_cast<std::streamsize>(line.size()));
        return;
    }
    // Another holder may be stuck (a write that blocks): wait a little, never forever. A
    // polled try_lock rather than a timed lock, which the thread sanitizer cannot follow.
    const auto deadline = std::chrono::steady_clock::now() + kFatalLockWait;
    while (!mutex_.try_lock()) {
        if (std::chrono::steady_clock::now() >= deadline) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    holder_.store(std::this_thread::get_id());
    if ((toConsole_ || toDebugger_ || toFile_) && kErrorRank <= threshold_) WriteLineLocked(FormatLine(text, kErrorRank));
    holder_.store(std::thread::id());
    mutex_.unlock();
}

void Logger::WriteLineLocked(const std::string& line) {
    if (toConsole_) {
        std::cout << line;
        std::cout.flush();
    }
    if (toDebugger_) Platform::DebuggerOutput(line);
    if (toFile_) WriteLocked(line);
}

std::string Logger::FilePath(int32_t index) const {
    return directory_ + prefix_ + std::to_string(index) + extension_;
}

// The ring file written most recently is where a restarted process continues.
int32_t Logger::NewestRingFileLocked() const {
    int32_t newest = 0;
    fs::file_time_type newestTime = fs::file_time_type::min();
    std::error_code ec;
    for (int32_t i = 0; i < fileCount_; ++i) {
        const auto t = fs::last_write_time(FilePath(i), ec);
        if (!ec && t > newestTime) {
            newestTime = t;
            newest = i;
        }
    }
    return newest;
}

void Logger::OpenCurrentLocked(bool truncate) {
    const std::string path = FilePath(currentIndex_);
    // Binary mode: lines end in "\n" on every platform.
    file_.open(path, std::ios::binary | (truncate ? (std::ios::out | std::ios::trunc) : (std::ios::out | std::ios::app)));
    std::error_code ec;
    const auto size = truncate ? 0 : fs::file_size(path, ec);
    fileSize_ = ec ? 0 : size;
}

void Logger::CloseLocked() {
    if (file_.is_open()) file_.close();
    file_.clear();
}

void Logger::WriteLocked(const std::string& line) {
    if (!file_.is_open()) {
        if (!ringScanned_) {
            currentIndex_ = NewestRingFileLocked();
            ringScanned_ = true;
        }
        OpenCurrentLocked(false);
        // A file that cannot be opened loses the line; the next line tries again.
        if (!file_.is_open()) return;
    }
    if (maxFileSize_ != 0 && fileSize_ > static_cast<uint64_t>(maxFileSize_)) {
        CloseLocked();
        currentIndex_ = (currentIndex_ + 1 < fileCount_) ? currentIndex_ + 1 : 0;
        OpenCurrentLocked(true);
        if (!file_.is_open()) return;
    }
    file_.write(line.data(), static_cast<std::streamsize>(line.size()));
    file_.flush();
    fileSize_ += line.size();
}

void Logger::SetToConsole(bool on) { Guard lock(*this); toConsole_ = on; }
void Logger::SetToDebugger(bool on) { Guard lock(*this); toDebugger_ = on; }
void Logger::SetToFile(bool on) { Guard lock(*this); toFile_ = on; }
void Logger::SetThreshold(int32_t threshold) { Guard lock(*this); threshold_ = threshold; }
void Logger::SetMaxFileSize(int32_t bytes) { Guard lock(*this); maxFileSize_ = bytes; }

// Settings that change the file names close the current file and rescan the ring.
void Logger::SetDirectory(const std::string& directory) {
    Guard lock(*this);
    directory_ = directory;
    CloseLocked();
    ringScanned_ = false;
}
void Logger::SetPrefix(const std::string& prefix) {
    Guard lock(*this);
    prefix_ = prefix;
    CloseLocked();
    ringScanned_ = false;
}
void Logger::SetExtension(const std::string& extension) {
    Guard lock(*this);
    extension_ = extension;
    CloseLocked();
    ringScanned_ = false;
}
void Logger::SetFileCount(int32_t count) {
    Guard lock(*this);
    fileCount_ = count > 0 ? count : 1;
    CloseLocked();
    ringScanned_ = false;
}

}  // namespace TorvUtils
