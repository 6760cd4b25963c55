#include "PeerChannel.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "NetworkDriver/Encoding.h"

namespace ndpeer {

namespace {

int ListenOn(const std::string& path) {
    ::unlink(path.c_str());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) throw std::runtime_error("pipe path too long: " + path);
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || listen(fd, 1) != 0)
        throw std::runtime_error("cannot listen on " + path + ": " + std::strerror(errno));
    return fd;
}

bool WaitReadable(int fd, int timeoutMs) {
    pollfd p{fd, POLLIN, 0};
    for (;;) {
        const int n = poll(&p, 1, timeoutMs);
        if (n < 0 && errno == EINTR) continue;
        return n > 0;
    }
}

int AcceptOne(int listenFd, int timeoutMs) {
    if (!WaitReadable(listenFd, timeoutMs)) return -1;
    return accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
}

void CloseFd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

}  // namespace

PeerChannel::PeerChannel(std::string pipeDir) : dir_(std::move(pipeDir)) {}

PeerChannel::~PeerChannel() {
    CloseFd(toDaemon_);
    CloseFd(fromDaemon_);
    CloseFd(listenToDaemon_);
    CloseFd(listenFromDaemon_);
}

void PeerChannel::Listen() {
    ::mkdir(dir_.c_str(), 0755);
    listenToDaemon_ = ListenOn(dir_ + "/TessarilNetworkDriverToNative");
    listenFromDaemon_ = ListenOn(dir_ + "/TessarilNetworkDriverFromNative");
}

bool PeerChannel::Accept(int timeoutMs) {
    // The daemon connects to the pipe it reads first, then to the one it writes.
    toDaemon_ = AcceptOne(listenToDaemon_, timeoutMs);
    if (toDaemon_ < 0) return false;
    fromDaemon_ = AcceptOne(listenFromDaemon_, timeoutMs);
    return fromDaemon_ >= 0;
}

bool PeerChannel::SendRaw(const std::vector<uint8_t>& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::send(toDaemon_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

bool PeerChannel::Send(uint32_t type, const std::vector<uint8_t>& payload) {
    std::vector<uint8_t> bytes = NativeNetworkDriver::EncodeHeader(type, static_cast<uint32_t>(payload.size()));
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return SendRaw(bytes);
}

void PeerChannel::CloseToDaemon() { CloseFd(toDaemon_); }

bool PeerChannel::ReadExactly(uint8_t* buffer, size_t size, int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    size_t got = 0;
    while (got < size) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !WaitReadable(fromDaemon_, static_cast<int>(left.count()))) return false;
        const ssize_t n = ::recv(fromDaemon_, buffer + got, size - got, 0);
        if (n == 0 || (n < 0 && errno != EINTR)) {
            closed_ = true;
            return false;
        }
        if (n > 0) got += static_cast<size_t>(n);
    }
    return true;
}

bool PeerChannel::Receive(Message& message, int timeoutMs) {
    if (fromDaemon_ < 0 || closed_) return false;
    std::vector<uint8_t> header(11);
    if (!ReadExactly(header.data(), header.size(), timeoutMs)) return false;
    NativeNetworkDriver::Decoder decoder(header, 1);
    message.type = decoder.ReadEnum32();
    const uint32_t length = decoder.ReadUInt32();
    message.payload.assign(length, 0);
    // Once a header is in, its payload follows at once.
    return length == 0 || ReadExactly(message.payload.data(), length, 10000);
}

}  // namespace ndpeer
