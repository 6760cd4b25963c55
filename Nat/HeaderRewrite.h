#pragma once
// Rewriting a frame's headers in place once the engine has decided where it goes: the
// Ethernet, IPv4 and TCP/UDP fields of the head frame, the addresses of a datagram's later
// fragments, and edits of a TCP payload (HTTP Host, FTP commands and replies).
#include <cstddef>
#include <cstdint>

#include "Nat/ApplicationLayer.h"
#include "Nat/NatTable.h"
#include "Packet/Frame.h"
#include "Packet/FrameView.h"

namespace Nat {

// The header fields a translated frame leaves with.
struct HeaderValues {
    MacAddress srcMac;
    MacAddress dstMac;
    Ipv4Address srcIp;
    Ipv4Address dstIp;
    uint32_t srcPort;
    uint32_t dstPort;
};

struct PayloadChange {
    bool changed = false;
    int32_t delta = 0;
};

// Replaces part of the TCP payload the view bounds, dropping any Ethernet padding and
// keeping the IP total length right. Skipped when the frame would grow past the largest frame.
PayloadChange ApplyEdit(Frame& frame, const FrameView& view, const ApplicationLayer::Edit& edit);

// Sets addresses and ports, the entry's sequence numbers (TCP) and the checksums. With
// partialChecksum the transport checksum holds only the pseudo-header sum and takes the
// address changes alone.
void RewriteHeaders(Frame& frame, const FrameView& view, const HeaderValues& values, const EntryView& entry,
                    bool payloadChanged, bool partialChecksum);

// Later fragments carry no transport header: MACs, addresses and IP header checksum only.
void RewriteFragments(FragmentList* fragments, size_t headIndex, const HeaderValues& values);

}  // namespace Nat
