#pragma once
#include <string>

namespace ndtest {

// Routes the process logger into a fresh temporary folder with the given threshold
// (3 lets the level-3 lines through) for the lifetime of the object; afterwards file
// output is off again and the folder is removed.
class PacketLogCapture {
public:
    explicit PacketLogCapture(int threshold = 3);
    ~PacketLogCapture();
    PacketLogCapture(const PacketLogCapture&) = delete;
    PacketLogCapture& operator=(const PacketLogCapture&) = delete;

    // Everything written so far.
    std::string Text() const;
    bool Contains(const std::string& text) const { return Text().find(text) != std::string::npos; }
    // Number of lines (as the logger words them: "<time>;LEVEL;text") with that level and text.
    int CountLines(const std::string& level, const std::string& text) const;
    const std::string& Directory() const { return directory_; }

private:
    std::string directory_;
};

}  // namespace ndtest
