// Translation cost per frame with 1000 and 60000 live entries: established flows out
// and back, 64- and 1514-byte frames, and new-flow setup. Each figure is also given
// as a ratio ("x_codec") to the codec-only rewrite of the same frame: the MACs, one
// address and one port with incremental checksums plus the IP header checksum, the
// least any translator must do. Every loop copies the frame into a work buffer first.
#include <benchmark/benchmark.h>

#include <time.h>

#include <map>
#include <memory>
#include <string>

#include "Nat/NetworkAddressTranslator.h"
#include "Packet/ArpTable.h"
#include "Packet/PacketUtils.h"

namespace pu = Nat::PacketUtils;
using Nat::Frame;

namespace {

const Nat::MacAddress kHostMac{2, 0, 0, 0, 0, 0x11}, kIntMac{2, 0, 0, 0, 0, 1}, kExtMac{2, 0, 0, 0, 0, 2},
    kGwMac{2, 0, 0, 0, 0, 0xFE};
const Nat::Ipv4Address kHostIp{192, 168, 1, 10}, kExtIp{10, 0, 0, 2}, kFarIp{93, 184, 216, 34};
constexpr size_t kSampleFlows = 1024;

class Cache : public NativeNetworkDriver::IArpCache {
public:
    bool RegisterDrivers(const void*, const std::set<std::string>&) override { return true; }
    void UnregisterDrivers(const void*) override {}
    NativeNetworkDriver::ArpTable* GetArpTable() override { return &table; }
    NativeNetworkDriver::ArpTable table;
};

Frame MakeTcp(const Nat::MacAddress& srcMac, const Nat::MacAddress& dstMac, const Nat::Ipv4Address& srcIp,
              const Nat::Ipv4Address& dstIp, uint16_t srcPort, uint16_t dstPort, uint8_t flags, size_t size) {
    Frame f(size, 0);
    std::copy(dstMac.begin(), dstMac.end(), f.begin());
    std::copy(srcMac.begin(), srcMac.end(), f.begin() + 6);
    f[12] = 0x08;
    f[14] = 0x45;
    f[22] = 64;
    f[23] = 6;
    std::copy(srcIp.begin(), srcIp.end(), f.begin() + 26);
    std::copy(dstIp.begin(), dstIp.end(), f.begin() + 30);
    f[34] = static_cast<uint8_t>(srcPort >> 8);
    f[35] = static_cast<uint8_t>(srcPort);
    f[36] = static_cast<uint8_t>(dstPort >> 8);
    f[37] = static_cast<uint8_t>(dstPort);
    f[46] = 0x50;
    f[47] = flags;
    for (size_t i = 54; i < size; ++i) f[i] = static_cast<uint8_t>(i * 31 + 7);
    pu::SetIpPacketTotalLength(f, static_cast<uint16_t>(size - 14));
    pu::FixIpHeaderChecksum(f);
    pu::FixTransportHeaderChecksum(f);
    return f;
}

Nat::AdapterInfo Adapter(const char* id, const Nat::MacAddress& mac, const Nat::Ipv4Address& ip, bool gateway) {
    Nat::AdapterInfo a{id, id, Nat::Bytes(mac.begin(), mac.end()), {{Nat::Bytes(ip.begin(), ip.end()), {255, 255, 255, 0}}},
                       {}, {}};
    if (gateway) {
        a.gatewayMac = Nat::Bytes(kGwMac.begin(), kGwMac.end());
        a.gatewayIp = {10, 0, 0, 1};
    }
    return a;
}

// A translator holding `entries` established SNAT flows of one host (source ports
// 1024 and up) to a far server, with sample frames of both directions.
struct Rig {
    uint32_t now = 1;
    Cache cache;
    std::unique_ptr<Nat::NetworkAddressTranslator> nat;
    std::map<size_t, std::vector<Frame>> out, in;  // by frame size
    uint16_t nextNewPort = 0;

    explicit Rig(size_t entries) {
        std::vector<uint32_t> ports;
        for (uint32_t p = 1024; p <= 65535; ++p) ports.push_back(p);
        std::vector<Nat::AdapterMapping> mappings{
            {Adapter("ext0", kExtMac, kExtIp, true), Adapter("int0", kIntMac, {192, 168, 1, 1}, false)}};
        nat = std::make_unique<Nat::NetworkAddressTranslator>(ports, std::vector<uint32_t>{}, 3600000,
                                                              std::vector<Nat::RedirectRule>{}, mappings,
                                                              Nat::ProxyInfo{}, std::vector<Nat::Bytes>{}, &cache,
                                                              [this] { return now; });
        std::vector<uint16_t> external(entries);
        for (size_t k = 0; k < entries; ++k) {
            Frame syn = MakeTcp(kHostMac, kIntMac, kHostIp, kFarIp, static_cast<uint16_t>(1024 + k), 443, 0x02, 60);
            nat->Translate(false, syn, Nat::ReadFrameView(syn), "int0");
            external[k] = pu::GetSourcePort(syn);
        }
        nextNewPort = static_cast<uint16_t>(1024 + entries);
        for (size_t size : {64, 1514}) {
            for (size_t s = 0; s < kSampleFlows; ++s) {
                const size_t k = s * entries / kSampleFlows;  // spread over the whole table
                out[size].push_back(
                    MakeTcp(kHostMac, kIntMac, kHostIp, kFarIp, static_cast<uint16_t>(1024 + k), 443, 0x10, size));
                in[size].push_back(MakeTcp(kGwMac, kExtMac, kFarIp, kExtIp, 443, external[k], 0x10, size));
            }
        }
    }
};

Rig& GetRig(size_t entries) {
    static std::map<size_t, std::unique_ptr<Rig>> rigs;
    auto& rig = rigs[entries];
    if (!rig) rig = std::make_unique<Rig>(entries);
    return *rig;
}

// Thread CPU time: the machine is shared, so wall time would count other work.
double CpuNs() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
}

std::map<std::string, double> baselineNs;  // codec-only cost by direction and size

std::string Key(bool outbound, size_t size) { return (outbound ? "out" : "in") + std::to_string(size); }

template <typename Body>
void Run(benchmark::State& state, Body body, const std::string& baseline, bool isBaseline) {
    uint64_t frames = 0;
    const double start = CpuNs();
    for (auto _ : state) {
        body(frames);
        ++frames;
    }
    const double ns = (CpuNs() - start) / static_cast<double>(frames ? frames : 1);
    state.counters["ns_per_frame"] = ns;
    if (isBaseline) baselineNs[baseline] = ns;
    else if (baselineNs.count(baseline)) state.counters["x_codec"] = ns / baselineNs[baseline];
}

void BM_CodecOnly(benchmark::State& state) {
    const bool outbound = state.range(0) != 0;
    const size_t size = static_cast<size_t>(state.range(1));
    Rig& rig = GetRig(1000);
    const auto& frames = outbound ? rig.out[size] : rig.in[size];
    Frame work;
    work.reserve(Nat::kMaxFrameSize);
    const Nat::MacAddress src = outbound ? kExtMac : kIntMac, dst = outbound ? kGwMac : kHostMac;
    Run(
        state,
        [&](uint64_t i) {
            const Frame& f = frames[i % frames.size()];
            work.assign(f.begin(), f.end());
            pu::SetSourceMac(work, src);
            pu::SetDestinationMac(work, dst);
            if (outbound) {
                pu::UpdateSourceIp(work, kExtIp);
                pu::SetSourcePort(work, 5000);
            } else {
                pu::UpdateDestinationIp(work, kHostIp);
                pu::SetDestinationPort(work, 40000);
            }
            pu::FixIpHeaderChecksum(work);
            benchmark::DoNotOptimize(work.data());
        },
        Key(outbound, size), true);
}

// The frame's one read, as the publisher makes it, and the engine's one call.
void Translate(Nat::NetworkAddressTranslator& nat, Frame& work, bool outbound) {
    const Nat::FrameView view = Nat::ReadFrameView(work);
    benchmark::DoNotOptimize(nat.Translate(!outbound, work, view, outbound ? "int0" : "ext0"));
}

void BM_Established(benchmark::State& state) {
    const bool outbound = state.range(0) != 0;
    const size_t entries = static_cast<size_t>(state.range(1));
    const size_t size = static_cast<size_t>(state.range(2));
    Rig& rig = GetRig(entries);
    const auto& frames = outbound ? rig.out[size] : rig.in[size];
    Frame work;
    work.reserve(Nat::kMaxFrameSize);
    Run(
        state,
        [&](uint64_t i) {
            const Frame& f = frames[i % frames.size()];
            work.assign(f.begin(), f.end());
            Translate(*rig.nat, work, outbound);
        },
        Key(outbound, size), false);
    if (rig.nat->TcpTable().EntryCount() != entries) state.SkipWithError("table changed size");
}

// New flows' first frames, in batches (timed), then their resets from the host (not
// timed) so that the table keeps its size.
void BM_NewFlow(benchmark::State& state) {
    constexpr int kBatch = 256;
    const size_t entries = static_cast<size_t>(state.range(0));
    Rig& rig = GetRig(entries);
    Frame work;
    work.reserve(Nat::kMaxFrameSize);
    std::vector<Frame> syns, rsts;
    double timedNs = 0;
    uint64_t flows = 0;
    for (auto _ : state) {
        state.PauseTiming();
        syns.clear();
        rsts.clear();
        for (int i = 0; i < kBatch; ++i) {
            const uint16_t port = rig.nextNewPort;
            rig.nextNewPort = static_cast<uint16_t>(port == 65535 ? 1024 + entries : port + 1);
            syns.push_back(MakeTcp(kHostMac, kIntMac, kHostIp, {93, 184, 216, 35}, port, 443, 0x02, 64));
            rsts.push_back(MakeTcp(kHostMac, kIntMac, kHostIp, {93, 184, 216, 35}, port, 443, 0x04, 64));
        }
        state.ResumeTiming();
        const double start = CpuNs();
        for (const Frame& syn : syns) {
            work.assign(syn.begin(), syn.end());
            Translate(*rig.nat, work, true);
        }
        timedNs += CpuNs() - start;
        flows += kBatch;
        state.PauseTiming();
        for (Frame& rst : rsts) Translate(*rig.nat, rst, true);
        state.ResumeTiming();
    }
    const double ns = timedNs / static_cast<double>(flows ? flows : 1);
    state.counters["ns_per_frame"] = ns;
    if (baselineNs.count(Key(true, 64))) state.counters["x_codec"] = ns / baselineNs[Key(true, 64)];
    if (rig.nat->TcpTable().EntryCount() != entries) state.SkipWithError("table changed size");
}

}  // namespace

BENCHMARK(BM_CodecOnly)->ArgNames({"out", "bytes"})->ArgsProduct({{1, 0}, {64, 1514}});
BENCHMARK(BM_Established)->ArgNames({"out", "entries", "bytes"})->ArgsProduct({{1, 0}, {1000, 60000}, {64, 1514}});
BENCHMARK(BM_NewFlow)->ArgName("entries")->Arg(1000)->Arg(60000);

BENCHMARK_MAIN();
