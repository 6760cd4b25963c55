// libFuzzer target: every codec function on arbitrary bytes must answer or throw
// Nat::Exception, and the incremental checksum writers must agree with a full recompute.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Packet/PacketUtils.h"

namespace pu = Nat::PacketUtils;
using Nat::Frame;

namespace {

template <typename F>
void Try(F&& f) {
    try {
        f();
    } catch (const Nat::Exception&) {
    }
}

void Check(bool condition) {
    if (!condition) std::abort();
}

void ReadEverything(const Frame& f) {
    Try([&] { pu::GetDestinationMacAddress(f); });
    Try([&] { pu::GetSourceMacAddress(f); });
    Try([&] { pu::GetDestinationMac(f); });
    Try([&] { pu::GetSourceMac(f); });
    Try([&] { pu::GetFrameType(f); });
    Try([&] { pu::GetArpProtocolType(f); });
    Try([&] { pu::GetArpOpcode(f); });
    Try([&] { pu::GetArpSenderMacAddress(f); });
    Try([&] { pu::GetArpSenderIpAddress(f); });
    Try([&] { pu::IsArpReply(f); });
    Try([&] { pu::GetIpHeaderSize(f); });
    Try([&] { pu::GetIpPacketTotalLength(f); });
    Try([&] { pu::GetIpProtocol(f); });
    Try([&] { pu::GetSourceIpAddress(f); });
    Try([&] { pu::GetDestinationIpAddress(f); });
    Try([&] { pu::GetSourceIp(f); });
    Try([&] { pu::GetDestinationIp(f); });
    Try([&] { pu::GetSourcePort(f); });
    Try([&] { pu::GetDestinationPort(f); });
    Try([&] { pu::GetTcpSequenceNumber(f); });
    Try([&] { pu::GetAcknowledgmentNumber(f); });
    Try([&] { pu::GetTransportHeaderChecksum(f); });
    Try([&] { pu::GetTransportHeaderLength(f); });
    Try([&] { pu::IsTcpRstFlagSet(f); });
    Try([&] { pu::IsTcpFinFlagSet(f); });
    Try([&] { pu::IsTcpAckFlagSet(f); });
}

void WriteEverything(const Frame& original, uint32_t v) {
    const auto run = [&](auto&& write) {
        Frame f = original;
        Try([&] { write(f); });
        Check(f.size() == original.size());
    };
    const uint16_t v16 = static_cast<uint16_t>(v);
    const Nat::Ipv4Address ip{uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
    const pu::Bytes ipBytes(ip.begin(), ip.end());
    run([&](Frame& f) { pu::SetDestinationMacAddress(f, pu::Bytes(6 + v % 3 - 1, 1)); });
    run([&](Frame& f) { pu::SetSourceMacAddress(f, pu::Bytes(6, 2)); });
    run([&](Frame& f) { pu::SetDestinationMac(f, Nat::MacAddress{}); });
    run([&](Frame& f) { pu::SetSourceMac(f, Nat::MacAddress{}); });
    run([&](Frame& f) { pu::SetIpPacketTotalLength(f, v16); });
    run([&](Frame& f) { pu::SetSourceIpAddress(f, pu::Bytes(v % 6, 3)); });
    run([&](Frame& f) { pu::SetDestinationIpAddress(f, ipBytes); });
    run([&](Frame& f) { pu::SetSourcePort(f, v16); });
    run([&](Frame& f) { pu::SetDestinationPort(f, v16); });
    run([&](Frame& f) { pu::SetTcpSequenceNumber(f, v); });
    run([&](Frame& f) { pu::SetAcknowledgmentNumber(f, v); });
    run([&](Frame& f) { pu::UpdateSourceIpAddress(f, ipBytes); });
    run([&](Frame& f) { pu::UpdateDestinationIpAddress(f, pu::Bytes(v % 6, 3)); });
    run([&](Frame& f) { pu::UpdateSourceIp(f, ip); });
    run([&](Frame& f) { pu::UpdateDestinationIp(f, ip); });
    run([&](Frame& f) { pu::FixIpHeaderChecksum(f); });
    run([&](Frame& f) { pu::UpdateTransportHeaderChecksum(f, v16, uint16_t(v >> 16), uint16_t(v >> 3)); });
    run([&](Frame& f) { pu::FixTransportHeaderChecksum(f); });
}

// On a frame whose transport checksum could be fixed and whose IP header is a real one,
// every incremental writer must land where a full recompute lands.
void IncrementalAgreesWithFull(const Frame& original, uint32_t v) {
    Frame base = original;
    try {
        pu::FixTransportHeaderChecksum(base);
        const uint32_t h = pu::GetIpHeaderSize(base);
        if (h < 20) return;
        // Both checksum bytes must lie inside the frame.
        if (base.size() < 14 + h + (pu::GetIpProtocol(base) == 6 ? 16 : 6) + 2) return;
    } catch (const Nat::Exception&) {
        return;
    }
    const Nat::Ipv4Address ip{uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
    const auto agree = [&](auto&& write) {
        Frame incremental = base;
        write(incremental);
        Frame full = incremental;
        pu::FixTransportHeaderChecksum(full);
        Check(full == incremental);
    };
    const bool tcp = pu::GetIpProtocol(base) == 6;
    agree([&](Frame& f) { pu::SetSourcePort(f, uint16_t(v)); });
    agree([&](Frame& f) { pu::SetDestinationPort(f, uint16_t(v >> 7)); });
    agree([&](Frame& f) { pu::UpdateSourceIp(f, ip); });
    agree([&](Frame& f) { pu::UpdateDestinationIpAddress(f, pu::Bytes(ip.begin(), ip.end())); });
    if (tcp) {
        agree([&](Frame& f) { pu::SetTcpSequenceNumber(f, v * 2654435761u); });
        agree([&](Frame& f) { pu::SetAcknowledgmentNumber(f, ~v); });
    }
}

void Texts(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const bool valid = pu::IsValidIpAddress(text);
    try {
        const pu::Bytes bytes = pu::FromIPStringToByteArray(text);
        Check(valid && bytes.size() == 4);
        const std::string back = pu::FromVectorToIpString(bytes);
        Check(back == "0.0.0.0" || pu::FromIPStringToByteArray(back) == bytes);
    } catch (const Nat::Exception&) {
        Check(!valid);
    }
    const pu::Bytes raw(data, data + size);
    Check(pu::FromVectorToHexString(raw, "::").size() == (size == 0 ? 0 : size * 4 - 2));
    Try([&] { pu::FromVectorToIpString(raw); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 2 * Nat::kMaxFrameSize) return 0;
    uint32_t v = 0x9E3779B9;
    for (size_t i = 0; i < size && i < 4; ++i) v = (v << 8) ^ data[size - 1 - i];
    const Frame frame(data, data + size);
    ReadEverything(frame);
    WriteEverything(frame, v);
    IncrementalAgreesWithFull(frame, v);
    if (size <= 64) Texts(data, size);
    return 0;
}
