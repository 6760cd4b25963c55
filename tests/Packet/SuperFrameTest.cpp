#include "Packet/SuperFrame.h"

#include <gtest/gtest.h>

#include <random>

#include "support/FrameBuilder.h"

using namespace Nat;
using namespace ndtest;

namespace {

constexpr size_t kMax = 1514;

Frame Built(FrameBuilder b, bool ipv6) { return (ipv6 ? b.Ipv6() : b).Build(); }

Frame Tcp(bool ipv6, const Bytes& payload, uint32_t seq = 1000, uint8_t flags = kAck, size_t options = 12,
          uint16_t id = 0x1234) {
    const Bytes tcpOptions(options, 1);
    return Built(FrameBuilder::Tcp().Seq(seq).Flags(flags).TcpOptions(tcpOptions).Payload(payload).IpId(id), ipv6);
}

Frame Udp(bool ipv6, const Bytes& payload, uint16_t id = 0x1234) {
    return Built(FrameBuilder::Udp().Payload(payload).IpId(id), ipv6);
}

FrameOffload Gso(uint32_t type, uint32_t size, FrameOffload h = {}) {
    h.gsoType = static_cast<uint8_t>(type);
    h.gsoSize = static_cast<uint16_t>(size);
    return h;
}

bool Starts(const FrameOffload& h, const Bytes& frame, size_t length = SIZE_MAX) {
    SuperFrameSplitter splitter;
    return splitter.Start(h, frame.data(), std::min(length, frame.size()), kMax);
}

// The frames the splitter makes of `frame`; fails the test when it refuses it.
std::vector<Bytes> SplitAll(const FrameOffload& h, const Bytes& frame) {
    SuperFrameSplitter splitter;
    std::vector<Bytes> out;
    EXPECT_TRUE(splitter.Start(h, frame.data(), frame.size(), kMax));
    uint8_t buffer[kMax];
    for (size_t n; out.size() <= 100 && (n = splitter.Next(buffer, sizeof(buffer))) > 0;)
        out.emplace_back(buffer, buffer + n);
    return out;
}

}  // namespace

TEST(SuperFrame, ChecksumLeftToHardwareIsCompletedAndPlainFramesPassUnchanged) {
    for (bool ipv6 : {false, true}) {
        for (const Bytes& good : {Udp(ipv6, Pattern(0)), Udp(ipv6, Pattern(17)), Udp(ipv6, Pattern(1000)),
                                  Tcp(ipv6, Pattern(333))}) {
            Bytes partial = good;
            const FrameOffload h = LeaveChecksumToHardware(partial);
            ASSERT_NE(good, partial);
            EXPECT_EQ(SplitAll(h, partial), std::vector<Bytes>{good}) << "ipv6 " << ipv6 << " size " << good.size();
            EXPECT_EQ(SplitAll(FrameOffload{}, good), std::vector<Bytes>{good});
        }
    }
    const Bytes frame = Udp(false, Pattern(100));
    // Nothing comes out into a missing or short buffer; the frame is still there afterwards.
    SuperFrameSplitter splitter;
    ASSERT_TRUE(splitter.Start(FrameOffload{}, frame.data(), frame.size(), kMax));
    uint8_t buffer[kMax];
    EXPECT_EQ(splitter.Next(nullptr, kMax) + splitter.Next(buffer, kMax - 1), 0u);
    EXPECT_EQ(splitter.Next(buffer, kMax), frame.size());
    EXPECT_FALSE(Starts(FrameOffload{}, Bytes(kMax + 1, 0)));
    EXPECT_FALSE(Starts(FrameOffload{}, frame, 13));
    // Checksum fields that would start at or run past the end.
    for (auto [at, offset] : {std::pair<size_t, uint16_t>{frame.size(), 0}, {frame.size() - 1, 0}, {34, 0xFFFF}})
        EXPECT_FALSE(Starts({.flags = kOffloadNeedsChecksum, .csumStart = uint16_t(at), .csumOffset = offset}, frame));
}

// A super-frame is cut into wire-sized segments, each the frame a stack would have sent for
// its slice of the payload: headers, lengths, the next IP ID and checksums right; for TCP the
// sequence number, FIN/PSH on the last only, CWR on the first only.
TEST(SuperFrame, SuperFrameIsCutIntoWireSizedSegments) {
    struct Case { bool ipv6, udp; size_t payload, options; uint16_t gsoSize; uint8_t gsoType; size_t perSegment; };
    const Case cases[] = {
        {false, false, 10000, 12, kMax - 66, kGsoTcpV4 | kGsoEcn, kMax - 66},
        {true, false, 10000, 12, kMax - 86, kGsoTcpV6 | kGsoEcn, kMax - 86},
        {false, false, 20000, 0, 8948, kGsoTcpV4, kMax - 54},  // jumbo segments are capped at the wire size
        {false, true, 2500, 0, 1000, kGsoUdpL4, 1000},
        {true, true, 2500, 0, 1000, kGsoUdpL4, 1000},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.payload + c.ipv6);
        const auto frame = [&c](const Bytes& payload, uint32_t seq, uint8_t flags, uint16_t id) {
            return c.udp ? Udp(c.ipv6, payload, id) : Tcp(c.ipv6, payload, seq, flags, c.options, id);
        };
        const Bytes payload = Pattern(c.payload);
        Bytes super = frame(payload, 0xFFFFF000, kAck | kPsh | kFin | kCwr, 0x1234);  // the sequence wraps
        FrameOffload h = Gso(c.gsoType, c.gsoSize, LeaveChecksumToHardware(super));
        h.hdrLen = 200;  // the kernel's linear length, not a header length
        const auto segments = SplitAll(h, super);
        ASSERT_EQ(segments.size(), (payload.size() + c.perSegment - 1) / c.perSegment);
        for (size_t i = 0, at = 0; i < segments.size(); ++i, at += c.perSegment) {
            const size_t end = std::min(at + c.perSegment, c.payload);
            const Bytes slice(payload.begin() + static_cast<long>(at), payload.begin() + static_cast<long>(end));
            const uint8_t flags = kAck | (i + 1 == segments.size() ? kFin | kPsh : 0) | (i == 0 ? kCwr : 0);
            const uint32_t seq = 0xFFFFF000 + static_cast<uint32_t>(at);
            EXPECT_EQ(segments[i], frame(slice, seq, flags, uint16_t(0x1234 + i))) << i;
        }
        // UDP datagram boundaries cannot move: a segment size of 0 or one that does not fit is refused.
        if (c.udp) {
            EXPECT_FALSE(Starts(Gso(kGsoUdpL4, 0), super));
            EXPECT_FALSE(Starts(Gso(kGsoUdpL4, kMax - (c.ipv6 ? 54 : 34) - 8 + 1), super));
        }
    }
}

// Behind one VLAN tag or a QinQ pair, the IP and TCP headers are found past the tags, and
// every segment keeps them: untagged, the segments are those of the untagged super-frame.
TEST(SuperFrame, TaggedSuperFrameIsCutLikeAnUntaggedOne) {
    const Bytes plain = Tcp(false, Pattern(3000));
    const auto expected = SplitAll(Gso(kGsoTcpV4, 1000), plain);
    ASSERT_EQ(expected.size(), 3u);
    for (const Bytes& tags : {Bytes{0x81, 0x00, 0x00, 0x05}, Bytes{0x88, 0xA8, 0x00, 0x07, 0x81, 0x00, 0x00, 0x05}}) {
        Bytes tagged = plain;
        tagged.insert(tagged.begin() + 12, tags.begin(), tags.end());
        auto segments = SplitAll(Gso(kGsoTcpV4, 1000), tagged);
        for (Bytes& s : segments) {
            EXPECT_TRUE(std::equal(tags.begin(), tags.end(), s.begin() + 12));
            s.erase(s.begin() + 12, s.begin() + 12 + static_cast<long>(tags.size()));
        }
        EXPECT_EQ(segments, expected) << tags.size();
    }
}

TEST(SuperFrame, MalformedSuperFramesAreRefused) {
    const Bytes tcp = Tcp(false, Pattern(3000));
    struct Case { const char* what; uint8_t gsoType; size_t at; uint8_t value; size_t length; };
    const Case cases[] = {
        {"IP fragmentation offload", kGsoUdp, 0, tcp[0], SIZE_MAX},
        {"type does not match IPv4", kGsoTcpV6, 0, tcp[0], SIZE_MAX},
        {"protocol is TCP", kGsoUdpL4, 0, tcp[0], SIZE_MAX},
        {"TCP header cut off", kGsoTcpV4, 0, tcp[0], 40},
        {"data offset 12 bytes", kGsoTcpV4, 14 + 20 + 12, 0x30, SIZE_MAX},
        {"IHL past the TCP header", kGsoTcpV4, 14, 0x4F, 70},
        {"ARP", kGsoTcpV4, 13, 0x06, SIZE_MAX},
    };
    for (const Case& c : cases) {
        Bytes bad = tcp;
        bad[c.at] = c.value;
        EXPECT_FALSE(Starts(Gso(c.gsoType, 1448), bad, c.length)) << c.what;
    }
}

// Cut and damaged super-frames under random offload states: nothing oversize, no endless run.
TEST(SuperFrame, RandomInputNeverYieldsOversizeFramesOrRunsAway) {
    std::mt19937 random(12345);
    const Bytes base = Tcp(false, Pattern(4000));
    uint8_t out[kMax];
    size_t produced = 0;
    for (int round = 0; round < 3000; ++round) {
        Bytes frame(base.begin(), base.begin() + static_cast<long>(random() % (base.size() + 1)));
        for (int i = static_cast<int>(random() % 6); i > 0 && !frame.empty(); --i)
            frame[random() % std::min<size_t>(frame.size(), 80)] = static_cast<uint8_t>(random());
        SuperFrameSplitter splitter;
        if (!splitter.Start(Gso(random() % 6, random() % 3000), frame.data(), frame.size(), kMax)) continue;
        for (size_t n, count = 0; (n = splitter.Next(out, sizeof(out))) > 0; ++produced) {
            ASSERT_LE(n, kMax);
            ASSERT_LE(++count, frame.size() + 1);
        }
    }
    EXPECT_GT(produced, 0u);
}
