// The pipe ends on POSIX: two AF_UNIX stream sockets that the daemon connects to.
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

struct PeerChannel::Ends {
    int listenToDaemon = -1;    // ...ToNative: the daemon reads it, the peer writes
    int listenFromDaemon = -1;  // ...FromNative: the daemon writes it, the peer reads
    int toDaemon = -1;
    int fromDaemon = -1;
};

PeerChannel::PeerChannel(std::string pipeDir) : dir_(std::move(pipeDir)), ends_(std::make_unique<Ends>()) {}

PeerChannel::~PeerChannel() {
    CloseFd(ends_->toDaemon);
    CloseFd(ends_->fromDaemon);
    CloseFd(ends_->listenToDaemon);
    CloseFd(ends_->listenFromDaemon);
}

void PeerChannel::Listen() {
    ::mkdir(dir_.c_str(), 0755);
    ends_->listenToDaemon = ListenOn(dir_ + "/TessarilNetworkDriverToNative");
    ends_->listenFromDaemon = ListenOn(dir_ + "/TessarilNetworkDriverFromNative");
}

bool PeerChannel::Accept(int timeoutMs) {
    // The daemon connects to the pipe it reads first, then to the one it writes.
    ends_->toDaemon = AcceptOne(ends_->listenToDaemon, timeoutMs);
    if (ends_->toDaemon < 0) return false;
    ends_->fromDaemon = AcceptOne(ends_->listenFromDaemon, timeoutMs);
    return ends_->fromDaemon >= 0;
}

bool PeerChannel::SendRaw(const std::vector<uint8_t>& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::send(ends_->toDaemon, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

void PeerChannel::CloseToDaemon() { CloseFd(ends_->toDaemon); }

bool PeerChannel::ReadExactly(uint8_t* buffer, size_t size, int timeoutMs) {
    const int fd = ends_->fromDaemon;
    if (fd < 0) return false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    size_t got = 0;
    while (got < size) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !WaitReadable(fd, static_cast<int>(left.count()))) return false;
        const ssize_t n = ::recv(fd, buffer + got, size - got, 0);
        if (n == 0 || (n < 0 && errno != EINTR)) {
            closed_ = true;
            return false;
        }
        if (n > 0) got += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace ndpeer
