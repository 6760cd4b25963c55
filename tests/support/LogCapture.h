#pragma once
#include <string>
#include <vector>

#include "support/TestFiles.h"

namespace ndtest {

// Routes the process logger into a fresh folder with the given threshold (3 lets the
// level-3 lines through) while the object lives; afterwards file output is off again.
class LogCapture {
public:
    explicit LogCapture(int threshold = 3);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Everything written so far, stamps included.
    std::string Text() const;
    // Each line without its stamp: "INFO;Named Pipes created."
    std::vector<std::string> Lines() const;
    int Count(const std::string& levelAndText) const;
    bool Has(const std::string& levelAndText) const { return Count(levelAndText) > 0; }
    // The lines from the first one that equals `first` on; empty when there is none.
    std::vector<std::string> From(const std::string& first) const;
    // The file of the ring at `index` (the ring has one file unless a test sets more).
    std::string File(int index = 0) const { return dir_.Path() + "/log_" + std::to_string(index) + ".txt"; }

private:
    TempDir dir_;
};

}  // namespace ndtest
