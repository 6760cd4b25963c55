#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

namespace ndpeer {

// A capture of tunnel frames in the classic pcap format (link type Ethernet, microsecond
// timestamps) for tcpdump and Wireshark. The file is unbuffered and each record leaves in one
// write, header and frame together, so a peer that is killed leaves a file that ends after a
// whole record. Write may be called from several threads.
class PcapWriter {
public:
    // Longer frames are cut to this many bytes; the record keeps their real length.
    static constexpr uint32_t kSnapLength = 262144;

    PcapWriter() = default;
    ~PcapWriter();
    PcapWriter(const PcapWriter&) = delete;
    PcapWriter& operator=(const PcapWriter&) = delete;

    // Creates (or empties) the file and writes the file header. Throws std::runtime_error.
    void Open(const std::string& path);
    bool IsOpen() const { return file_ != nullptr; }
    // One record stamped with the current time. A failed write is reported once on standard
    // error and ends the capture; the peer goes on.
    void Write(const uint8_t* frame, size_t size);

private:
    std::mutex lock_;
    std::FILE* file_ = nullptr;
    std::string path_;
    std::vector<uint8_t> record_;  // reused: record header + frame
};

}  // namespace ndpeer
