#pragma once
// The native side of the two pipes: listens on both sockets, accepts the daemon, frames
// messages both ways.
#include <cstdint>
#include <string>
#include <vector>

namespace ndpeer {

struct Message {
    uint32_t type = 0;
    std::vector<uint8_t> payload;
};

class PeerChannel {
public:
    explicit PeerChannel(std::string pipeDir);
    ~PeerChannel();
    PeerChannel(const PeerChannel&) = delete;
    PeerChannel& operator=(const PeerChannel&) = delete;

    // Creates both listening sockets (replacing stale ones). Throws on failure.
    void Listen();
    // Waits for the daemon to connect to both; false on time-out.
    bool Accept(int timeoutMs);
    // Sends one framed message to the daemon.
    bool Send(uint32_t type, const std::vector<uint8_t>& payload);
    bool SendRaw(const std::vector<uint8_t>& bytes);
    // Reads one message from the daemon; false on time-out or end of stream (see Closed()).
    bool Receive(Message& message, int timeoutMs);
    bool Closed() const { return closed_; }
    // Stops sending: the daemon's read then ends with a broken pipe.
    void CloseToDaemon();
    int FromDaemonFd() const { return fromDaemon_; }

private:
    bool ReadExactly(uint8_t* buffer, size_t size, int timeoutMs);

    std::string dir_;
    int listenToDaemon_ = -1;    // ...ToNative: the daemon reads it, the peer writes
    int listenFromDaemon_ = -1;  // ...FromNative: the daemon writes it, the peer reads
    int toDaemon_ = -1;
    int fromDaemon_ = -1;
    bool closed_ = false;
};

}  // namespace ndpeer
