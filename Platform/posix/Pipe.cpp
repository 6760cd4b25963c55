#include "Platform/Pipe.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Platform/PipeTrust.h"

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

PipeClient::OpenResult PipeClient::Open(const std::string& name, bool /*forWriting*/) {
    Close();
    OpenResult result;
    result.path = SocketPath(name);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (result.path.size() >= sizeof(address.sun_path)) {
        result.error = ENAMETOOLONG;
        return result;
    }
    // Whoever may write the folder may put his own listener in place of the native side.
    const std::string folder = result.path.substr(0, std::max<size_t>(result.path.rfind('/'), 1));
    struct stat info {};
    if (stat(folder.c_str(), &info) != 0) {
        result.error = errno;
        return result;
    }
    result.refusal = PipeFolderDistrust(info.st_uid, info.st_mode, geteuid());
    if (!result.refusal.empty()) return result;

    std::memcpy(address.sun_path, result.path.c_str(), result.path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        result.error = errno;
        return result;
    }
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        result.error = errno;
        ::close(fd);
        return result;
    }
    // The listener's credentials, taken by the kernel when it called listen().
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        result.refusal = "server credentials unreadable, error code: " + std::to_string(errno);
    else
        result.refusal = PipePeerDistrust(peer.uid, geteuid());
    if (!result.refusal.empty()) {
        ::close(fd);
        return result;
    }
    fd_ = fd;
    return result;
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
