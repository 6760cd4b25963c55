// The Linux driver backend on real interfaces: each test builds its own pair of network
// namespaces joined by a veth pair and runs the backend inside the "daemon" namespace.
#include "Platform/posix/LinuxFilterDriverApi.h"

#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <netinet/udp.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/wait.h>

#include <array>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "Platform/InterfaceGuid.h"
#include "Platform/NetnsTestSupport.h"
#include "support/FrameBuilder.h"

using namespace PlatformTest;
using ndtest::Bytes;
using NdisApi::Handle;
using Platform::LinuxFilterDriverApi;

namespace {

constexpr uint32_t kTunnelMode = NdisApi::MSTCP_FLAG_SENT_TUNNEL | NdisApi::MSTCP_FLAG_RECV_TUNNEL |
                                 NdisApi::MSTCP_FLAG_LOOPBACK_BLOCK;

struct Captured {
    Bytes frame;
    uint32_t flags = 0;
};

// The backend opened on the daemon side's veth the way the adapter wrapper does it.
struct Tunnel {
    LinuxFilterDriverApi api;
    Handle handle = 0;
    Handle event = 0;
    uint32_t savedFilter = 0;

    bool Open() {
        handle = FindHandle(VethPair::kDaemonIf);
        if (handle == 0) return false;
        event = api.CreateAdapterEvent(handle);
        return event != 0 && api.GetHwPacketFilter(handle, &savedFilter) &&
               api.SetHwPacketFilter(handle, NdisApi::NDIS_PACKET_TYPE_PROMISCUOUS) && SetMode(kTunnelMode) &&
               api.SetPacketEvent(handle, event);
    }
    bool SetMode(uint32_t flags) {
        const NdisApi::ADAPTER_MODE mode{handle, flags};
        return api.SetAdapterMode(&mode);
    }
    void Close() {
        SetMode(0);
        api.FlushAdapterPacketQueue(handle);
        api.SetHwPacketFilter(handle, savedFilter);
        api.SetPacketEvent(handle, 0);
        api.CloseAdapterEvent(handle, event);
        event = 0;
    }
    Handle FindHandle(const std::string& name) {
        NdisApi::TCP_AdapterList list;
        if (!api.GetTcpipBoundAdaptersInfo(&list)) return 0;
        const std::string wanted = "\\DEVICE\\" + Platform::InterfaceGuidText(name);
        for (uint32_t i = 0; i < list.m_nAdapterCount; ++i) {
            if (wanted == reinterpret_cast<const char*>(list.m_szAdapterNameList[i])) return list.m_nAdapterHandle[i];
        }
        return 0;
    }

    bool Send(const Bytes& frame, bool toStack) {
        NdisApi::INTERMEDIATE_BUFFER buffer{};
        // An oversize frame is announced with its real length but only its first bytes fit.
        std::memcpy(buffer.m_IBuffer, frame.data(), std::min(frame.size(), sizeof(buffer.m_IBuffer)));
        buffer.m_Length = static_cast<uint32_t>(frame.size());
        const NdisApi::ETH_REQUEST request{handle, &buffer};
        return toStack ? api.SendPacketToMstcp(&request) : api.SendPacketToAdapter(&request);
    }

    // Reads frames until one satisfies match, waiting on the adapter's event; others are dropped.
    std::optional<Captured> ReadMatching(const std::function<bool(const Captured&)>& match, int timeoutMs = 2000) {
        NdisApi::INTERMEDIATE_BUFFER buffer{};
        NdisApi::ETH_REQUEST request{handle, &buffer};
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (std::chrono::steady_clock::now() < deadline) {
            while (api.ReadPacket(&request)) {
                Captured c{Bytes(buffer.m_IBuffer, buffer.m_IBuffer + buffer.m_Length), buffer.m_dwDeviceFlags};
                if (match(c)) return c;
            }
            pollfd p{static_cast<int>(event), POLLIN, 0};
            poll(&p, 1, 50);
        }
        return std::nullopt;
    }
};

bool Contains(const Bytes& frame, const std::string& text) {
    return std::search(frame.begin(), frame.end(), text.begin(), text.end()) != frame.end();
}

// Keeps a tunnelled interface working: every frame from the wire goes up, every frame
// from the stack goes out, after the frame's checks. `whole`: super-frames as they come,
// through the batch calls; otherwise cut into wire frames by ReadPacket.
class PassThrough {
public:
    explicit PassThrough(Tunnel& tunnel, bool whole = false)
        : tunnel_(tunnel), whole_(whole), stop_(eventfd(0, EFD_CLOEXEC)) {
        thread_ = std::thread([this] { Run(); });
    }
    ~PassThrough() {
        Stop();
        close(stop_);
    }
    void Stop() {
        if (!thread_.joinable()) return;
        const uint64_t one = 1;
        (void)!write(stop_, &one, sizeof(one));
        thread_.join();
    }
    std::atomic<uint64_t> badChecksums{0};
    std::atomic<uint64_t> oversize{0};
    std::atomic<uint64_t> sendFailures{0};

private:
    void Run() {
        NdisApi::INTERMEDIATE_BUFFER buffer{};
        NdisApi::ETH_REQUEST request{tunnel_.handle, &buffer};
        for (;;) {
            pollfd p[2] = {{stop_, POLLIN, 0}, {static_cast<int>(tunnel_.event), POLLIN, 0}};
            if (poll(p, 2, 1000) < 0 || (p[0].revents & POLLIN)) return;
            if (whole_) {
                PassWhole();
                continue;
            }
            while (tunnel_.api.ReadPacket(&request)) {
                if (buffer.m_Length > NdisApi::kMaxEtherFrame) ++oversize;
                const Bytes f(buffer.m_IBuffer, buffer.m_IBuffer + std::min<size_t>(buffer.m_Length, 1514));
                const bool ipv4 = f.size() >= 34 && f[12] == 0x08 && f[13] == 0x00 && (f[23] == 6 || f[23] == 17);
                if (ipv4 && !(ndtest::IpChecksumValid(f) && ndtest::TransportChecksumValid(f))) ++badChecksums;
                const bool ok = buffer.m_dwDeviceFlags == NdisApi::PACKET_FLAG_ON_SEND
                                    ? tunnel_.api.SendPacketToAdapter(&request)
                                    : tunnel_.api.SendPacketToMstcp(&request);
                if (!ok) ++sendFailures;
            }
        }
    }
    void PassWhole() {
        std::array<NativeNetworkDriver::CapturedFrame, 8> frames;
        for (size_t n; (n = tunnel_.api.ReadPackets(tunnel_.handle, frames.data(), frames.size())) > 0;) {
            for (size_t i = 0; i < n; ++i) {
                const auto& f = frames[i];
                if (!f.offload.Any() && f.bytes.size() > NdisApi::kMaxEtherFrame) ++oversize;
                if (!tunnel_.api.SendFrame(tunnel_.handle, f.bytes.data(), f.bytes.size(), f.offload, !f.isSend))
                    ++sendFailures;
            }
        }
    }
    Tunnel& tunnel_;
    bool whole_;
    int stop_;
    std::thread thread_;
};

class LinuxDriver : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string why = VethPair::Unavailable();
        if (!why.empty()) GTEST_SKIP() << why;
        net_ = std::make_unique<VethPair>();
        if (!net_->ok) GTEST_SKIP() << "could not build the veth pair between two network namespaces";
    }
    void TearDown() override {
        for (int fd : {peer, local})
            if (fd >= 0) close(fd);
    }
    // Runs body inside the daemon namespace, where the backend looks for its interfaces.
    void InDaemon(const std::function<void()>& body) { ASSERT_TRUE(InNamespace(net_->daemon, body)); }
    // UDP sockets bound to `port` on both ends of the veth pair, closed after the test.
    bool OpenUdp(uint16_t port) {
        peer = UdpSocketIn(net_->peer, VethPair::kPeerIp, port);
        local = UdpSocketIn(net_->daemon, VethPair::kDaemonIp, port);
        return peer >= 0 && local >= 0;
    }

    void StreamThroughTunnel(bool whole, Platform::LinuxFilterDriverApi::Counters& counters);

    std::unique_ptr<VethPair> net_;
    int peer = -1, local = -1;
};

std::string Ethtool(const std::string& ns, const std::string& args) {
    return ShellOutput("ip netns exec " + ns + " ethtool " + args);
}

// "on"/"off" of one feature line of ethtool -k.
std::string Feature(const std::string& listing, const std::string& name) {
    const size_t at = listing.find("\n" + name + ": ");
    if (at == std::string::npos) return "?";
    const size_t value = at + name.size() + 3;
    return listing.substr(value, listing.compare(value, 2, "on") == 0 ? 2 : 3);
}

}  // namespace

TEST_F(LinuxDriver, ListsInterfacesWithGuidNamesAndLoadsItsPrograms) {
    InDaemon([&] {
        Tunnel t;
        EXPECT_TRUE(t.api.IsDriverLoaded());
        NdisApi::TCP_AdapterList list;
        ASSERT_TRUE(t.api.GetTcpipBoundAdaptersInfo(&list));
        ASSERT_EQ(list.m_nAdapterCount, 2u);  // lo and the veth
        bool found = false;
        for (uint32_t i = 0; i < list.m_nAdapterCount; ++i) {
            const std::string name(reinterpret_cast<const char*>(list.m_szAdapterNameList[i]));
            if (name != "\\DEVICE\\" + Platform::InterfaceGuidText(VethPair::kDaemonIf)) continue;
            found = true;
            EXPECT_EQ(name, "\\DEVICE\\{3076646E-0000-0000-0000-000000000000}");
            const Handle handle = list.m_nAdapterHandle[i];  // packed: copy before comparing
            const uint16_t mtu = list.m_usMTU[i];
            EXPECT_EQ(handle, if_nametoindex(VethPair::kDaemonIf));
            const uint8_t mac[6] = {0x02, 0x4e, 0x44, 0, 0, 1};
            EXPECT_EQ(std::memcmp(list.m_czCurrentAddress[i], mac, 6), 0);
            EXPECT_EQ(mtu, 1500);
        }
        EXPECT_TRUE(found);
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
    });
}

TEST_F(LinuxDriver, FramesFromTheWireReachTheStackOnlyWhenSentThere) {
    ASSERT_TRUE(OpenUdp(5001));
    InDaemon([&] {
        Tunnel t;
        ASSERT_TRUE(t.Open());
        ASSERT_TRUE(SendUdp(peer, VethPair::kDaemonIp, 5001, "from-the-wire"));
        const auto c = t.ReadMatching([](const Captured& c) { return Contains(c.frame, "from-the-wire"); });
        ASSERT_TRUE(c.has_value());
        EXPECT_EQ(c->flags, NdisApi::PACKET_FLAG_ON_RECEIVE);
        EXPECT_TRUE(ndtest::TransportChecksumValid(c->frame));
        EXPECT_EQ(ReceiveUdp(local, 300), "") << "the stack saw a frame nobody passed on";

        ASSERT_TRUE(t.Send(c->frame, true));
        EXPECT_EQ(ReceiveUdp(local, 3000), "from-the-wire");
        // Sent to the stack, the frame is not captured again.
        EXPECT_FALSE(t.ReadMatching([](const Captured& c) { return Contains(c.frame, "from-the-wire"); }, 300));

        // Back to normal mode: the stack gets frames directly and nothing is captured.
        t.Close();
        ASSERT_TRUE(SendUdp(peer, VethPair::kDaemonIp, 5001, "direct"));
        EXPECT_EQ(ReceiveUdp(local, 3000), "direct");
        NdisApi::INTERMEDIATE_BUFFER buffer{};
        NdisApi::ETH_REQUEST request{t.handle, &buffer};
        EXPECT_FALSE(t.api.ReadPacket(&request));
        EXPECT_FALSE(t.Send(c->frame, true)) << "stack injection needs tunnel mode";
    });
}

TEST_F(LinuxDriver, FramesFromTheStackLeaveOnlyWhenSentToTheWire) {
    ASSERT_TRUE(OpenUdp(5002));
    InDaemon([&] {
        Tunnel t;
        ASSERT_TRUE(t.Open());
        const std::string payload(301, 's');  // odd length, checksum left to the hardware by veth
        ASSERT_TRUE(SendUdp(local, VethPair::kPeerIp, 5002, payload));
        const auto c = t.ReadMatching([&](const Captured& c) { return Contains(c.frame, payload); });
        ASSERT_TRUE(c.has_value());
        EXPECT_EQ(c->flags, NdisApi::PACKET_FLAG_ON_SEND);
        EXPECT_TRUE(ndtest::IpChecksumValid(c->frame));
        EXPECT_TRUE(ndtest::TransportChecksumValid(c->frame));
        EXPECT_GE(t.api.GetCounters(t.handle).checksumsCompleted, 1u);
        EXPECT_EQ(ReceiveUdp(peer, 300), "") << "a frame left without being sent to the wire";

        ASSERT_TRUE(t.Send(c->frame, false));
        EXPECT_EQ(ReceiveUdp(peer, 3000), payload);
        // What the daemon sends to the wire is not captured as the stack's.
        EXPECT_FALSE(t.ReadMatching([&](const Captured& c) { return Contains(c.frame, payload); }, 300));

        EXPECT_FALSE(t.Send(Bytes(1515, 0), false));
        t.Close();
        ASSERT_TRUE(SendUdp(local, VethPair::kPeerIp, 5002, "direct"));
        EXPECT_EQ(ReceiveUdp(peer, 3000), "direct");
    });
}

TEST_F(LinuxDriver, UdpSegmentationOffloadFromTheStackArrivesAsSeparateDatagrams) {
    ASSERT_TRUE(OpenUdp(5007));
    // The stack builds one super-frame whatever the device offers, and segments it only
    // after the egress hook, so the capture sees it whole.
    const int segment = 1000;
    ASSERT_EQ(setsockopt(local, SOL_UDP, UDP_SEGMENT, &segment, sizeof(segment)), 0);
    InDaemon([&] {
        Tunnel t;
        ASSERT_TRUE(t.Open());
        const std::string payload = std::string(1000, 'a') + std::string(1000, 'b') + std::string(500, 'c');
        ASSERT_TRUE(SendUdp(local, VethPair::kPeerIp, 5007, payload));
        std::string seen;
        for (const char marker : {'a', 'b', 'c'}) {
            const std::string part(marker == 'c' ? 500 : 1000, marker);
            const auto c = t.ReadMatching([&](const Captured& c) { return Contains(c.frame, part); });
            ASSERT_TRUE(c.has_value()) << "no datagram of " << marker;
            EXPECT_EQ(c->frame.size(), 14 + 20 + 8 + part.size());
            EXPECT_TRUE(ndtest::TransportChecksumValid(c->frame));
            ASSERT_TRUE(t.Send(c->frame, false));
            seen += ReceiveUdp(peer, 3000);
        }
        EXPECT_EQ(seen, payload);
        EXPECT_GE(t.api.GetCounters(t.handle).gsoFrames, 1u);
    });
}

TEST_F(LinuxDriver, RuntFramesFromTheWireArePaddedTo60Bytes) {
    const int raw = SocketIn(net_->peer, AF_PACKET, SOCK_RAW, 0);
    ASSERT_GE(raw, 0);
    InDaemon([&] {
        Tunnel t;
        ASSERT_TRUE(t.Open());
        sockaddr_ll to{};
        to.sll_family = AF_PACKET;
        InNamespace(net_->peer, [&] { to.sll_ifindex = static_cast<int>(if_nametoindex(VethPair::kPeerIf)); });
        Bytes runt = {0x02, 0x4e, 0x44, 0, 0, 1, 0x02, 0x4e, 0x44, 0, 0, 2, 0x88, 0xB5};
        for (int i = 0; i < 28; ++i) runt.push_back(static_cast<uint8_t>(0xA0 + i));
        ASSERT_EQ(runt.size(), 42u);
        ASSERT_EQ(sendto(raw, runt.data(), runt.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)), 42);
        const auto c = t.ReadMatching([](const Captured& c) { return c.frame.size() >= 14 && ndtest::Be16(c.frame, 12) == 0x88B5; });
        ASSERT_TRUE(c.has_value());
        ASSERT_EQ(c->frame.size(), 60u);
        EXPECT_TRUE(std::equal(runt.begin(), runt.end(), c->frame.begin()));
        EXPECT_TRUE(std::all_of(c->frame.begin() + 42, c->frame.end(), [](uint8_t b) { return b == 0; }));
    });
    close(raw);
}

// A 4 MiB TCP stream from the peer, with its offloads on, through the tunnel to a server
// in the daemon's namespace; checks what arrives and returns the backend's counters.
void LinuxDriver::StreamThroughTunnel(bool whole, Platform::LinuxFilterDriverApi::Counters& counters) {
    // The peer keeps its offloads, so its TCP stack hands the veth 64 KiB frames.
    ASSERT_EQ(Shell("ip netns exec " + net_->peer + " ethtool -K " + VethPair::kPeerIf + " tx on sg on tso on gso on"), 0);
    const int server = SocketIn(net_->daemon, AF_INET, SOCK_STREAM);
    const int client = SocketIn(net_->peer, AF_INET, SOCK_STREAM);
    ASSERT_GE(server, 0);
    ASSERT_GE(client, 0);
    const int one = 1;
    setsockopt(server, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    const sockaddr_in at = Ipv4(VethPair::kDaemonIp, 5003);
    ASSERT_EQ(bind(server, reinterpret_cast<const sockaddr*>(&at), sizeof(at)), 0);
    ASSERT_EQ(listen(server, 1), 0);
    const Bytes data = ndtest::Pattern(4 * 1024 * 1024, 3);

    InDaemon([&] {
        Tunnel t;
        ASSERT_TRUE(t.Open());
        auto pass = std::make_unique<PassThrough>(t, whole);
        std::thread sender([&] {
            timeval timeout{10, 0};
            setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
            if (connect(client, reinterpret_cast<const sockaddr*>(&at), sizeof(at)) != 0) return;
            size_t off = 0;
            while (off < data.size()) {
                const ssize_t n = send(client, data.data() + off, data.size() - off, MSG_NOSIGNAL);
                if (n <= 0) break;
                off += static_cast<size_t>(n);
            }
            shutdown(client, SHUT_WR);
        });
        pollfd p{server, POLLIN, 0};
        ASSERT_EQ(poll(&p, 1, 5000), 1) << "no connection through the tunnel";
        const int conn = accept(server, nullptr, nullptr);
        ASSERT_GE(conn, 0);
        timeval timeout{10, 0};
        setsockopt(conn, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
        Bytes received;
        received.reserve(data.size());
        uint8_t buffer[65536];
        for (ssize_t n; (n = recv(conn, buffer, sizeof(buffer), 0)) > 0;) {
            received.resize(received.size() + static_cast<size_t>(n));  // not insert: GCC 12 -O3 warns falsely
            std::memcpy(received.data() + received.size() - static_cast<size_t>(n), buffer, static_cast<size_t>(n));
        }
        sender.join();
        close(conn);
        EXPECT_EQ(received.size(), data.size());
        EXPECT_TRUE(received == data) << "stream corrupted";
        EXPECT_EQ(Shell("ip netns exec " + net_->peer + " ping -c 2 -i 0.2 -W 1 " + VethPair::kDaemonIp), 0);
        EXPECT_EQ(pass->badChecksums.load(), 0u);
        EXPECT_EQ(pass->oversize.load(), 0u);
        EXPECT_EQ(pass->sendFailures.load(), 0u);
        pass.reset();

        counters = t.api.GetCounters(t.handle);
    });
    close(server);
    close(client);
}

TEST_F(LinuxDriver, PassThroughSplitsSuperFramesAndKeepsChecksumsValid) {
    Platform::LinuxFilterDriverApi::Counters counters;
    StreamThroughTunnel(false, counters);
    EXPECT_GT(counters.gsoFrames, 0u) << "the peer sent no super-frames: the split was not exercised";
    EXPECT_GT(counters.segments, counters.gsoFrames);
    EXPECT_EQ(counters.dropped, 0u);
}

TEST_F(LinuxDriver, SuperFramesPassWholeAndOffloadsStayAsTheyAre) {
    const std::string& ns = net_->daemon;
    const std::string dev = VethPair::kDaemonIf;
    ASSERT_EQ(Shell("ip netns exec " + ns + " ethtool -K " + dev + " tso on gso off gro on"), 0);
    auto features = [&] {
        const std::string k = Ethtool(ns, "-k " + dev);
        return Feature(k, "tcp-segmentation-offload") + "/" + Feature(k, "generic-segmentation-offload") + "/" +
               Feature(k, "generic-receive-offload");
    };
    Platform::LinuxFilterDriverApi::Counters counters;
    StreamThroughTunnel(true, counters);
    EXPECT_EQ(features(), "on/off/on");
    EXPECT_GT(counters.gsoFrames, 0u) << "the peer sent no super-frames";
    EXPECT_EQ(counters.segments, 0u);
    EXPECT_EQ(counters.dropped, 0u);
}

TEST_F(LinuxDriver, PromiscuousModeFollowsTheHardwareFilter) {
    const std::string show = "ip -d -n " + net_->daemon + " link show " + VethPair::kDaemonIf;
    InDaemon([&] {
        Tunnel t;
        t.handle = t.FindHandle(VethPair::kDaemonIf);
        ASSERT_NE(t.handle, 0u);
        uint32_t filter = 0;
        ASSERT_TRUE(t.api.GetHwPacketFilter(t.handle, &filter));
        EXPECT_EQ(filter & NdisApi::NDIS_PACKET_TYPE_PROMISCUOUS, 0u);
        EXPECT_NE(ShellOutput(show).find("promiscuity 0"), std::string::npos);

        ASSERT_TRUE(t.api.SetHwPacketFilter(t.handle, NdisApi::NDIS_PACKET_TYPE_PROMISCUOUS));
        EXPECT_NE(ShellOutput(show).find("promiscuity 1"), std::string::npos);
        ASSERT_TRUE(t.api.GetHwPacketFilter(t.handle, &filter));
        EXPECT_NE(filter & NdisApi::NDIS_PACKET_TYPE_PROMISCUOUS, 0u);
        ASSERT_TRUE(t.api.SetHwPacketFilter(t.handle, NdisApi::NDIS_PACKET_TYPE_PROMISCUOUS));  // no second membership
        EXPECT_NE(ShellOutput(show).find("promiscuity 1"), std::string::npos);

        ASSERT_TRUE(t.api.SetHwPacketFilter(t.handle, 0x0B));
        EXPECT_NE(ShellOutput(show).find("promiscuity 0"), std::string::npos);
    });
}

TEST_F(LinuxDriver, KilledOwnerLeavesTheInterfaceWorking) {
    ASSERT_TRUE(OpenUdp(5005));
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t child = -1;
    // Forked from a thread inside the daemon namespace, so the child lives there too.
    InDaemon([&] {
        child = fork();
        if (child == 0) {
            Tunnel t;
            const char status = t.Open() ? 'y' : 'n';
            (void)!write(ready[1], &status, 1);
            for (;;) pause();
        }
    });
    ASSERT_GT(child, 0);
    close(ready[1]);
    char status = 0;
    ASSERT_EQ(read(ready[0], &status, 1), 1);
    close(ready[0]);
    EXPECT_EQ(status, 'y');

    // Nobody reads the tunnel: traffic stops in both directions.
    ASSERT_TRUE(SendUdp(peer, VethPair::kDaemonIp, 5005, "blocked-in"));
    EXPECT_EQ(ReceiveUdp(local, 300), "");
    ASSERT_TRUE(SendUdp(local, VethPair::kPeerIp, 5005, "blocked-out"));
    EXPECT_EQ(ReceiveUdp(peer, 300), "");

    kill(child, SIGKILL);
    int wstatus = 0;
    ASSERT_EQ(waitpid(child, &wstatus, 0), child);
    EXPECT_TRUE(WIFSIGNALED(wstatus));

    // The kernel dropped the programs with the process.
    ASSERT_TRUE(SendUdp(peer, VethPair::kDaemonIp, 5005, "after-in"));
    EXPECT_EQ(ReceiveUdp(local, 3000), "after-in");
    ASSERT_TRUE(SendUdp(local, VethPair::kPeerIp, 5005, "after-out"));
    EXPECT_EQ(ReceiveUdp(peer, 3000), "after-out");
    EXPECT_EQ(Shell("ip netns exec " + net_->peer + " ping -c 1 -W 1 " + VethPair::kDaemonIp), 0);
}

TEST_F(LinuxDriver, InterfaceThatDisappearsWhileOpenFailsCallsWithoutHanging) {
    ASSERT_TRUE(OpenUdp(5006));
    InDaemon([&] {
        Tunnel t;
        ASSERT_TRUE(t.Open());
        // Leave a frame queued, then take the interface away.
        ASSERT_TRUE(SendUdp(peer, VethPair::kDaemonIp, 5006, "queued"));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ASSERT_EQ(Shell("ip -n " + net_->daemon + " link del " + VethPair::kDaemonIf), 0);

        const auto start = std::chrono::steady_clock::now();
        NdisApi::INTERMEDIATE_BUFFER buffer{};
        NdisApi::ETH_REQUEST request{t.handle, &buffer};
        int reads = 0;
        while (t.api.ReadPacket(&request) && reads < 100) ++reads;
        EXPECT_LT(reads, 100);
        // Drained, the event stays quiet: a capture thread waiting on it would not spin.
        pollfd p{static_cast<int>(t.event), POLLIN, 0};
        EXPECT_EQ(poll(&p, 1, 200), 0);
        EXPECT_FALSE(t.api.ReadPacket(&request));
        EXPECT_FALSE(t.Send(ndtest::FrameBuilder::Udp().Build(), false));
        EXPECT_FALSE(t.Send(ndtest::FrameBuilder::Udp().Build(), true));
        uint32_t filter = 0;
        EXPECT_FALSE(t.api.GetHwPacketFilter(t.handle, &filter));
        t.Close();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    });
}
