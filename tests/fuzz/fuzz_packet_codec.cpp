// libFuzzer target: every codec function on arbitrary bytes must answer or throw
// Nat::Exception, and the incremental checksum writers must agree with a full recompute.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Packet/PacketUtils.h"
#include "support/CodecCalls.h"

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
    agree([&](Frame& f) { pu::UpdateDestinationIp(f, ip); });
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
    ndtest::CallEveryCodecFunction(frame, v, Check);
    IncrementalAgreesWithFull(frame, v);
    if (size <= 64) Texts(data, size);
    return 0;
}
