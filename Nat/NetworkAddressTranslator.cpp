#include "Nat/NetworkAddressTranslator.h"

#include <algorithm>

#include "Logging/Logger.h"
#include "Nat/ApplicationLayer.h"
#include "Packet/ArpTable.h"
#include "Packet/IcmpPacket.h"
#include "Packet/IpProtocol.h"
#include "Packet/NatException.h"
#include "Packet/PacketUtils.h"
#include "Platform/Platform.h"

namespace Nat {

namespace PU = PacketUtils;

namespace {

constexpr uint16_t kIpv4FrameType = 0x0800;
constexpr uint32_t kEthernetHeaderSize = 14;
constexpr uint32_t kMinIpHeaderSize = 20;
constexpr uint32_t kMinTcpHeaderSize = 20;
constexpr uint32_t kUdpHeaderSize = 8;

// Fragment offset and more-fragments flag (bytes 20-21); the caller checked the length.
uint16_t FragmentOffset(const Frame& frame) { return static_cast<uint16_t>(((frame[20] & 0x1F) << 8) | frame[21]); }
bool MoreFragments(const Frame& frame) { return (frame[20] & 0x20) != 0; }

bool IsOwnAddress(const AdapterInfo& adapter, const Ipv4Address& ip) {
    for (const IpEntry& entry : adapter.ips) {
        if (SameIp(entry.address, ip)) return true;
    }
    return false;
}

// The address of the adapter's IP entry whose subnet holds `ip`, or nothing.
const IpEntry* SubnetEntry(const AdapterInfo& adapter, const Ipv4Address& ip) {
    for (const IpEntry& entry : adapter.ips) {
        if (InSubnet(entry, ip)) return &entry;
    }
    return nullptr;
}

// The address a peer at `ip` sees this adapter by: its subnet's entry, else the first.
bool AddressSeenBy(const AdapterInfo& adapter, const Ipv4Address& ip, Ipv4Address& out) {
    const IpEntry* entry = SubnetEntry(adapter, ip);
    if (entry == nullptr && !adapter.ips.empty()) entry = &adapter.ips.front();
    return entry != nullptr && ToIp(entry->address, out);
}

bool FirstFourEqual(const Bytes& bytes, const Ipv4Address& ip) {
    return bytes.size() >= 4 && bytes[0] == ip[0] && bytes[1] == ip[1] && bytes[2] == ip[2] && bytes[3] == ip[3];
}

bool InRanges(const std::vector<IpRange>& ranges, const Ipv4Address& ip) {
    if (ranges.empty()) return true;
    const uint32_t value = IpNumber(ip);
    for (const IpRange& range : ranges) {
        Ipv4Address low{}, high{};
        if (!ToIp(range.low, low) || !ToIp(range.high, high)) continue;
        if (IpNumber(low) <= value && value <= IpNumber(high)) return true;
    }
    return false;
}

MacAddress AdapterMac(const AdapterInfo& adapter) {
    MacAddress mac{};
    if (!ToMac(adapter.mac, mac)) throw Exception("Unexpected MAC address value");
    return mac;
}

Bytes ToBytes(const Ipv4Address& ip) { return Bytes(ip.begin(), ip.end()); }

}  // namespace

// What the translation needs to know of a frame, read once through the codec.
namespace detail {

struct FrameFacts {
    MacAddress srcMac{};
    MacAddress dstMac{};
    Ipv4Address srcIp{};
    Ipv4Address dstIp{};
    uint8_t protocol = 0;
    uint32_t ipHeaderSize = 0;
    bool fragmented = false;
    uint16_t srcPort = 0;
    uint16_t dstPort = 0;
    Segment segment;
    bool udpWithoutChecksum = false;
    // The TCP payload [payloadBegin, payloadEnd) when the IP total length agrees with the
    // frame and the datagram is whole; only then may the payload be rewritten.
    bool payloadIntact = false;
    size_t payloadBegin = 0;
    size_t payloadEnd = 0;
};

}  // namespace detail

using detail::FrameFacts;
using detail::PayloadChange;

namespace {

void CheckNetworkHeader(const Frame& frame) {
    const uint16_t type = PU::GetFrameType(frame);
    if (type != kIpv4FrameType) throw Exception("Unexpected ethernet frame type: " + std::to_string(type));
    const uint32_t ipHeaderSize = PU::GetIpHeaderSize(frame);
    if (ipHeaderSize < kMinIpHeaderSize) throw Exception("Unexpected IP header size: " + std::to_string(ipHeaderSize));
    if (frame.size() < kEthernetHeaderSize + ipHeaderSize) {
        throw Exception("Unexpected packet size: " + std::to_string(frame.size()));
    }
}

void ReadFacts(const Frame& frame, bool wholeDatagram, FrameFacts& f) {
    CheckNetworkHeader(frame);
    f.ipHeaderSize = PU::GetIpHeaderSize(frame);
    f.srcMac = PU::GetSourceMac(frame);
    f.dstMac = PU::GetDestinationMac(frame);
    f.srcIp = PU::GetSourceIp(frame);
    f.dstIp = PU::GetDestinationIp(frame);
    f.protocol = PU::GetIpProtocol(frame);
    if (FragmentOffset(frame) != 0) throw Exception("Unexpected IP fragment");
    f.fragmented = !wholeDatagram || MoreFragments(frame);
    if (f.protocol != IpProtocol::kTcp && f.protocol != IpProtocol::kUdp) return;

    const bool tcp = f.protocol == IpProtocol::kTcp;
    const size_t headerEnd = kEthernetHeaderSize + f.ipHeaderSize + (tcp ? kMinTcpHeaderSize : kUdpHeaderSize);
    if (frame.size() < headerEnd) throw Exception("Unexpected packet size: " + std::to_string(frame.size()));
    f.srcPort = PU::GetSourcePort(frame);
    f.dstPort = PU::GetDestinationPort(frame);
    const uint32_t totalLength = PU::GetIpPacketTotalLength(frame);
    if (!tcp) {
        f.udpWithoutChecksum = PU::GetTransportHeaderChecksum(frame) == 0;
        return;
    }
    const uint32_t tcpHeaderSize = PU::GetTransportHeaderLength(frame);
    if (tcpHeaderSize < kMinTcpHeaderSize) {
        throw Exception("Unexpected TCP header size: " + std::to_string(tcpHeaderSize));
    }
    f.segment.tcp = true;
    f.segment.sequence = PU::GetTcpSequenceNumber(frame);
    f.segment.acknowledgment = PU::GetAcknowledgmentNumber(frame);
    f.segment.fin = PU::IsTcpFinFlagSet(frame);
    f.segment.rst = PU::IsTcpRstFlagSet(frame);
    f.segment.ack = PU::IsTcpAckFlagSet(frame);
    const uint32_t headers = f.ipHeaderSize + tcpHeaderSize;
    f.segment.payloadLength = totalLength > headers ? totalLength - headers : 0;
    f.payloadBegin = kEthernetHeaderSize + headers;
    f.payloadEnd = kEthernetHeaderSize + totalLength;
    f.payloadIntact = !f.fragmented && totalLength >= headers && f.payloadEnd <= frame.size();
}

// Replaces part of the TCP payload, dropping any Ethernet padding and keeping the IP
// total length right. Skipped when the frame would grow past the largest frame.
PayloadChange ApplyEdit(Frame& frame, const FrameFacts& f,
                        const ApplicationLayer::Edit& edit) {
    const size_t oldSize = edit.end - edit.begin;
    if (edit.text.size() == oldSize &&
        edit.text.compare(0, oldSize, reinterpret_cast<const char*>(frame.data() + f.payloadBegin + edit.begin),
                          oldSize) == 0) {
        return {};
    }
    const int64_t delta = static_cast<int64_t>(edit.text.size()) - static_cast<int64_t>(oldSize);
    const int64_t newSize = static_cast<int64_t>(f.payloadEnd) + delta;
    if (newSize > static_cast<int64_t>(kMaxFrameSize)) return {};
    frame.resize(f.payloadEnd);
    auto at = frame.begin() + static_cast<std::ptrdiff_t>(f.payloadBegin + edit.begin);
    at = frame.erase(at, at + static_cast<std::ptrdiff_t>(oldSize));
    frame.insert(at, edit.text.begin(), edit.text.end());
    PU::SetIpPacketTotalLength(frame, static_cast<uint16_t>(frame.size() - kEthernetHeaderSize));
    return {true, static_cast<int32_t>(delta)};
}

struct HeaderValues {
    MacAddress srcMac;
    MacAddress dstMac;
    Ipv4Address srcIp;
    Ipv4Address dstIp;
    uint32_t srcPort;
    uint32_t dstPort;
};

// A partial checksum holds the folded pseudo-header sum, uncomplemented: it takes the
// address changes as a complete checksum would, but complemented, and nothing for the
// ports and sequence numbers, which are summed later with the rest of the segment.
void RewriteHeaders(Frame& frame, const FrameFacts& f, const HeaderValues& v,
                    const EntryView& entry, bool payloadChanged, bool partialChecksum) {
    if (partialChecksum) PU::SetTransportHeaderChecksum(frame, static_cast<uint16_t>(~PU::GetTransportHeaderChecksum(frame)));
    PU::SetSourceMac(frame, v.srcMac);
    PU::SetDestinationMac(frame, v.dstMac);
    PU::UpdateSourceIp(frame, v.srcIp);
    PU::UpdateDestinationIp(frame, v.dstIp);
    const uint16_t afterAddresses = partialChecksum ? PU::GetTransportHeaderChecksum(frame) : 0;
    PU::SetSourcePort(frame, static_cast<uint16_t>(v.srcPort));
    PU::SetDestinationPort(frame, static_cast<uint16_t>(v.dstPort));
    if (f.segment.tcp) {
        if (entry.sequence != f.segment.sequence) PU::SetTcpSequenceNumber(frame, entry.sequence);
        if (entry.acknowledgment != f.segment.acknowledgment) PU::SetAcknowledgmentNumber(frame, entry.acknowledgment);
    }
    PU::FixIpHeaderChecksum(frame);
    if (partialChecksum) {
        PU::SetTransportHeaderChecksum(frame, static_cast<uint16_t>(~afterAddresses));
        return;
    }
    if (payloadChanged) {
        PU::FixTransportHeaderChecksum(frame);
    } else if (f.udpWithoutChecksum) {
        // A datagram sent without a checksum stays without one: the incremental
        // updates above would otherwise leave a wrong non-zero value in it.
        PU::UpdateTransportHeaderChecksum(frame, 0xFFFF, 0, 0);
    }
}

// Later fragments carry no transport header: addresses and IP header checksum only.
void RewriteFragments(FragmentList* fragments, size_t headIndex, const HeaderValues& v) {
    if (fragments == nullptr) return;
    const Bytes srcIp = ToBytes(v.srcIp);
    const Bytes dstIp = ToBytes(v.dstIp);
    for (size_t i = 0; i < fragments->size(); ++i) {
        if (i == headIndex) continue;
        Frame& fragment = (*fragments)[i];
        PU::SetSourceMac(fragment, v.srcMac);
        PU::SetDestinationMac(fragment, v.dstMac);
        PU::SetSourceIpAddress(fragment, srcIp);
        PU::SetDestinationIpAddress(fragment, dstIp);
        PU::FixIpHeaderChecksum(fragment);
    }
}

// Every fragment must be an IPv4 frame with a whole IP header; the head is the one at
// offset 0, wherever it sits in the list.
size_t CheckFragments(const FragmentList& fragments) {
    if (fragments.empty()) throw Exception("The fragments list is empty.");
    size_t head = fragments.size();
    for (size_t i = 0; i < fragments.size(); ++i) {
        CheckNetworkHeader(fragments[i]);
        if (head == fragments.size() && FragmentOffset(fragments[i]) == 0) head = i;
    }
    if (head == fragments.size()) throw Exception("The fragments list holds no first fragment.");
    return head;
}

}  // namespace

NetworkAddressTranslator::NetworkAddressTranslator(const std::vector<uint32_t>& tcpPorts,
                                                   const std::vector<uint32_t>& udpPorts, uint32_t entryTimeoutMs,
                                                   std::vector<RedirectRule> rules,
                                                   std::vector<AdapterMapping> mappings, ProxyInfo proxy,
                                                   std::vector<std::vector<uint8_t>> macWhiteList,
                                                   NativeNetworkDriver::IArpCache* arpCache, Clock clock)
    : rules_(std::make_move_iterator(rules.begin()), std::make_move_iterator(rules.end())),
      mappings_(std::move(mappings)),
      proxy_(std::move(proxy)),
      macWhiteList_(std::move(macWhiteList)),
      clock_(clock ? std::move(clock) : Clock(&Platform::TickCount)),
      tcpTable_(tcpPorts, entryTimeoutMs, clock_),
      udpTable_(udpPorts, entryTimeoutMs, clock_),
      echoTable_(udpPorts, entryTimeoutMs, clock_),
      resolutionProxy_(proxy_),
      arpCache_(arpCache),
      ftpEnabled_(false) {
    for (const RedirectRule& rule : rules_) {
        knownAdapters_.insert(rule.fromAdapter);
        knownAdapters_.insert(rule.toAdapter);
        ftpEnabled_ = ftpEnabled_ || rule.ftpSupport;
    }
    for (const AdapterMapping& mapping : mappings_) {
        knownAdapters_.insert(mapping.internal);
        knownAdapters_.insert(mapping.external);
    }
}

NetworkAddressTranslator::~NetworkAddressTranslator() = default;

bool NetworkAddressTranslator::WhiteListed(const MacAddress& mac) const {
    if (macWhiteList_.empty()) return true;
    for (const auto& listed : macWhiteList_) {
        if (SameMac(listed, mac)) return true;
    }
    return false;
}

bool NetworkAddressTranslator::GoesToProxy(const Ipv4Address& dstIp, uint32_t dstPort) const {
    return proxy_.hasProxy && proxy_.port == dstPort && FirstFourEqual(proxy_.ip, dstIp);
}

NatTable* NetworkAddressTranslator::TableFor(uint8_t protocol) {
    if (protocol == IpProtocol::kTcp) return &tcpTable_;
    if (protocol == IpProtocol::kUdp) return &udpTable_;
    return nullptr;
}

const AdapterMapping* NetworkAddressTranslator::SelectMapping(const MacAddress& dstMac,
                                                              const Ipv4Address& dstIp) const {
    const AdapterMapping* candidate = nullptr;
    for (const AdapterMapping& mapping : mappings_) {
        if (candidate == nullptr && SameMac(mapping.internal.mac, dstMac)) candidate = &mapping;
        // Frames for this machine itself are never translated.
        if (IsOwnAddress(mapping.internal, dstIp)) return nullptr;
    }
    return candidate;
}

const AdapterInfo* NetworkAddressTranslator::AdapterByMac(const MacAddress& mac) const {
    for (const AdapterInfo& adapter : knownAdapters_) {
        if (SameMac(adapter.mac, mac)) return &adapter;
    }
    for (const AdapterMapping& mapping : mappings_) {
        if (SameMac(mapping.internal.mac, mac)) return &mapping.internal;
        if (SameMac(mapping.external.mac, mac)) return &mapping.external;
    }
    return nullptr;
}

RedirectRule* NetworkAddressTranslator::FindInternalRule(uint8_t protocol, uint32_t srcPort,
                                                         const Ipv4Address& srcIp, const MacAddress& dstMac,
                                                         const Ipv4Address& dstIp) {
    for (RedirectRule& rule : rules_) {
        if (rule.protocol != protocol || rule.toPort != srcPort || !FirstFourEqual(rule.toIp, srcIp) ||
            !SameMac(rule.toAdapter.mac, dstMac)) {
            continue;
        }
        if (rule.translateSource == IsOwnAddress(rule.toAdapter, dstIp)) return &rule;
    }
    return nullptr;
}

RedirectRule* NetworkAddressTranslator::MatchExternalRule(uint8_t protocol, const MacAddress& dstMac,
                                                          const Ipv4Address& srcIp, uint32_t dstPort) {
    const uint32_t now = clock_();
    for (auto it = rules_.begin(); it != rules_.end();) {
        if (it->temporary && now - it->refreshedTick >= kTemporaryRuleLifeMs) {
            if (it->protocol == IpProtocol::kTcp) tcpTable_.ReturnPort(it->fromPort);
            it = rules_.erase(it);
            continue;
        }
        if (it->protocol == protocol && it->fromPort == dstPort && InRanges(it->fromIp, srcIp) &&
            SameMac(it->fromAdapter.mac, dstMac)) {
            if (it->temporary) it->refreshedTick = now;
            return &*it;
        }
        ++it;
    }
    return nullptr;
}

bool NetworkAddressTranslator::HasExternalEntry(uint8_t protocol, const MacAddress& dstMac, const Ipv4Address& srcIp,
                                                uint32_t srcPort, uint32_t dstPort) {
    NatTable* table = TableFor(protocol);
    if (table == nullptr) return false;
    ExternalKey key;
    key.externalPort = dstPort;
    key.externalAdapterMac = dstMac;
    key.remoteIp = srcIp;
    key.remotePort = srcPort;
    return table->HasInbound(key);
}

TranslationKind NetworkAddressTranslator::ClassifyInternalPacket(uint8_t protocol, const MacAddress& srcMac,
                                                                 const MacAddress& dstMac, const Ipv4Address& srcIp,
                                                                 const Ipv4Address& dstIp, uint32_t srcPort,
                                                                 uint32_t dstPort) {
    if (!WhiteListed(srcMac)) return TranslationKind::None;
    if (SelectMapping(dstMac, dstIp) != nullptr) return TranslationKind::Snat;
    if (rules_.empty()) return TranslationKind::None;
    RedirectRule* rule = FindInternalRule(protocol, srcPort, srcIp, dstMac, dstIp);
    if (rule == nullptr && !(ftpEnabled_ && protocol == IpProtocol::kTcp)) return TranslationKind::None;
    NatTable* table = TableFor(protocol);
    if (table == nullptr) return TranslationKind::None;
    // A reply of a published service, or a data connection its FTP server opens.
    InternalKey key;
    key.hostMac = srcMac;
    key.hostIp = srcIp;
    key.internalPort = srcPort;
    key.adapterMac = dstMac;
    key.destinationIp = dstIp;
    key.destinationPort = dstPort;
    return table->HasOutbound(key) ? TranslationKind::Dnat : TranslationKind::None;
}

TranslationKind NetworkAddressTranslator::ClassifyExternalPacket(uint8_t protocol, const MacAddress& dstMac,
                                                                 const Ipv4Address& srcIp, uint32_t srcPort,
                                                                 uint32_t dstPort) {
    for (const AdapterMapping& mapping : mappings_) {
        if (!SameMac(mapping.external.mac, dstMac)) continue;
        if (HasExternalEntry(protocol, dstMac, srcIp, srcPort, dstPort)) {
            if (macWhiteList_.empty()) return TranslationKind::Snat;
            ExternalKey key;
            key.externalPort = dstPort;
            key.externalAdapterMac = dstMac;
            key.remoteIp = srcIp;
            key.remotePort = srcPort;
            return WhiteListed(TableFor(protocol)->GetInternalHostMac(key)) ? TranslationKind::Snat
                                                                            : TranslationKind::None;
        }
        break;  // the entry check is the same for every further mapping
    }
    if (rules_.empty()) return TranslationKind::None;
    if (MatchExternalRule(protocol, dstMac, srcIp, dstPort) != nullptr) return TranslationKind::Dnat;
    if (ftpEnabled_ && protocol == IpProtocol::kTcp && HasExternalEntry(protocol, dstMac, srcIp, srcPort, dstPort))
        return TranslationKind::Dnat;
    return TranslationKind::None;
}

std::optional<MacAddress> NetworkAddressTranslator::ResolveOrHold(const Ipv4Address& ip, const Frame& head,
                                                                  const FragmentList* fragments,
                                                                  const std::string& receivedOnGuid,
                                                                  bool partialChecksum) {
    NativeNetworkDriver::ArpTable* table = arpCache_ != nullptr ? arpCache_->GetArpTable() : nullptr;
    if (table == nullptr) return std::nullopt;
    if (fragments == nullptr) return table->ResolveOrHold(ip, head, receivedOnGuid, {}, partialChecksum);
    return table->ResolveOrHold(ip, head, receivedOnGuid, FragmentSet(*fragments));
}

NetworkAddressTranslator::NextHop NetworkAddressTranslator::ResolveExternalNextHop(
    const AdapterInfo& adapter, const Ipv4Address& destination, uint32_t dstPort,
    const Ipv4Address& frameDestination, const Frame& head, const FragmentList* fragments,
    const std::string& receivedOnGuid, bool partialChecksum) {
    NextHop hop;
    if (const IpEntry* local = SubnetEntry(adapter, destination)) {
        ToIp(local->address, hop.sourceIp);
        const bool toProxy = resolutionProxy_.hasProxy && resolutionProxy_.port == dstPort &&
                             FirstFourEqual(resolutionProxy_.ip, destination);
        if (toProxy && ToMac(resolutionProxy_.mac, hop.mac)) return hop;
        std::optional<MacAddress> mac = ResolveOrHold(destination, head, fragments, receivedOnGuid, partialChecksum);
        if (!mac) {
            throw UnknownMacException("Unknown MAC address for ip " + IpText(destination), adapter.mac,
                                      ToBytes(destination), ToBytes(frameDestination), adapter.name);
        }
        hop.mac = *mac;
        return hop;
    }
    if (!ToMac(adapter.gatewayMac, hop.mac)) throw Exception("Detected external destination IP but no gateway was provided");
    if (adapter.ips.empty() || !ToIp(adapter.ips.front().address, hop.sourceIp)) {
        throw Exception("Not found any IP matching with " + IpText(destination));
    }
    return hop;
}

const AdapterInfo& NetworkAddressTranslator::TranslateInternalToExternal(TranslationKind kind, Frame& frame,
                                                                         const std::string& receivedOnGuid,
                                                                         bool partialChecksum) {
    return TranslateOutbound(kind, frame, nullptr, 0, receivedOnGuid, partialChecksum);
}

const AdapterInfo& NetworkAddressTranslator::TranslateExternalToInternal(TranslationKind kind, Frame& frame,
                                                                         const std::string& receivedOnGuid,
                                                                         bool partialChecksum) {
    return TranslateInbound(kind, frame, nullptr, 0, receivedOnGuid, partialChecksum);
}

bool NetworkAddressTranslator::RewritesPayloads() const {
    return ftpEnabled_ || std::any_of(rules_.begin(), rules_.end(), [](const RedirectRule& rule) {
               return rule.httpHostTranslation || rule.ftpSupport;
           });
}

const AdapterInfo& NetworkAddressTranslator::TranslateInternalToExternal(TranslationKind kind, FragmentList& fragments,
                                                                         const std::string& receivedOnGuid) {
    const size_t head = CheckFragments(fragments);
    return TranslateOutbound(kind, fragments[head], &fragments, head, receivedOnGuid, false);
}

const AdapterInfo& NetworkAddressTranslator::TranslateExternalToInternal(TranslationKind kind, FragmentList& fragments,
                                                                         const std::string& receivedOnGuid) {
    const size_t head = CheckFragments(fragments);
    return TranslateInbound(kind, fragments[head], &fragments, head, receivedOnGuid, false);
}

const AdapterInfo& NetworkAddressTranslator::TranslateOutbound(TranslationKind kind, Frame& head,
                                                               FragmentList* fragments, size_t headIndex,
                                                               const std::string& receivedOnGuid,
                                                               bool partialChecksum) {
    if (kind != TranslationKind::Snat && kind != TranslationKind::Dnat) throw Exception("Invalid translation rule");
    FrameFacts f;
    ReadFacts(head, fragments == nullptr, f);
    if (f.protocol == IpProtocol::kIcmp) return TranslateIcmp(true, head, fragments, headIndex, receivedOnGuid);
    if (partialChecksum) f.payloadIntact = false;

    InternalKey key;
    key.hostMac = f.srcMac;
    key.hostIp = f.srcIp;
    key.internalPort = f.srcPort;
    key.adapterMac = f.dstMac;
    key.destinationIp = f.dstIp;
    key.destinationPort = f.dstPort;

    const AdapterInfo* external = nullptr;
    RedirectRule* rule = nullptr;
    if (kind == TranslationKind::Snat) {
        const AdapterMapping* mapping = SelectMapping(f.dstMac, f.dstIp);
        if (mapping == nullptr) throw Exception("SNat internal to external adapters not found");
        external = &mapping->external;
    } else {
        rule = FindInternalRule(f.protocol, f.srcPort, f.srcIp, f.dstMac, f.dstIp);
        if (rule != nullptr) {
            external = &rule->fromAdapter;
        } else {
            if (!ftpEnabled_) throw Exception("DNat mapped external adapter not found");
            // An FTP data connection: its entry names the adapter it leaves on.
            std::optional<MacAddress> mac;
            if (f.protocol == IpProtocol::kTcp) mac = tcpTable_.GetExternalAdapterMac(key);
            if (mac) external = AdapterByMac(*mac);
            if (external == nullptr) throw Exception("DNat mapped external adapter not found");
        }
    }
    const bool ftp = rule != nullptr && rule->ftpSupport && f.segment.tcp;

    NatTable* table = TableFor(f.protocol);
    if (table == nullptr) throw Exception("Unsupported port type");
    const MacAddress externalMac = AdapterMac(*external);
    EntryView entry;
    if (!table->LookupOutbound(key, kind == TranslationKind::Snat ? &externalMac : nullptr, f.segment, entry)) {
        throw Exception("Not found external host info for DNAT packet");
    }

    const NextHop hop = ResolveExternalNextHop(*external, entry.external.remoteIp, entry.external.remotePort, f.dstIp,
                                               head, fragments, receivedOnGuid, partialChecksum);

    PayloadChange change;
    if (ftp && f.payloadIntact) change = RewritePassiveReply(head, f, *external, entry);

    const HeaderValues values{externalMac,          hop.mac, hop.sourceIp, entry.external.remoteIp,
                              entry.external.externalPort, entry.external.remotePort};
    RewriteHeaders(head, f, values, entry, change.changed, partialChecksum);
    if (change.delta != 0) {
        tcpTable_.UpdateReceivedBytesInfo(entry.external, entry.internal, true, f.segment.sequence, change.delta);
    }
    if (entry.closeAfter) table->Remove(entry.external);
    RewriteFragments(fragments, headIndex, values);
    return *external;
}

const AdapterInfo& NetworkAddressTranslator::TranslateInbound(TranslationKind kind, Frame& head,
                                                              FragmentList* fragments, size_t headIndex,
                                                              const std::string& receivedOnGuid, bool partialChecksum) {
    if (kind != TranslationKind::Snat && kind != TranslationKind::Dnat) throw Exception("Invalid translation rule");
    FrameFacts f;
    ReadFacts(head, fragments == nullptr, f);
    if (f.protocol == IpProtocol::kIcmp) return TranslateIcmp(false, head, fragments, headIndex, receivedOnGuid);
    if (partialChecksum) f.payloadIntact = false;

    ExternalKey key;
    key.externalPort = f.dstPort;
    key.externalAdapterMac = f.dstMac;
    key.remoteIp = f.srcIp;
    key.remotePort = f.srcPort;

    EntryView entry;
    const AdapterInfo* internal = nullptr;
    RedirectRule* rule = nullptr;
    NatTable* table = nullptr;
    if (kind == TranslationKind::Snat) {
        table = TableFor(f.protocol);
        if (table == nullptr) throw Exception("Unexpected IP protocol");
        table->LookupInbound(key, "SNAT", f.segment, entry);
        internal = &InternalAdapterFor(f.dstMac, entry);
    } else {
        rule = MatchExternalRule(f.protocol, f.dstMac, f.srcIp, f.dstPort);
        if (rule == nullptr && (!ftpEnabled_ || f.protocol != IpProtocol::kTcp))
            throw Exception("DNat matching rule not found");
        table = TableFor(f.protocol);
        if (table == nullptr) throw Exception("Unexpected IP protocol");
        if (!table->HasInbound(key)) {
            if (rule == nullptr) throw Exception("DNat matching rule not found");
            Ipv4Address toIp{};
            if (!ToIp(rule->toIp, toIp)) PU::FromVectorToIpString(rule->toIp);  // throws its size message
            std::optional<MacAddress> mac = ResolveOrHold(toIp, head, fragments, receivedOnGuid, partialChecksum);
            if (!mac) {
                throw UnknownMacException("Unknown MAC address for ip " + IpText(toIp), rule->toAdapter.mac,
                                          rule->toIp, ToBytes(f.dstIp), rule->toAdapter.name);
            }
            InternalKey host;
            host.hostMac = *mac;
            host.hostIp = toIp;
            host.internalPort = rule->toPort;
            host.adapterMac = AdapterMac(rule->toAdapter);
            const IpEntry* toSubnet = SubnetEntry(rule->toAdapter, toIp);
            Ipv4Address sourceIp{};
            if (rule->translateSource && (toSubnet == nullptr || !ToIp(toSubnet->address, sourceIp))) {
                throw Exception("Not found any IP matching " + IpText(toIp));
            }
            table->AddDnatEntry(key, host, rule->translateSource ? &sourceIp : nullptr, rule->linkedKeys);
            if (toSubnet == nullptr) throw Exception("Not found any IP matching with " + IpText(toIp));
        }
        table->LookupInbound(key, "DNAT", f.segment, entry);
        internal = rule != nullptr ? &rule->toAdapter : AdapterByMac(entry.internal.adapterMac);
        if (internal == nullptr) throw Exception("DNat matching rule not found");
    }

    PayloadChange change;
    if (rule != nullptr && f.segment.tcp && f.payloadIntact) {
        if (rule->httpHostTranslation) {
            auto edit = ApplicationLayer::HostFieldEdit(head.data() + f.payloadBegin, f.payloadEnd - f.payloadBegin,
                                                        entry.internal.hostIp, entry.internal.internalPort);
            if (edit) change = ApplyEdit(head, f, *edit);
        }
        if (rule->ftpSupport && !change.changed) change = RewritePortCommand(head, f, entry, *rule);
    }

    const HeaderValues values{entry.internal.adapterMac,      entry.internal.hostMac, entry.internal.destinationIp,
                              entry.internal.hostIp,          entry.internal.destinationPort,
                              entry.internal.internalPort};
    RewriteHeaders(head, f, values, entry, change.changed, partialChecksum);
    if (change.delta != 0) {
        tcpTable_.UpdateReceivedBytesInfo(entry.external, entry.internal, false, f.segment.sequence, change.delta);
    }
    if (entry.closeAfter) table->Remove(entry.external);
    RewriteFragments(fragments, headIndex, values);
    return *internal;
}

const AdapterInfo& NetworkAddressTranslator::InternalAdapterFor(const MacAddress& externalMac,
                                                                const EntryView& entry) const {
    for (const AdapterMapping& mapping : mappings_) {
        if (SameMac(mapping.external.mac, externalMac) && SameMac(mapping.internal.mac, entry.internal.adapterMac)) {
            return mapping.internal;
        }
    }
    const AdapterInfo* internal = AdapterByMac(entry.internal.adapterMac);
    if (internal == nullptr) throw Exception("SNat internal to external adapters not found");
    return *internal;
}

// A passive reply of a published FTP server: the client is told to connect to this
// adapter on a pool port, which a temporary rule leads on to the server's data port.
PayloadChange NetworkAddressTranslator::RewritePassiveReply(Frame& frame, const FrameFacts& f,
                                                            const AdapterInfo& external, const EntryView& entry) {
    auto reply = ApplicationLayer::ParsePassiveReply(frame.data() + f.payloadBegin, f.payloadEnd - f.payloadBegin);
    if (!reply) return {};
    Ipv4Address clientSees{};
    if (!AddressSeenBy(external, entry.external.remoteIp, clientSees)) return {};
    const RedirectRule* route = nullptr;
    for (const RedirectRule& candidate : rules_) {
        if (SameMac(candidate.fromAdapter.mac, entry.external.externalAdapterMac) &&
            SameMac(candidate.toAdapter.mac, entry.internal.adapterMac)) {
            route = &candidate;
            break;
        }
    }
    if (route == nullptr) throw Exception("Error adding temporary DNAT rule: not found DNat internal adapter");

    const uint32_t port = tcpTable_.TakePort();
    ApplicationLayer::Edit edit{reply->begin, reply->end,
                                ApplicationLayer::PassiveReplyText(*reply, clientSees, static_cast<uint16_t>(port))};
    if (f.payloadEnd - (edit.end - edit.begin) + edit.text.size() > kMaxFrameSize) {
        tcpTable_.ReturnPort(port);
        return {};
    }
    const Ipv4Address serverIp = reply->extended ? entry.internal.hostIp : reply->address;

    RedirectRule temporary;
    temporary.fromAdapter = route->fromAdapter;
    // Only the client of the control connection may use the data port.
    temporary.fromIp.push_back({ToBytes(entry.external.remoteIp), ToBytes(entry.external.remoteIp),
                                Bytes{0xFF, 0xFF, 0xFF, 0xFF}});
    temporary.fromPort = port;
    temporary.protocol = 6;
    temporary.toAdapter = route->toAdapter;
    temporary.toIp = ToBytes(serverIp);
    temporary.toPort = reply->port;
    // The server accepts a data connection only from its control connection's peer, so it
    // is translated as that connection is, whichever rule to the same server came first.
    temporary.translateSource = entry.internal.destinationIp != entry.external.remoteIp;
    temporary.temporary = true;
    temporary.refreshedTick = clock_();
    temporary.linkedKeys.push_back(entry.external);
    rules_.push_back(std::move(temporary));
    if (DebugEnabled()) Log("Added temporary DNAT rule with external Port: " + std::to_string(port), LogLevel::Debug);

    return ApplyEdit(frame, f, edit);
}

// An active-mode command of a client of a published FTP server. The server will
// connect from its data port (control port - 1) to the address the command names; a
// DNATv2 entry leads that connection out to the client. With translate source the
// server is given this adapter's address and a pool port, as it knows the client by.
PayloadChange NetworkAddressTranslator::RewritePortCommand(Frame& frame, const FrameFacts& f,
                                                           const EntryView& entry, const RedirectRule& rule) {
    auto command = ApplicationLayer::ParsePortCommand(frame.data() + f.payloadBegin, f.payloadEnd - f.payloadBegin);
    if (!command || entry.internal.internalPort == 0) return {};
    const size_t longest = ApplicationLayer::PortCommandText(*command, entry.internal.destinationIp, 65535).size();
    if (f.payloadEnd - (command->end - command->begin) + longest > kMaxFrameSize) return {};

    InternalKey data;
    data.hostMac = entry.internal.hostMac;
    data.hostIp = entry.internal.hostIp;
    data.internalPort = entry.internal.internalPort - 1;
    data.adapterMac = entry.internal.adapterMac;
    data.destinationIp = entry.internal.destinationIp;
    data.destinationPort = command->port;
    // The data connection goes to the control connection's peer whatever address the
    // command names, so the server cannot be sent elsewhere through this machine.
    EntryView created = tcpTable_.AddDnatV2Entry(data, entry.external.externalAdapterMac, entry.external.remoteIp,
                                                 command->port, rule.translateSource, {entry.external});
    ApplicationLayer::Edit edit{
        command->begin, command->end,
        ApplicationLayer::PortCommandText(*command, created.internal.destinationIp,
                                          static_cast<uint16_t>(created.internal.destinationPort))};
    return ApplyEdit(frame, f, edit);
}

}  // namespace Nat
