#include <gtest/gtest.h>

#include <random>

#include "Packet/PacketUtils.h"
#include "PacketTestHelpers.h"

using namespace ndtest;
namespace pu = Nat::PacketUtils;

namespace {

// A random TCP or UDP frame with correct checksums: random addresses, ports, numbers,
// IP and TCP options and a payload of any length that fits 1514 bytes.
Frame RandomFrame(std::mt19937& rng, bool tcp) {
    auto byte = [&] { return static_cast<uint8_t>(rng()); };
    auto ip = [&] { return Ipv4Address{byte(), byte(), byte(), byte()}; };
    FrameBuilder b = tcp ? FrameBuilder::Tcp() : FrameBuilder::Udp();
    const size_t ipOptions = (rng() % 3 == 0) ? 4 * (rng() % 11) : 0;
    const size_t tcpOptions = tcp ? 4 * (rng() % 11) : 0;
    b.IpSrc(ip()).IpDst(ip()).SrcPort(static_cast<uint16_t>(rng())).DstPort(static_cast<uint16_t>(rng()))
        .IpOptions(Bytes(ipOptions, 1)).Ttl(byte()).IpId(static_cast<uint16_t>(rng()));
    if (tcp) b.Seq(rng()).AckNumber(rng()).Flags(byte()).TcpOptions(Bytes(tcpOptions, 1));
    const size_t room = 1514 - 14 - 20 - ipOptions - (tcp ? 20 + tcpOptions : 8);
    size_t length = rng() % 4 == 0 ? rng() % 8 : rng() % (room + 1);
    Bytes payload(length);
    for (auto& p : payload) p = byte();
    // Some all-ones and all-zero payloads to reach the edges of one's-complement arithmetic.
    if (rng() % 10 == 0) std::fill(payload.begin(), payload.end(), 0xFF);
    if (rng() % 10 == 0) std::fill(payload.begin(), payload.end(), 0x00);
    return b.Payload(payload).Build();
}

Ipv4Address IpOf(uint32_t v) { return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }

}  // namespace

TEST(PacketChecksum, KernelFramesVerifyAndAreReproducedExactly) {
    for (const Frame& original : {KernelTcpSynFrame(), KernelUdpFrame()}) {
        ASSERT_TRUE(IpChecksumValid(original));
        ASSERT_TRUE(TransportChecksumValid(original));
        Frame f = original;
        f[24] ^= 0x5A;
        f[25] ^= 0xA5;
        const size_t k = TransportChecksumOffset(f);
        f[k] = 0x12;
        f[k + 1] = 0x34;
        pu::FixIpHeaderChecksum(f);
        pu::FixTransportHeaderChecksum(f);
        EXPECT_EQ(f, original);
    }
}

TEST(PacketChecksum, FullRecomputeMatchesReferenceOnRandomFrames) {
    std::mt19937 rng(1071);
    for (int i = 0; i < 3000; ++i) {
        Frame f = RandomFrame(rng, i % 2 == 0);
        const uint16_t ipReference = Be16(f, 24);
        const uint16_t transportReference = ReferenceTransportChecksum(f);
        f[24] = static_cast<uint8_t>(rng());
        f[25] = static_cast<uint8_t>(rng());
        const size_t k = TransportChecksumOffset(f);
        f[k] = static_cast<uint8_t>(rng());
        f[k + 1] = static_cast<uint8_t>(rng());
        pu::FixIpHeaderChecksum(f);
        pu::FixTransportHeaderChecksum(f);
        ASSERT_EQ(Be16(f, 24), ipReference) << i;
        ASSERT_EQ(Be16(f, k), transportReference) << i << " size " << f.size();
        ASSERT_TRUE(TransportChecksumValid(f)) << i;
    }
}

TEST(PacketChecksum, FullUdpRecomputeTurnsAllOnesIntoZero) {
    // Search a UDP frame whose reference sum is all ones: its computed checksum is 0.
    for (uint32_t port = 0; port < 0x10000; ++port) {
        Frame f = FrameBuilder::Udp().SrcPort(static_cast<uint16_t>(port)).DstPort(1).Payload("abc").Build();
        if (ReferenceTransportChecksum(f) != 0) continue;
        f[40] = 0x77;
        pu::FixTransportHeaderChecksum(f);
        EXPECT_EQ(Be16(f, 40), 0);
        return;
    }
    FAIL() << "no frame with an all-ones sum found";
}

TEST(PacketChecksum, IpHeaderChecksumIgnoresOldValueAndCoversOptions) {
    Frame f = FrameBuilder::Udp().IpOptions({0x94, 0x04, 0x00, 0x00, 0x01, 0x01, 0x01, 0x00}).Build();
    const Frame good = f;
    for (uint16_t junk : {0x0000, 0xFFFF, 0x1234}) {
        f[24] = static_cast<uint8_t>(junk >> 8);
        f[25] = static_cast<uint8_t>(junk);
        pu::FixIpHeaderChecksum(f);
        EXPECT_EQ(f, good);
    }
    // An IHL of 0 sums nothing and stores 0xFFFF.
    Frame zeroIhl = good;
    zeroIhl[14] = 0x40;
    pu::FixIpHeaderChecksum(zeroIhl);
    EXPECT_EQ(Be16(zeroIhl, 24), 0xFFFF);
    // A header whose sum is zero gets 0xFFFF, with no substitution.
    Frame zeros(34, 0);
    zeros[14] = 0x05;
    pu::FixIpHeaderChecksum(zeros);
    EXPECT_EQ(Be16(zeros, 24), 0xFFFF - 0x0500);
}

TEST(PacketChecksum, EveryWriterEqualsAFullRecompute) {
    std::mt19937 rng(1624);
    // Each writer with where its value lands: `at` bytes into the transport header or the frame.
    struct Writer {
        const char* name;
        bool tcpOnly;
        void (*write)(Frame&, uint32_t);
        bool inTransport;
        size_t at, width;
    };
    const Writer writers[] = {
        {"SetSourcePort", false, [](Frame& f, uint32_t v) { pu::SetSourcePort(f, uint16_t(v)); }, true, 0, 2},
        {"SetDestinationPort", false, [](Frame& f, uint32_t v) { pu::SetDestinationPort(f, uint16_t(v)); }, true, 2, 2},
        {"SetTcpSequenceNumber", true, [](Frame& f, uint32_t v) { pu::SetTcpSequenceNumber(f, v); }, true, 4, 4},
        {"SetAcknowledgmentNumber", true, [](Frame& f, uint32_t v) { pu::SetAcknowledgmentNumber(f, v); }, true, 8, 4},
        {"UpdateSourceIp", false, [](Frame& f, uint32_t v) { pu::UpdateSourceIp(f, IpOf(v)); }, false, 26, 4},
        {"UpdateDestinationIp", false, [](Frame& f, uint32_t v) { pu::UpdateDestinationIp(f, IpOf(v)); }, false, 30, 4},
    };
    for (const Writer& w : writers) {
        for (int i = 0; i < 1500; ++i) {
            const Frame before = RandomFrame(rng, w.tcpOnly || i % 2 == 0);
            Frame after = before;
            w.write(after, rng());
            const size_t k = TransportChecksumOffset(after);
            ASSERT_EQ(Be16(after, k), ReferenceTransportChecksum(after)) << w.name << " frame " << i;
            ASSERT_EQ(Be16(after, 24), Be16(before, 24)) << w.name << ": IP header checksum touched";
            // Nothing but the field and the checksum changed.
            Frame masked = after;
            const size_t at = (w.inTransport ? TransportOffset(after) : 0) + w.at;
            std::copy_n(before.begin() + static_cast<long>(at), w.width, masked.begin() + static_cast<long>(at));
            std::copy_n(before.begin() + static_cast<long>(k), 2, masked.begin() + static_cast<long>(k));
            ASSERT_EQ(masked, before) << w.name;
        }
    }
}

TEST(PacketChecksum, RewritingTheSameValuesChangesNothing) {
    std::mt19937 rng(5);
    for (int i = 0; i < 300; ++i) {
        const Frame before = RandomFrame(rng, true);
        Frame f = before;
        pu::SetSourcePort(f, pu::GetSourcePort(f));
        pu::SetDestinationPort(f, pu::GetDestinationPort(f));
        pu::SetTcpSequenceNumber(f, pu::GetTcpSequenceNumber(f));
        pu::SetAcknowledgmentNumber(f, pu::GetAcknowledgmentNumber(f));
        pu::UpdateSourceIp(f, pu::GetSourceIp(f));
        pu::UpdateDestinationIp(f, pu::GetDestinationIp(f));
        ASSERT_EQ(f, before);
    }
}

TEST(PacketChecksum, IncrementalUpdateEdgeValues) {
    Frame udp = FrameBuilder::Udp().NoUdpChecksum().Build();
    // m == m' from HC 0: the sum is all ones, stored as 0.
    pu::UpdateTransportHeaderChecksum(udp, 0x0000, 0x1234, 0x1234);
    EXPECT_EQ(Be16(udp, 40), 0);
    // m != m' from HC 0: ~(0xFFFF + ~m + m') folded.
    pu::UpdateTransportHeaderChecksum(udp, 0x0000, 0x1234, 0x1235);
    EXPECT_EQ(Be16(udp, 40), 0xFFFE);
    // The HC argument is used, not the frame's checksum.
    pu::UpdateTransportHeaderChecksum(udp, 0xABCD, 0x0000, 0x0000);
    EXPECT_EQ(Be16(udp, 40), 0xABCD);
    // ~HC, ~m and m' all zero: the sum is 0, its complement all ones, stored as 0.
    pu::UpdateTransportHeaderChecksum(udp, 0xFFFF, 0xFFFF, 0x0000);
    EXPECT_EQ(Be16(udp, 40), 0);

    // A datagram sent without checksum gets a non-zero one after a port rewrite.
    Frame none = FrameBuilder::Udp().NoUdpChecksum().SrcPort(1000).Build();
    pu::SetSourcePort(none, 1001);
    EXPECT_NE(Be16(none, 40), 0);

    Frame tcp = FrameBuilder::Tcp().IpOptions(Bytes(8, 1)).Build();
    pu::UpdateTransportHeaderChecksum(tcp, 0x1111, 0x0001, 0x0003);
    EXPECT_EQ(Be16(tcp, 14 + 28 + 16), static_cast<uint16_t>(~(0xEEEE + 0xFFFE + 3 - 0xFFFF)));

    Frame icmp = FrameBuilder::Ipv4(kProtoIcmp).Payload(Bytes(40, 0)).Build();
    const Frame icmpBefore = icmp;
    EXPECT_EQ(Thrown([&] { pu::UpdateTransportHeaderChecksum(icmp, 0, 0, 1); }),
              std::string("Unsupported IP protocol: ") + '\x01');
    EXPECT_EQ(Thrown([&] { pu::SetSourcePort(icmp, 99); }), std::string("Unsupported IP protocol: ") + '\x01');
    EXPECT_EQ(Thrown([&] { pu::UpdateSourceIp(icmp, Ip("1.1.1.1")); }),
              std::string("Unsupported IP protocol: ") + '\x01');
    EXPECT_EQ(icmp, icmpBefore);
}

TEST(PacketChecksum, FullRecomputeRefusals) {
    Frame icmp = FrameBuilder::Ipv4(kProtoIcmp).Payload("ping").Build();
    EXPECT_EQ(Thrown([&] { pu::FixTransportHeaderChecksum(icmp); }), std::string("Unsupported IP protocol: ") + '\x01');
    // Lengths agree, but the TCP checksum offset (50) lies beyond the 48-byte frame.
    Frame shortTcp = FrameBuilder::Tcp().Build();
    shortTcp.resize(48);
    pu::SetIpPacketTotalLength(shortTcp, 34);
    EXPECT_EQ(Thrown([&] { pu::FixTransportHeaderChecksum(shortTcp); }),
              "Error fixing transport header checksum, unexpected packet size: 48");
    Frame tooShort(33, 0x45);
    tooShort[14] = 0x45;
    EXPECT_EQ(Thrown([&] { pu::FixTransportHeaderChecksum(tooShort); }),
              "Error fixing transport header checksum, unexpected packet size: 33");
}
