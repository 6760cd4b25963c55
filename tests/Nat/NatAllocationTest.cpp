// The established-flow path allocates nothing: a counting global allocator watches
// classification and translation of frames of known flows in both directions.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "support/NatRig.h"

namespace {
std::atomic<bool> counting{false};
std::atomic<size_t> allocations{0};

void* Allocate(std::size_t size) {
    if (counting.load(std::memory_order_relaxed)) allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}

void* AllocateAligned(std::size_t size, std::align_val_t align) {
    if (counting.load(std::memory_order_relaxed)) allocations.fetch_add(1, std::memory_order_relaxed);
    const std::size_t a = static_cast<std::size_t>(align);
    if (void* p = std::aligned_alloc(a, (size + a - 1) / a * a)) return p;
    throw std::bad_alloc();
}
}  // namespace

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return Allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return Allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new(std::size_t size, std::align_val_t align) { return AllocateAligned(size, align); }
void* operator new[](std::size_t size, std::align_val_t align) { return AllocateAligned(size, align); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }

using namespace NatTest;

namespace {

// Classifies and translates `original` the way a session does, into `work` (whose
// capacity is already there), and answers how many allocations that took.
size_t Allocations(Nat::NetworkAddressTranslator& nat, const Frame& original, Frame& work, bool outbound,
                   int rounds) {
    allocations = 0;
    counting = true;
    for (int i = 0; i < rounds; ++i) {
        work.assign(original.begin(), original.end());
        const MacAddress dstMac{work[0], work[1], work[2], work[3], work[4], work[5]};
        const MacAddress srcMac{work[6], work[7], work[8], work[9], work[10], work[11]};
        const Ipv4Address srcIp{work[26], work[27], work[28], work[29]};
        const Ipv4Address dstIp{work[30], work[31], work[32], work[33]};
        const uint32_t srcPort = (work[34] << 8) | work[35];
        const uint32_t dstPort = (work[36] << 8) | work[37];
        if (outbound) {
            uint32_t kind = nat.ClassifyInternalPacket(work[23], srcMac, dstMac, srcIp, dstIp, srcPort, dstPort);
            if (kind == 0) break;
            nat.TranslateInternalToExternal(kind, work, "int0");
        } else {
            uint32_t kind = nat.ClassifyExternalPacket(work[23], dstMac, srcIp, srcPort, dstPort);
            if (kind == 0) break;
            nat.TranslateExternalToInternal(kind, work, "ext0");
        }
    }
    counting = false;
    return allocations;
}

}  // namespace

TEST(NatAllocation, EstablishedFlowsTranslateWithoutHeapAllocation) {
    Nat::RedirectRule rule = Rule(6, 8080, 80, true);
    Rig rig({rule}, {Rig::DefaultMapping()});
    rig.Learn(kServerIp, kServerMac);

    // SNAT flow through the gateway, both directions; 64-byte and full-size frames.
    const Frame out = Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40000, 443, 1, 1, kAck});
    const Frame outBig = Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40000, 443, 1, 1, kAck,
                              std::string(1460, 'd')});
    const Frame in = Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 443, 5000, 1, 1, kAck});
    // Published service with translate source, both directions.
    const Frame dnatIn = Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 33000, 8080, 1, 1, kAck});
    const Frame dnatOut =
        Tcp({kServerMac, kSrvMac, kServerIp, kSrvSideIp, 80, 5001, 1, 1, kAck});

    Frame work;
    work.reserve(Nat::kMaxFrameSize);
    // First frames set the flows up (and may allocate).
    Allocations(*rig.nat, out, work, true, 1);
    Allocations(*rig.nat, dnatIn, work, false, 1);
    ASSERT_EQ(rig.nat->TcpTable().EntryCount(), 2u);

    EXPECT_EQ(Allocations(*rig.nat, out, work, true, 200), 0u);
    EXPECT_EQ(Parse(work).srcPort, 5000);
    EXPECT_EQ(Allocations(*rig.nat, outBig, work, true, 200), 0u);
    EXPECT_TRUE(TransportChecksumValid(work));
    EXPECT_EQ(Allocations(*rig.nat, in, work, false, 200), 0u);
    EXPECT_EQ(Parse(work).dstPort, 40000);
    EXPECT_EQ(Allocations(*rig.nat, dnatIn, work, false, 200), 0u);
    EXPECT_EQ(Parse(work).dstIp, kServerIp);
    EXPECT_EQ(Allocations(*rig.nat, dnatOut, work, true, 200), 0u);
    EXPECT_EQ(Parse(work).dstPort, 33000);

    // On-link destination: the next hop comes from the ARP table on every frame.
    rig.Learn(kPeerIp, kPeerMac);
    const Frame onLink = Tcp({kHostMac, kIntMac, kHostIp, kPeerIp, 40000, 22, 1, 1, kAck});
    Allocations(*rig.nat, onLink, work, true, 1);
    EXPECT_EQ(Allocations(*rig.nat, onLink, work, true, 200), 0u);
    EXPECT_EQ(Parse(work).dstMac, kPeerMac);

    // The counter itself works: a new flow allocates its entries.
    const Frame fresh = Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40001, 443, 1, 0, kSyn});
    EXPECT_GT(Allocations(*rig.nat, fresh, work, true, 1), 0u);
}
