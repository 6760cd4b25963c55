#include "PcapWriter.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <stdexcept>

namespace ndpeer {

namespace {

constexpr uint32_t kMagicMicroseconds = 0xA1B2C3D4;
constexpr uint32_t kLinkTypeEthernet = 1;
constexpr size_t kFileHeaderSize = 24;
constexpr size_t kRecordHeaderSize = 16;

// The format allows either byte order (readers look at the magic); we write little-endian.
void Put32(uint8_t* at, uint32_t value) {
    for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(value >> (8 * i));
}
void Put16(uint8_t* at, uint16_t value) {
    at[0] = static_cast<uint8_t>(value);
    at[1] = static_cast<uint8_t>(value >> 8);
}

}  // namespace

PcapWriter::~PcapWriter() {
    if (file_ != nullptr) std::fclose(file_);
}

void PcapWriter::Open(const std::string& path) {
    std::lock_guard guard(lock_);
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) throw std::runtime_error("--pcap: cannot create " + path + ": " + std::strerror(errno));
    std::setvbuf(file, nullptr, _IONBF, 0);
    uint8_t header[kFileHeaderSize] = {};
    Put32(header, kMagicMicroseconds);
    Put16(header + 4, 2);  // format version 2.4
    Put16(header + 6, 4);
    // Bytes 8..15: time zone offset and timestamp accuracy, both 0.
    Put32(header + 16, kSnapLength);
    Put32(header + 20, kLinkTypeEthernet);
    if (std::fwrite(header, sizeof(header), 1, file) != 1) {
        std::fclose(file);
        throw std::runtime_error("--pcap: cannot write " + path);
    }
    file_ = file;
    path_ = path;
    record_.reserve(kRecordHeaderSize + 2048);
}

void PcapWriter::Write(const uint8_t* frame, size_t size) {
    std::lock_guard guard(lock_);
    if (file_ == nullptr) return;
    const auto since = std::chrono::system_clock::now().time_since_epoch();
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(since).count();
    const size_t kept = std::min<size_t>(size, kSnapLength);
    record_.resize(kRecordHeaderSize + kept);
    Put32(record_.data(), static_cast<uint32_t>(micros / 1000000));
    Put32(record_.data() + 4, static_cast<uint32_t>(micros % 1000000));
    Put32(record_.data() + 8, static_cast<uint32_t>(kept));
    Put32(record_.data() + 12, static_cast<uint32_t>(std::min<size_t>(size, UINT32_MAX)));
    if (kept != 0) std::memcpy(record_.data() + kRecordHeaderSize, frame, kept);
    if (std::fwrite(record_.data(), record_.size(), 1, file_) != 1) {
        std::cerr << "ndpeer: cannot write to " << path_ << "; the capture ends here" << std::endl;
        std::fclose(file_);
        file_ = nullptr;
    }
}

}  // namespace ndpeer
