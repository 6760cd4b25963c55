#include "Nat/NetworkAddressTranslator.h"

#include <algorithm>

#include "Logging/Logger.h"
#include "Nat/ApplicationLayer.h"
#include "Packet/ArpTable.h"
#include "Packet/IcmpPacket.h"
#include "Packet/FrameView.h"
#include "Packet/IpProtocol.h"
#include "Packet/NatException.h"
#include "Packet/PacketUtils.h"
#include "Platform/Platform.h"

namespace Nat {

namespace PU = PacketUtils;

namespace {

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

namespace {

// What translation needs beyond the decision: a head frame the view says is whole enough.
// The texts and their order are those the engine has always thrown.
void CheckHead(const FrameView& view) {
    ThrowUnlessIpv4Header(view);
    if (view.fragmentOffset != 0) throw Exception("Unexpected IP fragment");
    if (!view.Tcp() && !view.Udp()) return;
    if (!view.transportHeader) throw Exception("Unexpected packet size: " + std::to_string(view.size));
    if (view.Tcp() && view.tcpHeaderSize < 20) {
        throw Exception("Unexpected TCP header size: " + std::to_string(view.tcpHeaderSize));
    }
}

void CheckKind(TranslationKind kind) {
    if (kind != TranslationKind::Snat && kind != TranslationKind::Dnat) throw Exception("Invalid translation rule");
}

Segment SegmentOf(const FrameView& view) {
    Segment segment;
    if (!view.Tcp()) return segment;
    segment.tcp = true;
    segment.sequence = view.sequence;
    segment.acknowledgment = view.acknowledgment;
    segment.fin = view.TcpFin();
    segment.rst = view.TcpRst();
    segment.ack = view.TcpAck();
    const uint32_t headers = view.ipHeaderSize + view.tcpHeaderSize;
    segment.payloadLength = view.totalLength > headers ? view.totalLength - headers : 0;
    return segment;
}

// Every fragment must be an IPv4 frame with a whole IP header; the head is the one at
// offset 0, wherever it sits in the list. Later fragments come without a view of their
// own: a look at their IP header is all they need.
size_t CheckFragments(const FragmentList& fragments) {
    if (fragments.empty()) throw Exception("The fragments list is empty.");
    size_t head = fragments.size();
    for (size_t i = 0; i < fragments.size(); ++i) {
        const FrameView view = ReadFrameView(fragments[i]);
        ThrowUnlessIpv4Header(view);
        if (head == fragments.size() && view.fragmentOffset == 0) head = i;
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

Decision NetworkAddressTranslator::ClassifyInternalPacket(const FrameView& v) {
    if (!WhiteListed(v.srcMac)) return {};
    if (const AdapterMapping* mapping = SelectMapping(v.dstMac, v.dstIp)) {
        return Decision::Of(TranslationKind::Snat, nullptr, mapping);
    }
    if (rules_.empty()) return {};
    RedirectRule* rule = FindInternalRule(v.protocol, v.srcPort, v.srcIp, v.dstMac, v.dstIp);
    if (rule == nullptr && !(ftpEnabled_ && v.Tcp())) return {};
    NatTable* table = TableFor(v.protocol);
    if (table == nullptr) return {};
    // A reply of a published service, or a data connection its FTP server opens.
    const InternalKey key{v.srcMac, v.srcIp, v.srcPort, v.dstMac, v.dstIp, v.dstPort};
    if (!table->HasOutbound(key)) return {};
    return Decision::Of(TranslationKind::Dnat, rule);
}

Decision NetworkAddressTranslator::ClassifyExternalPacket(const FrameView& v) {
    for (const AdapterMapping& mapping : mappings_) {
        if (!SameMac(mapping.external.mac, v.dstMac)) continue;
        if (HasExternalEntry(v.protocol, v.dstMac, v.srcIp, v.srcPort, v.dstPort)) {
            if (macWhiteList_.empty()) return Decision::Of(TranslationKind::Snat);
            const ExternalKey key{v.dstPort, v.dstMac, v.srcIp, v.srcPort};
            if (!WhiteListed(TableFor(v.protocol)->GetInternalHostMac(key))) return {};
            return Decision::Of(TranslationKind::Snat);
        }
        break;  // the entry check is the same for every further mapping
    }
    if (rules_.empty()) return {};
    if (RedirectRule* rule = MatchExternalRule(v.protocol, v.dstMac, v.srcIp, v.dstPort)) {
        return Decision::Of(TranslationKind::Dnat, rule);
    }
    if (ftpEnabled_ && v.Tcp() && HasExternalEntry(v.protocol, v.dstMac, v.srcIp, v.srcPort, v.dstPort)) {
        return Decision::Of(TranslationKind::Dnat);
    }
    return {};
}

Decision NetworkAddressTranslator::Decide(bool fromExternal, const Frame& frame, const FrameView& view) {
    if (!view.Translatable()) return {};
    if (view.protocol == IpProtocol::kIcmp) return ClassifyIcmpPacket(frame, view, fromExternal);
    return fromExternal ? ClassifyExternalPacket(view) : ClassifyInternalPacket(view);
}

const AdapterInfo& NetworkAddressTranslator::Apply(const Decision& decision, bool fromExternal, Frame& frame,
                                                   const FrameView& view, const std::string& receivedOnGuid,
                                                   bool partialChecksum) {
    return fromExternal ? TranslateInbound(decision, frame, view, nullptr, 0, receivedOnGuid, partialChecksum)
                        : TranslateOutbound(decision, frame, view, nullptr, 0, receivedOnGuid, partialChecksum);
}

const AdapterInfo* NetworkAddressTranslator::Translate(bool fromExternal, Frame& frame, const FrameView& view,
                                                       const std::string& receivedOnGuid, bool partialChecksum) {
    const Decision decision = Decide(fromExternal, frame, view);
    if (decision.kind == TranslationKind::None) return nullptr;
    return &Apply(decision, fromExternal, frame, view, receivedOnGuid, partialChecksum);
}

const AdapterInfo* NetworkAddressTranslator::Translate(bool fromExternal, FragmentList& fragments,
                                                       const FrameView& head, const std::string& receivedOnGuid) {
    const size_t index = CheckFragments(fragments);
    // The view must be the first fragment's: a later one has no ports to decide by.
    if (head.fragmentOffset != 0) throw Exception("Unexpected IP fragment");
    Frame& frame = fragments[index];
    const Decision decision = Decide(fromExternal, frame, head);
    if (decision.kind == TranslationKind::None) return nullptr;
    return fromExternal ? &TranslateInbound(decision, frame, head, &fragments, index, receivedOnGuid, false)
                        : &TranslateOutbound(decision, frame, head, &fragments, index, receivedOnGuid, false);
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

bool NetworkAddressTranslator::RewritesPayloads() const {
    return ftpEnabled_ || std::any_of(rules_.begin(), rules_.end(), [](const RedirectRule& rule) {
               return rule.httpHostTranslation || rule.ftpSupport;
           });
}

const AdapterInfo& NetworkAddressTranslator::TranslateOutbound(const Decision& decision, Frame& head,
                                                               const FrameView& f, FragmentList* fragments,
                                                               size_t headIndex, const std::string& receivedOnGuid,
                                                               bool partialChecksum) {
    CheckKind(decision.kind);
    CheckHead(f);
    if (f.protocol == IpProtocol::kIcmp) {
        return TranslateIcmp(true, decision, head, f, fragments, headIndex, receivedOnGuid);
    }
    const bool payloadIntact = f.payloadIntact && fragments == nullptr && !partialChecksum;
    const Segment segment = SegmentOf(f);

    const InternalKey key{f.srcMac, f.srcIp, f.srcPort, f.dstMac, f.dstIp, f.dstPort};
    const AdapterInfo* external = nullptr;
    RedirectRule* rule = decision.rule;
    if (decision.kind == TranslationKind::Snat) {
        if (decision.mapping == nullptr) throw Exception("SNat internal to external adapters not found");
        external = &decision.mapping->external;
    } else {
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
    const bool ftp = rule != nullptr && rule->ftpSupport && segment.tcp;

    NatTable* table = TableFor(f.protocol);
    if (table == nullptr) throw Exception("Unsupported port type");
    const MacAddress externalMac = AdapterMac(*external);
    EntryView entry;
    if (!table->LookupOutbound(key, decision.kind == TranslationKind::Snat ? &externalMac : nullptr, segment, entry)) {
        throw Exception("Not found external host info for DNAT packet");
    }

    const NextHop hop = ResolveExternalNextHop(*external, entry.external.remoteIp, entry.external.remotePort, f.dstIp,
                                               head, fragments, receivedOnGuid, partialChecksum);

    PayloadChange change;
    if (ftp && payloadIntact) change = RewritePassiveReply(head, f, *external, entry);

    const HeaderValues values{externalMac,          hop.mac, hop.sourceIp, entry.external.remoteIp,
                              entry.external.externalPort, entry.external.remotePort};
    RewriteHeaders(head, f, values, entry, change.changed, partialChecksum);
    if (change.delta != 0) {
        tcpTable_.UpdateReceivedBytesInfo(entry.external, entry.internal, true, segment.sequence, change.delta);
    }
    if (entry.closeAfter) table->Remove(entry.external);
    RewriteFragments(fragments, headIndex, values);
    return *external;
}

const AdapterInfo& NetworkAddressTranslator::TranslateInbound(const Decision& decision, Frame& head,
                                                              const FrameView& f, FragmentList* fragments,
                                                              size_t headIndex, const std::string& receivedOnGuid,
                                                              bool partialChecksum) {
    CheckKind(decision.kind);
    CheckHead(f);
    if (f.protocol == IpProtocol::kIcmp) {
        return TranslateIcmp(false, decision, head, f, fragments, headIndex, receivedOnGuid);
    }
    const bool payloadIntact = f.payloadIntact && fragments == nullptr && !partialChecksum;
    const Segment segment = SegmentOf(f);

    const ExternalKey key{f.dstPort, f.dstMac, f.srcIp, f.srcPort};
    EntryView entry;
    const AdapterInfo* internal = nullptr;
    RedirectRule* rule = nullptr;
    NatTable* table = nullptr;
    if (decision.kind == TranslationKind::Snat) {
        table = TableFor(f.protocol);
        if (table == nullptr) throw Exception("Unexpected IP protocol");
        table->LookupInbound(key, "SNAT", segment, entry);
        internal = &InternalAdapterFor(f.dstMac, entry);
    } else {
        // The rule matched once, when the frame was decided on: its expiry and refresh
        // happen once per frame.
        rule = decision.rule;
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
        table->LookupInbound(key, "DNAT", segment, entry);
        internal = rule != nullptr ? &rule->toAdapter : AdapterByMac(entry.internal.adapterMac);
        if (internal == nullptr) throw Exception("DNat matching rule not found");
    }

    PayloadChange change;
    if (rule != nullptr && segment.tcp && payloadIntact) {
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
        tcpTable_.UpdateReceivedBytesInfo(entry.external, entry.internal, false, segment.sequence, change.delta);
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
PayloadChange NetworkAddressTranslator::RewritePassiveReply(Frame& frame, const FrameView& f,
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
PayloadChange NetworkAddressTranslator::RewritePortCommand(Frame& frame, const FrameView& f,
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
