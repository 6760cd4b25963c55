#include "Nat/NatTable.h"

#include "Logging/Logger.h"
#include "Packet/NatException.h"

namespace Nat {

namespace {

constexpr uint8_t kInternalFin = 1;
constexpr uint8_t kInternalFinAcked = 2;
constexpr uint8_t kExternalFin = 4;
constexpr uint8_t kExternalFinAcked = 8;

bool SequenceAfter(uint32_t a, uint32_t b) { return static_cast<int32_t>(a - b) > 0; }
bool SequenceAtOrAfter(uint32_t a, uint32_t b) { return static_cast<int32_t>(a - b) >= 0; }

std::string PeerText(const ExternalKey& key) {
    return " remoteIP: " + IpText(key.remoteIp) + " remotePort: " + std::to_string(key.remotePort) +
           " externalPort: " + std::to_string(key.externalPort);
}

}  // namespace

int32_t SequenceAdjustment::SequenceOffset(uint32_t sequence) const {
    return SequenceAfter(sequence, correctionPosition) ? offsetAfter : offsetBefore;
}

int32_t SequenceAdjustment::AcknowledgmentOffset(uint32_t acknowledgment) const {
    return SequenceAfter(acknowledgment - static_cast<uint32_t>(offsetBefore), correctionPosition) ? offsetAfter
                                                                                                   : offsetBefore;
}

void SequenceAdjustment::Record(uint32_t sequence, int32_t delta) {
    if (offsetBefore == offsetAfter || SequenceAfter(sequence, correctionPosition)) {
        correctionPosition = sequence;
        offsetBefore = offsetAfter;
        offsetAfter += delta;
    }
}

NatTable::NatTable(const std::vector<uint32_t>& ports, uint32_t entryTimeoutMs, Clock clock)
    : entryTimeout_(entryTimeoutMs), clock_(std::move(clock)) {
    ResetPorts(ports);
    lastSweep_ = clock_();
}

void NatTable::ResetPorts(const std::vector<uint32_t>& ports) {
    std::lock_guard<std::mutex> guard(lock_);
    freePorts_.assign(ports.begin(), ports.end());
    closedPorts_.clear();
    for (uint32_t port : ports) closedPorts_[port];
}

uint32_t NatTable::TakePort() {
    std::lock_guard<std::mutex> guard(lock_);
    return TakePortLocked();
}

void NatTable::ReturnPort(uint32_t port) {
    std::lock_guard<std::mutex> guard(lock_);
    ReturnPortLocked(port);
}

bool NatTable::QuietTowards(uint32_t port, const ExternalKey& towards, uint32_t now) const {
    auto it = closedPorts_.find(port);
    if (it == closedPorts_.end() || !it->second.closed) return false;
    const ClosedPort& closed = it->second;
    return now - closed.tick < kReuseQuietMs && closed.remotePort == towards.remotePort &&
           closed.remoteIp == towards.remoteIp;
}

// Port reuse rule. Ports are taken from the front of the queue and given back at its
// back, so the front is the port freed longest ago. A new flow towards a remote endpoint
// skips every port whose last entry towards that same address and port was removed less
// than kReuseQuietMs ago: the remote may still hold the old connection in TIME_WAIT and
// would answer a new SYN from that port with the old connection's ACK. Such a port
// stays free for every other destination. When each free port is quiet towards this
// endpoint, the front one, the least recently closed, is used all the same, so the pool
// never runs dry because of the rule. Among quiet ports, one whose connection the
// internal host closed first (or a reset ended) is preferred even so: only the side that
// closes first keeps TIME_WAIT, so the remote holds nothing of it, while a burst of short
// connections makes every port quiet within a few seconds.
uint32_t NatTable::TakePortLocked(const ExternalKey* towards) {
    if (freePorts_.empty()) SweepLocked();
    if (freePorts_.empty()) throw Exception("There are no port available");
    auto chosen = freePorts_.begin();
    if (towards != nullptr) {
        const uint32_t now = clock_();
        while (chosen != freePorts_.end() && QuietTowards(*chosen, *towards, now)) ++chosen;
        if (chosen == freePorts_.end()) {
            chosen = freePorts_.begin();
            while (chosen != freePorts_.end()) {
                auto closed = closedPorts_.find(*chosen);
                if (closed == closedPorts_.end() || !closed->second.remoteTimeWait) break;
                ++chosen;
            }
            if (chosen == freePorts_.end()) chosen = freePorts_.begin();
            if (DebugEnabled()) {
                Log("Reusing port " + std::to_string(*chosen) + " towards " + IpText(towards->remoteIp) + ":" +
                        std::to_string(towards->remotePort) + " within its quiet time: no other port is free",
                    LogLevel::Debug);
            }
        }
    }
    const uint32_t port = *chosen;
    freePorts_.erase(chosen);
    if (DebugEnabled()) {
        Log("Reserved port " + std::to_string(port) + " available count: " + std::to_string(freePorts_.size()),
            LogLevel::Debug);
    }
    return port;
}

void NatTable::ReturnPortLocked(uint32_t port) {
    freePorts_.push_back(port);
    if (DebugEnabled()) {
        Log("Freed port " + std::to_string(port) + " available count: " + std::to_string(freePorts_.size()),
            LogLevel::Debug);
    }
}

void NatTable::RefreshLocked(ActivityRecord& record, uint32_t now) {
    record.lastActivity = now;
    for (const ExternalKey& linked : record.linkedKeys) {
        auto it = activity_.find(linked);
        if (it != activity_.end()) it->second.lastActivity = now;
    }
}

void NatTable::CheckExpiryLocked(const ExternalKey& key, const ActivityRecord& record, uint32_t now) {
    if (!Expired(record.lastActivity, now)) return;
    std::string message = "Internal host info timeout exceeded for" + PeerText(key) + ". The packet will be discarded";
    ExternalKey copy = key;
    RemoveLocked(copy);
    throw Exception(message);
}

// Tracks resets and the close handshake. `outbound` says which side sent the segment;
// `translatedAck` is its acknowledgment in the receiver's own numbering.
static bool TrackClose(ActivityRecord& record, const Segment& segment, bool outbound, uint32_t translatedAck) {
    if (!segment.tcp) return false;
    if (segment.rst) {
        record.remoteClosedFirst = false;  // a reset ends TIME_WAIT on the remote too
        return true;
    }
    const uint8_t ownFin = outbound ? kInternalFin : kExternalFin;
    const uint8_t otherFin = outbound ? kExternalFin : kInternalFin;
    const uint8_t otherFinAcked = outbound ? kExternalFinAcked : kInternalFinAcked;
    if (segment.fin) {
        if (!outbound && !(record.closeState & kInternalFin)) record.remoteClosedFirst = true;
        uint32_t end = segment.sequence + segment.payloadLength + 1;
        (outbound ? record.internalFinEnd : record.externalFinEnd) = end;
        record.closeState |= ownFin;
    }
    uint32_t otherEnd = outbound ? record.externalFinEnd : record.internalFinEnd;
    if (segment.ack && (record.closeState & otherFin) && SequenceAtOrAfter(translatedAck, otherEnd)) {
        record.closeState |= otherFinAcked;
    }
    return (record.closeState & (kInternalFinAcked | kExternalFinAcked)) == (kInternalFinAcked | kExternalFinAcked);
}

bool NatTable::LookupOutbound(const InternalKey& key, const MacAddress* snatAdapterMac, const Segment& segment,
                              EntryView& view) {
    std::lock_guard<std::mutex> guard(lock_);
    const uint32_t now = clock_();
    auto out = outbound_.find(key);
    ActivityIndex::iterator act;
    if (out != outbound_.end()) {
        act = out->second.activity;
        if (act->second.dnat) CheckExpiryLocked(act->first, act->second, now);
        RefreshLocked(act->second, now);
    } else {
        if (snatAdapterMac == nullptr) return false;
        ExternalKey external;
        external.externalAdapterMac = *snatAdapterMac;
        external.remoteIp = key.destinationIp;
        external.remotePort = key.destinationPort;
        // A port whose key is still held by a rule's entry is put back and the next tried.
        for (size_t attempts = freePorts_.size() + 1;; --attempts) {
            external.externalPort = TakePortLocked(&external);
            if (inbound_.find(external) == inbound_.end()) break;
            ReturnPortLocked(external.externalPort);
            if (attempts <= 1) throw Exception("There are no port available");
        }
        ActivityRecord record;
        record.lastActivity = now;
        out = InsertLocked(external, key, std::move(record), "SNAT");
        act = out->second.activity;
    }
    ActivityRecord& record = act->second;
    view.external = out->second.external;
    view.internal = out->first;
    view.dnat = record.dnat;
    view.sequence = segment.sequence + static_cast<uint32_t>(record.towardsExternal.SequenceOffset(segment.sequence));
    view.acknowledgment = segment.acknowledgment -
                          static_cast<uint32_t>(record.towardsInternal.AcknowledgmentOffset(segment.acknowledgment));
    view.closeAfter = TrackClose(record, segment, true, view.acknowledgment);
    return true;
}

bool NatTable::HasOutbound(const InternalKey& key) const {
    std::lock_guard<std::mutex> guard(lock_);
    return outbound_.find(key) != outbound_.end();
}

std::optional<MacAddress> NatTable::GetExternalAdapterMac(const InternalKey& key) const {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = outbound_.find(key);
    if (it == outbound_.end()) return std::nullopt;
    return it->second.external.externalAdapterMac;
}

void NatTable::LookupInbound(const ExternalKey& key, const char* kind, const Segment& segment, EntryView& view) {
    std::lock_guard<std::mutex> guard(lock_);
    const uint32_t now = clock_();
    auto in = inbound_.find(key);
    if (in == inbound_.end()) {
        throw Exception(std::string("Not found internal host info for ") + kind + " packet" + PeerText(key));
    }
    auto act = in->second.activity;
    CheckExpiryLocked(act->first, act->second, now);
    RefreshLocked(act->second, now);
    ActivityRecord& record = act->second;
    view.external = in->first;
    view.internal = in->second.host;
    view.dnat = record.dnat;
    view.sequence = segment.sequence + static_cast<uint32_t>(record.towardsInternal.SequenceOffset(segment.sequence));
    view.acknowledgment = segment.acknowledgment -
                          static_cast<uint32_t>(record.towardsExternal.AcknowledgmentOffset(segment.acknowledgment));
    view.closeAfter = TrackClose(record, segment, false, view.acknowledgment);
}

bool NatTable::HasInbound(const ExternalKey& key) const {
    std::lock_guard<std::mutex> guard(lock_);
    return inbound_.find(key) != inbound_.end();
}

MacAddress NatTable::GetInternalHostMac(const ExternalKey& key) const {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = inbound_.find(key);
    if (it == inbound_.end()) throw Exception("Not found internal host MAC for" + PeerText(key));
    return it->second.host.hostMac;
}

NatTable::OutboundIndex::iterator NatTable::InsertLocked(const ExternalKey& key, const InternalKey& internal,
                                                        ActivityRecord record, const char* kind) {
    auto activity = activity_.emplace(key, std::move(record)).first;
    inbound_.emplace(key, InboundValue{internal, activity});
    auto out = outbound_.emplace(internal, OutboundValue{key, activity}).first;
    if (DebugEnabled()) Log(std::string("Added entry to Nat Table for ") + kind + " " + EntryText(internal, key),
                            LogLevel::Debug);
    return out;
}

void NatTable::AddDnatEntry(const ExternalKey& key, InternalKey internal, const Ipv4Address* sourceIp,
                            const std::vector<ExternalKey>& linkedKeys) {
    std::lock_guard<std::mutex> guard(lock_);
    const uint32_t now = clock_();
    if (now - lastSweep_ >= kSweepIntervalMs) {
        SweepLocked();
        lastSweep_ = now;
    }
    if (inbound_.find(key) != inbound_.end()) return;
    ActivityRecord record;
    record.lastActivity = now;
    record.dnat = true;
    record.linkedKeys = linkedKeys;
    if (sourceIp != nullptr) {
        internal.destinationIp = *sourceIp;
        internal.destinationPort = TakePortLocked();
        record.ownsSourcePort = true;
    } else {
        internal.destinationIp = key.remoteIp;
        internal.destinationPort = key.remotePort;
    }
    if (outbound_.find(internal) != outbound_.end()) {
        // Another external flow already reaches the internal host as this very peer.
        if (record.ownsSourcePort) ReturnPortLocked(internal.destinationPort);
        throw Exception("DNat entry conflicts with an existing entry for" + PeerText(key));
    }
    InsertLocked(key, internal, std::move(record), "DNAT");
}

EntryView NatTable::AddDnatV2Entry(InternalKey internal, const MacAddress& externalAdapterMac,
                                   const Ipv4Address& remoteIp, uint32_t remotePort, bool portAsDestination,
                                   const std::vector<ExternalKey>& linkedKeys) {
    std::lock_guard<std::mutex> guard(lock_);
    const uint32_t now = clock_();
    EntryView view;
    if (!portAsDestination) {
        auto existing = outbound_.find(internal);
        if (existing != outbound_.end()) {
            view.external = existing->second.external;
            view.internal = existing->first;
            return view;
        }
    }
    ExternalKey external;
    external.externalAdapterMac = externalAdapterMac;
    external.remoteIp = remoteIp;
    external.remotePort = remotePort;
    for (size_t attempts = freePorts_.size() + 1;; --attempts) {
        external.externalPort = TakePortLocked();
        if (portAsDestination) internal.destinationPort = external.externalPort;
        if (inbound_.find(external) == inbound_.end() && outbound_.find(internal) == outbound_.end()) break;
        ReturnPortLocked(external.externalPort);
        if (attempts <= 1) throw Exception("There are no port available");
    }
    ActivityRecord record;
    record.lastActivity = now;
    record.linkedKeys = linkedKeys;
    InsertLocked(external, internal, std::move(record), "DNATv2");
    view.external = external;
    view.internal = internal;
    return view;
}

void NatTable::UpdateReceivedBytesInfo(const ExternalKey& key, const InternalKey& internal, bool towardsExternal,
                                       uint32_t sequence, int32_t delta) {
    std::lock_guard<std::mutex> guard(lock_);
    auto in = inbound_.find(key);
    if (in == inbound_.end()) throw Exception("UpdateReceivedBytesInfo: Not found external to internal Nat info");
    auto out = outbound_.find(internal);
    if (out == outbound_.end()) throw Exception("UpdateReceivedBytesInfo: Not found internal to external Nat info");
    auto act = in->second.activity;
    ActivityRecord& record = act->second;
    (towardsExternal ? record.towardsExternal : record.towardsInternal).Record(sequence, delta);
}

void NatTable::Remove(const ExternalKey& key) {
    std::lock_guard<std::mutex> guard(lock_);
    RemoveLocked(key);
}

void NatTable::RemoveLocked(const ExternalKey& key) {
    auto in = inbound_.find(key);
    if (in == inbound_.end()) return;
    auto act = in->second.activity;
    const InternalKey internal = in->second.host;
    if (!act->second.dnat) {
        auto closed = closedPorts_.find(key.externalPort);
        if (closed != closedPorts_.end()) {
            closed->second = {true, act->second.remoteClosedFirst, clock_(), key.remoteIp, key.remotePort};
        }
        ReturnPortLocked(key.externalPort);
    }
    if (act->second.ownsSourcePort) ReturnPortLocked(internal.destinationPort);
    outbound_.erase(internal);
    if (DebugEnabled()) Log("Removed entry from Nat Table " + EntryText(internal, in->first), LogLevel::Debug);
    inbound_.erase(in);
    activity_.erase(act);
}

void NatTable::Sweep() {
    std::lock_guard<std::mutex> guard(lock_);
    SweepLocked();
}

void NatTable::SweepLocked() {
    const uint32_t now = clock_();
    std::vector<ExternalKey> expired;
    for (const auto& [key, record] : activity_) {
        if (Expired(record.lastActivity, now)) expired.push_back(key);
    }
    for (const ExternalKey& key : expired) RemoveLocked(key);
}

size_t NatTable::FreePortCount() const {
    std::lock_guard<std::mutex> guard(lock_);
    return freePorts_.size();
}

std::vector<uint32_t> NatTable::FreePorts() const {
    std::lock_guard<std::mutex> guard(lock_);
    return {freePorts_.begin(), freePorts_.end()};
}

size_t NatTable::EntryCount() const {
    std::lock_guard<std::mutex> guard(lock_);
    return activity_.size();
}

bool NatTable::Consistent() const {
    std::lock_guard<std::mutex> guard(lock_);
    if (activity_.size() != inbound_.size() || inbound_.size() != outbound_.size()) return false;
    for (const auto& [key, value] : inbound_) {
        auto act = activity_.find(key);
        if (act == activity_.end() || act != value.activity) return false;
        auto out = outbound_.find(value.host);
        if (out == outbound_.end() || !(out->second.external == key) || out->second.activity != act) return false;
    }
    return true;
}

}  // namespace Nat
