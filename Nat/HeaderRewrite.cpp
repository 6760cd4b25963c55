#include "Nat/HeaderRewrite.h"

#include "Packet/PacketUtils.h"

namespace Nat {

namespace PU = PacketUtils;

namespace {
constexpr size_t kEthernetHeaderSize = 14;
}  // namespace

PayloadChange ApplyEdit(Frame& frame, const FrameView& view, const ApplicationLayer::Edit& edit) {
    const size_t oldSize = edit.end - edit.begin;
    if (edit.text.size() == oldSize &&
        edit.text.compare(0, oldSize, reinterpret_cast<const char*>(frame.data() + view.payloadBegin + edit.begin),
                          oldSize) == 0) {
        return {};
    }
    const int64_t delta = static_cast<int64_t>(edit.text.size()) - static_cast<int64_t>(oldSize);
    const int64_t newSize = static_cast<int64_t>(view.payloadEnd) + delta;
    if (newSize > static_cast<int64_t>(kMaxFrameSize)) return {};
    frame.resize(view.payloadEnd);
    auto at = frame.begin() + static_cast<std::ptrdiff_t>(view.payloadBegin + edit.begin);
    at = frame.erase(at, at + static_cast<std::ptrdiff_t>(oldSize));
    frame.insert(at, edit.text.begin(), edit.text.end());
    PU::SetIpPacketTotalLength(frame, static_cast<uint16_t>(frame.size() - kEthernetHeaderSize));
    return {true, static_cast<int32_t>(delta)};
}

// A partial checksum holds the folded pseudo-header sum, uncomplemented: it takes the
// address changes as a complete checksum would, but complemented, and nothing for the
// ports and sequence numbers, which are summed later with the rest of the segment.
void RewriteHeaders(Frame& frame, const FrameView& view, const HeaderValues& v, const EntryView& entry,
                    bool payloadChanged, bool partialChecksum) {
    if (partialChecksum) PU::SetTransportHeaderChecksum(frame, static_cast<uint16_t>(~PU::GetTransportHeaderChecksum(frame)));
    PU::SetSourceMac(frame, v.srcMac);
    PU::SetDestinationMac(frame, v.dstMac);
    PU::UpdateSourceIp(frame, v.srcIp);
    PU::UpdateDestinationIp(frame, v.dstIp);
    const uint16_t afterAddresses = partialChecksum ? PU::GetTransportHeaderChecksum(frame) : 0;
    PU::SetSourcePort(frame, static_cast<uint16_t>(v.srcPort));
    PU::SetDestinationPort(frame, static_cast<uint16_t>(v.dstPort));
    if (view.Tcp()) {
        if (entry.sequence != view.sequence) PU::SetTcpSequenceNumber(frame, entry.sequence);
        if (entry.acknowledgment != view.acknowledgment) PU::SetAcknowledgmentNumber(frame, entry.acknowledgment);
    }
    PU::FixIpHeaderChecksum(frame);
    if (partialChecksum) {
        PU::SetTransportHeaderChecksum(frame, static_cast<uint16_t>(~afterAddresses));
        return;
    }
    if (payloadChanged) {
        PU::FixTransportHeaderChecksum(frame);
    } else if (view.Udp() && view.udpWithoutChecksum) {
        // A datagram sent without a checksum stays without one: the incremental
        // updates above would otherwise leave a wrong non-zero value in it.
        PU::UpdateTransportHeaderChecksum(frame, 0xFFFF, 0, 0);
    }
}

void RewriteFragments(FragmentList* fragments, size_t headIndex, const HeaderValues& v) {
    if (fragments == nullptr) return;
    const PU::Bytes srcIp(v.srcIp.begin(), v.srcIp.end());
    const PU::Bytes dstIp(v.dstIp.begin(), v.dstIp.end());
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

}  // namespace Nat
