#include <gtest/gtest.h>

#include "Packet/PacketUtils.h"
#include "PacketTestHelpers.h"

using namespace ndtest;
namespace pu = Nat::PacketUtils;

TEST(PacketFields, ReadsEveryFieldOfKernelFrames) {
    const Frame syn = KernelTcpSynFrame();
    EXPECT_EQ(pu::GetDestinationMac(syn), Mac("66:c7:37:25:95:15"));
    EXPECT_EQ(pu::GetSourceMac(syn), Mac("5e:a6:0e:0c:d5:59"));
    EXPECT_EQ(pu::GetFrameType(syn), 0x0800);
    EXPECT_EQ(pu::GetIpHeaderSize(syn), 20u);
    EXPECT_EQ(pu::GetIpPacketTotalLength(syn), 60);
    EXPECT_EQ(pu::GetIpProtocol(syn), 6);
    EXPECT_EQ(pu::GetSourceIp(syn), Ip("10.77.0.1"));
    EXPECT_EQ(pu::GetDestinationIp(syn), Ip("10.77.0.2"));
    EXPECT_EQ(pu::GetSourcePort(syn), 46084);
    EXPECT_EQ(pu::GetDestinationPort(syn), 4000);
    EXPECT_EQ(pu::GetTcpSequenceNumber(syn), 399341863u);
    EXPECT_EQ(pu::GetAcknowledgmentNumber(syn), 0u);
    EXPECT_EQ(pu::GetTransportHeaderChecksum(syn), 0x5261);
    EXPECT_EQ(pu::GetTransportHeaderLength(syn), 40u);
    EXPECT_FALSE(pu::IsTcpAckFlagSet(syn));
    EXPECT_FALSE(pu::IsTcpFinFlagSet(syn));
    EXPECT_FALSE(pu::IsTcpRstFlagSet(syn));

    const Frame udp = KernelUdpFrame();
    EXPECT_EQ(pu::GetIpProtocol(udp), 17);
    EXPECT_EQ(pu::GetSourcePort(udp), 60868);
    EXPECT_EQ(pu::GetDestinationPort(udp), 5353);
    EXPECT_EQ(pu::GetTransportHeaderChecksum(udp), 0xdc5b);
    EXPECT_EQ(pu::GetTransportHeaderLength(udp), 8u);
    EXPECT_FALSE(pu::IsTcpAckFlagSet(udp));
}

TEST(PacketFields, PlainSettersWriteTheirBytesAndNothingElse) {
    const Frame original = FrameBuilder::Tcp().Payload("payload!").Build();
    Frame f = original;
    pu::SetDestinationMac(f, Mac("aa:bb:cc:dd:ee:ff"));
    pu::SetSourceMac(f, Mac("11:22:33:44:55:66"));
    pu::SetSourceIpAddress(f, ToBytes(Ip("192.168.7.9")));
    pu::SetDestinationIpAddress(f, ToBytes(Ip("8.8.4.4")));
    pu::SetIpPacketTotalLength(f, 0xBEEF);
    Frame expected = original;
    const Bytes newBytes[] = {ToBytes(Mac("aa:bb:cc:dd:ee:ff")), ToBytes(Mac("11:22:33:44:55:66")),
                              ToBytes(Ip("192.168.7.9")), ToBytes(Ip("8.8.4.4")), Bytes{0xBE, 0xEF}};
    const size_t offsets[] = {0, 6, 26, 30, 16};
    for (size_t i = 0; i < 5; ++i) std::copy(newBytes[i].begin(), newBytes[i].end(), expected.begin() + offsets[i]);
    EXPECT_EQ(f, expected);  // in particular neither checksum was touched
}

TEST(PacketFields, ChecksumKeepingWritersWriteTheirFields) {
    Frame f = FrameBuilder::Tcp().IpOptions({1, 1, 1, 1}).Payload("x").Build();
    ASSERT_EQ(pu::GetIpHeaderSize(f), 24u);
    pu::SetSourcePort(f, 1234);
    pu::SetDestinationPort(f, 0xFEDC);
    pu::SetTcpSequenceNumber(f, 0xDEADBEEF);
    pu::SetAcknowledgmentNumber(f, 0x01020304);
    pu::UpdateSourceIp(f, Ip("1.2.3.4"));
    pu::UpdateDestinationIp(f, Ip("5.6.7.8"));
    EXPECT_EQ(Be16(f, 38), 1234);
    EXPECT_EQ(Be16(f, 40), 0xFEDC);
    EXPECT_EQ(Be32(f, 42), 0xDEADBEEFu);
    EXPECT_EQ(Be32(f, 46), 0x01020304u);
    EXPECT_EQ(pu::GetSourceIp(f), Ip("1.2.3.4"));
    EXPECT_EQ(pu::GetDestinationIp(f), Ip("5.6.7.8"));
    EXPECT_TRUE(TransportChecksumValid(f));
}

TEST(PacketFields, HeaderSizesFollowIhlAndDataOffset) {
    for (size_t options = 0; options <= 40; options += 4) {
        const Frame f = FrameBuilder::Tcp().IpOptions(Bytes(options, 1)).TcpOptions(Bytes(40 - options, 1))
                            .SrcPort(7).DstPort(9).Seq(11).AckNumber(13).Build();
        EXPECT_EQ(pu::GetIpHeaderSize(f), 20 + options);
        EXPECT_EQ(pu::GetTransportHeaderLength(f), 60 - options);
        EXPECT_EQ(pu::GetSourcePort(f), 7);
        EXPECT_EQ(pu::GetDestinationPort(f), 9);
        EXPECT_EQ(pu::GetTcpSequenceNumber(f), 11u);
        EXPECT_EQ(pu::GetAcknowledgmentNumber(f), 13u);
    }
}

TEST(PacketFields, TcpFlagsAreReadOnlyFromTcpOverIpv4) {
    struct Case {
        uint8_t flags;
        bool rst, fin, ack;
    } cases[] = {{kRst, true, false, false}, {kFin | kAck, false, true, true}, {kSyn | kAck, false, false, true},
                 {0xFF, true, true, true}, {0, false, false, false}};
    for (const Case& c : cases) {
        const Frame f = FrameBuilder::Tcp().Flags(c.flags).Build();
        EXPECT_EQ(pu::IsTcpRstFlagSet(f), c.rst) << int(c.flags);
        EXPECT_EQ(pu::IsTcpFinFlagSet(f), c.fin) << int(c.flags);
        EXPECT_EQ(pu::IsTcpAckFlagSet(f), c.ack) << int(c.flags);
    }
    // The flags offset of TCP holds 0xFF in this UDP payload, and in the ARP frame's bytes.
    Frame udp = FrameBuilder::Udp().Payload(Bytes(40, 0xFF)).Build();
    EXPECT_FALSE(pu::IsTcpRstFlagSet(udp));
    Frame arp = FrameBuilder::Arp().Payload(Bytes(40, 0xFF)).Build();
    arp[23] = 6;
    EXPECT_FALSE(pu::IsTcpFinFlagSet(arp));
    // Too short to hold an EtherType: false without any length complaint.
    EXPECT_FALSE(pu::IsTcpAckFlagSet(Frame{}));
    EXPECT_FALSE(pu::IsTcpAckFlagSet(Frame(12, 0x08)));
    // A missing byte 13 reads as 0: this one looks like IPv4 and is too short for the protocol.
    EXPECT_EQ(Thrown([] { pu::IsTcpAckFlagSet(Frame(13, 0x08)); }),
              "Error getting IP protocol, unexpected packet size: 13");
    // TCP frame cut right before the flags: the one wording for all three.
    const Frame full = FrameBuilder::Tcp().Flags(kAck).Build();
    const Frame cut(full.begin(), full.begin() + 46);
    EXPECT_EQ(Thrown([&] { pu::IsTcpAckFlagSet(cut); }), "Error setting tcp RST flag, unexpected packet size: 46");
    EXPECT_EQ(Thrown([&] { pu::IsTcpFinFlagSet(cut); }), "Error setting tcp RST flag, unexpected packet size: 46");
}

TEST(PacketFields, TransportHeaderLengthRefusesOtherProtocols) {
    EXPECT_EQ(Thrown([] { pu::GetTransportHeaderLength(FrameBuilder::Arp().Build()); }),
              "Error getting transport header length, unexpected protocol.");
    EXPECT_EQ(Thrown([] { pu::GetTransportHeaderLength(FrameBuilder::Ipv4(kProtoIcmp).Payload("ping").Build()); }),
              std::string("Error getting transport header length, unexpected protocol: ") + '\x01');
    EXPECT_EQ(Thrown([] { pu::GetTransportHeaderLength(FrameBuilder::Ipv4(0x41).Payload("ping").Build()); }),
              "Error getting transport header length, unexpected protocol: A");
}

TEST(PacketFields, ArpFieldsAndReplyRecognition) {
    const Frame reply = FrameBuilder::Arp().ArpOpcode(2).ArpSender(Mac("02:aa:bb:cc:dd:ee"), Ip("192.168.1.1"))
                            .ArpTarget(Mac("02:00:00:00:00:01"), Ip("192.168.1.50")).PadTo(60).Build();
    ASSERT_EQ(reply.size(), 60u);
    EXPECT_EQ(pu::GetFrameType(reply), 0x0806);
    EXPECT_EQ(pu::GetArpProtocolType(reply), 0x0800);
    EXPECT_EQ(pu::GetArpOpcode(reply), 2);
    EXPECT_EQ(pu::GetArpSenderMacAddress(reply), ToBytes(Mac("02:aa:bb:cc:dd:ee")));
    EXPECT_EQ(pu::GetArpSenderIpAddress(reply), ToBytes(Ip("192.168.1.1")));
    EXPECT_TRUE(pu::IsArpReply(reply));

    EXPECT_FALSE(pu::IsArpReply(FrameBuilder::Arp().ArpOpcode(1).Build()));
    EXPECT_FALSE(pu::IsArpReply(FrameBuilder::Arp().ArpOpcode(2).ArpProtocolType(0x86DD).Build()));
    EXPECT_FALSE(pu::IsArpReply(FrameBuilder::Arp().ArpOpcode(2).EtherType(0x0800).Build()));
    // The opcode is read first, so a 20-byte frame fails on it.
    EXPECT_EQ(Thrown([&] { pu::IsArpReply(Frame(reply.begin(), reply.begin() + 20)); }),
              "Error getting ARP opcode, unexpected packet size: 20");
    // The sender IP needs 34 bytes, two more than its last byte.
    EXPECT_EQ(Thrown([&] { pu::GetArpSenderIpAddress(Frame(reply.begin(), reply.begin() + 33)); }),
              "Error getting ARP sender IP address, unexpected packet size: 33");
}

TEST(PacketFields, ValueSizeIsCheckedBeforeFrameSize) {
    Frame tiny(3);
    EXPECT_EQ(Thrown([&] { pu::SetSourceIpAddress(tiny, Bytes(16)); }),
              "SetSourceIpAddress: unexpected IP address value, size: 16");
    EXPECT_EQ(Thrown([&] { pu::SetDestinationIpAddress(tiny, Bytes{}); }),
              "SetDestinationIpAddress: unexpected IP address value, size: 0");
    EXPECT_EQ(Thrown([&] { pu::SetDestinationIpAddress(tiny, Bytes(4)); }),
              "Error setting destination IP address, unexpected packet size: 3");
    EXPECT_EQ(tiny, Frame(3));
}

TEST(PacketText, IpStringConversions) {
    EXPECT_EQ(pu::FromVectorToIpString({192, 168, 0, 1}), "192.168.0.1");
    EXPECT_EQ(pu::FromVectorToIpString({0, 0, 0, 0}), "0.0.0.0");
    EXPECT_EQ(pu::FromVectorToIpString({255, 10, 100, 7}), "255.10.100.7");
    EXPECT_EQ(Thrown([] { pu::FromVectorToIpString(Bytes(6)); }),
              "FromVectorToIpString: unexpected IP address value, size: 6");
    EXPECT_EQ(Thrown([] { pu::FromVectorToIpString(Bytes{}); }),
              "FromVectorToIpString: unexpected IP address value, size: 0");

    for (const char* valid : {"192.168.0.1", "00.0.0.0", "010.1.1.1", "255.255.255.255", "1.2.3.4", "0.0.0.1",
                              "000000000000000000000000001.2.3.4"}) {
        EXPECT_TRUE(pu::IsValidIpAddress(valid)) << valid;
    }
    for (const char* invalid : {"0.0.0.0", "", "1.2.3", "1.2.3.4.", ".1.2.3", "1..3.4", "1.2.3.256", "256.1.1.1",
                                "1.2.a.4", "1.2.3.4 ", " 1.2.3.4", "1.2.3.-4", "+1.2.3.4", "1.2.3.4.5",
                                "99999999999999999999.1.1.1", "..."}) {
        EXPECT_FALSE(pu::IsValidIpAddress(invalid)) << invalid;
        EXPECT_EQ(Thrown([&] { pu::FromIPStringToByteArray(invalid); }),
                  std::string("FromIPStringToByteArray: invalid IP address: ") + invalid);
    }
    EXPECT_EQ(pu::FromIPStringToByteArray("192.168.0.1"), (Bytes{192, 168, 0, 1}));
    EXPECT_EQ(pu::FromIPStringToByteArray("010.001.255.00"), (Bytes{10, 1, 255, 0}));
    EXPECT_EQ(pu::FromIPStringToByteArray("00.0.0.0"), (Bytes{0, 0, 0, 0}));
}

TEST(PacketText, HexString) {
    EXPECT_EQ(pu::FromVectorToHexString({0x00, 0x1A, 0xFF}, "::"), "00::1a::ff");
    EXPECT_EQ(pu::FromVectorToHexString({0x0F}, "::"), "0f");
    EXPECT_EQ(pu::FromVectorToHexString({}, "::"), "");
    EXPECT_EQ(pu::FromVectorToHexString({0xAB, 0xCD}, ""), "abcd");
    EXPECT_EQ(pu::FromVectorToHexString({1, 2, 3}, "-"), "01-02-03");
}
