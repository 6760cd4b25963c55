#include "TapDevice.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/if_tun.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace ndpeer {

TapDevice::~TapDevice() {
    if (fd_ >= 0) ::close(fd_);
}

namespace {

// Runs `work` inside another network namespace and comes back, on this thread.
template <typename F>
void InNamespace(const std::string& netns, F&& work) {
    if (netns.empty()) {
        work();
        return;
    }
    const int home = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const int target = ::open(("/run/netns/" + netns).c_str(), O_RDONLY | O_CLOEXEC);
    if (home < 0 || target < 0 || setns(target, CLONE_NEWNET) != 0) {
        if (home >= 0) ::close(home);
        if (target >= 0) ::close(target);
        throw std::runtime_error("cannot enter network namespace " + netns);
    }
    ::close(target);
    try {
        work();
    } catch (...) {
        setns(home, CLONE_NEWNET);
        ::close(home);
        throw;
    }
    setns(home, CLONE_NEWNET);
    ::close(home);
}

}  // namespace

void TapDevice::Open(const std::string& name, const std::vector<uint8_t>& mac, const std::string& netns) {
    InNamespace(netns, [&] { OpenHere(name, mac); });
}

void TapDevice::OpenHere(const std::string& name, const std::vector<uint8_t>& mac) {
    fd_ = ::open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd_ < 0) throw std::runtime_error(std::string("cannot open /dev/net/tun: ") + std::strerror(errno));
    ifreq request{};
    request.ifr_flags = IFF_TAP | IFF_NO_PI;
    std::strncpy(request.ifr_name, name.c_str(), IFNAMSIZ - 1);
    if (ioctl(fd_, TUNSETIFF, &request) != 0)
        throw std::runtime_error("cannot create tap " + name + ": " + std::strerror(errno));
    const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (control < 0) throw std::runtime_error("socket failed");
    if (mac.size() == 6) {
        ifreq address{};
        std::strncpy(address.ifr_name, name.c_str(), IFNAMSIZ - 1);
        address.ifr_hwaddr.sa_family = ARPHRD_ETHER;
        std::memcpy(address.ifr_hwaddr.sa_data, mac.data(), 6);
        if (ioctl(control, SIOCSIFHWADDR, &address) != 0) {
            ::close(control);
            throw std::runtime_error("cannot set the MAC of " + name + ": " + std::strerror(errno));
        }
    }
    ifreq flags{};
    std::strncpy(flags.ifr_name, name.c_str(), IFNAMSIZ - 1);
    if (ioctl(control, SIOCGIFFLAGS, &flags) == 0) {
        flags.ifr_flags |= IFF_UP;
        ioctl(control, SIOCSIFFLAGS, &flags);
    }
    ::close(control);
}

bool TapDevice::WaitReadable(int timeoutMs) {
    pollfd p{fd_, POLLIN, 0};
    return poll(&p, 1, timeoutMs) > 0;
}

int TapDevice::Read(uint8_t* buffer, size_t size) {
    const ssize_t n = ::read(fd_, buffer, size);
    return n > 0 ? static_cast<int>(n) : -1;
}

bool TapDevice::Write(const std::vector<uint8_t>& frame) {
    return ::write(fd_, frame.data(), frame.size()) == static_cast<ssize_t>(frame.size());
}

}  // namespace ndpeer
