#pragma once
// Every codec function on one frame, for the bounds tests and the codec fuzzer. Header
// only: the fuzz targets link nothing but the product library and the frame builder.
#include <cstdint>

#include "Packet/PacketUtils.h"
#include "support/FrameBuilder.h"

namespace ndtest {

namespace pu = Nat::PacketUtils;

// One codec function, its values drawn from `v`. On a TCP frame with a 20-byte IP header
// (an ARP frame for `arp`) shorter than `threshold` it throws
// "Error <what>, unexpected packet size: <size>"; a threshold of 0 means it has no plain one.
// `keeps`: a writer that carries its change into the transport checksum (on TCP only: `tcpOnly`).
struct CodecCall {
    const char* what;
    size_t threshold;
    bool arp;
    void (*call)(Frame& f, uint32_t v);
    bool keeps = false, tcpOnly = false;
};

// Short names for the call's signature, so that each entry fits on one line.
using F = Frame&;
using V = uint32_t;

inline Ipv4Address IpFrom(uint32_t v) {
    return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
}

// Checksum-keeping writers read the old checksum first, hence their common threshold.
inline const CodecCall kCodecCalls[] = {
    {"getting destination MAC address", 6, false, [](F f, V) { pu::GetDestinationMac(f); }},
    {"setting destination MAC address", 6, false, [](F f, V v) { pu::SetDestinationMac(f, MacAddress{uint8_t(v)}); }},
    {"getting source MAC address", 12, false, [](F f, V) { pu::GetSourceMac(f); }},
    {"setting source MAC address", 12, false, [](F f, V v) { pu::SetSourceMac(f, MacAddress{2, uint8_t(v)}); }},
    {"getting ethernet frame type", 13, false, [](F f, V) { pu::GetFrameType(f); }},
    {"getting IP header size", 14, false, [](F f, V) { pu::GetIpHeaderSize(f); }},
    {"getting IP packet total length", 17, false, [](F f, V) { pu::GetIpPacketTotalLength(f); }},
    {"setting IP packet total length", 17, false, [](F f, V v) { pu::SetIpPacketTotalLength(f, uint16_t(v)); }},
    {"getting IP protocol", 23, false, [](F f, V) { pu::GetIpProtocol(f); }},
    {"getting source IP address", 30, false, [](F f, V) { pu::GetSourceIp(f); }},
    {"setting source IP address", 30, false, [](F f, V v) { pu::SetSourceIpAddress(f, pu::Bytes(v % 6, 3)); }},
    {"getting destination IP address", 34, false, [](F f, V) { pu::GetDestinationIp(f); }},
    {"setting destination IP address", 34, false, [](F f, V v) { pu::SetDestinationIpAddress(f, ToBytes(IpFrom(v))); }},
    {"getting source port", 35, false, [](F f, V) { pu::GetSourcePort(f); }},
    {"getting destination port", 37, false, [](F f, V) { pu::GetDestinationPort(f); }},
    {"getting TCP sequence number", 41, false, [](F f, V) { pu::GetTcpSequenceNumber(f); }},
    {"getting acknowledgment number", 45, false, [](F f, V) { pu::GetAcknowledgmentNumber(f); }},
    {"getting TCP header length", 46, false, [](F f, V) { pu::GetTransportHeaderLength(f); }},
    {"setting tcp RST flag", 47, false, [](F f, V) { pu::IsTcpRstFlagSet(f); }},
    {"setting tcp RST flag", 47, false, [](F f, V) { pu::IsTcpFinFlagSet(f); }},
    {"setting tcp RST flag", 47, false, [](F f, V) { pu::IsTcpAckFlagSet(f); }},
    {"getting transport header checksum", 50, false, [](F f, V) { pu::GetTransportHeaderChecksum(f); }},
    {"getting transport header checksum", 50, false,
     [](F f, V v) { pu::UpdateTransportHeaderChecksum(f, uint16_t(v), uint16_t(v >> 16), uint16_t(v >> 3)); }},
    {"getting transport header checksum", 50, false, [](F f, V v) { pu::SetSourcePort(f, uint16_t(v)); }, true},
    {"getting transport header checksum", 50, false, [](F f, V v) { pu::SetDestinationPort(f, uint16_t(~v)); }, true},
    {"getting transport header checksum", 50, false, [](F f, V v) { pu::SetTcpSequenceNumber(f, v); }, true, true},
    {"getting transport header checksum", 50, false, [](F f, V v) { pu::SetAcknowledgmentNumber(f, ~v); }, true, true},
    {"getting transport header checksum", 50, false, [](F f, V v) { pu::UpdateSourceIp(f, IpFrom(v)); }, true},
    {"getting transport header checksum", 50, false, [](F f, V v) { pu::UpdateDestinationIp(f, IpFrom(~v)); }, true},
    {"fixing IP header checksum", 34, false, [](F f, V) { pu::FixIpHeaderChecksum(f); }},
    {"fixing transport header checksum", 0, false, [](F f, V) { pu::FixTransportHeaderChecksum(f); }},
    {"getting ARP protocol type", 17, true, [](F f, V) { pu::GetArpProtocolType(f); }},
    {"getting ARP opcode", 21, true, [](F f, V) { pu::GetArpOpcode(f); }},
    {"getting ARP opcode", 21, true, [](F f, V) { pu::IsArpReply(f); }},
    {"getting ARP sender MAC address", 28, true, [](F f, V) { pu::GetArpSenderMacAddress(f); }},
    {"getting ARP sender IP address", 34, true, [](F f, V) { pu::GetArpSenderIpAddress(f); }},
};

// Runs every codec function on its own copy of the frame. Each call must answer or throw
// Nat::Exception (anything else escapes); `sizeKept` hears after every call whether the
// copy still has the frame's length.
template <typename Check>
void CallEveryCodecFunction(const Frame& frame, uint32_t v, Check sizeKept) {
    for (const CodecCall& c : kCodecCalls) {
        Frame f = frame;  // a copy whose storage ends where the frame ends
        try {
            c.call(f, v);
        } catch (const Nat::Exception&) {
        }
        sizeKept(f.size() == frame.size());
    }
}

}  // namespace ndtest
