#pragma once
#include <cstdint>
#include <mutex>
#include <vector>

#include "Platform/Pipe.h"

namespace NativeNetworkDriver {

struct PipeMessage {
    uint32_t type = 0;
    uint32_t length = 0;
    std::vector<uint8_t> payload;
};

class IPipeDataRead {
public:
    virtual ~IPipeDataRead() = default;
    virtual void OnPipeDataRead(const PipeMessage& message) = 0;
};

// The client end of the two pipes of the native side: a blocking read loop that turns the
// byte stream into messages, and framed writes serialised by a lock.
class PipeChannel {
public:
    static constexpr uint32_t kHeaderSize = 11;
    static constexpr uint32_t kMaxReadSize = 0x10000;

    PipeChannel() = default;
    ~PipeChannel();
    PipeChannel(const PipeChannel&) = delete;
    PipeChannel& operator=(const PipeChannel&) = delete;

    void Open();
    bool IsConnected() const { return connected_; }
    void SetListener(IPipeDataRead* listener) { listener_ = listener; }

    // Reads and dispatches messages until the stream ends or a header is invalid.
    void ReadLoop();
    // One read into buffer + offset; the count of bytes read, or -1.
    int32_t Read(uint8_t* buffer, uint32_t offset, uint32_t count);
    // Writes one framed message in a single call.
    void Write(const std::vector<uint8_t>& bytes);
    void Send(uint32_t type, const std::vector<uint8_t>& payload);
    void Send(uint32_t type);

private:
    // Fills `buffer` with exactly `size` bytes; false when a read ends the stream.
    bool ReadExactly(uint8_t* buffer, uint32_t size);
    // One write call; the caller holds writeLock_.
    void WriteLocked(const std::vector<uint8_t>& bytes);

    bool readHandleOwned_ = false;
    Platform::PipeClient readPipe_;
    bool writeHandleOwned_ = false;
    Platform::PipeClient writePipe_;
    bool connected_ = false;
    IPipeDataRead* listener_ = nullptr;
    std::mutex writeLock_;
    std::vector<uint8_t> sendBuffer_;  // reused under writeLock_: no allocation per tunnel frame
};

}  // namespace NativeNetworkDriver
