// Feeds frames through classification and translation in both directions: raw bytes,
// and real frames (SNAT, replies, published services, HTTP, FTP, fragments) with
// fuzzer-chosen bytes overwritten. The engine must answer or throw Nat::Exception; at
// the end, once everything has expired, every pool port must be free exactly once.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "Nat/NetworkAddressTranslator.h"
#include "Packet/ArpTable.h"
#include "Packet/IArpCache.h"
#include "Packet/NatException.h"

namespace {

using Nat::Bytes;
using Nat::Frame;

struct Input {
    const uint8_t* data;
    size_t size;
    size_t at = 0;
    bool Empty() const { return at >= size; }
    uint8_t Byte() { return at < size ? data[at++] : 0; }
    uint16_t Word() { return static_cast<uint16_t>((Byte() << 8) | Byte()); }
};

class Cache : public NativeNetworkDriver::IArpCache {
public:
    explicit Cache(NativeNetworkDriver::ArpTable::Clock clock) : table(std::move(clock)) {}
    bool RegisterDrivers(const void*, const std::set<std::string>&) override { return true; }
    void UnregisterDrivers(const void*) override {}
    NativeNetworkDriver::ArpTable* GetArpTable() override { return &table; }
    NativeNetworkDriver::ArpTable table;
};

const Nat::MacAddress kHostMac{2, 0, 0, 0, 0, 0x11}, kIntMac{2, 0, 0, 0, 0, 1}, kExtMac{2, 0, 0, 0, 0, 2},
    kSrvMac{2, 0, 0, 0, 0, 3}, kGwMac{2, 0, 0, 0, 0, 0xFE}, kServerMac{2, 0, 0, 0, 0, 0x31},
    kPeerMac{2, 0, 0, 0, 0, 0x21};
const Nat::Ipv4Address kHostIp{192, 168, 1, 10}, kExtIp{10, 0, 0, 2}, kFarIp{93, 184, 216, 34},
    kServerIp{172, 20, 0, 20}, kSrvSideIp{172, 20, 0, 1}, kPeerIp{10, 0, 0, 50};

Bytes B(const Nat::MacAddress& m) { return Bytes(m.begin(), m.end()); }
Bytes B(const Nat::Ipv4Address& ip) { return Bytes(ip.begin(), ip.end()); }

Nat::AdapterInfo Adapter(const char* id, const Nat::MacAddress& mac, const Nat::Ipv4Address& ip, bool gateway) {
    Nat::AdapterInfo a{id, id, B(mac), {{B(ip), {255, 255, 255, 0}}}, {}, {}};
    if (gateway) {
        a.gatewayMac = B(kGwMac);
        a.gatewayIp = {10, 0, 0, 1};
    }
    return a;
}

Nat::RedirectRule Rule(uint8_t protocol, uint32_t from, uint32_t to, bool translateSource) {
    Nat::RedirectRule r;
    r.fromAdapter = Adapter("ext0", kExtMac, kExtIp, true);
    r.fromPort = from;
    r.protocol = protocol;
    r.toAdapter = Adapter("srv0", kSrvMac, kSrvSideIp, false);
    r.toIp = B(kServerIp);
    r.toPort = to;
    r.translateSource = translateSource;
    return r;
}

void Put16(Frame& f, size_t at, uint16_t v) {
    f[at] = static_cast<uint8_t>(v >> 8);
    f[at + 1] = static_cast<uint8_t>(v);
}

// A well-formed IPv4 frame; checksums are left as zero, which the engine must not mind.
Frame Build(const Nat::MacAddress& srcMac, const Nat::MacAddress& dstMac, const Nat::Ipv4Address& srcIp,
            const Nat::Ipv4Address& dstIp, uint8_t protocol, uint16_t srcPort, uint16_t dstPort,
            const std::string& payload, uint16_t fragment = 0x4000) {
    const size_t transport = protocol == 6 ? 20 : 8;
    Frame f(14 + 20 + transport, 0);
    std::copy(dstMac.begin(), dstMac.end(), f.begin());
    std::copy(srcMac.begin(), srcMac.end(), f.begin() + 6);
    Put16(f, 12, 0x0800);
    f[14] = 0x45;
    Put16(f, 16, static_cast<uint16_t>(20 + transport + payload.size()));
    Put16(f, 20, fragment);
    f[22] = 64;
    f[23] = protocol;
    std::copy(srcIp.begin(), srcIp.end(), f.begin() + 26);
    std::copy(dstIp.begin(), dstIp.end(), f.begin() + 30);
    Put16(f, 34, srcPort);
    Put16(f, 36, dstPort);
    if (protocol == 6) {
        f[46] = 0x50;
        f[47] = 0x18;
    } else {
        Put16(f, 38, static_cast<uint16_t>(8 + payload.size()));
    }
    f.insert(f.end(), payload.begin(), payload.end());
    if (f.size() < 60) f.resize(60, 0);
    return f;
}

Frame Template(uint8_t which, uint16_t port) {
    switch (which % 10) {
        case 0: return Build(kHostMac, kIntMac, kHostIp, kFarIp, 6, port, 80, "");
        case 1: return Build(kGwMac, kExtMac, kFarIp, kExtIp, 6, 80, static_cast<uint16_t>(5000 + port % 8), "");
        case 2: return Build(kHostMac, kIntMac, kHostIp, kPeerIp, 17, port, 53, "q");
        case 3: return Build(kGwMac, kExtMac, kFarIp, kExtIp, 6, port, 8080, "GET / HTTP/1.1\r\nHost: 10.0.0.2:8080\r\n\r\n");
        case 4: return Build(kServerMac, kSrvMac, kServerIp, kFarIp, 6, 80, port, "HTTP/1.1 200 OK\r\n\r\n");
        case 5: return Build(kGwMac, kExtMac, kFarIp, kExtIp, 6, port, 21, "PORT 93,184,216,34,156,65\r\n");
        case 6:
            return Build(kServerMac, kSrvMac, kServerIp, kSrvSideIp, 6, 21, static_cast<uint16_t>(5000 + port % 8),
                         "227 Entering Passive Mode (172,20,0,20,19,137).\r\n");
        case 7: return Build(kServerMac, kSrvMac, kServerIp, kSrvSideIp, 6, 20, static_cast<uint16_t>(5000 + port % 8), "");
        case 8: return Build(kGwMac, kExtMac, kFarIp, kExtIp, 17, port, 5353, "query");
        default: return Build(kGwMac, kExtMac, kFarIp, kExtIp, 6, port, static_cast<uint16_t>(5000 + port % 8), "");
    }
}

void Classify(Nat::NetworkAddressTranslator& nat, const Frame& f, bool outbound, uint32_t& kind) {
    if (f.size() < 38) return;
    Nat::MacAddress dst{}, src{};
    Nat::Ipv4Address srcIp{}, dstIp{};
    std::copy(f.begin(), f.begin() + 6, dst.begin());
    std::copy(f.begin() + 6, f.begin() + 12, src.begin());
    std::copy(f.begin() + 26, f.begin() + 30, srcIp.begin());
    std::copy(f.begin() + 30, f.begin() + 34, dstIp.begin());
    const size_t t = 14 + (f[14] & 0x0F) * 4u;
    const uint32_t srcPort = t + 4 <= f.size() ? static_cast<uint32_t>((f[t] << 8) | f[t + 1]) : 0;
    const uint32_t dstPort = t + 4 <= f.size() ? static_cast<uint32_t>((f[t + 2] << 8) | f[t + 3]) : 0;
    kind = outbound ? nat.ClassifyInternalPacket(f[23], src, dst, srcIp, dstIp, srcPort, dstPort)
                    : nat.ClassifyExternalPacket(f[23], dst, srcIp, srcPort, dstPort);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in{data, size};
    uint32_t now = 1000;
    Cache cache([&now] { return now; });
    const std::vector<uint32_t> tcpPool{5000, 5001, 5002, 5003, 5004, 5005, 5006, 5007};
    const std::vector<uint32_t> udpPool{6000, 6001, 6002, 6003};
    Nat::RedirectRule http = Rule(6, 8080, 80, in.Byte() & 1);
    http.httpHostTranslation = true;
    Nat::RedirectRule ftp = Rule(6, 21, 21, in.Byte() & 1);
    ftp.ftpSupport = true;
    Nat::RedirectRule dns = Rule(17, 5353, 53, true);
    dns.fromIp = {{B(Nat::Ipv4Address{90, 0, 0, 0}), B(Nat::Ipv4Address{95, 0, 0, 0}), {255, 0, 0, 0}}};
    std::vector<Nat::AdapterMapping> mappings{
        {Adapter("ext0", kExtMac, kExtIp, true), Adapter("int0", kIntMac, {192, 168, 1, 1}, false)}};
    Nat::NetworkAddressTranslator nat(tcpPool, udpPool, 5000, {http, ftp, dns}, mappings, {}, {}, &cache,
                                      [&now] { return now; });
    cache.table.LearnFromArpReply(kServerIp, kServerMac);

    while (!in.Empty()) {
        const uint8_t op = in.Byte();
        now += (op >> 5) * 700;
        if ((op & 0x1F) == 0x1F) {
            cache.table.LearnFromArpReply(in.Byte() & 1 ? kServerIp : kPeerIp, in.Byte() & 1 ? kServerMac : kPeerMac);
            continue;
        }
        const bool outbound = op & 1;
        Frame frame;
        if (op & 2) {
            frame = Template(in.Byte(), in.Word());
            for (uint8_t edits = in.Byte() % 6; edits > 0; --edits) {
                const size_t at = in.Byte() % (frame.size() + 8);
                const uint8_t value = in.Byte();
                if (at < frame.size()) frame[at] = value;
                else if (!frame.empty()) frame.resize(at % frame.size());
            }
        } else {
            const size_t length = std::min<size_t>(in.Byte() * 8u, 1600);
            for (size_t i = 0; i < length && !in.Empty(); ++i) frame.push_back(in.Byte());
        }
        try {
            uint32_t kind = 0;
            if (op & 4) {
                kind = (op >> 3) & 3;  // any kind, claimed or not
            } else {
                Classify(nat, frame, outbound, kind);
                if (kind == 0) continue;
            }
            if (op & 0x10) {
                // Cut into fragments at an 8-byte boundary; the tail may come first.
                Nat::FragmentList fragments{frame};
                if (frame.size() > 42) {
                    const size_t cut = 34 + ((frame.size() - 34) / 16) * 8;
                    Frame tail(frame.begin(), frame.begin() + 34);
                    tail.insert(tail.end(), frame.begin() + static_cast<std::ptrdiff_t>(cut), frame.end());
                    Put16(tail, 20, static_cast<uint16_t>((cut - 34) / 8));
                    fragments[0].resize(cut);
                    fragments[0][20] |= 0x20;
                    if (op & 0x40) fragments.insert(fragments.begin(), tail);
                    else fragments.push_back(tail);
                }
                if (outbound) nat.TranslateInternalToExternal(kind, fragments, "int0");
                else nat.TranslateExternalToInternal(kind, fragments, "ext0");
            } else {
                if (outbound) nat.TranslateInternalToExternal(kind, frame, "int0");
                else nat.TranslateExternalToInternal(kind, frame, "ext0");
            }
        } catch (const Nat::Exception&) {
        }
    }

    // Everything expires; every pool port must be back exactly once.
    if (!nat.TcpTable().Consistent() || !nat.UdpTable().Consistent()) abort();
    now += 60000;
    nat.TcpTable().Sweep();
    nat.UdpTable().Sweep();
    nat.ClassifyExternalPacket(6, kExtMac, {1, 1, 1, 1}, 1, 1);  // the scan drops expired temporary rules
    std::vector<uint32_t> tcpFree = nat.TcpTable().FreePorts(), udpFree = nat.UdpTable().FreePorts();
    std::sort(tcpFree.begin(), tcpFree.end());
    std::sort(udpFree.begin(), udpFree.end());
    if (tcpFree != tcpPool || udpFree != udpPool) abort();
    if (nat.Rules().size() != 3) abort();
    return 0;
}
