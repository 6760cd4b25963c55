// ICMP through the translator: echo as a flow of its own, and errors that follow the flow
// they are about.
//
// Echo identifiers. An echo request of an internal host gets an entry in the echo table
// as a UDP datagram would, the identifier standing for both ports: the external
// identifier is taken from the table's free queue and the reply is matched on it, the
// remote address and the external adapter. The session fills that queue with identifiers
// it holds in the operating system through ping sockets (ICMP datagram sockets, one bound
// to each identifier, the way the port pools hold ports). The host's own pingers get
// their identifiers from that same kernel allocator, which never hands out one that is
// held, so they cannot meet ours. Where the system offers no ping sockets (Windows, or a
// Linux whose net.ipv4.ping_group_range admits no group) the host's pingers use raw
// sockets and choose identifiers themselves; nothing can be reserved against those, and
// the engine keeps what it starts with, the UDP pool's port numbers.
//
// Errors. Destination unreachable (fragmentation needed included: its MTU is carried as
// it is), time exceeded and parameter problem are translated when the datagram they quote
// belongs to a translated TCP, UDP or echo flow, in either direction: the outer addresses
// and MACs, the quoted IP addresses and ports (or identifier), and every checksum that
// covers a changed word: the outer IP header's, the ICMP checksum, the quoted IP header's,
// and the quoted transport checksum when the quote reaches it (updated incrementally,
// never recomputed, as the quote is usually cut short). A quote cut before its ports or
// identifier names no flow; such errors, and errors about flows the tables do not hold,
// go on unchanged. An error quoting an ICMP error is never translated, and the engine
// itself never sends an error.
//
// From the internal side an error is looked up by the flow's internal key, whose host MAC
// is the error frame's source: an error sent by the internal host itself.
#include <cstring>

#include "Nat/NetworkAddressTranslator.h"
#include "Packet/BigEndian.h"
#include "Packet/FrameView.h"
#include "Packet/IcmpPacket.h"
#include "Packet/NatException.h"
#include "Packet/PacketUtils.h"

namespace Nat {

namespace PU = PacketUtils;

namespace {

constexpr size_t kSourceIpAt = 26;
constexpr size_t kDestinationIpAt = 30;
constexpr size_t kQuotedChecksumAt = 10;  // in the quoted IP header
constexpr size_t kQuotedSourceAt = 12;
constexpr size_t kQuotedDestinationAt = 16;

bool IsOwnAddress(const AdapterInfo& adapter, const Ipv4Address& ip) {
    for (const IpEntry& entry : adapter.ips) {
        if (SameIp(entry.address, ip)) return true;
    }
    return false;
}

// Rewrites 16-bit words of one ICMP message and carries each change into the ICMP
// checksum and into the further checksums given that cover the word. Offsets come from
// the frame view and Icmp::ReadQuote and lie inside the frame; 0 stands for "no checksum".
class MessageEditor {
public:
    MessageEditor(Frame& frame, const Icmp::Message& message, size_t udpChecksumAt)
        : frame_(frame), icmpChecksumAt_(message.begin + Icmp::kChecksumAt), udpChecksumAt_(udpChecksumAt) {}

    void Set(size_t at, uint16_t value, size_t covering1 = 0, size_t covering2 = 0) {
        const uint16_t old = ReadBe16(frame_.data() + at);
        if (old == value) return;
        WriteBe16(frame_.data() + at, value);
        Carry(icmpChecksumAt_, old, value);
        for (size_t checksumAt : {covering1, covering2}) {
            if (checksumAt == 0) continue;
            const uint16_t before = ReadBe16(frame_.data() + checksumAt);
            uint16_t after = PU::AdjustChecksum(before, old, value);
            if (after == 0 && checksumAt == udpChecksumAt_) after = 0xFFFF;  // 0 would mean "none"
            WriteBe16(frame_.data() + checksumAt, after);
            Carry(icmpChecksumAt_, before, after);
        }
    }

    void SetAddress(size_t at, const Ipv4Address& ip, size_t covering1, size_t covering2) {
        Set(at, static_cast<uint16_t>((ip[0] << 8) | ip[1]), covering1, covering2);
        Set(at + 2, static_cast<uint16_t>((ip[2] << 8) | ip[3]), covering1, covering2);
    }

private:
    void Carry(size_t checksumAt, uint16_t old, uint16_t value) {
        WriteBe16(frame_.data() + checksumAt, PU::AdjustChecksum(ReadBe16(frame_.data() + checksumAt), old, value));
    }

    Frame& frame_;
    size_t icmpChecksumAt_;
    size_t udpChecksumAt_;
};

// The quoted datagram as the receiver of the error must see it.
void RewriteQuote(Frame& frame, const Icmp::Message& message, const Icmp::Quote& quote, const Ipv4Address& srcIp,
                  uint32_t srcPort, const Ipv4Address& dstIp, uint32_t dstPort) {
    const size_t transportChecksum = quote.transportChecksumAt;
    MessageEditor edit(frame, message, quote.protocol == IpProtocol::kUdp ? transportChecksum : 0);
    const size_t ipChecksum = quote.ipBegin + kQuotedChecksumAt;
    const size_t pseudoHeader = quote.pseudoHeader ? transportChecksum : 0;
    edit.SetAddress(quote.ipBegin + kQuotedSourceAt, srcIp, ipChecksum, pseudoHeader);
    edit.SetAddress(quote.ipBegin + kQuotedDestinationAt, dstIp, ipChecksum, pseudoHeader);
    if (quote.protocol == IpProtocol::kIcmp) {
        edit.Set(quote.transportBegin + Icmp::kIdentifierAt, static_cast<uint16_t>(srcPort), transportChecksum);
        return;
    }
    edit.Set(quote.transportBegin, static_cast<uint16_t>(srcPort), transportChecksum);
    edit.Set(quote.transportBegin + 2, static_cast<uint16_t>(dstPort), transportChecksum);
}

struct Outer {
    MacAddress srcMac;
    MacAddress dstMac;
    Ipv4Address srcIp;
    Ipv4Address dstIp;
};

void RewriteOuter(Frame& frame, const Outer& v) {
    PU::SetSourceMac(frame, v.srcMac);
    PU::SetDestinationMac(frame, v.dstMac);
    std::memcpy(frame.data() + kSourceIpAt, v.srcIp.data(), 4);
    std::memcpy(frame.data() + kDestinationIpAt, v.dstIp.data(), 4);
    PU::FixIpHeaderChecksum(frame);
}

std::string MessageText(const Icmp::Message& message) {
    return "type " + std::to_string(message.type) + " code " + std::to_string(message.code);
}

}  // namespace

void NetworkAddressTranslator::UseEchoIdentifiers(const std::vector<uint32_t>& identifiers) {
    if (!identifiers.empty()) echoTable_.ResetPorts(identifiers);
}

Decision NetworkAddressTranslator::ClassifyIcmpPacket(const Frame& frame, const FrameView& view, bool fromExternal) {
    if (!view.icmp) return {};
    const Icmp::Message& message = view.icmpMessage;
    if (!fromExternal && message.type == Icmp::kEchoRequest) {
        const AdapterMapping* mapping = SelectMapping(view.dstMac, view.dstIp);
        // An echo to one of this machine's own addresses is the host stack's to answer.
        if (mapping == nullptr || IsOwnAddress(mapping->external, view.dstIp)) return {};
        // The virtual classification applies the white list and, for sharing, the private
        // ranges; an ICMP view has no ports.
        const Decision decision = ClassifyInternalPacket(view);
        if (decision.kind != TranslationKind::Snat) return {};
        return decision;
    }
    if (fromExternal && message.type == Icmp::kEchoReply) {
        const ExternalKey key{message.identifier, view.dstMac, view.srcIp, 0};
        if (!echoTable_.HasInbound(key) || !WhiteListed(echoTable_.GetInternalHostMac(key))) return {};
        return Decision::Of(TranslationKind::Snat);
    }
    Decision decision;
    Icmp::Quote& quote = decision.quote;
    if (!Icmp::ReadQuote(frame, message, quote)) return {};
    decision.hasQuote = true;
    const bool echo = quote.protocol == IpProtocol::kIcmp;
    if (fromExternal) {
        // The quote is a datagram this machine sent for the flow: from its external port
        // (or identifier) to the remote.
        NatTable* table = echo ? &echoTable_ : TableFor(quote.protocol);
        const ExternalKey key{quote.srcPort, view.dstMac, quote.dstIp, echo ? 0u : quote.dstPort};
        if (!table->HasInbound(key) || !WhiteListed(table->GetInternalHostMac(key))) return {};
        decision.kind = TranslationKind::Snat;
        return decision;
    }
    // The quote is a datagram delivered to the internal host: from the peer it knows to itself.
    if (echo || !WhiteListed(view.srcMac)) return {};
    const InternalKey key{view.srcMac, quote.dstIp, quote.dstPort, view.dstMac, quote.srcIp, quote.srcPort};
    if (!TableFor(quote.protocol)->HasOutbound(key)) return {};
    decision.kind = TranslationKind::Snat;
    return decision;
}

const AdapterInfo& NetworkAddressTranslator::TranslateIcmp(bool outbound, const Decision& decision, Frame& head,
                                                           const FrameView& view, FragmentList* fragments,
                                                           size_t headIndex, const std::string& receivedOnGuid) {
    if (!view.icmp) throw Exception("Unexpected ICMP message size: " + std::to_string(head.size()));
    const Icmp::Message& message = view.icmpMessage;
    const MacAddress& srcMac = view.srcMac;
    const MacAddress& dstMac = view.dstMac;
    const Ipv4Address& srcIp = view.srcIp;
    const Ipv4Address& dstIp = view.dstIp;
    const bool echo = message.type == (outbound ? Icmp::kEchoRequest : Icmp::kEchoReply);
    if (!echo && !decision.hasQuote) {
        throw Exception("Unexpected ICMP message for translation: " + MessageText(message));
    }
    const Icmp::Quote& quote = decision.quote;
    const bool aboutEcho = echo || quote.protocol == IpProtocol::kIcmp;
    NatTable* table = aboutEcho ? &echoTable_ : TableFor(quote.protocol);

    EntryView entry;
    Outer outer{};
    const AdapterInfo* leaveOn = nullptr;
    if (outbound) {
        if (echo) {
            const AdapterMapping* mapping = decision.mapping;
            if (mapping == nullptr) throw Exception("SNat internal to external adapters not found");
            leaveOn = &mapping->external;
            MacAddress externalMac{};
            if (!ToMac(leaveOn->mac, externalMac)) throw Exception("Unexpected MAC address value");
            const InternalKey key{srcMac, srcIp, message.identifier, dstMac, dstIp, 0};
            table->LookupOutbound(key, &externalMac, Segment{}, entry);
        } else {
            const InternalKey key{srcMac, quote.dstIp, quote.dstPort, dstMac, quote.srcIp, quote.srcPort};
            if (aboutEcho || !table->LookupOutbound(key, nullptr, Segment{}, entry)) {
                throw Exception("Not found external host info for ICMP error " + MessageText(message));
            }
            leaveOn = AdapterByMac(entry.external.externalAdapterMac);
            if (leaveOn == nullptr) throw Exception("SNat internal to external adapters not found");
        }
        const NextHop hop = ResolveExternalNextHop(*leaveOn, entry.external.remoteIp, entry.external.remotePort,
                                                   dstIp, head, fragments, receivedOnGuid, false);
        outer = {entry.external.externalAdapterMac, hop.mac, hop.sourceIp, entry.external.remoteIp};
        if (echo) {
            MessageEditor(head, message, 0)
                .Set(message.begin + Icmp::kIdentifierAt, static_cast<uint16_t>(entry.external.externalPort));
        } else {
            RewriteQuote(head, message, quote, entry.external.remoteIp, entry.external.remotePort, hop.sourceIp,
                         entry.external.externalPort);
        }
    } else {
        const ExternalKey key = echo ? ExternalKey{message.identifier, dstMac, srcIp, 0}
                                     : ExternalKey{quote.srcPort, dstMac, quote.dstIp, aboutEcho ? 0u : quote.dstPort};
        table->LookupInbound(key, "ICMP", Segment{}, entry);
        leaveOn = &InternalAdapterFor(dstMac, entry);
        // A router on the way keeps its own address; the remote itself is shown as the
        // peer the internal host knows.
        const bool fromRemote = srcIp == entry.external.remoteIp;
        outer = {entry.internal.adapterMac, entry.internal.hostMac, fromRemote ? entry.internal.destinationIp : srcIp,
                 entry.internal.hostIp};
        if (echo) {
            MessageEditor(head, message, 0)
                .Set(message.begin + Icmp::kIdentifierAt, static_cast<uint16_t>(entry.internal.internalPort));
        } else {
            RewriteQuote(head, message, quote, entry.internal.hostIp, entry.internal.internalPort,
                         entry.internal.destinationIp, entry.internal.destinationPort);
        }
    }
    RewriteOuter(head, outer);
    if (fragments != nullptr) {
        for (size_t i = 0; i < fragments->size(); ++i) {
            if (i != headIndex) RewriteOuter((*fragments)[i], outer);
        }
    }
    return *leaveOn;
}

}  // namespace Nat
