#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>

#include "Logging/Logger.h"
#include "PortPool/SocketPortPool.h"
#include "support/LogCapture.h"
#include "support/Thrown.h"

using PortPool::SocketPortPool;
using ndtest::LogCapture;

namespace {

// Whether a fresh wildcard socket of the protocol fails to bind `port` because it is taken.
bool HeldElsewhere(PortPool::Kind protocol, uint32_t port) {
    const int fd = socket(AF_INET, protocol == PortPool::Kind::Tcp ? SOCK_STREAM : SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    const bool taken = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 && errno == EADDRINUSE;
    close(fd);
    return taken;
}

std::vector<uint32_t> PortsOf(SocketPortPool& pool) {
    std::vector<uint32_t> ports{12345};  // overwritten, not appended to
    pool.GetPorts(ports);
    return ports;
}

// Ports that are free right now: taken by a pool, which lets them go again.
std::vector<uint32_t> UnusedPorts(PortPool::Kind protocol, uint32_t count) {
    SocketPortPool pool(protocol, count, {});
    return PortsOf(pool);
}

class SocketPortPoolTest : public ::testing::TestWithParam<PortPool::Kind> {};

}  // namespace

// Custom ports are held but not handed out; every step is logged at level 3.
TEST_P(SocketPortPoolTest, ReservedAndCustomPortsAreReallyBoundUntilFreed) {
    const PortPool::Kind protocol = GetParam();
    const std::string name = protocol == PortPool::Kind::Tcp ? "TCP" : "UDP";
    const uint32_t custom = UnusedPorts(protocol, 1)[0];
    LogCapture log(3);
    std::vector<uint32_t> ports;
    {
        SocketPortPool pool(protocol, 3, {custom});
        ports = PortsOf(pool);
        ASSERT_EQ(ports.size(), 3u);  // each one logged below
        ports.push_back(custom);
        for (uint32_t port : ports) EXPECT_TRUE(port != 0 && HeldElsewhere(protocol, port)) << port;
        pool.FreePorts();
        EXPECT_TRUE(PortsOf(pool).empty());
        for (uint32_t port : ports) EXPECT_FALSE(HeldElsewhere(protocol, port)) << port;
    }
    std::vector<std::string> expected = {"DEBUG;Opening " + name + " custom port",
                                         "DEBUG;Opened " + name + " custom port " + std::to_string(custom)};
    for (size_t i = 0; i < 3; ++i) {
        expected.push_back("DEBUG;Opening " + name + " port");
        expected.push_back("DEBUG;Opened " + name + " port " + std::to_string(ports[i]));
    }
    expected.insert(expected.end(), 2, "DEBUG;Freeing " + name + " ports");  // by the call and the destructor
    EXPECT_EQ(log.Lines(), expected);
}

TEST_P(SocketPortPoolTest, CustomPortInUseFailsThePoolAndLeavesNothingOpen) {
    const PortPool::Kind protocol = GetParam();
    // The smaller port is opened first and must be closed again when the busy one fails.
    const std::vector<uint32_t> unused = UnusedPorts(protocol, 2);
    const uint32_t first = std::min(unused[0], unused[1]), busy = std::max(unused[0], unused[1]);
    const SocketPortPool holder(protocol, 0, {busy});
    EXPECT_EQ(ndtest::Thrown<std::runtime_error>([&] { SocketPortPool pool(protocol, 2, {first, busy}); }),
              "Error binding socket, port already bound");
    EXPECT_FALSE(HeldElsewhere(protocol, first));
}

INSTANTIATE_TEST_SUITE_P(Protocols, SocketPortPoolTest, ::testing::Values(PortPool::Kind::Tcp, PortPool::Kind::Udp),
                         [](const auto& info) { return info.param == PortPool::Kind::Tcp ? "Tcp" : "Udp"; });

// More ports than descriptors: a pool ends short, logging one INFO line per missing port and
// returning; an ICMP pool gives up at its first failure (this system may allow no ping
// sockets at all, which fails with another error).
TEST(SocketPortPoolLimits, DescriptorExhaustionEndsWithFewerPorts) {
    LogCapture log(2);
    Log("descriptor limit test", LogLevel::Info);  // opens the log file before the limit is lowered
    // The sanitizers' vptr check needs a descriptor the first time it meets a type: let it
    // meet the pool's error type, caught as the pool catches it, while descriptors are there.
    EXPECT_EQ(ndtest::Thrown<std::exception>([] { throw std::runtime_error("warm-up"); }), "warm-up");
    const auto openCount = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    const rlimit low{static_cast<rlim_t>(openCount + 10), saved.rlim_max};
    const uint32_t wanted = 40;
    const std::string failure = "INFO;Error creating socket at port 0, socket() failed: ";
    for (const auto protocol : {PortPool::Kind::Tcp, PortPool::Kind::Icmp}) {
        const bool tcp = protocol == PortPool::Kind::Tcp;
        const auto before = static_cast<long>(log.Lines().size());
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
        SocketPortPool pool(protocol, wanted, {});
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
        const auto held = static_cast<uint32_t>(PortsOf(pool).size());
        EXPECT_LT(held, wanted);
        EXPECT_TRUE(held > 0 || !tcp);  // the ports had before the limit are kept
        const auto lines = log.Lines();
        const std::vector<std::string> added(lines.begin() + before, lines.end());
        EXPECT_EQ(added.size(), tcp ? wanted - held : 1);
        for (const auto& line : added)
            EXPECT_EQ(line.rfind(failure + (tcp ? std::to_string(EMFILE) : ""), 0), 0u) << line;
    }
}
