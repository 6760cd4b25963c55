#pragma once
// Frames read from packet sockets with PACKET_VNET_HDR carry the kernel's offload state:
// a checksum left for the hardware to fill in, or a GSO super-frame of up to 64 KiB.
// VnetFrameSplitter turns one such frame into ordinary Ethernet frames of at most
// maxFrame bytes with complete checksums, one frame per Next() call, without allocating.
#include <cstddef>
#include <cstdint>

namespace Platform {

inline constexpr size_t kVnetHeaderSize = 10;  // struct virtio_net_hdr

inline constexpr uint8_t kVnetFlagNeedsCsum = 1;
inline constexpr uint8_t kVnetGsoNone = 0;
inline constexpr uint8_t kVnetGsoTcpV4 = 1;
inline constexpr uint8_t kVnetGsoUdp = 3;  // UDP fragmentation offload: not produced by current kernels
inline constexpr uint8_t kVnetGsoTcpV6 = 4;
inline constexpr uint8_t kVnetGsoUdpL4 = 5;
inline constexpr uint8_t kVnetGsoEcn = 0x80;

struct VnetHeader {
    uint8_t flags = 0;
    uint8_t gsoType = 0;
    uint16_t hdrLen = 0;
    uint16_t gsoSize = 0;
    uint16_t csumStart = 0;
    uint16_t csumOffset = 0;
};

// Packet sockets write the header in host byte order.
VnetHeader ParseVnetHeader(const uint8_t* bytes);

// One's-complement sum of a byte range, folded to 16 bits (not inverted).
uint16_t InternetChecksumFold(uint32_t seed, const uint8_t* data, size_t length);

class VnetFrameSplitter {
public:
    // Takes a received frame (which must stay valid until Next() returns 0). False when it
    // cannot be delivered: malformed headers, an unsupported GSO type, or a frame that
    // does not fit maxFrame.
    bool Start(const VnetHeader& header, const uint8_t* frame, size_t length, size_t maxFrame);

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
    VnetHeader header_{};

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

}  // namespace Platform
