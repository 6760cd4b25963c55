#include "Platform/Pipe.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace Platform {

namespace {
// The native side listens on AF_UNIX stream sockets named after the Windows pipes.
std::string SocketPath(const std::string& name) {
    const char* dir = std::getenv("NETWORKDRIVER_PIPE_DIR");
    std::string path = (dir != nullptr && *dir != '\0') ? dir : "/run/networkdriver";
    if (path.back() != '/') path += '/';
    return path + name;
}
}  // namespace

PipeClient::~PipeClient() { Close(); }

int PipeClient::Open(const std::string& name, bool /*forWriting*/) {
    Close();
    const std::string path = SocketPath(name);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) return ENAMETOOLONG;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return errno;
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        const int error = errno;
        ::close(fd);
        return error;
    }
    fd_ = fd;
    return 0;
}

bool PipeClient::IsValid() const { return fd_ >= 0; }

void PipeClient::Close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

PipeClient::Result PipeClient::Read(uint8_t* buffer, uint32_t count) {
    for (;;) {
        const ssize_t n = ::recv(fd_, buffer, count, 0);
        if (n > 0) return {true, static_cast<uint32_t>(n), 0};
        if (n == 0) return {false, 0, EPIPE};  // the native side closed its end
        if (errno == EINTR) continue;
        return {false, 0, errno};
    }
}

PipeClient::Result PipeClient::Write(const uint8_t* data, uint32_t size) {
    uint32_t done = 0;
    // A stream socket may take a message in pieces; the caller's lock keeps them together.
    while (done < size) {
        const ssize_t n = ::send(fd_, data + done, size - done, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            return {false, done, errno};
        }
        done += static_cast<uint32_t>(n);
    }
    return {true, done, 0};
}

}  // namespace Platform
