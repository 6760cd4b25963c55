#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <set>
#include <stdexcept>

#include "Logging/Logger.h"
#include "PortPool/SocketPortPool.h"
#include "support/LogCapture.h"
#include "support/Thrown.h"

using PortPool::SocketPortPool;
using ndtest::LogCapture;

namespace {

// Binds a fresh wildcard socket of the protocol to `port`: the descriptor, or -errno.
int TryBind(PortPool::Kind protocol, uint16_t port) {
    const int fd = socket(AF_INET, protocol == PortPool::Kind::Tcp ? SOCK_STREAM : SOCK_DGRAM, 0);
    if (fd < 0) return -errno;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        const int error = errno;
        close(fd);
        return -error;
    }
    return fd;
}

// A port that is free right now (bound and released again).
uint16_t FreePort(PortPool::Kind protocol) {
    const int fd = TryBind(protocol, 0);
    if (fd < 0) throw std::runtime_error("no free port");
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

bool HeldElsewhere(PortPool::Kind protocol, uint16_t port) {
    const int fd = TryBind(protocol, port);
    if (fd >= 0) close(fd);
    return fd == -EADDRINUSE;
}

std::vector<uint32_t> PortsOf(SocketPortPool& pool) {
    std::vector<uint32_t> ports{12345};  // overwritten, not appended to
    pool.GetPorts(ports);
    return ports;
}

class SocketPortPoolTest : public ::testing::TestWithParam<PortPool::Kind> {};

}  // namespace

TEST_P(SocketPortPoolTest, ReservedAndCustomPortsAreReallyBoundUntilFreed) {
    const PortPool::Kind protocol = GetParam();
    const std::string name = protocol == PortPool::Kind::Tcp ? "TCP" : "UDP";
    SocketPortPool plain(protocol, 5, {});
    const std::vector<uint32_t> ports = PortsOf(plain);
    ASSERT_EQ(std::set<uint32_t>(ports.begin(), ports.end()).size(), 5u);
    for (uint32_t port : ports) EXPECT_TRUE(port != 0 && HeldElsewhere(protocol, uint16_t(port))) << port;
    plain.FreePorts();
    EXPECT_TRUE(PortsOf(plain).empty());
    for (uint32_t port : ports) EXPECT_FALSE(HeldElsewhere(protocol, uint16_t(port))) << port;

    // Custom ports are held but not handed out; every step is logged at level 3.
    const uint16_t custom = FreePort(protocol);
    LogCapture log(3);
    std::vector<uint32_t> handedOut;
    {
        SocketPortPool pool(protocol, 2, {custom});
        handedOut = PortsOf(pool);
        ASSERT_EQ(handedOut.size(), 2u);
        EXPECT_EQ(std::count(handedOut.begin(), handedOut.end(), custom), 0);
        EXPECT_TRUE(HeldElsewhere(protocol, custom));
        EXPECT_EQ(log.Count("DEBUG;Opening " + name + " custom port"), 1);
        EXPECT_EQ(log.Count("DEBUG;Opened " + name + " custom port " + std::to_string(custom)), 1);
        EXPECT_EQ(log.Count("DEBUG;Opening " + name + " port"), 2);
        for (uint32_t port : handedOut)
            EXPECT_EQ(log.Count("DEBUG;Opened " + name + " port " + std::to_string(port)), 1);
    }
    EXPECT_EQ(log.Count("DEBUG;Freeing " + name + " ports"), 1);
    handedOut.push_back(custom);
    for (uint32_t port : handedOut) EXPECT_FALSE(HeldElsewhere(protocol, uint16_t(port))) << port;

    const size_t lines = log.Lines().size();
    SocketPortPool none(protocol, 0, {});
    EXPECT_TRUE(PortsOf(none).empty());
    EXPECT_EQ(log.Lines().size(), lines);
}

TEST_P(SocketPortPoolTest, CustomPortInUseFailsThePoolAndLeavesNothingOpen) {
    const PortPool::Kind protocol = GetParam();
    // The smaller port is opened first and must be closed again when the busy one fails.
    const uint16_t a = FreePort(protocol), b = FreePort(protocol);
    ASSERT_NE(a, b);
    const uint16_t first = std::min(a, b), busy = std::max(a, b);
    const int holder = TryBind(protocol, busy);
    ASSERT_GE(holder, 0);
    EXPECT_EQ(ndtest::Thrown<std::runtime_error>([&] { SocketPortPool pool(protocol, 2, {first, busy}); }),
              "Error binding socket, port already bound");
    EXPECT_FALSE(HeldElsewhere(protocol, first));
    close(holder);
}

INSTANTIATE_TEST_SUITE_P(Protocols, SocketPortPoolTest, ::testing::Values(PortPool::Kind::Tcp, PortPool::Kind::Udp),
                         [](const auto& info) { return info.param == PortPool::Kind::Tcp ? "Tcp" : "Udp"; });

// More ports than descriptors: the pool ends short, logs one INFO line per missing port,
// and returns.
TEST(SocketPortPoolLimits, DescriptorExhaustionEndsWithFewerPorts) {
    LogCapture log(2);
    Log("descriptor limit test", LogLevel::Info);  // opens the log file before the limit is lowered
    // The sanitizers' vptr check needs a descriptor the first time it meets a type: let it
    // meet the pool's error type while descriptors are still there.
    EXPECT_EQ(ndtest::Thrown<std::runtime_error>([] { throw std::runtime_error("warm-up"); }), "warm-up");
    long openCount = 0;
    for ([[maybe_unused]] const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) ++openCount;
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit low = saved;
    low.rlim_cur = static_cast<rlim_t>(openCount + 10);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    const uint32_t wanted = 40;
    std::vector<uint32_t> ports;
    {
        SocketPortPool pool(PortPool::Kind::Tcp, wanted, {});
        pool.GetPorts(ports);
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
    EXPECT_GT(ports.size(), 0u);
    EXPECT_LT(ports.size(), wanted);
    EXPECT_EQ(log.Count("INFO;Error creating socket at port 0, socket() failed: " + std::to_string(EMFILE)),
              static_cast<int>(wanted - ports.size()))
        << log.Text();
}
