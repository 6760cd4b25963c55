#include <gtest/gtest.h>

#include <random>

#include "Packet/PacketUtils.h"
#include "PacketTestHelpers.h"
#include "support/AllocationCounter.h"
#include "support/CodecCalls.h"

using namespace ndtest;
namespace pu = Nat::PacketUtils;

namespace {

// A copy of the first `size` bytes whose storage ends exactly there, so that the
// sanitizer sees any read past the end.
Frame Cut(const Frame& frame, size_t size) {
    Frame cut(size);
    std::copy(frame.begin(), frame.begin() + static_cast<long>(size), cut.begin());
    return cut;
}

using Action = void (*)(Frame&);

// The message is "Error " + what + ", unexpected packet size: " + the frame size.
struct Threshold {
    Action action;
    size_t threshold;
    const char* what;
};

const Frame& TcpFrame() {
    static const Frame f = FrameBuilder::Tcp().Payload(Bytes(100, 0xAB)).Build();
    return f;
}

const Frame& ArpFrame() {
    static const Frame f = FrameBuilder::Arp().ArpOpcode(2).PadTo(60).Build();
    return f;
}

// TCP frame, IHL 20: IHL-relative thresholds are 20 more than their offsets.
const Threshold kTcpThresholds[] = {
    {[](Frame& f) { pu::GetDestinationMac(f); }, 6, "getting destination MAC address"},
    {[](Frame& f) { pu::SetDestinationMac(f, MacAddress{}); }, 6, "setting destination MAC address"},
    {[](Frame& f) { pu::GetSourceMac(f); }, 12, "getting source MAC address"},
    {[](Frame& f) { pu::SetSourceMac(f, MacAddress{}); }, 12, "setting source MAC address"},
    {[](Frame& f) { pu::GetFrameType(f); }, 13, "getting ethernet frame type"},
    {[](Frame& f) { pu::GetIpHeaderSize(f); }, 14, "getting IP header size"},
    {[](Frame& f) { pu::GetIpPacketTotalLength(f); }, 17, "getting IP packet total length"},
    {[](Frame& f) { pu::SetIpPacketTotalLength(f, 5); }, 17, "setting IP packet total length"},
    {[](Frame& f) { pu::GetIpProtocol(f); }, 23, "getting IP protocol"},
    {[](Frame& f) { pu::GetSourceIp(f); }, 30, "getting source IP address"},
    {[](Frame& f) { pu::SetSourceIpAddress(f, Bytes(4, 1)); }, 30, "setting source IP address"},
    {[](Frame& f) { pu::GetDestinationIp(f); }, 34, "getting destination IP address"},
    {[](Frame& f) { pu::SetDestinationIpAddress(f, Bytes(4, 1)); }, 34, "setting destination IP address"},
    {[](Frame& f) { pu::GetSourcePort(f); }, 35, "getting source port"},
    {[](Frame& f) { pu::GetDestinationPort(f); }, 37, "getting destination port"},
    {[](Frame& f) { pu::GetTcpSequenceNumber(f); }, 41, "getting TCP sequence number"},
    {[](Frame& f) { pu::GetAcknowledgmentNumber(f); }, 45, "getting acknowledgment number"},
    {[](Frame& f) { pu::GetTransportHeaderLength(f); }, 46, "getting TCP header length"},
    {[](Frame& f) { pu::IsTcpRstFlagSet(f); }, 47, "setting tcp RST flag"},
    {[](Frame& f) { pu::GetTransportHeaderChecksum(f); }, 50, "getting transport header checksum"},
    {[](Frame& f) { pu::UpdateTransportHeaderChecksum(f, 1, 2, 3); }, 50, "getting transport header checksum"},
    // The checksum-keeping writers read the checksum first, so its threshold is theirs.
    {[](Frame& f) { pu::SetSourcePort(f, 9); }, 50, "getting transport header checksum"},
    {[](Frame& f) { pu::SetAcknowledgmentNumber(f, 9); }, 50, "getting transport header checksum"},
    {[](Frame& f) { pu::UpdateDestinationIp(f, Ipv4Address{}); }, 50, "getting transport header checksum"},
    {[](Frame& f) { pu::FixIpHeaderChecksum(f); }, 34, "fixing IP header checksum"},
};

const Threshold kArpThresholds[] = {
    {[](Frame& f) { pu::GetArpProtocolType(f); }, 17, "getting ARP protocol type"},
    {[](Frame& f) { pu::GetArpOpcode(f); }, 21, "getting ARP opcode"},
    {[](Frame& f) { pu::IsArpReply(f); }, 21, "getting ARP opcode"},
    {[](Frame& f) { pu::GetArpSenderMacAddress(f); }, 28, "getting ARP sender MAC address"},
    {[](Frame& f) { pu::GetArpSenderIpAddress(f); }, 34, "getting ARP sender IP address"},
};

void CheckThresholds(const Frame& base, const Threshold* begin, const Threshold* end) {
    for (const Threshold* t = begin; t != end; ++t) {
        SCOPED_TRACE("row " + std::to_string(t - begin) + ": " + t->what);
        Frame below = Cut(base, t->threshold - 1);
        const Frame belowCopy = below;
        EXPECT_EQ(Thrown([&] { t->action(below); }),
                  "Error " + std::string(t->what) + ", unexpected packet size: " + std::to_string(t->threshold - 1));
        EXPECT_EQ(below, belowCopy) << "wrote before throwing";
        Frame at = Cut(base, t->threshold);
        EXPECT_NO_THROW(t->action(at));
    }
}

}  // namespace

TEST(PacketBounds, ThresholdsSitExactlyWhereTheyShould) {
    CheckThresholds(TcpFrame(), std::begin(kTcpThresholds), std::end(kTcpThresholds));
    CheckThresholds(ArpFrame(), std::begin(kArpThresholds), std::end(kArpThresholds));
    const Frame udp = FrameBuilder::Udp().Payload("abcdef").Build();
    EXPECT_EQ(Thrown([&] { pu::GetTransportHeaderChecksum(Cut(udp, 39)); }),
              "Error getting transport header checksum, unexpected packet size: 39");
    EXPECT_EQ(Thrown([&] { pu::GetTransportHeaderChecksum(Cut(udp, 33)); }),
              "Error getting transport header checksum, unexpected packet size: 33");
    EXPECT_NO_THROW(pu::GetTransportHeaderChecksum(Cut(udp, 40)));
    // Frames too short for the IP header size fail on that first.
    EXPECT_EQ(Thrown([] { pu::GetSourcePort(Frame(13)); }),
              "Error getting IP header size, unexpected packet size: 13");
}

TEST(PacketBounds, EveryFunctionOnEveryLengthAnswersOrThrowsNatException) {
    std::mt19937 rng(2024);
    const Frame sources[] = {
        FrameBuilder::Tcp().IpOptions(Bytes(12, 1)).TcpOptions(Bytes(12, 1)).Payload(Bytes(1514 - 14 - 32 - 32, 0x5A)).Build(),
        FrameBuilder::Udp().Payload(Bytes(1514 - 14 - 20 - 8, 0xA5)).Build(),
        FrameBuilder::Arp().ArpOpcode(2).PadTo(1514).Build(),
    };
    for (size_t length = 0; length <= 1514; ++length) {
        const auto sizeKept = [](bool kept) { ASSERT_TRUE(kept); };
        for (const Frame& source : sources) CallEveryCodecFunction(Cut(source, length), rng(), sizeKept);
        // Random bytes that look like IPv4 with any IHL and a likely protocol.
        Frame random(length);
        for (auto& b : random) b = static_cast<uint8_t>(rng());
        if (length > 23) {
            random[12] = 0x08;
            random[13] = 0x00;
            const uint8_t protocols[] = {6, 17, static_cast<uint8_t>(rng())};
            random[23] = protocols[rng() % 3];
        }
        // A total length that matches, so the full transport fix runs its loop.
        if (length >= 18 && rng() % 2 == 0) {
            random[16] = static_cast<uint8_t>((length - 14) >> 8);
            random[17] = static_cast<uint8_t>(length - 14);
        }
        CallEveryCodecFunction(random, rng(), sizeKept);
    }
}

TEST(PacketBounds, HotPathAllocatesNothing) {
    Frame tcp = FrameBuilder::Tcp().Payload(Bytes(1400, 7)).Build();
    Frame udp = FrameBuilder::Udp().Payload(Bytes(500, 7)).Build();
    uint64_t sink = 0;
    const size_t allocations = AllocationsOf([&] {
        for (Frame* f : {&tcp, &udp}) {
            sink += pu::GetFrameType(*f) + pu::GetIpHeaderSize(*f) + pu::GetIpPacketTotalLength(*f) +
                    pu::GetIpProtocol(*f);
            sink += pu::GetSourcePort(*f) + pu::GetDestinationPort(*f) + pu::GetTransportHeaderChecksum(*f);
            sink += pu::GetTransportHeaderLength(*f) + pu::IsTcpAckFlagSet(*f) + pu::IsTcpFinFlagSet(*f) +
                    pu::IsTcpRstFlagSet(*f);
            sink += pu::GetSourceMac(*f)[0] + pu::GetDestinationMac(*f)[0] + pu::GetSourceIp(*f)[0] +
                    pu::GetDestinationIp(*f)[0];
            pu::SetSourceMac(*f, MacAddress{2, 0, 0, 0, 0, 9});
            pu::SetDestinationMac(*f, MacAddress{2, 0, 0, 0, 0, 8});
            pu::UpdateSourceIp(*f, Ipv4Address{100, 64, 1, 1});
            pu::UpdateDestinationIp(*f, Ipv4Address{8, 8, 8, 8});
            pu::SetSourcePort(*f, 33333);
            pu::SetDestinationPort(*f, 443);
            pu::FixIpHeaderChecksum(*f);
            pu::FixTransportHeaderChecksum(*f);
            pu::UpdateTransportHeaderChecksum(*f, 1, 2, 3);
        }
        sink += pu::GetTcpSequenceNumber(tcp) + pu::GetAcknowledgmentNumber(tcp);
        pu::SetTcpSequenceNumber(tcp, 5);
        pu::SetAcknowledgmentNumber(tcp, 6);
    });
    EXPECT_EQ(allocations, 0u);
    EXPECT_NE(sink, 0u);
}
