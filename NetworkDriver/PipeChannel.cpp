#include "NetworkDriver/PipeChannel.h"

#include <algorithm>
#include <string>

#include "Logging/Logger.h"
#include "NetworkDriver/Encoding.h"

namespace NativeNetworkDriver {

namespace {
// The daemon reads the pipe named ...ToNative and writes the one named ...FromNative:
// the native side creates them under these names.
constexpr const char* kReadPipeName = "TessarilNetworkDriverToNative";
constexpr const char* kWritePipeName = "TessarilNetworkDriverFromNative";
}  // namespace

PipeChannel::~PipeChannel() {
    if (connected_) {
        connected_ = false;
        readPipe_.Close();
        writePipe_.Close();
        Log("Closed pipes", LogLevel::Info);
    }
}

// A pipe whose server is not trusted is logged once and then treated like a pipe that
// could not be opened: nothing is read or answered and the process ends.
void PipeChannel::Open() {
    readPipe_.Close();
    const auto read = readPipe_.Open(kReadPipeName, false);
    readHandleOwned_ = true;
    if (!read.refusal.empty()) {
        connected_ = false;
        Log("Untrusted pipe " + read.path + ": " + read.refusal, LogLevel::Error);
        return;
    }
    if (read.error != 0) {
        connected_ = false;
        Log("CreateFile failed for NetworkDriverToNative pipe " + std::to_string(read.error), LogLevel::Debug);
        return;
    }
    const auto write = writePipe_.Open(kWritePipeName, true);
    writeHandleOwned_ = true;
    if (!write.refusal.empty()) {
        connected_ = false;
        Log("Untrusted pipe " + write.path + ": " + write.refusal, LogLevel::Error);
        return;
    }
    if (write.error != 0) {
        connected_ = false;
        Log("CreateFile failed for NetworkDriverFromNative pipe " + std::to_string(write.error), LogLevel::Debug);
        return;
    }
    Log("Named Pipes created.", LogLevel::Info);
    connected_ = true;
}

int32_t PipeChannel::Read(uint8_t* buffer, uint32_t offset, uint32_t count) {
    const auto result = readPipe_.Read(buffer + offset, count);
    if (result.ok) return static_cast<int32_t>(result.bytes);
    if (result.error == Platform::kErrorOperationAborted)
        Log("Received ERROR_OPERATION_ABORTED", LogLevel::Debug);
    else
        Log("Error in ReadFile, error code: " + std::to_string(result.error), LogLevel::Info);
    return -1;
}

bool PipeChannel::ReadExactly(uint8_t* buffer, uint32_t size) {
    uint32_t got = 0;
    while (got < size) {
        const int32_t n = Read(buffer, got, std::min(size - got, kMaxReadSize));
        if (n <= 0) return false;
        got += static_cast<uint32_t>(n);
    }
    return true;
}

void PipeChannel::ReadLoop() {
    std::vector<uint8_t> header(kHeaderSize);
    for (;;) {
        try {
            if (!ReadExactly(header.data(), kHeaderSize)) return;
        } catch (...) {
            Log("Error while reading the header from the pipe.", LogLevel::Debug);
        }
        Decoder decoder(header, 1);
        PipeMessage message;
        message.type = decoder.ReadEnum32();
        message.length = decoder.ReadUInt32();
        if (message.type == 0 || message.type > 10) {
            Log("Header mesagge type error: " + std::to_string(message.type), LogLevel::Error);
            return;
        }
        if (message.length != 0) {
            message.payload.resize(message.length);
            if (!ReadExactly(message.payload.data(), message.length)) return;
        }
        if (listener_ != nullptr) listener_->OnPipeDataRead(message);
    }
}

void PipeChannel::WriteLocked(const std::vector<uint8_t>& bytes) {
    if (bytes.empty()) return;
    const auto result = writePipe_.Write(bytes.data(), static_cast<uint32_t>(bytes.size()));
    if (result.ok) return;
    if (result.error == Platform::kErrorOperationAborted)
        Log("Received ERROR_OPERATION_ABORTED", LogLevel::Debug);
    else
        Log("Error in WriteFile, error code: " + std::to_string(result.error), LogLevel::Debug);
}

void PipeChannel::Write(const std::vector<uint8_t>& bytes) {
    std::lock_guard lock(writeLock_);
    WriteLocked(bytes);
}

// Header and payload go out in one write, so each message is one pipe message.
void PipeChannel::Send(uint32_t type, const std::vector<uint8_t>& payload) {
    std::lock_guard lock(writeLock_);
    EncodeHeaderInto(sendBuffer_, type, static_cast<uint32_t>(payload.size()));
    sendBuffer_.insert(sendBuffer_.end(), payload.begin(), payload.end());
    WriteLocked(sendBuffer_);
}

void PipeChannel::Send(uint32_t type) { Send(type, {}); }

}  // namespace NativeNetworkDriver
