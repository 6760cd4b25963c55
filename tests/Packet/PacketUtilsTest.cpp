#include "Packet/PacketUtils.h"

#include <gtest/gtest.h>

#include <random>

#include "support/CodecCalls.h"
#include "support/Thrown.h"

using namespace ndtest;

namespace {

// A copy whose storage ends at `size`, so that the sanitizer sees any read past it.
Frame Cut(const Frame& frame, size_t size) { return Frame(frame.begin(), frame.begin() + static_cast<long>(size)); }

template <size_t N>
std::array<uint8_t, N> Array(const Bytes& v) {
    std::array<uint8_t, N> a;
    std::copy_n(v.begin(), N, a.begin());
    return a;
}

// Two frames captured with tcpdump -xx on a veth pair with transmit checksum offload off,
// so the kernel computed every checksum: 10.77.0.1:60868 -> 10.77.0.2:5353 UDP "hello kernel udp"
// and a TCP SYN 10.77.0.1:46084 -> 10.77.0.2:4000 with MSS, SACK, timestamp and window-scale options.
const Frame kKernelUdp = {
    0x66, 0xc7, 0x37, 0x25, 0x95, 0x15, 0x5e, 0xa6, 0x0e, 0x0c, 0xd5, 0x59, 0x08, 0x00, 0x45, 0x00,
    0x00, 0x2c, 0x1c, 0xa2, 0x40, 0x00, 0x40, 0x11, 0x09, 0x83, 0x0a, 0x4d, 0x00, 0x01, 0x0a, 0x4d,
    0x00, 0x02, 0xed, 0xc4, 0x14, 0xe9, 0x00, 0x18, 0xdc, 0x5b, 0x68, 0x65, 0x6c, 0x6c, 0x6f, 0x20,
    0x6b, 0x65, 0x72, 0x6e, 0x65, 0x6c, 0x20, 0x75, 0x64, 0x70};

const Frame kKernelSyn = {
    0x66, 0xc7, 0x37, 0x25, 0x95, 0x15, 0x5e, 0xa6, 0x0e, 0x0c, 0xd5, 0x59, 0x08, 0x00, 0x45, 0x00,
    0x00, 0x3c, 0x9a, 0xa1, 0x40, 0x00, 0x40, 0x06, 0x8b, 0x7e, 0x0a, 0x4d, 0x00, 0x01, 0x0a, 0x4d,
    0x00, 0x02, 0xb4, 0x04, 0x0f, 0xa0, 0x17, 0xcd, 0x79, 0x27, 0x00, 0x00, 0x00, 0x00, 0xa0, 0x02,
    0xfa, 0xf0, 0x52, 0x61, 0x00, 0x00, 0x02, 0x04, 0x05, 0xb4, 0x04, 0x02, 0x08, 0x0a, 0x5e, 0x55,
    0x33, 0x20, 0x00, 0x00, 0x00, 0x00, 0x01, 0x03, 0x03, 0x0a};

std::string SizeError(const std::string& what, size_t size) {
    return "Error " + what + ", unexpected packet size: " + std::to_string(size);
}

// A TCP or UDP frame with correct checksums: random addresses, ports, numbers, IP and TCP
// options and a payload of any length that fits 1514 bytes.
Frame RandomFrame(std::mt19937& rng, bool tcp) {
    FrameBuilder b = tcp ? FrameBuilder::Tcp().Seq(rng()).AckNumber(rng()).TcpOptions(Bytes(4 * (rng() % 11), 1))
                         : FrameBuilder::Udp();
    b.IpSrc(IpFrom(rng())).IpDst(IpFrom(rng())).SrcPort(uint16_t(rng())).DstPort(uint16_t(rng()));
    const size_t length = rng() % 4 == 0 ? rng() % 8 : rng() % 1400;
    // All-ones payloads reach the edges of one's-complement arithmetic.
    const Bytes payload = rng() % 5 == 0 ? Bytes(length, 0xFF) : Pattern(length, rng());
    return b.IpOptions(Bytes(4 * (rng() % 3), 1)).Payload(payload).Build();
}

}  // namespace

// Below its threshold a function throws and writes nothing; at the threshold it answers.
TEST(PacketBounds, ThresholdsSitExactlyWhereTheyShould) {
    const Frame tcp = FrameBuilder::Tcp().Payload(Bytes(100, 0xAB)).Build();
    const Frame arp = FrameBuilder::Arp().ArpOpcode(2).PadTo(60).Build();
    for (const CodecCall& c : kCodecCalls) {
        if (c.threshold == 0) continue;
        SCOPED_TRACE(c.what + (" at " + std::to_string(c.threshold)));
        const Frame& base = c.arp ? arp : tcp;
        Frame below = Cut(base, c.threshold - 1);
        EXPECT_EQ(Thrown([&] { c.call(below, 4); }), SizeError(c.what, c.threshold - 1));
        EXPECT_EQ(below, Cut(base, c.threshold - 1)) << "wrote before throwing";
        Frame at = Cut(base, c.threshold);
        EXPECT_NO_THROW(c.call(at, 4));
    }
    const Frame udp = FrameBuilder::Udp().Payload("abcdef").Build();
    EXPECT_EQ(Thrown([&] { pu::GetTransportHeaderChecksum(Cut(udp, 39)); }),
              SizeError("getting transport header checksum", 39));
    EXPECT_NO_THROW(pu::GetTransportHeaderChecksum(Cut(udp, 40)));
    // Byte 13 missing reads as 0: IPv4.
    EXPECT_EQ(Thrown([] { pu::IsTcpAckFlagSet(Frame(13, 0x08)); }), SizeError("getting IP protocol", 13));
    // Lengths agree, but the TCP checksum (offset 50) lies beyond the 48-byte frame.
    Frame shortTcp = Cut(tcp, 48);
    pu::SetIpPacketTotalLength(shortTcp, 34);
    EXPECT_EQ(Thrown([&] { pu::FixTransportHeaderChecksum(shortTcp); }),
              SizeError("fixing transport header checksum", 48));
    Frame tooShort(33, 0x45);
    EXPECT_EQ(Thrown([&] { pu::FixTransportHeaderChecksum(tooShort); }),
              SizeError("fixing transport header checksum", 33));
    // The value's size is checked before the frame's.
    Frame tiny(3);
    EXPECT_EQ(Thrown([&] { pu::SetSourceIpAddress(tiny, Bytes(16)); }),
              "SetSourceIpAddress: unexpected IP address value, size: 16");
    EXPECT_EQ(Thrown([&] { pu::SetDestinationIpAddress(tiny, Bytes{}); }),
              "SetDestinationIpAddress: unexpected IP address value, size: 0");
}

TEST(PacketBounds, EveryFunctionOnEveryLengthAnswersOrThrowsNatException) {
    std::mt19937 rng(2024);
    const Frame tcp =
        FrameBuilder::Tcp().IpOptions(Bytes(12, 1)).TcpOptions(Bytes(12, 1)).Payload(Bytes(1436, 0x5A)).Build();
    // The IHL claims the whole header area, or nothing at all.
    Frame widest = tcp, none = tcp;
    widest[14] = 0x4F;
    none[14] = 0x40;
    const Frame sources[] = {tcp, widest, none, FrameBuilder::Udp().Payload(Bytes(1472, 0xA5)).Build(),
                             FrameBuilder::Arp().ArpOpcode(2).PadTo(1514).Build()};
    const auto sizeKept = [](bool kept) { ASSERT_TRUE(kept); };
    for (const Frame& source : sources) ASSERT_EQ(source.size(), 1514u);
    for (size_t length = 0; length <= 1514; ++length)
        for (const Frame& source : sources) CallEveryCodecFunction(Cut(source, length), rng(), sizeKept);
}

// Every writer and both fixers on random frames, against checksums computed from scratch:
// a writer puts its value in its field, changes nothing else but the transport checksum
// (the plain setters not even that), and never touches the IPv4 header checksum.
TEST(PacketChecksum, WritersAndFixersAgreeWithAFromScratchComputation) {
    struct Writer {
        const char* name;
        bool tcpOnly, keepsChecksum, inTransport;
        size_t at, width;
        void (*write)(Frame&, const Bytes&);
    };
    using V = const Bytes&;  // the value, big-endian
    static const Writer writers[] = {
        {"SetSourcePort", false, true, true, 0, 2, [](F f, V v) { pu::SetSourcePort(f, Be16(v, 0)); }},
        {"SetDestinationPort", false, true, true, 2, 2, [](F f, V v) { pu::SetDestinationPort(f, Be16(v, 0)); }},
        {"SetTcpSequenceNumber", true, true, true, 4, 4, [](F f, V v) { pu::SetTcpSequenceNumber(f, Be32(v, 0)); }},
        {"SetAcknowledgmentNumber", true, true, true, 8, 4,
         [](F f, V v) { pu::SetAcknowledgmentNumber(f, Be32(v, 0)); }},
        {"UpdateSourceIp", false, true, false, 26, 4, [](F f, V v) { pu::UpdateSourceIp(f, Array<4>(v)); }},
        {"UpdateDestinationIp", false, true, false, 30, 4, [](F f, V v) { pu::UpdateDestinationIp(f, Array<4>(v)); }},
        {"SetSourceIpAddress", false, false, false, 26, 4, [](F f, V v) { pu::SetSourceIpAddress(f, v); }},
        {"SetDestinationIpAddress", false, false, false, 30, 4, [](F f, V v) { pu::SetDestinationIpAddress(f, v); }},
        {"SetIpPacketTotalLength", false, false, false, 16, 2,
         [](F f, V v) { pu::SetIpPacketTotalLength(f, Be16(v, 0)); }},
        {"SetDestinationMac", false, false, false, 0, 6, [](F f, V v) { pu::SetDestinationMac(f, Array<6>(v)); }},
        {"SetSourceMac", false, false, false, 6, 6, [](F f, V v) { pu::SetSourceMac(f, Array<6>(v)); }},
    };
    std::mt19937 rng(1071);
    for (int i = 0; i < 6000; ++i) {
        const Writer& w = writers[i % std::size(writers)];
        const Frame before = RandomFrame(rng, w.tcpOnly || i % 2 == 0);
        const size_t k = TransportChecksumOffset(before);
        // Both fixers ignore what the checksum fields held.
        Frame fixed = before;
        for (size_t at : {size_t{24}, size_t{25}, k, k + 1}) fixed[at] = static_cast<uint8_t>(rng());
        pu::FixIpHeaderChecksum(fixed);
        pu::FixTransportHeaderChecksum(fixed);
        ASSERT_EQ(Be16(fixed, 24), Be16(before, 24)) << i;
        ASSERT_EQ(Be16(fixed, k), ReferenceTransportChecksum(before)) << i;

        Bytes value(w.width);
        for (auto& b : value) b = static_cast<uint8_t>(rng());
        Frame after = before;
        w.write(after, value);
        const size_t at = (w.inTransport ? TransportOffset(after) : 0) + w.at;
        ASSERT_TRUE(std::equal(value.begin(), value.end(), after.begin() + static_cast<long>(at))) << w.name;
        Frame masked = after;
        std::copy_n(before.begin() + static_cast<long>(at), w.width, masked.begin() + static_cast<long>(at));
        if (w.keepsChecksum) {
            ASSERT_EQ(Be16(after, k), ReferenceTransportChecksum(after)) << w.name << " " << i;
            std::copy_n(before.begin() + static_cast<long>(k), 2, masked.begin() + long(k));
        }
        ASSERT_EQ(masked, before) << w.name;
    }
}

TEST(PacketChecksum, EdgeValues) {
    // The full UDP recompute stores an all-ones sum as 0.
    auto udpFrom = [](uint16_t port) { return FrameBuilder::Udp().SrcPort(port).DstPort(1).Payload("abc").Build(); };
    uint16_t port = 0;
    while (ReferenceTransportChecksum(udpFrom(port)) != 0) ASSERT_LT(++port, 0xFFFF) << "no all-ones sum found";
    Frame allOnes = udpFrom(port);
    allOnes[40] = 0x77;
    pu::FixTransportHeaderChecksum(allOnes);
    EXPECT_EQ(Be16(allOnes, 40), 0);
    // Incremental update from the given old checksum (not the frame's); a zero result is stored as 0.
    struct Case { uint16_t hc, m, m2, expected; } cases[] = {
        {0x0000, 0x1234, 0x1234, 0}, {0x0000, 0x1234, 0x1235, 0xFFFE}, {0xABCD, 0, 0, 0xABCD}, {0xFFFF, 0xFFFF, 0, 0}};
    for (const Case& c : cases) {
        Frame udp = FrameBuilder::Udp().Build();
        pu::UpdateTransportHeaderChecksum(udp, c.hc, c.m, c.m2);
        EXPECT_EQ(Be16(udp, 40), c.expected) << c.hc << " " << c.m << " " << c.m2;
    }
    const Frame icmp = FrameBuilder::Ipv4(kProtoIcmp).Payload(Bytes(40, 0)).Build();
    for (void (*refused)(Frame&) : {+[](Frame& f) { pu::UpdateTransportHeaderChecksum(f, 0, 0, 1); },
                                    +[](Frame& f) { pu::SetSourcePort(f, 99); },
                                    +[](Frame& f) { pu::FixTransportHeaderChecksum(f); }}) {
        Frame f = icmp;
        EXPECT_EQ(Thrown([&] { refused(f); }), std::string("Unsupported IP protocol: ") + '\x01');
        EXPECT_EQ(f, icmp);
    }
}

TEST(PacketFields, KernelFramesReadAsCaptured) {
    const Frame &syn = kKernelSyn, &udp = kKernelUdp;
    EXPECT_EQ(pu::GetDestinationMac(syn), (MacAddress{0x66, 0xc7, 0x37, 0x25, 0x95, 0x15}));
    EXPECT_EQ(pu::GetSourceMac(syn), (MacAddress{0x5e, 0xa6, 0x0e, 0x0c, 0xd5, 0x59}));
    EXPECT_EQ(pu::GetSourceIp(syn), (Ipv4Address{10, 77, 0, 1}));
    EXPECT_EQ(pu::GetDestinationIp(syn), (Ipv4Address{10, 77, 0, 2}));
    const std::vector<uint64_t> synFields = {pu::GetFrameType(syn), pu::GetIpHeaderSize(syn),
        pu::GetIpPacketTotalLength(syn), pu::GetIpProtocol(syn), pu::GetSourcePort(syn), pu::GetDestinationPort(syn),
        pu::GetTcpSequenceNumber(syn), pu::GetAcknowledgmentNumber(syn), pu::GetTransportHeaderChecksum(syn),
        pu::GetTransportHeaderLength(syn), pu::IsTcpAckFlagSet(syn), pu::IsTcpFinFlagSet(syn),
        pu::IsTcpRstFlagSet(syn)};
    EXPECT_EQ(synFields, (std::vector<uint64_t>{0x0800, 20, 60, 6, 46084, 4000, 399341863, 0, 0x5261, 40, 0, 0, 0}));
    const std::vector<uint64_t> udpFields = {pu::GetIpProtocol(udp), pu::GetSourcePort(udp),
        pu::GetDestinationPort(udp), pu::GetTransportHeaderChecksum(udp), pu::GetTransportHeaderLength(udp),
        pu::IsTcpAckFlagSet(udp)};
    EXPECT_EQ(udpFields, (std::vector<uint64_t>{17, 60868, 5353, 0xdc5b, 8, 0}));
}

TEST(PacketFields, TcpFlagsAreReadOnlyFromTcpOverIpv4) {
    // Each flag seen set and clear: enough to catch a wrong mask.
    struct Case { uint8_t flags; bool rst, fin, ack; } cases[] = {
        {kRst, true, false, false}, {kFin | kAck, false, true, true}};
    for (const Case& c : cases) {
        const Frame f = FrameBuilder::Tcp().Flags(c.flags).Build();
        EXPECT_EQ((std::array{pu::IsTcpRstFlagSet(f), pu::IsTcpFinFlagSet(f), pu::IsTcpAckFlagSet(f)}),
                  (std::array{c.rst, c.fin, c.ack})) << int(c.flags);
    }
    // The TCP flags offset holds 0xFF in this UDP payload and in the ARP frame's bytes.
    EXPECT_FALSE(pu::IsTcpRstFlagSet(FrameBuilder::Udp().Payload(Bytes(40, 0xFF)).Build()));
    Frame arp = FrameBuilder::Arp().Payload(Bytes(40, 0xFF)).Build();
    arp[23] = 6;
    EXPECT_FALSE(pu::IsTcpFinFlagSet(arp));
    // Too short to hold an EtherType: false without a length complaint.
    EXPECT_FALSE(pu::IsTcpAckFlagSet(Frame(12, 0x08)));

    const std::pair<Frame, std::string> notTransport[] = {{FrameBuilder::Arp().Build(), "."},
        {FrameBuilder::Ipv4(kProtoIcmp).Payload("ping").Build(), ": \x01"},
        {FrameBuilder::Ipv4(0x41).Payload("ping").Build(), ": A"}};
    for (const auto& [frame, tail] : notTransport)
        EXPECT_EQ(Thrown([&] { pu::GetTransportHeaderLength(frame); }),
                  "Error getting transport header length, unexpected protocol" + tail);
}

TEST(PacketFields, ArpFieldsAndReplyRecognition) {
    const MacAddress mac{0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};
    const Frame reply = FrameBuilder::Arp().ArpOpcode(2).ArpSender(mac, {192, 168, 1, 1}).PadTo(60).Build();
    EXPECT_EQ((std::array{pu::GetFrameType(reply), pu::GetArpProtocolType(reply), pu::GetArpOpcode(reply)}),
              (std::array<uint16_t, 3>{0x0806, 0x0800, 2}));
    EXPECT_EQ(pu::GetArpSenderMacAddress(reply), ToBytes(mac));
    EXPECT_EQ(pu::GetArpSenderIpAddress(reply), (Bytes{192, 168, 1, 1}));
    EXPECT_TRUE(pu::IsArpReply(reply));
    // A request, another protocol type, then the IPv4 EtherType.
    for (auto [at, value] : {std::pair<size_t, uint8_t>{21, 1}, {16, 0x86}, {13, 0x00}}) {
        Frame other = reply;
        other[at] = value;
        EXPECT_FALSE(pu::IsArpReply(other)) << at;
    }
}

TEST(PacketText, IpAndHexStrings) {
    EXPECT_EQ(pu::FromVectorToIpString({255, 10, 100, 7}), "255.10.100.7");
    EXPECT_EQ(pu::FromVectorToIpString({0, 0, 0, 0}), "0.0.0.0");
    for (size_t size : {0, 6})
        EXPECT_EQ(Thrown([&] { pu::FromVectorToIpString(Bytes(size)); }),
                  "FromVectorToIpString: unexpected IP address value, size: " + std::to_string(size));
    for (const char* valid : {"192.168.0.1", "00.0.0.0", "255.255.255.255", "0.0.0.1", "0000000000000001.2.3.4"})
        EXPECT_TRUE(pu::IsValidIpAddress(valid)) << valid;
    for (const char* invalid : {"0.0.0.0", "", "1.2.3", "1.2.3.4.", ".1.2.3", "1..3.4", "1.2.3.256", "256.1.1.1",
                                "1.2.a.4", "1.2.3.4 ", " 1.2.3.4", "1.2.3.-4", "+1.2.3.4",
                                "99999999999999999999.1.1.1"}) {
        EXPECT_FALSE(pu::IsValidIpAddress(invalid)) << invalid;
        EXPECT_EQ(Thrown([&] { pu::FromIPStringToByteArray(invalid); }),
                  std::string("FromIPStringToByteArray: invalid IP address: ") + invalid);
    }
    EXPECT_EQ(pu::FromIPStringToByteArray("010.001.255.00"), (Bytes{10, 1, 255, 0}));
    EXPECT_EQ(pu::FromVectorToHexString({0x00, 0x1A, 0xFF}, "::"), "00::1a::ff");
    EXPECT_EQ(pu::FromVectorToHexString({}, "-"), "");
}
