#include <gtest/gtest.h>

#include "support/FrameBuilder.h"

using namespace ndtest;

// The builder is shared by other suites; its fragments must be real ones.
TEST(FrameBuilder, FragmentsCarryOffsetsFlagsAndTheWholeDatagram) {
    const FrameBuilder udp = FrameBuilder::Udp().IpId(77).Payload(Bytes(100, 0x42));
    FragmentList parts = udp.BuildFragments(48);
    ASSERT_EQ(parts.size(), 3u);  // 108 bytes of UDP: 48 + 48 + 12
    for (size_t i = 0; i < parts.size(); ++i) {
        const Frame& f = parts[i];
        EXPECT_TRUE(IpChecksumValid(f)) << i;
        EXPECT_EQ(Be16(f, 18), 77);
        const uint16_t field = Be16(f, 20);
        EXPECT_EQ(field & 0x1FFF, i * 6) << i;  // offsets in 8-byte units
        EXPECT_EQ((field & 0x2000) != 0, i + 1 < parts.size()) << i;
        EXPECT_EQ(Be16(f, 16), f.size() - 14);
    }
    std::swap(parts[0], parts[2]);
    const Frame whole = Reassemble(parts), expected = udp.Build();
    EXPECT_EQ(Frame(whole.begin() + 34, whole.end()), Frame(expected.begin() + 34, expected.end()));
    EXPECT_TRUE(TransportChecksumValid(whole));
    EXPECT_TRUE(Reassemble({parts[0], parts[2]}).empty());  // a hole
}

TEST(FrameBuilder, ReferenceChecksumsAgreeWithKnownHeaders) {
    // 4500 0034 1c46 4000 4011 0000 ac10 0a63 ac10 0a0c, summed by hand: 0xB1E3.
    Frame f = FrameBuilder::Udp().IpId(0x1c46).Ttl(64).IpSrc(Ip("172.16.10.99")).IpDst(Ip("172.16.10.12"))
                  .Payload(Bytes(52 - 28, 0)).Build();
    ASSERT_EQ(Be16(f, 16), 0x0034);
    EXPECT_EQ(Be16(f, 24), 0xB1E3);
    EXPECT_EQ(ReferenceIpChecksum(f), 0xB1E3);
    // UDP over IPv6, fd00::1 port 0 to fd00::2 port 0, no payload: FD01 + FD02 + 17 + 8 + 8
    // (the length in the pseudo-header and in the UDP header) = 0x1FA24, folded 0xFA25.
    const Frame v6 = FrameBuilder::Udp().Ipv6().SrcPort(0).DstPort(0).Build();
    ASSERT_EQ(v6.size(), 14u + 40 + 8);
    EXPECT_EQ(Be16(v6, 54 + 6), static_cast<uint16_t>(~0xFA25));
    EXPECT_TRUE(TransportChecksumValid(v6));
}
