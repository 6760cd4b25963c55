#pragma once
// One protocol's translation state: the free-port queue and the three indexes of every
// entry (activity, outbound, inbound), all behind one lock.
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "Nat/NatTypes.h"

namespace Nat {

// The TCP facts of one segment, read before translation.
struct Segment {
    bool tcp = false;
    bool fin = false;
    bool rst = false;
    bool ack = false;
    uint32_t sequence = 0;
    uint32_t acknowledgment = 0;
    uint32_t payloadLength = 0;
};

// How far one direction's sequence space has moved because payloads were rewritten.
// Segments starting after the last rewritten one take `offsetAfter`; that segment
// itself and anything retransmitted from before it keep `offsetBefore`, so a
// retransmission does not move the numbers twice.
struct SequenceAdjustment {
    uint32_t correctionPosition = 0;
    int32_t offsetBefore = 0;
    int32_t offsetAfter = 0;

    // Offset to add to the sequence number of a segment of this direction.
    int32_t SequenceOffset(uint32_t sequence) const;
    // Offset to subtract from an acknowledgment of this direction's data.
    int32_t AcknowledgmentOffset(uint32_t acknowledgment) const;
    // Records a rewrite of `delta` bytes in the segment starting at `sequence`.
    void Record(uint32_t sequence, int32_t delta);
};

struct ActivityRecord {
    uint32_t lastActivity = 0;
    bool dnat = false;  // external port belongs to a redirect rule, not to the pool
    std::vector<ExternalKey> linkedKeys;
    bool ownsSourcePort = false;  // took a pool port as the translated source port
    SequenceAdjustment towardsExternal;
    SequenceAdjustment towardsInternal;
    // Close handshake: each side's FIN, recorded in the sender's own numbering, and
    // whether the other side acknowledged it.
    uint8_t closeState = 0;
    uint32_t internalFinEnd = 0;
    uint32_t externalFinEnd = 0;
    // The remote sent the first FIN and no reset followed: it holds the connection in
    // TIME_WAIT once the entry is gone.
    bool remoteClosedFirst = false;
};

// Copies of an entry handed from a locked lookup to the frame rewrite, with the TCP
// numbers the rewritten frame is to carry.
struct EntryView {
    ExternalKey external;
    InternalKey internal;
    bool dnat = false;
    uint32_t sequence = 0;
    uint32_t acknowledgment = 0;
    bool closeAfter = false;  // the segment ends the connection: remove after sending
};

class NatTable {
public:
    using Clock = std::function<uint32_t()>;

    static constexpr uint32_t kSweepIntervalMs = 120000;
    // How long a closed entry's port stays unused towards the same remote endpoint (the
    // TIME_WAIT of TCP, 2 minutes as the kernel's NAT keeps it).
    static constexpr uint32_t kReuseQuietMs = 120000;

    NatTable(const std::vector<uint32_t>& ports, uint32_t entryTimeoutMs, Clock clock);
    NatTable(const NatTable&) = delete;
    NatTable& operator=(const NatTable&) = delete;

    // Front of the free-port queue, sweeping first when it is empty.
    uint32_t TakePort();
    void ReturnPort(uint32_t port);
    // Replaces the free-port queue; only for a table that holds no entry yet.
    void ResetPorts(const std::vector<uint32_t>& ports);

    // Outbound: find the entry of `key`; when absent, create an SNAT entry leaving on
    // `snatAdapterMac` if one is given, else answer false.
    bool LookupOutbound(const InternalKey& key, const MacAddress* snatAdapterMac, const Segment& segment,
                        EntryView& view);
    bool HasOutbound(const InternalKey& key) const;
    std::optional<MacAddress> GetExternalAdapterMac(const InternalKey& key) const;

    // Inbound: the entry of `key`, checked for expiry and refreshed; `kind` is "SNAT" or
    // "DNAT" for the not-found message.
    void LookupInbound(const ExternalKey& key, const char* kind, const Segment& segment, EntryView& view);
    bool HasInbound(const ExternalKey& key) const;
    MacAddress GetInternalHostMac(const ExternalKey& key) const;

    // A connection through a redirect rule. `internal` names the internal host; with a
    // `sourceIp` the peer it sees is that address and a pool port, else the remote itself.
    void AddDnatEntry(const ExternalKey& key, InternalKey internal, const Ipv4Address* sourceIp,
                      const std::vector<ExternalKey>& linkedKeys);
    // An FTP active-mode data connection the internal server will open towards the
    // client. Takes a pool port as the external port; with `portAsDestination` the
    // server is also told to connect to that port. An existing entry of the same
    // internal key is reused. Returns the entry.
    EntryView AddDnatV2Entry(InternalKey internal, const MacAddress& externalAdapterMac, const Ipv4Address& remoteIp,
                             uint32_t remotePort, bool portAsDestination, const std::vector<ExternalKey>& linkedKeys);

    // A payload of the segment starting at `sequence` changed length by `delta`.
    void UpdateReceivedBytesInfo(const ExternalKey& key, const InternalKey& internal, bool towardsExternal,
                                 uint32_t sequence, int32_t delta);

    void Remove(const ExternalKey& key);
    void Sweep();

    // Diagnostics.
    size_t FreePortCount() const;
    std::vector<uint32_t> FreePorts() const;
    size_t EntryCount() const;
    // True when the three indexes hold the same entries.
    bool Consistent() const;

private:
    using ActivityIndex = std::map<ExternalKey, ActivityRecord>;
    // The other two indexes also point at the entry's activity record, so that a frame
    // of a known flow costs one lookup.
    struct OutboundValue {
        ExternalInfo external;
        ActivityIndex::iterator activity;
    };
    struct InboundValue {
        InternalHostInfo host;
        ActivityIndex::iterator activity;
    };
    using OutboundIndex = std::map<InternalKey, OutboundValue>;
    using InboundIndex = std::map<ExternalKey, InboundValue>;

    uint32_t TakePortLocked(const ExternalKey* towards = nullptr);
    void ReturnPortLocked(uint32_t port);
    void RemoveLocked(const ExternalKey& key);
    void SweepLocked();
    void CheckExpiryLocked(const ExternalKey& key, const ActivityRecord& record, uint32_t now);
    void RefreshLocked(ActivityRecord& record, uint32_t now);
    OutboundIndex::iterator InsertLocked(const ExternalKey& key, const InternalKey& internal, ActivityRecord record,
                                         const char* kind);
    bool Expired(uint32_t lastActivity, uint32_t now) const { return now - lastActivity >= entryTimeout_; }

    // When a pool port's last entry was removed, and towards which remote endpoint. One
    // slot per pool port, made at construction, so recording a close never allocates.
    struct ClosedPort {
        bool closed = false;
        bool remoteTimeWait = false;  // the remote closed first (see ActivityRecord)
        uint32_t tick = 0;
        Ipv4Address remoteIp{};
        uint32_t remotePort = 0;
    };
    bool QuietTowards(uint32_t port, const ExternalKey& towards, uint32_t now) const;

    std::deque<uint32_t> freePorts_;
    std::map<uint32_t, ClosedPort> closedPorts_;
    ActivityIndex activity_;
    OutboundIndex outbound_;
    InboundIndex inbound_;
    uint32_t lastSweep_;
    uint32_t entryTimeout_;
    Clock clock_;
    mutable std::mutex lock_;
};

}  // namespace Nat
