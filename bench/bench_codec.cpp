// Codec costs on the translation hot path: the five-tuple read and source rewrite with
// incremental checksums, and the full transport checksum against a plain byte sum.
#include <benchmark/benchmark.h>

#include <cstdint>

#include "Packet/PacketUtils.h"

namespace pu = Nat::PacketUtils;
using Nat::Frame;

namespace {

// A TCP/IPv4 frame of `size` bytes (at least 54) with consistent lengths and checksums.
Frame MakeTcpFrame(size_t size) {
    Frame f(size, 0);
    for (size_t i = 54; i < size; ++i) f[i] = static_cast<uint8_t>(i * 31 + 7);
    const uint8_t header[] = {0x02, 0, 0, 0, 0, 2, 0x02, 0, 0, 0, 0, 1, 0x08, 0x00,          // Ethernet
                              0x45, 0, 0, 0, 0x12, 0x34, 0x40, 0, 64, 6, 0, 0,             // IPv4
                              192, 168, 1, 10, 93, 184, 216, 34,                          // addresses
                              0x9C, 0x40, 0x01, 0xBB, 0, 0, 0x10, 0, 0, 0, 0, 0, 0x50, 0x18, 0xFA, 0xF0,
                              0, 0, 0, 0};                                                 // TCP
    std::copy(std::begin(header), std::end(header), f.begin());
    pu::SetIpPacketTotalLength(f, static_cast<uint16_t>(size - 14));
    pu::FixIpHeaderChecksum(f);
    pu::FixTransportHeaderChecksum(f);
    return f;
}

void BM_FiveTupleAndSourceRewrite(benchmark::State& state) {
    Frame f = MakeTcpFrame(static_cast<size_t>(state.range(0)));
    const Nat::Ipv4Address external[2] = {{100, 64, 0, 1}, {100, 64, 0, 2}};
    uint32_t i = 0;
    for (auto _ : state) {
        const Nat::Ipv4Address src = pu::GetSourceIp(f);
        const Nat::Ipv4Address dst = pu::GetDestinationIp(f);
        const uint8_t protocol = pu::GetIpProtocol(f);
        const uint16_t srcPort = pu::GetSourcePort(f);
        const uint16_t dstPort = pu::GetDestinationPort(f);
        benchmark::DoNotOptimize(src);
        benchmark::DoNotOptimize(dst);
        benchmark::DoNotOptimize(protocol);
        benchmark::DoNotOptimize(dstPort);
        pu::UpdateSourceIp(f, external[i & 1]);
        pu::SetSourcePort(f, static_cast<uint16_t>(srcPort + 1));
        pu::FixIpHeaderChecksum(f);
        benchmark::ClobberMemory();
        ++i;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FiveTupleAndSourceRewrite)->Arg(64)->Arg(1514);

void BM_FullTransportChecksum(benchmark::State& state) {
    Frame f = MakeTcpFrame(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        pu::FixTransportHeaderChecksum(f);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_FullTransportChecksum)->Arg(1514);

// The floor: touching every byte of the same buffer once.
void BM_PlainByteSum(benchmark::State& state) {
    Frame f = MakeTcpFrame(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(f.data());
        uint32_t sum = 0;
        for (uint8_t b : f) sum += b;
        benchmark::DoNotOptimize(sum);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_PlainByteSum)->Arg(1514);

}  // namespace

BENCHMARK_MAIN();
