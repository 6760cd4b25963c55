#pragma once
#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

// The level a caller gives a line; the numbers are the public ones (0 DEBUG, 1 INFO, 2 ERROR).
enum class LogLevel { Debug = 0, Info = 1, Error = 2 };

namespace TorvUtils {

// The process-wide logger. Callers pass a public level (LogLevel);
// inside, levels are ranks (3 DEBUG, 2 INFO, 1 ERROR) and a line is written when its
// rank is not above the threshold.
class Logger {
public:
    static Logger& Instance();

    // Public-level entry point; an unknown level writes nothing.
    void Log(const std::string& text, LogLevel level);
    // Writes a line of the given rank straight away (rank 3 is worded DEBUG).
    void WriteRank(const std::string& text, int rank);
    // The last line before the process ends: an ERROR line that never waits long for the
    // lock. If this thread holds it (it failed inside a write), the line is appended through
    // a handle of its own; if another thread keeps it past kFatalLockWait, the line is skipped.
    void WriteFatal(const std::string& text);
    static constexpr std::chrono::milliseconds kFatalLockWait{1000};
    // True when a DEBUG line would be written: the costly debug texts are composed only then.
    bool DebugEnabled() const;

    void SetToConsole(bool on);
    void SetToDebugger(bool on);
    void SetToFile(bool on);
    void SetDirectory(const std::string& directory);
    void SetPrefix(const std::string& prefix);
    void SetExtension(const std::string& extension);
    void SetFileCount(int32_t count);
    void SetMaxFileSize(int32_t bytes);
    void SetThreshold(int32_t threshold);

    // Name of the ring file with the given index.
    std::string FilePath(int32_t index) const;

    static std::string LevelWord(int rank);
    static std::string Timestamp();

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

private:
    static constexpr int kDebugRank = 3;
    bool IsRankEnabled(int rank) const;
    Logger() = default;
    // The lock, with its holder recorded so that the fatal path can tell its own thread.
    class Guard {
    public:
        explicit Guard(const Logger& logger);
        ~Guard();
        Guard(const Guard&) = delete;
        Guard& operator=(const Guard&) = delete;

    private:
        const Logger& logger_;
    };
    std::string FormatLine(const std::string& text, int rank) const;
    void WriteLineLocked(const std::string& line);
    void WriteLocked(const std::string& line);
    void OpenCurrentLocked(bool truncate);
    int32_t NewestRingFileLocked() const;
    void CloseLocked();

    mutable std::mutex mutex_;
    mutable std::atomic<std::thread::id> holder_{};
    bool toConsole_ = false;
    bool toDebugger_ = false;
    bool toFile_ = true;
    std::string directory_;
    std::string prefix_ = "log_";
    std::string extension_ = ".txt";
    int32_t fileCount_ = 3;
    int32_t maxFileSize_ = 5000000;
    int32_t threshold_ = 2;
    int32_t currentIndex_ = 0;
    bool ringScanned_ = false;
    std::ofstream file_;
    uint64_t fileSize_ = 0;
};

}  // namespace TorvUtils

// The one logging call that the whole system uses.
inline void Log(const std::string& text, LogLevel level) { TorvUtils::Logger::Instance().Log(text, level); }
// True when DEBUG lines are written: callers skip composing costly debug texts otherwise.
inline bool DebugEnabled() { return TorvUtils::Logger::Instance().DebugEnabled(); }
