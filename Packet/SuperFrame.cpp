#include "Packet/SuperFrame.h"

#include <cstring>

#include "Packet/BigEndian.h"
#include "Packet/IpProtocol.h"
#include "Packet/PacketUtils.h"

namespace Nat {
namespace {

constexpr size_t kEthHeader = 14;
constexpr uint16_t kEtherTypeIpv4 = 0x0800;
constexpr uint16_t kEtherTypeIpv6 = 0x86DD;
constexpr uint16_t kEtherTypeVlan = 0x8100;
constexpr uint16_t kEtherTypeQinQ = 0x88A8;
constexpr uint8_t kTcpFin = 0x01;
constexpr uint8_t kTcpPsh = 0x08;
constexpr uint8_t kTcpCwr = 0x80;

// A checksum field value: the inverted sum, with 0 sent as 0xFFFF as the kernel does.
uint16_t FinishChecksum(uint16_t folded) {
    const uint16_t value = static_cast<uint16_t>(~folded);
    return value == 0 ? 0xFFFF : value;
}

}  // namespace

bool SuperFrameSplitter::Start(const FrameOffload& offload, const uint8_t* frame, size_t length, size_t maxFrame) {
    frame_ = frame;
    length_ = length;
    maxFrame_ = maxFrame;
    offload_ = offload;
    single_ = false;
    emptySegmentPending_ = false;
    gso_ = false;
    checksumCompleted_ = false;
    remaining_ = 0;
    payloadOffset_ = 0;
    segmentIndex_ = 0;

    if (frame == nullptr || length < kEthHeader) return false;

    const uint8_t gsoType = static_cast<uint8_t>(offload.gsoType & ~kGsoEcn);
    if (gsoType == kGsoNone) {
        if (length > maxFrame) return false;
        if (offload.flags & kOffloadNeedsChecksum) {
            const size_t field = static_cast<size_t>(offload.csumStart) + offload.csumOffset;
            if (offload.csumStart >= length || field + 2 > length) return false;
        }
        single_ = true;
        return true;
    }
    if (gsoType != kGsoTcpV4 && gsoType != kGsoTcpV6 && gsoType != kGsoUdpL4) return false;
    gso_ = true;

    // Locate the headers ourselves: hdrLen is only the kernel's linear part, not a header length.
    size_t l3 = kEthHeader;
    uint16_t etherType = ReadBe16(frame + 12);
    for (int tags = 0; (etherType == kEtherTypeVlan || etherType == kEtherTypeQinQ) && tags < 2; ++tags) {
        if (length < l3 + 4) return false;
        etherType = ReadBe16(frame + l3 + 2);
        l3 += 4;
    }
    uint8_t protocol = 0;
    size_t l4 = 0;
    if (etherType == kEtherTypeIpv4) {
        if (length < l3 + 20 || (frame[l3] >> 4) != 4) return false;
        const size_t ihl = static_cast<size_t>(frame[l3] & 0x0F) * 4;
        if (ihl < 20 || length < l3 + ihl) return false;
        protocol = frame[l3 + 9];
        l4 = l3 + ihl;
        ipv6_ = false;
    } else if (etherType == kEtherTypeIpv6) {
        if (length < l3 + 40 || (frame[l3] >> 4) != 6) return false;
        protocol = frame[l3 + 6];  // extension headers are not offloaded by the kernel's GSO here
        l4 = l3 + 40;
        ipv6_ = true;
    } else {
        return false;
    }

    size_t transportHeader = 0;
    if (gsoType == kGsoUdpL4) {
        if (protocol != IpProtocol::kUdp || length < l4 + 8) return false;
        transportHeader = 8;
        tcp_ = false;
    } else {
        if (protocol != IpProtocol::kTcp || (gsoType == kGsoTcpV4) == ipv6_) return false;
        if (length < l4 + 20) return false;
        transportHeader = static_cast<size_t>(frame[l4 + 12] >> 4) * 4;
        if (transportHeader < 20 || length < l4 + transportHeader) return false;
        tcp_ = true;
        firstSeq_ = ReadBe32(frame + l4 + 4);
    }
    l3Offset_ = l3;
    l4Offset_ = l4;
    headerLength_ = l4 + transportHeader;
    if (headerLength_ >= maxFrame) return false;

    if (tcp_) {
        const size_t room = maxFrame - headerLength_;
        segmentSize_ = (offload.gsoSize == 0 || offload.gsoSize > room) ? room : offload.gsoSize;
    } else {
        // Each UDP segment is a datagram of its own: its size cannot be changed.
        if (offload.gsoSize == 0 || headerLength_ + offload.gsoSize > maxFrame) return false;
        segmentSize_ = offload.gsoSize;
    }
    firstIpId_ = ipv6_ ? 0 : ReadBe16(frame + l3 + 4);
    remaining_ = length - headerLength_;
    // A bare header marked GSO still goes out once, with fresh checksums.
    emptySegmentPending_ = remaining_ == 0;
    return true;
}

size_t SuperFrameSplitter::Next(uint8_t* out, size_t capacity) {
    if (out == nullptr || capacity < maxFrame_) return 0;
    if (single_) {
        single_ = false;
        std::memcpy(out, frame_, length_);
        if (offload_.flags & kOffloadNeedsChecksum) {
            const size_t start = offload_.csumStart;
            const size_t field = start + offload_.csumOffset;
            // The field holds the pseudo-header sum; fold the rest in and store.
            const uint16_t folded = PacketUtils::InternetChecksumFold(0, out + start, length_ - start);
            WriteBe16(out + field, FinishChecksum(folded));
            checksumCompleted_ = true;
        }
        return length_;
    }
    if (remaining_ == 0 && !emptySegmentPending_) return 0;
    emptySegmentPending_ = false;
    return NextSegment(out);
}

size_t SuperFrameSplitter::NextSegment(uint8_t* out) {
    const size_t chunk = remaining_ < segmentSize_ ? remaining_ : segmentSize_;
    const bool first = segmentIndex_ == 0;
    const bool last = chunk == remaining_;
    std::memcpy(out, frame_, headerLength_);
    std::memcpy(out + headerLength_, frame_ + headerLength_ + payloadOffset_, chunk);
    const size_t frameLength = headerLength_ + chunk;
    const size_t l4Length = frameLength - l4Offset_;

    uint8_t* ip = out + l3Offset_;
    uint32_t pseudo = 0;
    if (ipv6_) {
        WriteBe16(ip + 4, static_cast<uint16_t>(l4Length));
        // Pseudo header: addresses, upper-layer length, next header.
        pseudo = PacketUtils::InternetChecksumFold(0, ip + 8, 32);
        pseudo += static_cast<uint32_t>(l4Length >> 16) + static_cast<uint32_t>(l4Length & 0xFFFF);
        pseudo += tcp_ ? IpProtocol::kTcp : IpProtocol::kUdp;
    } else {
        const size_t ihl = l4Offset_ - l3Offset_;
        WriteBe16(ip + 2, static_cast<uint16_t>(frameLength - l3Offset_));
        WriteBe16(ip + 4, static_cast<uint16_t>(firstIpId_ + segmentIndex_));
        WriteBe16(ip + 10, 0);
        WriteBe16(ip + 10, static_cast<uint16_t>(~PacketUtils::InternetChecksumFold(0, ip, ihl)));
        pseudo = PacketUtils::InternetChecksumFold(0, ip + 12, 8);
        pseudo += static_cast<uint32_t>(l4Length) + (tcp_ ? IpProtocol::kTcp : IpProtocol::kUdp);
    }

    uint8_t* l4 = out + l4Offset_;
    if (tcp_) {
        WriteBe32(l4 + 4, firstSeq_ + static_cast<uint32_t>(payloadOffset_));
        if (!last) l4[13] = static_cast<uint8_t>(l4[13] & ~(kTcpFin | kTcpPsh));
        if (!first) l4[13] = static_cast<uint8_t>(l4[13] & ~kTcpCwr);
        WriteBe16(l4 + 16, 0);
        WriteBe16(l4 + 16, FinishChecksum(PacketUtils::InternetChecksumFold(pseudo, l4, l4Length)));
    } else {
        WriteBe16(l4 + 4, static_cast<uint16_t>(l4Length));
        WriteBe16(l4 + 6, 0);
        WriteBe16(l4 + 6, FinishChecksum(PacketUtils::InternetChecksumFold(pseudo, l4, l4Length)));
    }

    payloadOffset_ += chunk;
    remaining_ -= chunk;
    ++segmentIndex_;
    return frameLength;
}

}  // namespace Nat
