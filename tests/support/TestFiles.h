#pragma once
#include <string>
#include <vector>

namespace ndtest {

// A fresh folder under /tmp, removed with everything in it when the object goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

std::string ReadFile(const std::string& path);
// The text after "<timestamp>;" of each line: "INFO;Named Pipes created." (a line without one, whole)
std::vector<std::string> LogEntries(const std::string& path);

}  // namespace ndtest
