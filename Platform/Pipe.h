#pragma once
#include <cstdint>
#include <string>

namespace Platform {

// Error codes the pipe transport tells apart (Windows values; the POSIX layer maps to them
// where the same case exists).
inline constexpr int kErrorMoreData = 234;
inline constexpr int kErrorOperationAborted = 995;

// The client end of one named pipe of the native side, used in one direction.
class PipeClient {
public:
    PipeClient() = default;
    ~PipeClient();
    PipeClient(const PipeClient&) = delete;
    PipeClient& operator=(const PipeClient&) = delete;

    struct OpenResult {
        std::string path;     // the pipe's full name, for log lines
        int error = 0;        // OS error code of a failed open
        std::string refusal;  // why the server is not trusted; the pipe is left closed
    };
    // Connects to the pipe `name` (e.g. "TessarilNetworkDriverToNative") and checks that its
    // server may command the daemon (Platform/PipeTrust.h). Valid only when both error and
    // refusal are empty.
    OpenResult Open(const std::string& name, bool forWriting);
    bool IsValid() const;
    void Close();

    struct Result {
        bool ok;
        uint32_t bytes;
        int error;  // valid when !ok
    };
    // One read call of at most `count` bytes. End of stream is a failure (broken pipe).
    Result Read(uint8_t* buffer, uint32_t count);
    // One write call of the whole buffer.
    Result Write(const uint8_t* data, uint32_t size);

private:
#ifdef _WIN32
    void* handle_ = reinterpret_cast<void*>(static_cast<intptr_t>(-1));
#else
    int fd_ = -1;
#endif
};

}  // namespace Platform
