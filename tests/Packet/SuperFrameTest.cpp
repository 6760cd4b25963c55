#include "Packet/SuperFrame.h"

#include <gtest/gtest.h>

#include <random>

#include "support/FrameBuilder.h"

using namespace Nat;
using namespace ndtest;

namespace {

constexpr size_t kMax = 1514;

// A TCP frame with 12 bytes of options (NOPs).
Frame Tcp(bool ipv6, const Bytes& payload, uint32_t seq = 1000, uint8_t flags = kAck, size_t options = 12) {
    FrameBuilder b = FrameBuilder::Tcp().Seq(seq).Flags(flags).TcpOptions(Bytes(options, 1)).Payload(payload);
    return (ipv6 ? b.Ipv6() : b).Build();
}

Frame Udp(bool ipv6, const Bytes& payload) {
    FrameBuilder b = FrameBuilder::Udp().Payload(payload);
    return (ipv6 ? b.Ipv6() : b).Build();
}

std::vector<Bytes> SplitAll(const FrameOffload& h, const Bytes& frame, bool& started) {
    SuperFrameSplitter splitter;
    std::vector<Bytes> out;
    started = splitter.Start(h, frame.data(), frame.size(), kMax);
    if (!started) return out;
    uint8_t buffer[kMax];
    for (size_t n; (n = splitter.Next(buffer, sizeof(buffer))) > 0;) {
        out.emplace_back(buffer, buffer + n);
        if (out.size() > 100) break;
    }
    return out;
}

// The frame as the stack hands it over when the hardware completes the checksum.
Bytes LeaveChecksumToHardware(Bytes f, FrameOffload& h) {
    const size_t field = TransportChecksumOffset(f);
    const uint16_t pseudo = PseudoHeaderChecksum(f);
    f[field] = static_cast<uint8_t>(pseudo >> 8);
    f[field + 1] = static_cast<uint8_t>(pseudo);
    h.flags = kOffloadNeedsChecksum;
    h.csumStart = static_cast<uint16_t>(TransportOffset(f));
    h.csumOffset = static_cast<uint16_t>(field - h.csumStart);
    return f;
}

}  // namespace

TEST(SuperFrame, ChecksumLeftToHardwareIsCompleted) {
    for (bool ipv6 : {false, true}) {
        for (size_t payload : {0u, 1u, 17u, 1000u}) {
            const Bytes good = Udp(ipv6, Pattern(payload));
            FrameOffload h;
            const Bytes partial = LeaveChecksumToHardware(good, h);
            ASSERT_NE(good, partial);
            bool started = false;
            const auto out = SplitAll(h, partial, started);
            ASSERT_TRUE(started);
            ASSERT_EQ(out.size(), 1u);
            EXPECT_EQ(out[0], good) << "ipv6 " << ipv6 << " payload " << payload;
        }
        const Bytes good = Tcp(ipv6, Pattern(333));
        FrameOffload h;
        bool started = false;
        const auto out = SplitAll(h, LeaveChecksumToHardware(good, h), started);
        ASSERT_EQ(out.size(), 1u);
        EXPECT_EQ(out[0], good);
    }
}

TEST(SuperFrame, PlainFramePassesUnchangedAndOversizeOrBadOffsetsAreRefused) {
    const Bytes frame = Udp(false, Pattern(100));
    bool started = false;
    auto out = SplitAll(FrameOffload{}, frame, started);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0], frame);

    SuperFrameSplitter splitter;
    const Bytes big(kMax + 1, 0);
    EXPECT_FALSE(splitter.Start(FrameOffload{}, big.data(), big.size(), kMax));
    EXPECT_FALSE(splitter.Start(FrameOffload{}, frame.data(), 13, kMax));

    FrameOffload h;
    h.flags = kOffloadNeedsChecksum;
    h.csumStart = static_cast<uint16_t>(frame.size());
    EXPECT_FALSE(splitter.Start(h, frame.data(), frame.size(), kMax));
    h.csumStart = static_cast<uint16_t>(frame.size() - 1);
    h.csumOffset = 0;
    EXPECT_FALSE(splitter.Start(h, frame.data(), frame.size(), kMax));  // field would run past the end
    h.csumStart = 34;
    h.csumOffset = 0xFFFF;
    EXPECT_FALSE(splitter.Start(h, frame.data(), frame.size(), kMax));
}

// Checks every segment of a split TCP super-frame against the original.
void CheckTcpSegments(const Bytes& super, const std::vector<Bytes>& segments, size_t expectedCount,
                      const Bytes& payload) {
    ASSERT_EQ(segments.size(), expectedCount);
    const bool ipv6 = Be16(super, 12) == kEtherIpv6;
    const size_t l4 = TransportOffset(super);
    const size_t header = l4 + (super[l4 + 12] >> 4) * 4;
    const uint8_t superFlags = super[l4 + 13];
    Bytes joined;
    for (size_t i = 0; i < segments.size(); ++i) {
        const Bytes& s = segments[i];
        SCOPED_TRACE("segment " + std::to_string(i));
        ASSERT_LE(s.size(), kMax);
        ASSERT_GT(s.size(), header);
        EXPECT_TRUE(std::equal(s.begin(), s.begin() + 14, super.begin()));  // Ethernet header kept
        if (ipv6) {
            EXPECT_EQ(Be16(s, 18), s.size() - 54);
        } else {
            EXPECT_EQ(Be16(s, 16), s.size() - 14);
            EXPECT_EQ(Be16(s, 18), static_cast<uint16_t>(Be16(super, 18) + i));
            EXPECT_TRUE(IpChecksumValid(s));
        }
        EXPECT_TRUE(TransportChecksumValid(s));
        EXPECT_EQ(Be32(s, l4 + 4), static_cast<uint32_t>(Be32(super, l4 + 4) + joined.size()));
        const uint8_t flags = s[l4 + 13];
        const bool last = i + 1 == segments.size();
        EXPECT_EQ((flags & (kFin | kPsh)) != 0, last && (superFlags & (kFin | kPsh)) != 0);
        EXPECT_EQ((flags & kCwr) != 0, i == 0 && (superFlags & kCwr) != 0);  // CWR only at the start
        EXPECT_EQ(flags & kAck, kAck);
        joined.insert(joined.end(), s.begin() + static_cast<long>(header), s.end());
    }
    EXPECT_EQ(joined, payload);
}

TEST(SuperFrame, TcpSuperFrameIsCutIntoWireSizedSegments) {
    for (bool ipv6 : {false, true}) {
        SCOPED_TRACE(ipv6 ? "ipv6" : "ipv4");
        const Bytes payload = Pattern(10000);
        Bytes super = Tcp(ipv6, payload, 0xFFFFF000, kAck | kPsh | kFin | kCwr);  // the sequence wraps
        FrameOffload h;
        super = LeaveChecksumToHardware(super, h);
        h.gsoType = static_cast<uint8_t>((ipv6 ? kGsoTcpV6 : kGsoTcpV4) | kGsoEcn);
        h.hdrLen = 200;  // the kernel's linear length, not a header length
        const size_t header = (ipv6 ? 54 : 34) + 32;
        h.gsoSize = static_cast<uint16_t>(kMax - (ipv6 ? 86 : 66));
        bool started = false;
        const auto segments = SplitAll(h, super, started);
        ASSERT_TRUE(started);
        CheckTcpSegments(super, segments, (payload.size() + h.gsoSize - 1) / h.gsoSize, payload);
        EXPECT_EQ(segments.front().size(), kMax);
        EXPECT_EQ(segments.back().size(), header + payload.size() % h.gsoSize);
    }
}

TEST(SuperFrame, TcpSegmentsAreCappedWhenTheSenderUsesJumboSegments) {
    const Bytes payload = Pattern(20000);
    const Bytes super = Tcp(false, payload, 1000, kAck, 0);
    FrameOffload h;
    h.gsoType = kGsoTcpV4;
    h.gsoSize = 8948;
    bool started = false;
    const auto segments = SplitAll(h, super, started);
    ASSERT_TRUE(started);
    const size_t perSegment = kMax - 54;
    CheckTcpSegments(super, segments, (payload.size() + perSegment - 1) / perSegment, payload);
}

TEST(SuperFrame, UdpSuperFrameBecomesSeparateDatagrams) {
    for (bool ipv6 : {false, true}) {
        SCOPED_TRACE(ipv6 ? "ipv6" : "ipv4");
        const Bytes payload = Pattern(2500);
        const Bytes super = Udp(ipv6, payload);
        FrameOffload h;
        h.gsoType = kGsoUdpL4;
        h.gsoSize = 1000;
        bool started = false;
        const auto segments = SplitAll(h, super, started);
        ASSERT_TRUE(started);
        ASSERT_EQ(segments.size(), 3u);
        const size_t l4 = ipv6 ? 54 : 34;
        Bytes joined;
        for (size_t i = 0; i < segments.size(); ++i) {
            const Bytes& s = segments[i];
            const size_t data = i < 2 ? 1000 : 500;
            ASSERT_EQ(s.size(), l4 + 8 + data);
            EXPECT_EQ(Be16(s, l4 + 4), 8 + data);
            EXPECT_TRUE(TransportChecksumValid(s));
            EXPECT_EQ(IpChecksumValid(s), !ipv6);
            joined.insert(joined.end(), s.begin() + static_cast<long>(l4 + 8), s.end());
        }
        EXPECT_EQ(joined, payload);

        // Datagram boundaries cannot move: a segment size that does not fit is refused.
        h.gsoSize = static_cast<uint16_t>(kMax - l4 - 8 + 1);
        SuperFrameSplitter splitter;
        EXPECT_FALSE(splitter.Start(h, super.data(), super.size(), kMax));
    }
}

TEST(SuperFrame, MalformedSuperFramesAreRefused) {
    const Bytes tcp = Tcp(false, Pattern(3000));
    SuperFrameSplitter splitter;
    FrameOffload h;
    h.gsoSize = 1448;

    h.gsoType = kGsoUdp;  // IP fragmentation offload
    EXPECT_FALSE(splitter.Start(h, tcp.data(), tcp.size(), kMax));
    h.gsoType = kGsoTcpV6;  // type does not match the IPv4 header
    EXPECT_FALSE(splitter.Start(h, tcp.data(), tcp.size(), kMax));
    h.gsoType = kGsoUdpL4;  // protocol is TCP
    EXPECT_FALSE(splitter.Start(h, tcp.data(), tcp.size(), kMax));
    h.gsoType = kGsoTcpV4;
    EXPECT_FALSE(splitter.Start(h, tcp.data(), 40, kMax));  // TCP header cut off

    Bytes bad = tcp;
    bad[14 + 20 + 12] = 0x30;  // data offset 12 bytes
    EXPECT_FALSE(splitter.Start(h, bad.data(), bad.size(), kMax));
    bad = tcp;
    bad[14] = 0x4F;  // IHL past the frame's TCP header
    EXPECT_FALSE(splitter.Start(h, bad.data(), 70, kMax));
    bad = tcp;
    bad[12] = 0x08;
    bad[13] = 0x06;  // ARP
    EXPECT_FALSE(splitter.Start(h, bad.data(), bad.size(), kMax));
}

TEST(SuperFrame, RandomInputNeverYieldsOversizeFramesOrRunsAway) {
    std::mt19937 random(12345);
    const Bytes base = Tcp(false, Pattern(4000));
    uint8_t out[kMax];
    size_t produced = 0;
    for (int round = 0; round < 3000; ++round) {
        Bytes frame = base;
        frame.resize(random() % (base.size() + 1));
        const int flips = static_cast<int>(random() % 6);
        for (int i = 0; i < flips && !frame.empty(); ++i) frame[random() % std::min<size_t>(frame.size(), 80)] = static_cast<uint8_t>(random());
        FrameOffload h;
        h.flags = static_cast<uint8_t>(random() % 2);
        h.gsoType = static_cast<uint8_t>(random() % 6);
        h.gsoSize = static_cast<uint16_t>(random() % 3000);
        h.csumStart = static_cast<uint16_t>(random() % 200);
        h.csumOffset = static_cast<uint16_t>(random() % 40);
        SuperFrameSplitter splitter;
        if (!splitter.Start(h, frame.data(), frame.size(), kMax)) continue;
        size_t count = 0;
        for (size_t n; (n = splitter.Next(out, sizeof(out))) > 0;) {
            ASSERT_LE(n, kMax);
            ASSERT_LE(++count, frame.size() + 1);
            ++produced;
        }
    }
    EXPECT_GT(produced, 0u);
}
