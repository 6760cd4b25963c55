// The Linux driver backend on real interfaces: each test builds a "daemon" and a "peer"
// network namespace joined by a veth pair and runs the backend inside the daemon one. Code
// that must run in a namespace runs on a thread that entered it with setns, so the test
// process's own namespace never changes.
#include "Platform/posix/LinuxFilterDriverApi.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <span>
#include <thread>

#include "Platform/InterfaceGuid.h"
#include "support/FrameBuilder.h"

using ndtest::Bytes;

namespace {

constexpr uint32_t kTunnelMode = NdisApi::MSTCP_FLAG_SENT_TUNNEL | NdisApi::MSTCP_FLAG_RECV_TUNNEL |
                                 NdisApi::MSTCP_FLAG_LOOPBACK_BLOCK;

// Runs fn on a thread inside namespace ns and waits for it. False if it could not enter.
bool InNamespace(const std::string& ns, const std::function<void()>& fn) {
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

bool Say(int fd, const std::string& text) { return send(fd, text.data(), text.size(), 0) == ssize_t(text.size()); }

// The next datagram within timeoutMs, or "" when none came.
std::string ReceiveUdp(int fd, int timeoutMs) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0) return {};
    char buffer[4096];
    const ssize_t n = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
}

// The backend opened on the daemon side's veth the way the adapter wrapper does it.
struct Tunnel {
    Platform::LinuxFilterDriverApi api;
    NdisApi::Handle handle = if_nametoindex("ndv0");
    NdisApi::Handle event = 0;
    NdisApi::INTERMEDIATE_BUFFER buffer{};  // the frame ReadOne read last

    bool Open() {
        event = api.CreateAdapterEvent(handle);
        const NdisApi::ADAPTER_MODE mode{handle, kTunnelMode};
        return event != 0 && api.SetHwPacketFilter(handle, NdisApi::NDIS_PACKET_TYPE_PROMISCUOUS) &&
               api.SetAdapterMode(&mode) && api.SetPacketEvent(handle, event);
    }
    bool Close() {
        const NdisApi::ADAPTER_MODE normal{handle, 0};
        // 0x0B: what the interface had.
        const bool closed = api.SetAdapterMode(&normal) && api.FlushAdapterPacketQueue(handle) &&
                            api.SetHwPacketFilter(handle, 0x0B) && api.SetPacketEvent(handle, 0);
        api.CloseAdapterEvent(handle, event);
        return closed;
    }
    bool Send(const Bytes& frame, bool toStack) {
        NdisApi::INTERMEDIATE_BUFFER buffer{};
        // An oversize frame is announced with its real length but only its first bytes fit.
        std::memcpy(buffer.m_IBuffer, frame.data(), std::min(frame.size(), sizeof(buffer.m_IBuffer)));
        buffer.m_Length = static_cast<uint32_t>(frame.size());
        const NdisApi::ETH_REQUEST request{handle, &buffer};
        return toStack ? api.SendPacketToMstcp(&request) : api.SendPacketToAdapter(&request);
    }
    bool ReadOne() {
        NdisApi::ETH_REQUEST request{handle, &buffer};
        return api.ReadPacket(&request);
    }
    // Reads frames until one holds `text`, waiting on the adapter's event; others are dropped.
    // Empty when none came.
    Bytes ReadMatching(const std::string& text, int timeoutMs = 2000) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (std::chrono::steady_clock::now() < deadline) {
            while (ReadOne()) {
                if (std::string(buffer.m_IBuffer, buffer.m_IBuffer + buffer.m_Length).find(text) != std::string::npos)
                    return Bytes(buffer.m_IBuffer, buffer.m_IBuffer + buffer.m_Length);
            }
            pollfd p{static_cast<int>(event), POLLIN, 0};
            poll(&p, 1, 50);
        }
        return {};
    }
};

class LinuxDriver : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root (network namespaces, tcx programs, packet sockets)";
        // Namespaces left behind by test processes that died before cleaning up go first.
        Shell(R"(cd /run/netns && for n in ndt*; do q=${n#ndt}; [ -d "/proc/${q%%x*}" ] || ip netns del $n; done)");
        static std::atomic<int> counter{0};
        const std::string prefix = "ndt" + std::to_string(getpid()) + "x" + std::to_string(counter++);
        daemon_ = prefix + "d";
        peer_ = prefix + "p";
        // Fixed MACs, static neighbours and IPv6 off, so that only test traffic flows.
        const int built = Shell(R"(set -e
            ip netns add $d; ip netns add $p
            ip link add ndv0 netns $d type veth peer name ndv1 netns $p
            for end in "$d 0 1 2" "$p 1 2 1"; do  # namespace, veth number, own and other host number
              set -- $end
              ip netns exec $1 sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
              ip -n $1 link set lo up
              ip -n $1 addr add 10.251.0.$3/24 dev ndv$2; ip -n $1 link set ndv$2 address 02:4e:44:00:00:0$3 up
              ip -n $1 neigh replace 10.251.0.$4 lladdr 02:4e:44:00:00:0$4 dev ndv$2 nud permanent
            done)");
        if (built != 0) GTEST_SKIP() << "could not build the veth pair between two network namespaces";
    }
    void TearDown() override {
        for (int fd : {peer, local})
            close(fd);  // -1 when the test opened none: harmless
        Shell("ip netns del $d; ip netns del $p");
    }
    // Runs a shell script quietly, with $d and $p naming the two namespaces; its exit status.
    int Shell(const std::string& script) {
        const int status = std::system(("exec >/dev/null 2>&1; d=" + daemon_ + " p=" + peer_ + "\n" + script).c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // Runs body inside the daemon namespace, where the backend looks for its interfaces.
    void InDaemon(const std::function<void()>& body) { ASSERT_TRUE(InNamespace(daemon_, body)); }
    // UDP sockets on both ends of the veth pair (10.251.0.2 and .1), connected to each other,
    // closed after the test.
    bool OpenUdp() {
        InNamespace(peer_, [&] { peer = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); });
        InNamespace(daemon_, [&] { local = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); });
        const sockaddr_in p{AF_INET, htons(5001), {htonl(0x0AFB0002)}, {}};
        const sockaddr_in l{AF_INET, htons(5001), {htonl(0x0AFB0001)}, {}};
        const auto *pa = reinterpret_cast<const sockaddr*>(&p), *la = reinterpret_cast<const sockaddr*>(&l);
        return bind(peer, pa, sizeof(p)) == 0 && bind(local, la, sizeof(l)) == 0 &&
               connect(peer, la, sizeof(l)) == 0 && connect(local, pa, sizeof(p)) == 0;
    }
    std::string daemon_, peer_;
    int peer = -1, local = -1;
};

}  // namespace

// The interfaces as listed and their hardware filter; then tunnel mode in both directions: a
// captured frame goes on only when the daemon sends it, and is not captured again; back in normal
// mode the stack talks to the wire directly; an interface that goes away under an open tunnel
// fails the calls.
TEST_F(LinuxDriver, ListsInterfacesAndHoldsEveryFrameUntilTheDaemonSendsItOn) {
    ASSERT_TRUE(OpenUdp());
    InDaemon([&] {
        Tunnel t;
        EXPECT_TRUE(t.api.IsDriverLoaded());
        NdisApi::TCP_AdapterList list;
        ASSERT_TRUE(t.api.GetTcpipBoundAdaptersInfo(&list));
        ASSERT_EQ(list.m_nAdapterCount, 2u);  // lo and the veth
        const uint32_t i = list.m_nAdapterHandle[0] == t.handle ? 0 : 1;
        // The veth's handle, the name its GUID gives, its MAC and its MTU (copies: the fields are packed).
        EXPECT_EQ(+list.m_nAdapterHandle[i], t.handle);
        EXPECT_EQ(reinterpret_cast<const char*>(list.m_szAdapterNameList[i]),
                  "\\DEVICE\\" + Platform::InterfaceGuidText("ndv0"));
        EXPECT_EQ(Bytes(list.m_czCurrentAddress[i], list.m_czCurrentAddress[i] + 6), (Bytes{2, 0x4e, 0x44, 0, 0, 1}));
        EXPECT_EQ(+list.m_usMTU[i], 1500);

        // Tunnel mode diverts everything: a catch-all redirect table is all it can honour.
        NdisApi::STATIC_FILTER_TABLE table{};
        table.m_TableSize = 1;
        table.m_StaticFilters[0].m_dwDirectionFlags = NdisApi::PACKET_FLAG_ON_SEND_RECEIVE;
        table.m_StaticFilters[0].m_FilterAction = NdisApi::FILTER_PACKET_REDIRECT;
        EXPECT_TRUE(t.api.SetPacketFilterTable(&table));
        table.m_StaticFilters[0].m_ValidFields = 1;
        EXPECT_FALSE(t.api.SetPacketFilterTable(&table));
        // A handle that is no interface is refused everywhere.
        uint32_t filter = 0;
        EXPECT_FALSE(t.api.GetHwPacketFilter(999999, &filter));
        EXPECT_EQ(t.api.CreateAdapterEvent(999999), 0u);
        const NdisApi::ADAPTER_MODE mode{999999, kTunnelMode};
        EXPECT_FALSE(t.api.SetAdapterMode(&mode));
        EXPECT_FALSE(t.api.SetPacketEvent(999999, 1));

        // Promiscuous mode follows the hardware filter, with one membership however often set;
        // directed, multicast and broadcast are always on.
        for (const uint32_t set : {0u, 0x20u, 0x20u, 0x0Bu}) {
            SCOPED_TRACE(set);
            ASSERT_TRUE(t.api.SetHwPacketFilter(t.handle, set));
            ASSERT_TRUE(t.api.GetHwPacketFilter(t.handle, &filter));
            EXPECT_EQ(filter, set | 0x0Bu);
            EXPECT_EQ(Shell("ip -d link show ndv0 | grep -q 'promiscuity " + std::to_string(set == 0x20) + "'"), 0);
        }

        ASSERT_TRUE(t.Open());
        // From the wire up to the stack; from the stack, with an odd length whose checksum
        // veth leaves to the hardware, out to the wire.
        for (const auto& [from, to, flag, text] :
             {std::tuple{peer, local, NdisApi::PACKET_FLAG_ON_RECEIVE, std::string("from-the-wire")},
              std::tuple{local, peer, NdisApi::PACKET_FLAG_ON_SEND, std::string(301, 's')}}) {
            SCOPED_TRACE(flag);
            ASSERT_TRUE(Say(from, text));
            const Bytes c = t.ReadMatching(text);
            EXPECT_EQ(t.buffer.m_dwDeviceFlags, flag);
            EXPECT_TRUE(ndtest::IpChecksumValid(c) && ndtest::TransportChecksumValid(c));
            EXPECT_EQ(ReceiveUdp(to, 300), "") << "a frame went on that nobody passed on";
            ASSERT_TRUE(t.Send(c, flag == NdisApi::PACKET_FLAG_ON_RECEIVE));
            EXPECT_EQ(ReceiveUdp(to, 3000), text);
            EXPECT_TRUE(t.ReadMatching(text, 300).empty());
        }
        EXPECT_GE(t.api.GetCounters(t.handle).checksumsCompleted, 1u);
        EXPECT_FALSE(t.Send(Bytes(1515, 0), false));

        // A runt from the wire (46 bytes: veth does not pad) is padded to 60 bytes with zeros.
        ASSERT_TRUE(Say(peer, "runt"));
        const Bytes padded = t.ReadMatching("runt");
        ASSERT_EQ(padded.size(), 60u);
        EXPECT_EQ(std::string(padded.begin() + 42, padded.end()), "runt" + std::string(14, '\0'));

        // UDP segmentation: the stack builds one super-frame whatever the device offers and
        // segments it only after the egress hook; ReadPacket hands out the datagrams.
        const int segment = 1000;
        ASSERT_EQ(setsockopt(local, SOL_UDP, UDP_SEGMENT, &segment, sizeof(segment)), 0);
        const std::string parts[] = {std::string(1000, 'a'), std::string(1000, 'b'), std::string(500, 'c')};
        ASSERT_TRUE(Say(local, parts[0] + parts[1] + parts[2]));
        for (const std::string& part : parts) {
            const Bytes c = t.ReadMatching(part);
            EXPECT_EQ(c.size(), 14 + 20 + 8 + part.size()) << "no datagram of " << part[0];
            EXPECT_TRUE(ndtest::TransportChecksumValid(c));
            ASSERT_TRUE(t.Send(c, false));
            EXPECT_EQ(ReceiveUdp(peer, 3000), part);
        }
        EXPECT_GE(t.api.GetCounters(t.handle).gsoFrames, 1u);
        // Only the tunnelled interface is diverted.
        EXPECT_EQ(Shell("ping -c 1 -W 1 127.0.0.1"), 0);

        ASSERT_TRUE(t.Close());
        for (const auto& [from, to] : {std::pair{peer, local}, std::pair{local, peer}}) {
            ASSERT_TRUE(Say(from, "direct"));
            EXPECT_EQ(ReceiveUdp(to, 3000), "direct");
        }
        EXPECT_FALSE(t.ReadOne());
        EXPECT_FALSE(t.Send(Bytes(60, 0), true)) << "stack injection needs tunnel mode";

        // Open again, leave a frame queued and take the interface away: every call fails, none hangs.
        ASSERT_TRUE(t.Open());
        ASSERT_TRUE(Say(peer, "queued"));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ASSERT_EQ(Shell("ip link del ndv0"), 0);
        int reads = 0;
        while (t.ReadOne() && reads < 100) ++reads;
        EXPECT_LT(reads, 100);
        // Drained, the event stays quiet: a capture thread waiting on it would not spin.
        pollfd p{static_cast<int>(t.event), POLLIN, 0};
        EXPECT_EQ(poll(&p, 1, 200), 0);
        for (const bool toStack : {false, true}) EXPECT_FALSE(t.Send(Bytes(60, 0), toStack));
        EXPECT_FALSE(t.api.GetHwPacketFilter(t.handle, &filter));
        t.Close();
    });
}

// A 4 MiB TCP stream from the peer, whose offloads hand the veth 64 KiB super-frames, reaches
// a listener in the daemon's namespace unchanged through the tunnel: cut by ReadPacket into wire
// frames with valid checksums, or passed whole through the batch calls; the interface's offload
// settings are left as they were.
TEST_F(LinuxDriver, SuperFramesPassCutOrWhole) {
    const std::string features = "ip netns exec $d ethtool -k ndv0 | grep -cxE 'tcp-segmentation-offload: on|"
                                 "generic-segmentation-offload: off|generic-receive-offload: on' | grep -qx 3";
    ASSERT_EQ(Shell("ip netns exec $p ethtool -K ndv1 tx on sg on tso on gso on && "
                    "ip netns exec $d ethtool -K ndv0 tso on gso off gro on"), 0);
    for (const bool whole : {false, true}) {
        SCOPED_TRACE(whole ? "whole" : "cut");
        InDaemon([&] {
            Tunnel t;
            ASSERT_TRUE(t.Open());
            std::atomic<bool> stop{false};
            uint64_t failures = 0;
            // Every frame from the wire goes up, every frame from the stack goes out.
            std::thread pass([&] {
                std::array<NativeNetworkDriver::CapturedFrame, 8> frames;
                for (size_t n; !stop;) {
                    pollfd p{static_cast<int>(t.event), POLLIN, 0};
                    poll(&p, 1, 100);
                    while (whole && (n = t.api.ReadPackets(t.handle, frames.data(), frames.size())) > 0) {
                        for (const auto& [bytes, offload, isSend] : std::span(frames.data(), n)) {
                            failures += (!offload.Any() && bytes.size() > NdisApi::kMaxEtherFrame) ||
                                        !t.api.SendFrame(t.handle, bytes.data(), bytes.size(), offload, !isSend);
                        }
                    }
                    while (!whole && t.ReadOne()) {
                        const auto& b = t.buffer;
                        const Bytes f(b.m_IBuffer, b.m_IBuffer + std::min<size_t>(b.m_Length, NdisApi::kMaxEtherFrame));
                        failures += f.size() < b.m_Length || !ndtest::IpChecksumValid(f) ||
                                    !ndtest::TransportChecksumValid(f) ||
                                    !t.Send(f, b.m_dwDeviceFlags != NdisApi::PACKET_FLAG_ON_SEND);
                    }
                }
            });
            // This shell runs in the daemon's namespace; the listener there stops the client if it hangs.
            EXPECT_EQ(Shell(R"(f=/tmp/$d
                head -c 4194304 /dev/urandom > $f.sent
                timeout 20 nc -d -l 10.251.0.1 5003 > $f.got & listener=$!
                for i in 1 2 3; do ip netns exec $p nc -N -w 5 10.251.0.1 5003 < $f.sent && break; sleep 0.3; done
                wait $listener; cmp $f.sent $f.got; s=$?; rm -f $f.*; exit $s)"),
                      0) << "the stream through the tunnel was cut or corrupted";
            stop = true;
            pass.join();
            EXPECT_EQ(failures, 0u);
            const auto counters = t.api.GetCounters(t.handle);
            EXPECT_GT(counters.gsoFrames, 0u) << "the peer sent no super-frames";
            EXPECT_TRUE(whole ? counters.segments == 0 : counters.segments > counters.gsoFrames);
            EXPECT_EQ(counters.dropped, 0u);
        });
        EXPECT_EQ(Shell(features), 0) << "the backend changed the interface's offloads";
    }
}
