#include "Platform/Events.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace Platform {

namespace {

// Handle 0 means "no event", so a descriptor must never be 0.
bool IsUsable(NdisApi::Handle handle) { return handle != 0 && handle <= static_cast<NdisApi::Handle>(INT32_MAX); }

enum class Consume { Taken, AlreadyTaken, NotAnEvent };

// Resets an eventfd by reading its counter. On a descriptor that is not an eventfd (an
// epoll descriptor, say) the read fails and the descriptor's own state decides readiness.
Consume TryConsume(int fd) {
    uint64_t value = 0;
    for (;;) {
        const ssize_t n = read(fd, &value, sizeof(value));
        if (n == static_cast<ssize_t>(sizeof(value))) return Consume::Taken;
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Consume::AlreadyTaken;
        return Consume::NotAnEvent;
    }
}

}  // namespace

NdisApi::Handle CreateAutoResetEvent() {
    // Non-blocking so that a wait that lost the race for the counter never blocks in read.
    int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) return 0;
    if (fd == 0) {
        const int moved = fcntl(fd, F_DUPFD_CLOEXEC, 1);
        close(fd);
        if (moved < 0) return 0;
        fd = moved;
    }
    return static_cast<NdisApi::Handle>(fd);
}

bool SetEvent(NdisApi::Handle event) {
    if (!IsUsable(event)) return false;
    const uint64_t one = 1;
    for (;;) {
        const ssize_t n = write(static_cast<int>(event), &one, sizeof(one));
        if (n == static_cast<ssize_t>(sizeof(one))) return true;
        if (n < 0 && errno == EINTR) continue;
        // EAGAIN: the counter is at its maximum, which still reads as signalled.
        return n < 0 && errno == EAGAIN;
    }
}

bool CloseEvent(NdisApi::Handle event) {
    if (!IsUsable(event)) return false;
    return close(static_cast<int>(event)) == 0;
}

int WaitAny(const NdisApi::Handle handles[2]) {
    if (!IsUsable(handles[0]) || !IsUsable(handles[1])) return -1;
    pollfd fds[2] = {{static_cast<int>(handles[0]), POLLIN, 0}, {static_cast<int>(handles[1]), POLLIN, 0}};
    for (;;) {
        fds[0].revents = 0;
        fds[1].revents = 0;
        const int n = poll(fds, 2, -1);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        for (int i = 0; i < 2; ++i) {
            if ((fds[i].revents & POLLNVAL) != 0) return -1;
        }
        for (int i = 0; i < 2; ++i) {
            if ((fds[i].revents & (POLLIN | POLLERR | POLLHUP)) == 0) continue;
            // Another waiter may have reset the event between poll and read: then it
            // was not ours and the wait goes on.
            if (TryConsume(fds[i].fd) != Consume::AlreadyTaken) return i;
        }
    }
}

}  // namespace Platform
