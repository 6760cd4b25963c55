#pragma once
// A frame may arrive with offload state that the hardware (or the kernel) was to finish:
// a transport checksum left partial, or a super-frame of up to 64 KiB standing for a run
// of wire frames of one flow. FrameOffload carries that state beside the frame bytes, in
// the meaning of the virtio net header. A frame without it is an ordinary wire frame.
//
// SuperFrameSplitter turns one such frame into ordinary Ethernet frames of at most
// maxFrame bytes with complete checksums, one frame per Next() call, without allocating.
#include <cstddef>
#include <cstdint>

namespace Nat {

inline constexpr uint8_t kOffloadNeedsChecksum = 1;  // flag: the transport checksum is partial
inline constexpr uint8_t kGsoNone = 0;
inline constexpr uint8_t kGsoTcpV4 = 1;
inline constexpr uint8_t kGsoUdp = 3;  // UDP fragmentation offload: not produced by current kernels
inline constexpr uint8_t kGsoTcpV6 = 4;
inline constexpr uint8_t kGsoUdpL4 = 5;
inline constexpr uint8_t kGsoEcn = 0x80;

// The largest super-frame: an IPv4 datagram of 64 KiB behind its Ethernet header.
inline constexpr size_t kMaxSuperFrameSize = 65536 + 256;

struct FrameOffload {
    uint8_t flags = 0;
    uint8_t gsoType = kGsoNone;
    uint16_t hdrLen = 0;
    uint16_t gsoSize = 0;
    uint16_t csumStart = 0;     // checksummed bytes start here (from the destination MAC)
    uint16_t csumOffset = 0;    // the checksum field, from csumStart

    bool IsSuperFrame() const { return (gsoType & ~kGsoEcn) != kGsoNone; }
    bool PartialChecksum() const { return (flags & kOffloadNeedsChecksum) != 0; }
    // False for an ordinary wire frame with complete checksums.
    bool Any() const { return IsSuperFrame() || PartialChecksum(); }
};

class SuperFrameSplitter {
public:
    // Takes a frame (which must stay valid until Next() returns 0). False when it cannot
    // be delivered: malformed headers, an unsupported GSO type, or a frame that does not
    // fit maxFrame.
    bool Start(const FrameOffload& offload, const uint8_t* frame, size_t length, size_t maxFrame);

    // Writes the next output frame into out and returns its length; 0 when the frame
    // is exhausted (or capacity is below maxFrame).
    size_t Next(uint8_t* out, size_t capacity);

    bool IsGso() const { return gso_; }
    bool ChecksumCompleted() const { return checksumCompleted_; }
    void Reset() {
        remaining_ = 0;
        single_ = false;
        emptySegmentPending_ = false;
    }

private:
    size_t NextSegment(uint8_t* out);

    const uint8_t* frame_ = nullptr;
    size_t length_ = 0;
    size_t maxFrame_ = 0;
    FrameOffload offload_{};

    bool single_ = false;          // one frame to copy (with its checksum completed)
    bool gso_ = false;
    bool checksumCompleted_ = false;

    // Segmentation state.
    bool ipv6_ = false;
    bool tcp_ = false;
    size_t l3Offset_ = 0;
    size_t l4Offset_ = 0;
    size_t headerLength_ = 0;      // Ethernet + IP + transport headers
    size_t segmentSize_ = 0;       // payload bytes per segment
    size_t payloadOffset_ = 0;     // payload bytes already emitted
    size_t remaining_ = 0;         // payload bytes left
    uint32_t segmentIndex_ = 0;
    bool emptySegmentPending_ = false;
    uint32_t firstSeq_ = 0;
    uint16_t firstIpId_ = 0;
};

}  // namespace Nat
