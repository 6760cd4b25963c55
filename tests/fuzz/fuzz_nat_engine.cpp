// Feeds frames through the engine's decision and translation in both directions: raw bytes,
// and real frames (SNAT, replies, published services, HTTP, FTP, fragments, ICMP echo
// and errors quoting translated flows, whole or cut) with fuzzer-chosen bytes overwritten.
// The engine must answer or throw Nat::Exception; at the end, once everything has expired,
// every pool port must be free exactly once.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include "support/NatRig.h"

using namespace NatTest;

namespace {

struct Input {
    const uint8_t* data;
    size_t size;
    size_t at = 0;
    bool Empty() const { return at >= size; }
    uint8_t Byte() { return at < size ? data[at++] : 0; }
    uint16_t Word() { return static_cast<uint16_t>((Byte() << 8) | Byte()); }
};

Frame Template(uint8_t which, uint16_t port) {
    const uint16_t pool = static_cast<uint16_t>(5000 + port % 8);
    const uint16_t udpPool = static_cast<uint16_t>(6000 + port % 4);  // also the echo identifiers
    const uint8_t flags = kAck | kPsh;
    const size_t quote = 20 + port % 48;  // whole headers, or cut anywhere in the transport header
    // Errors from outside about a translated TCP, UDP or echo datagram.
    auto error = [quote](const Ipv4Address& from, uint8_t type, const Frame& about) {
        return Icmp(kGatewayMac, kExtMac, from, kExtIp, ErrorMessage(type, 4, 1280, about, quote));
    };
    switch (which % 16) {
        case 10: return Icmp(kHostMac, kIntMac, kHostIp, kFarIp, EchoMessage(8, port, 1, "ping"));
        case 11: return Icmp(kGatewayMac, kExtMac, kFarIp, kExtIp, EchoMessage(0, udpPool, 1, "pong"));
        case 12: return error(kFarIp, 3, Tcp({kExtMac, kGatewayMac, kExtIp, kFarIp, pool, 80, 0, 0, flags}));
        case 13: return error(kPeerIp, 11, Udp({kExtMac, kGatewayMac, kExtIp, kFarIp, udpPool, 53, "q"}));
        case 14: return error(kFarIp, 3, Icmp(kExtMac, kGatewayMac, kExtIp, kFarIp, EchoMessage(8, udpPool, 1, "")));
        case 15:
            return Icmp(kHostMac, kIntMac, kHostIp, kFarIp,
                        ErrorMessage(3, 3, 0, Udp({kIntMac, kHostMac, kFarIp, kHostIp, 53, port, "a"}), quote));
        case 0: return Tcp({kHostMac, kIntMac, kHostIp, kFarIp, port, 80, 0, 0, flags});
        case 1: return Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 80, pool, 0, 0, flags});
        case 2: return Udp({kHostMac, kIntMac, kHostIp, kPeerIp, port, 53, "q"});
        case 3:
            return Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, port, 8080, 0, 0, flags,
                        "GET / HTTP/1.1\r\nHost: 10.0.0.2:8080\r\n\r\n"});
        case 4: return Tcp({kServerMac, kSrvMac, kServerIp, kFarIp, 80, port, 0, 0, flags, "HTTP/1.1 200 OK\r\n\r\n"});
        case 5:
            return Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, port, 21, 0, 0, flags, "PORT 93,184,216,34,156,65\r\n"});
        case 6:
            return Tcp({kServerMac, kSrvMac, kServerIp, kSrvSideIp, 21, pool, 0, 0, flags,
                        "227 Entering Passive Mode (172,20,0,20,19,137).\r\n"});
        case 7: return Tcp({kServerMac, kSrvMac, kServerIp, kSrvSideIp, 20, pool, 0, 0, flags});
        case 8: return Udp({kGatewayMac, kExtMac, kFarIp, kExtIp, port, 5353, "query"});
        default: return Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, port, pool, 0, 0, flags});
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in{data, size};
    Nat::RedirectRule http = Rule(6, 8080, 80, in.Byte() & 1, true);
    Nat::RedirectRule ftp = Rule(6, 21, 21, in.Byte() & 1, false, true);
    Nat::RedirectRule dns = Rule(17, 5353, 53, true);
    dns.fromIp = {{{90, 0, 0, 0}, {95, 0, 0, 0}, {255, 0, 0, 0}}};
    Rig rig({http, ftp, dns}, {Rig::DefaultMapping()}, Rig::Ports(5000, 8), Rig::Ports(6000, 4), 5000);
    Nat::NetworkAddressTranslator& nat = *rig.nat;
    rig.Learn(kServerIp, kServerMac);

    while (!in.Empty()) {
        const uint8_t op = in.Byte();
        rig.now += (op >> 5) * 700;
        if ((op & 0x1F) == 0x1F) {
            rig.Learn(in.Byte() & 1 ? kServerIp : kPeerIp, in.Byte() & 1 ? kServerMac : kPeerMac);
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
            const bool fromExternal = !outbound;
            const std::string guid = outbound ? "int0" : "ext0";
            if (op & 0x10) {
                // The frame as a first fragment and a copy of it as a later one, in either
                // order; bit 2 picks the fragment whose view is handed in, head or not.
                Nat::FragmentList fragments{frame, frame};
                if (frame.size() > 21) {
                    fragments[0][20] |= 0x20;
                    fragments[1][21] |= 0x01;
                }
                if (op & 0x40) std::swap(fragments[0], fragments[1]);
                nat.Translate(fromExternal, fragments, Nat::ReadFrameView(fragments[(op & 4) != 0]), guid);
            } else if (op & 4) {  // any decision, handed in without deciding
                rig.Forced(static_cast<Nat::TranslationKind>((op >> 3) & 3), fromExternal, frame, guid);
            } else {
                // Bit 6 without fragments: the frame carries a partial (offloaded) checksum.
                nat.Translate(fromExternal, frame, Nat::ReadFrameView(frame), guid, (op & 0x40) != 0);
            }
        } catch (const Nat::Exception&) {
        }
    }

    // Everything expires; every pool port must be back exactly once.
    rig.now += 60000;
    rig.Decide(true, Tcp({kGatewayMac, kExtMac, {1, 1, 1, 1}, kExtIp, 1, 1, 0, 0, kSyn}));  // drops expired rules
    for (Nat::NatTable* table : {&nat.TcpTable(), &nat.UdpTable(), &nat.EchoTable()}) {
        if (!table->Consistent()) abort();
        table->Sweep();
        const std::vector<uint32_t> pool = table == &nat.TcpTable() ? Rig::Ports(5000, 8) : Rig::Ports(6000, 4);
        std::vector<uint32_t> free = table->FreePorts();
        std::sort(free.begin(), free.end());
        if (free != pool) abort();
    }
    if (nat.Rules().size() != 3) abort();
    return 0;
}
