#pragma once
// The address translation engine: decides whether a captured frame is source-translated
// (a host behind an internal adapter talking out) or destination-translated (a redirect
// rule publishing an internal service), keeps the state of both directions and rewrites
// frames in place.
//
// Translation kinds: None leave alone, Snat (or a reply to it), Dnat (or a reply to it).
// Calls come from one thread at a time (the session's dispatch thread); the tables have
// their own locks, the rule list is changed without one.
//
// Choices worth knowing:
// - A TCP entry ends on a reset from either side, or once each side's FIN has been
//   acknowledged by the other. A FIN's end is kept in its sender's own numbering and
//   compared with the other side's acknowledgment after translation. The entry is
//   removed right after the closing frame has been translated.
// - A payload rewrite moves the sequence numbers of its direction from that segment on;
//   a retransmission of the rewritten segment is not counted twice.
// - FTP: passive replies "227" and "229" of a published server open a temporary rule on
//   a pool port, usable only by the control connection's client. Active-mode commands
//   "PORT" and "EPRT" (IPv4) of its client make a DNATv2 entry for the connection the
//   server opens from its data port, the control port minus one.
// - Fragments: the fragment at offset 0 decides, wherever it sits in the list, and its
//   view is the one handed in; payloads of fragmented datagrams are never rewritten.
// - A UDP datagram sent without a checksum leaves without one.
// - The next hop of a reply through a rule is chosen for the remote peer the entry
//   records, which differs from the frame's destination with translate source.
// - ICMP (IcmpTranslation.cpp): echo requests of internal hosts are source-translated
//   like UDP, the echo identifier standing for both ports; errors that quote a translated
//   flow follow that flow. Everything else of ICMP is left alone.
#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Nat/HeaderRewrite.h"
#include "Nat/NatTable.h"
#include "Nat/NatTypes.h"
#include "Packet/Frame.h"
#include "Packet/FrameView.h"
#include "Packet/IArpCache.h"
#include "Packet/IcmpPacket.h"

namespace Nat {

namespace detail {
// Where a frame leaving on an external adapter goes next, and the address it leaves from.
struct NextHop {
    MacAddress mac{};
    Ipv4Address sourceIp{};
};
}  // namespace detail

// What deciding on a frame found, carried into its translation so that nothing is looked
// up twice: the rule that matched (a published service), the mapping chosen (SNAT out),
// an ICMP error's quote.
struct Decision {
    TranslationKind kind = TranslationKind::None;
    RedirectRule* rule = nullptr;
    const AdapterMapping* mapping = nullptr;
    bool hasQuote = false;
    Icmp::Quote quote;

    static Decision Of(TranslationKind kind, RedirectRule* rule = nullptr, const AdapterMapping* mapping = nullptr) {
        Decision decision;
        decision.kind = kind;
        decision.rule = rule;
        decision.mapping = mapping;
        return decision;
    }
};

class NetworkAddressTranslator {
public:
    using Clock = std::function<uint32_t()>;  // millisecond ticks

    static constexpr uint32_t kTemporaryRuleLifeMs = 30000;

    NetworkAddressTranslator(const std::vector<uint32_t>& tcpPorts, const std::vector<uint32_t>& udpPorts,
                             uint32_t entryTimeoutMs, std::vector<RedirectRule> rules,
                             std::vector<AdapterMapping> mappings, ProxyInfo proxy,
                             std::vector<std::vector<uint8_t>> macWhiteList, NativeNetworkDriver::IArpCache* arpCache,
                             Clock clock = {});
    virtual ~NetworkAddressTranslator();
    NetworkAddressTranslator(const NetworkAddressTranslator&) = delete;
    NetworkAddressTranslator& operator=(const NetworkAddressTranslator&) = delete;

    // One call per frame read on an external (fromExternal) or internal-side adapter, with
    // the view read of it: nullptr when the frame is not this engine's (it goes on
    // unchanged), else the frame is translated in place and the result is the adapter it
    // must leave on (its id is the GUID to send on), valid until the next call. Throws
    // Nat::Exception when a frame it claims cannot be translated (UnknownMacException when
    // the next hop's MAC is unknown: the ARP table holds the frame meanwhile).
    // partialChecksum: the transport checksum field holds only the pseudo-header sum, to be
    // completed later (an offloaded frame or super-frame); only address changes touch it
    // then, and the payload is left alone.
    const AdapterInfo* Translate(bool fromExternal, Frame& frame, const FrameView& view,
                                 const std::string& receivedOnGuid, bool partialChecksum = false);
    // The fragments of one datagram and the view of its first fragment: that fragment
    // decides and is rewritten in full, the others get the new addresses and their IP
    // header checksum.
    const AdapterInfo* Translate(bool fromExternal, FragmentList& fragments, const FrameView& head,
                                 const std::string& receivedOnGuid);
    // The same in two steps, for a super-frame whose decision holds for each wire frame
    // cut from it: Decide once, then Apply to every piece with its own view.
    Decision Decide(bool fromExternal, const Frame& frame, const FrameView& view);
    const AdapterInfo& Apply(const Decision& decision, bool fromExternal, Frame& frame, const FrameView& view,
                             const std::string& receivedOnGuid, bool partialChecksum = false);

    // The decision steps. A frame from an internal-side adapter: SNAT when it goes out
    // through a mapping, DNAT when it answers a published service (or is an FTP data
    // connection its server opens). From an external adapter: SNAT for a reply to a
    // translated flow, DNAT for a frame a redirect rule (or an FTP data entry) takes.
    virtual Decision ClassifyInternalPacket(const FrameView& view);
    Decision ClassifyExternalPacket(const FrameView& view);
    // ICMP: Snat for an echo request to translate, an echo reply or error of a translated
    // flow; None for everything else, which goes on unchanged.
    Decision ClassifyIcmpPacket(const Frame& frame, const FrameView& view, bool fromExternal);
    // The echo identifiers to hand out, in place of the UDP pool's port numbers that the
    // engine starts with; called before the first frame. See IcmpTranslation.cpp.
    void UseEchoIdentifiers(const std::vector<uint32_t>& identifiers);

    // Diagnostics.
    NatTable& TcpTable() { return tcpTable_; }
    NatTable& UdpTable() { return udpTable_; }
    NatTable& EchoTable() { return echoTable_; }
    const std::list<RedirectRule>& Rules() const { return rules_; }
    const std::vector<AdapterMapping>& Mappings() const { return mappings_; }
    bool FtpEnabled() const { return ftpEnabled_; }
    // True when a rule may rewrite TCP payloads (HTTP Host or FTP handling).
    bool RewritesPayloads() const;

protected:
    std::list<RedirectRule> rules_;  // a list: adapters handed out stay put while rules come and go
    std::vector<AdapterMapping> mappings_;
    std::set<AdapterInfo> knownAdapters_;
    ProxyInfo proxy_;
    std::vector<std::vector<uint8_t>> macWhiteList_;
    Clock clock_;
    NatTable tcpTable_;
    NatTable udpTable_;
    NatTable echoTable_;  // ICMP echo: the identifier is the port
    ProxyInfo resolutionProxy_;
    NativeNetworkDriver::IArpCache* arpCache_;
    bool ftpEnabled_;

    bool WhiteListed(const MacAddress& mac) const;
    bool GoesToProxy(const Ipv4Address& dstIp, uint32_t dstPort) const;

private:
    using NextHop = detail::NextHop;

    const AdapterInfo& TranslateOutbound(const Decision& decision, Frame& head, const FrameView& view,
                                         FragmentList* fragments, size_t headIndex, const std::string& receivedOnGuid,
                                         bool partialChecksum);
    const AdapterInfo& TranslateInbound(const Decision& decision, Frame& head, const FrameView& view,
                                        FragmentList* fragments, size_t headIndex, const std::string& receivedOnGuid,
                                        bool partialChecksum);

    const AdapterMapping* SelectMapping(const MacAddress& dstMac, const Ipv4Address& dstIp) const;
    RedirectRule* FindInternalRule(uint8_t protocol, uint32_t srcPort, const Ipv4Address& srcIp,
                                   const MacAddress& dstMac, const Ipv4Address& dstIp);
    RedirectRule* MatchExternalRule(uint8_t protocol, const MacAddress& dstMac, const Ipv4Address& srcIp,
                                    uint32_t dstPort);
    const AdapterInfo* AdapterByMac(const MacAddress& mac) const;
    NatTable* TableFor(uint8_t protocol);
    bool HasExternalEntry(uint8_t protocol, const MacAddress& dstMac, const Ipv4Address& srcIp, uint32_t srcPort,
                          uint32_t dstPort);

    NextHop ResolveExternalNextHop(const AdapterInfo& adapter, const Ipv4Address& destination, uint32_t dstPort,
                                   const Ipv4Address& frameDestination, const Frame& head,
                                   const FragmentList* fragments, const std::string& receivedOnGuid,
                                   bool partialChecksum);
    std::optional<MacAddress> ResolveOrHold(const Ipv4Address& ip, const Frame& head, const FragmentList* fragments,
                                            const std::string& receivedOnGuid, bool partialChecksum);

    // IcmpTranslation.cpp
    const AdapterInfo& TranslateIcmp(bool outbound, const Decision& decision, Frame& head, const FrameView& view,
                                     FragmentList* fragments, size_t headIndex, const std::string& receivedOnGuid);
    const AdapterInfo& InternalAdapterFor(const MacAddress& externalMac, const EntryView& entry) const;

    PayloadChange RewritePassiveReply(Frame& frame, const FrameView& view, const AdapterInfo& external,
                                      const EntryView& entry);
    PayloadChange RewritePortCommand(Frame& frame, const FrameView& view, const EntryView& entry,
                                     const RedirectRule& rule);
};

}  // namespace Nat
