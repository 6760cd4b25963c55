#pragma once
// Throw-away network namespaces for the driver tests: a "daemon" namespace and a "peer"
// namespace joined by a veth pair. The test process's own namespace is never changed:
// code that must run inside a namespace runs on a thread that entered it with setns.
#include <arpa/inet.h>
#include <dirent.h>
#include <signal.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

namespace PlatformTest {

inline int Shell(const std::string& command) {
    const int status = std::system((command + " >/dev/null 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline std::string ShellOutput(const std::string& command) {
    std::string out;
    FILE* pipe = popen((command + " 2>/dev/null").c_str(), "r");
    if (pipe == nullptr) return out;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) out.append(buffer, n);
    pclose(pipe);
    return out;
}

// Runs fn on a thread inside namespace ns and waits for it. False if the namespace could not be entered.
inline bool InNamespace(const std::string& ns, const std::function<void()>& fn) {
    bool entered = false;
    std::thread worker([&] {
        const int fd = open(("/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return;
        entered = setns(fd, CLONE_NEWNET) == 0;
        close(fd);
        if (entered) fn();
    });
    worker.join();
    return entered;
}

// A socket that lives in namespace ns; usable from any thread.
inline int SocketIn(const std::string& ns, int domain, int type, int protocol = 0) {
    int fd = -1;
    InNamespace(ns, [&] { fd = socket(domain, type | SOCK_CLOEXEC, protocol); });
    return fd;
}

inline sockaddr_in Ipv4(const std::string& ip, uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    inet_pton(AF_INET, ip.c_str(), &a.sin_addr);
    return a;
}

inline int UdpSocketIn(const std::string& ns, const std::string& ip, uint16_t port) {
    const int fd = SocketIn(ns, AF_INET, SOCK_DGRAM);
    const sockaddr_in a = Ipv4(ip, port);
    if (fd >= 0 && bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof(a)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

inline bool SendUdp(int fd, const std::string& ip, uint16_t port, const std::string& data) {
    const sockaddr_in a = Ipv4(ip, port);
    return sendto(fd, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&a), sizeof(a)) ==
           static_cast<ssize_t>(data.size());
}

// The next datagram within timeoutMs, or "" when none came.
inline std::string ReceiveUdp(int fd, int timeoutMs) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0) return {};
    char buffer[2048];
    const ssize_t n = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
}

// Namespaces <prefix>d (daemon side, ndv0 10.251.0.1) and <prefix>p (peer, ndv1 10.251.0.2),
// with fixed MAC addresses, static neighbours and IPv6 off so that only test traffic flows.
class VethPair {
public:
    static constexpr const char* kDaemonIf = "ndv0";
    static constexpr const char* kPeerIf = "ndv1";
    static constexpr const char* kDaemonIp = "10.251.0.1";
    static constexpr const char* kPeerIp = "10.251.0.2";
    static constexpr const char* kDaemonMac = "02:4e:44:00:00:01";
    static constexpr const char* kPeerMac = "02:4e:44:00:00:02";

    // Namespaces left behind by test processes that died before cleaning up.
    static void RemoveStale() {
        DIR* dir = opendir("/run/netns");
        if (dir == nullptr) return;
        for (dirent* entry; (entry = readdir(dir)) != nullptr;) {
            const std::string name = entry->d_name;
            if (name.rfind("ndt", 0) != 0) continue;
            const long pid = std::atol(name.c_str() + 3);
            if (pid > 0 && pid != getpid() && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
                Shell("ip netns del " + name);
            }
        }
        closedir(dir);
    }

    // Why the tests cannot run here, or "" when they can.
    static std::string Unavailable() {
        if (geteuid() != 0) return "needs root (network namespaces, tcx programs, packet sockets)";
        const std::string probe = "ndprobe" + std::to_string(getpid());
        if (Shell("ip netns add " + probe) != 0) return "cannot create network namespaces (ip netns add failed)";
        Shell("ip netns del " + probe);
        RemoveStale();
        return {};
    }

    VethPair() {
        static std::atomic<int> counter{0};
        const std::string prefix = "ndt" + std::to_string(getpid()) + "x" + std::to_string(counter++);
        daemon = prefix + "d";
        peer = prefix + "p";
        const std::string sysctl = " sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1";
        ok = Shell("ip netns add " + daemon) == 0 && Shell("ip netns add " + peer) == 0 &&
             Shell("ip netns exec " + daemon + sysctl) == 0 && Shell("ip netns exec " + peer + sysctl) == 0 &&
             Shell("ip link add " + std::string(kDaemonIf) + " netns " + daemon + " address " + kDaemonMac +
                   " type veth peer name " + kPeerIf + " netns " + peer + " address " + kPeerMac) == 0 &&
             Shell("ip -n " + daemon + " addr add " + kDaemonIp + "/24 dev " + kDaemonIf) == 0 &&
             Shell("ip -n " + peer + " addr add " + kPeerIp + "/24 dev " + kPeerIf) == 0 &&
             Shell("ip -n " + daemon + " link set " + kDaemonIf + " up") == 0 &&
             Shell("ip -n " + peer + " link set " + kPeerIf + " up") == 0 &&
             Shell("ip -n " + daemon + " link set lo up") == 0 && Shell("ip -n " + peer + " link set lo up") == 0 &&
             Shell("ip -n " + daemon + " neigh replace " + kPeerIp + " lladdr " + kPeerMac + " dev " + kDaemonIf +
                   " nud permanent") == 0 &&
             Shell("ip -n " + peer + " neigh replace " + kDaemonIp + " lladdr " + kDaemonMac + " dev " + kPeerIf +
                   " nud permanent") == 0;
    }
    ~VethPair() {
        Shell("ip netns del " + daemon);
        Shell("ip netns del " + peer);
    }
    VethPair(const VethPair&) = delete;
    VethPair& operator=(const VethPair&) = delete;

    bool ok = false;
    std::string daemon;
    std::string peer;
};

}  // namespace PlatformTest
