#pragma once
// Every codec function on one frame, for the bounds test and the codec fuzzer. Header
// only: the fuzz targets link nothing but the product library.
#include <cstdint>

#include "Packet/PacketUtils.h"

namespace ndtest {

// Runs each codec function on its own copy of the frame, with values drawn from `v`. Each
// call must answer or throw Nat::Exception (anything else escapes); `sizeKept` hears
// after every call whether the copy still has the frame's length.
template <typename Check>
void CallEveryCodecFunction(const Nat::Frame& frame, uint32_t v, Check sizeKept) {
    namespace pu = Nat::PacketUtils;
    const auto run = [&](auto&& call) {
        Nat::Frame f = frame;  // a copy whose storage ends where the frame ends
        try {
            call(f);
        } catch (const Nat::Exception&) {
        }
        sizeKept(f.size() == frame.size());
    };
    const uint16_t v16 = static_cast<uint16_t>(v);
    const Nat::Ipv4Address ip{uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
    const pu::Bytes ipBytes(ip.begin(), ip.end());
    run([&](Nat::Frame& f) { pu::GetDestinationMac(f); });
    run([&](Nat::Frame& f) { pu::GetSourceMac(f); });
    run([&](Nat::Frame& f) { pu::GetFrameType(f); });
    run([&](Nat::Frame& f) { pu::GetArpProtocolType(f); });
    run([&](Nat::Frame& f) { pu::GetArpOpcode(f); });
    run([&](Nat::Frame& f) { pu::GetArpSenderMacAddress(f); });
    run([&](Nat::Frame& f) { pu::GetArpSenderIpAddress(f); });
    run([&](Nat::Frame& f) { pu::IsArpReply(f); });
    run([&](Nat::Frame& f) { pu::GetIpHeaderSize(f); });
    run([&](Nat::Frame& f) { pu::GetIpPacketTotalLength(f); });
    run([&](Nat::Frame& f) { pu::GetIpProtocol(f); });
    run([&](Nat::Frame& f) { pu::GetSourceIp(f); });
    run([&](Nat::Frame& f) { pu::GetDestinationIp(f); });
    run([&](Nat::Frame& f) { pu::GetSourcePort(f); });
    run([&](Nat::Frame& f) { pu::GetDestinationPort(f); });
    run([&](Nat::Frame& f) { pu::GetTcpSequenceNumber(f); });
    run([&](Nat::Frame& f) { pu::GetAcknowledgmentNumber(f); });
    run([&](Nat::Frame& f) { pu::GetTransportHeaderChecksum(f); });
    run([&](Nat::Frame& f) { pu::GetTransportHeaderLength(f); });
    run([&](Nat::Frame& f) { pu::IsTcpRstFlagSet(f); });
    run([&](Nat::Frame& f) { pu::IsTcpFinFlagSet(f); });
    run([&](Nat::Frame& f) { pu::IsTcpAckFlagSet(f); });
    run([&](Nat::Frame& f) { pu::SetDestinationMac(f, Nat::MacAddress{1}); });
    run([&](Nat::Frame& f) { pu::SetSourceMac(f, Nat::MacAddress{2}); });
    run([&](Nat::Frame& f) { pu::SetIpPacketTotalLength(f, v16); });
    run([&](Nat::Frame& f) { pu::SetSourceIpAddress(f, pu::Bytes(v % 6, 3)); });
    run([&](Nat::Frame& f) { pu::SetDestinationIpAddress(f, ipBytes); });
    run([&](Nat::Frame& f) { pu::SetSourcePort(f, v16); });
    run([&](Nat::Frame& f) { pu::SetDestinationPort(f, v16); });
    run([&](Nat::Frame& f) { pu::SetTcpSequenceNumber(f, v); });
    run([&](Nat::Frame& f) { pu::SetAcknowledgmentNumber(f, v); });
    run([&](Nat::Frame& f) { pu::UpdateSourceIp(f, ip); });
    run([&](Nat::Frame& f) { pu::UpdateDestinationIp(f, ip); });
    run([&](Nat::Frame& f) { pu::FixIpHeaderChecksum(f); });
    run([&](Nat::Frame& f) { pu::UpdateTransportHeaderChecksum(f, v16, uint16_t(v >> 16), uint16_t(v >> 3)); });
    run([&](Nat::Frame& f) { pu::FixTransportHeaderChecksum(f); });
}

}  // namespace ndtest
