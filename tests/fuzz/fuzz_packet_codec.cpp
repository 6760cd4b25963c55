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

void Check(bool condition) {
    if (!condition) std::abort();
}

// On a frame whose transport checksum could be fixed and whose IP header is a real one,
// every incremental writer must land where a full recompute lands.
void IncrementalAgreesWithFull(const Frame& original, uint32_t v) {
    Frame base = original;
    bool tcp;
    try {
        pu::FixTransportHeaderChecksum(base);
        const uint32_t h = pu::GetIpHeaderSize(base);
        tcp = pu::GetIpProtocol(base) == 6;
        // Both checksum bytes must lie inside the frame.
        if (h < 20 || base.size() < 14 + h + (tcp ? 16 : 6) + 2) return;
    } catch (const Nat::Exception&) {
        return;
    }
    for (const ndtest::CodecCall& c : ndtest::kCodecCalls) {
        if (!c.keeps || (c.tcpOnly && !tcp)) continue;
        Frame incremental = base;
        c.call(incremental, v);
        Frame full = incremental;
        pu::FixTransportHeaderChecksum(full);
        Check(full == incremental);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 2 * Nat::kMaxFrameSize) return 0;
    uint32_t v = 0x9E3779B9;
    for (size_t i = 0; i < size && i < 4; ++i) v = (v << 8) ^ data[size - 1 - i];
    const Frame frame(data, data + size);
    ndtest::CallEveryCodecFunction(frame, v, Check);
    IncrementalAgreesWithFull(frame, v);
    // Text conversions never crash and agree with each other.
    const std::string text(reinterpret_cast<const char*>(data), size < 64 ? size : 64);
    try {
        const pu::Bytes bytes = pu::FromIPStringToByteArray(text);
        Check(pu::IsValidIpAddress(text) && bytes.size() == 4);
    } catch (const Nat::Exception&) {
        Check(!pu::IsValidIpAddress(text));
    }
    return 0;
}
