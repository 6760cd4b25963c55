// The pipe ends on Windows: the server ends of the two named pipes, in message mode, as the
// native runtime creates them. Overlapped handles, so that every wait has a time limit.
#include "PeerChannel.h"

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

namespace ndpeer {

namespace {

constexpr DWORD kPipeBuffer = 0x10000;
constexpr DWORD kIoTimeoutMs = 30000;

HANDLE CreateServerEnd(const std::string& name, DWORD direction) {
    const std::string path = "\\\\.\\pipe\\" + name;
    // One instance, and only ours: a second peer must fail here rather than share the pipes.
    const HANDLE h = CreateNamedPipeA(path.c_str(), direction | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
                                      PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT, 1, kPipeBuffer,
                                      kPipeBuffer, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        throw std::runtime_error("cannot create " + path + ": error " + std::to_string(GetLastError()));
    return h;
}

// One overlapped operation with its own event. Finishing it waits at most `timeoutMs`
// and cancels it after that.
class Overlapped {
public:
    Overlapped() { ov_.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr); }
    ~Overlapped() {
        if (ov_.hEvent != nullptr) CloseHandle(ov_.hEvent);
    }
    Overlapped(const Overlapped&) = delete;
    Overlapped& operator=(const Overlapped&) = delete;
    OVERLAPPED* Get() { return &ov_; }

    // `started` is what the call returned. True with the byte count when the operation
    // completed; ERROR_MORE_DATA (a part of a longer message) counts as completed.
    bool Finish(HANDLE h, BOOL started, DWORD timeoutMs, DWORD& bytes) {
        if (!started) {
            const DWORD error = GetLastError();
            if (error == ERROR_IO_PENDING) {
                if (WaitForSingleObject(ov_.hEvent, timeoutMs) != WAIT_OBJECT_0) CancelIoEx(h, &ov_);
            } else if (error != ERROR_MORE_DATA) {
                return false;
            }
        }
        if (GetOverlappedResult(h, &ov_, &bytes, TRUE)) return true;
        return GetLastError() == ERROR_MORE_DATA;
    }

private:
    OVERLAPPED ov_{};
};

bool Connect(HANDLE h, int timeoutMs) {
    Overlapped ov;
    const BOOL started = ConnectNamedPipe(h, ov.Get());
    if (!started && GetLastError() == ERROR_PIPE_CONNECTED) return true;  // the client came first
    DWORD bytes = 0;
    return ov.Finish(h, started, static_cast<DWORD>(timeoutMs), bytes);
}

void CloseEnd(HANDLE& h) {
    if (h != INVALID_HANDLE_VALUE) CloseHandle(h);
    h = INVALID_HANDLE_VALUE;
}

}  // namespace

struct PeerChannel::Ends {
    HANDLE toDaemon = INVALID_HANDLE_VALUE;    // ...ToNative: the daemon reads it, the peer writes
    HANDLE fromDaemon = INVALID_HANDLE_VALUE;  // ...FromNative: the daemon writes it, the peer reads
};

PeerChannel::PeerChannel(std::string pipeDir) : dir_(std::move(pipeDir)), ends_(std::make_unique<Ends>()) {}

PeerChannel::~PeerChannel() {
    CloseEnd(ends_->toDaemon);
    CloseEnd(ends_->fromDaemon);
}

void PeerChannel::Listen() {
    // Both exist before the daemon starts: it opens them one after the other, without waiting.
    ends_->toDaemon = CreateServerEnd("TessarilNetworkDriverToNative", PIPE_ACCESS_OUTBOUND);
    ends_->fromDaemon = CreateServerEnd("TessarilNetworkDriverFromNative", PIPE_ACCESS_INBOUND);
}

bool PeerChannel::Accept(int timeoutMs) {
    return Connect(ends_->toDaemon, timeoutMs) && Connect(ends_->fromDaemon, timeoutMs);
}

bool PeerChannel::SendRaw(const std::vector<uint8_t>& bytes) {
    const HANDLE h = ends_->toDaemon;
    if (h == INVALID_HANDLE_VALUE) return false;
    // One WriteFile, so that the bytes are one pipe message.
    Overlapped ov;
    DWORD written = 0;
    const DWORD size = static_cast<DWORD>(bytes.size());
    return ov.Finish(h, WriteFile(h, bytes.data(), size, nullptr, ov.Get()), kIoTimeoutMs, written) &&
           written == size;
}

void PeerChannel::CloseToDaemon() {
    if (ends_->toDaemon == INVALID_HANDLE_VALUE) return;
    // Let the daemon read what was sent before the break.
    FlushFileBuffers(ends_->toDaemon);
    CloseEnd(ends_->toDaemon);
}

bool PeerChannel::ReadExactly(uint8_t* buffer, size_t size, int timeoutMs) {
    const HANDLE h = ends_->fromDaemon;
    if (h == INVALID_HANDLE_VALUE) return false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    size_t got = 0;
    while (got < size) {
        // Read only what is there, so that a time-out never leaves a read pending.
        DWORD available = 0;
        if (!PeekNamedPipe(h, nullptr, 0, nullptr, &available, nullptr)) {
            closed_ = true;  // the daemon's end is gone
            return false;
        }
        if (available == 0) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            continue;
        }
        Overlapped ov;
        DWORD n = 0;
        const DWORD want = static_cast<DWORD>(std::min<size_t>(size - got, available));
        if (!ov.Finish(h, ReadFile(h, buffer + got, want, nullptr, ov.Get()), kIoTimeoutMs, n)) {
            closed_ = true;
            return false;
        }
        got += n;
    }
    return true;
}

}  // namespace ndpeer
