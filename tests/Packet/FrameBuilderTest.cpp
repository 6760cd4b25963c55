#include <gtest/gtest.h>

#include "support/FrameBuilder.h"

using namespace ndtest;

// The builder is shared by other suites; its fragments must be real ones.
TEST(FrameBuilder, FragmentsCarryOffsetsFlagsAndTheWholeDatagram) {
    const FrameBuilder udp = FrameBuilder::Udp().IpId(77).Payload(Bytes(100, 0x42));
    const Frame whole = udp.Build();
    const FragmentList parts = udp.BuildFragments(48);
    ASSERT_EQ(parts.size(), 3u);  // 108 bytes of UDP: 48 + 48 + 12
    Bytes joined;
    for (size_t i = 0; i < parts.size(); ++i) {
        const Frame& f = parts[i];
        EXPECT_TRUE(IpChecksumValid(f)) << i;
        EXPECT_EQ(Be16(f, 18), 77);
        const uint16_t field = Be16(f, 20);
        EXPECT_EQ(field & 0x1FFF, i * 6) << i;               // offsets in 8-byte units
        EXPECT_EQ((field & 0x2000) != 0, i + 1 < parts.size()) << i;
        EXPECT_EQ(Be16(f, 16), f.size() - 14);
        joined.insert(joined.end(), f.begin() + 34, f.end());
    }
    EXPECT_EQ(joined, Bytes(whole.begin() + 34, whole.end()));
    EXPECT_TRUE(TransportChecksumValid(whole));
}

TEST(FrameBuilder, ReferenceChecksumsAgreeWithAKnownHeader) {
    // 4500 0034 1c46 4000 4011 0000 ac10 0a63 ac10 0a0c, summed by hand: 0xB1E3.
    Frame f = FrameBuilder::Udp().Tos(0).IpId(0x1c46).Ttl(64).IpSrc(Ip("172.16.10.99")).IpDst(Ip("172.16.10.12"))
                  .Payload(Bytes(52 - 28, 0)).Build();
    ASSERT_EQ(Be16(f, 16), 0x0034);
    EXPECT_EQ(Be16(f, 24), 0xB1E3);
    EXPECT_EQ(ReferenceIpChecksum(f), 0xB1E3);
}
