#pragma once
// The native side of the two pipes: serves both, accepts the daemon, frames messages both
// ways. The framing is shared; the pipe ends are the OS's (AF_UNIX sockets on POSIX,
// message-mode named pipes on Windows).
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace ndpeer {

struct Message {
    uint32_t type = 0;
    std::vector<uint8_t> payload;
    std::vector<uint8_t> header;  // the 11 bytes as received (empty for messages built here)
};

class PeerChannel {
public:
    // pipeDir: the folder of the pipe sockets on POSIX; Windows pipes have fixed names.
    explicit PeerChannel(std::string pipeDir);
    ~PeerChannel();
    PeerChannel(const PeerChannel&) = delete;
    PeerChannel& operator=(const PeerChannel&) = delete;

    // Creates both pipes (replacing stale sockets on POSIX). Throws on failure.
    void Listen();
    // Waits for the daemon to connect to both; false on time-out.
    bool Accept(int timeoutMs);
    // Sends one framed message to the daemon.
    bool Send(uint32_t type, const std::vector<uint8_t>& payload);
    // Sends bytes as they are, in one write.
    bool SendRaw(const std::vector<uint8_t>& bytes);
    // Reads one message from the daemon; false on time-out or end of stream (see Closed()).
    // A header that does not decode ends the stream too.
    bool Receive(Message& message, int timeoutMs);
    bool Closed() const { return closed_; }
    // Stops sending: the daemon's read then ends with a broken pipe.
    void CloseToDaemon();

private:
    bool ReadExactly(uint8_t* buffer, size_t size, int timeoutMs);

    struct Ends;  // the OS handles of both pipes
    std::string dir_;
    std::unique_ptr<Ends> ends_;
    bool closed_ = false;
};

}  // namespace ndpeer
