#include "Platform/posix/LinuxFilterDriverApi.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "Platform/FilterDriverBackend.h"
#include "Platform/InterfaceGuid.h"
#include "Platform/posix/LinuxInterfaces.h"
#include "Packet/SuperFrame.h"

namespace Platform {
namespace {

using NdisApi::Handle;

// NDIS packet-filter bits reported for an interface.
constexpr uint32_t kNdisDirected = 0x01;
constexpr uint32_t kNdisMulticast = 0x02;
constexpr uint32_t kNdisAllMulticast = 0x04;
constexpr uint32_t kNdisBroadcast = 0x08;

constexpr uint32_t kTunnelFlags = NdisApi::MSTCP_FLAG_SENT_TUNNEL | NdisApi::MSTCP_FLAG_RECV_TUNNEL;
constexpr size_t kMinEtherFrame = 60;

// Every frame read or sent carries a virtio net header first (PACKET_VNET_HDR).
constexpr size_t kVnetHeaderSize = 10;

// recvmmsg batch: frames per call and room per frame (a GSO super-frame is up to 64 KiB).
constexpr unsigned kBatch = 16;
constexpr size_t kSlotSize = kVnetHeaderSize + Nat::kMaxSuperFrameSize;
// Frames handed out before a socket found empty is asked again.
constexpr unsigned kRecheckInterval = 2 * kBatch;

constexpr int kCaptureBufferBytes = 8 * 1024 * 1024;
constexpr int kSendBufferBytes = 4 * 1024 * 1024;
constexpr long kSendTimeoutMicroseconds = 200000;  // a wedged device must not stall the caller

// Largest filter table accepted: the header's one-element array is followed by the rest.
constexpr uint32_t kMaxFilterTableSize = 1024;

std::string ErrnoText(int code) { return std::to_string(code); }

void Report(const DiagnosticSink& diagnostics, const std::string& text) {
    if (diagnostics) diagnostics(text);
}

// Packet sockets write and read the header in host byte order.
Nat::FrameOffload ParseVnetHeader(const uint8_t* bytes) {
    Nat::FrameOffload h;
    h.flags = bytes[0];
    h.gsoType = bytes[1];
    std::memcpy(&h.hdrLen, bytes + 2, 2);
    std::memcpy(&h.gsoSize, bytes + 4, 2);
    std::memcpy(&h.csumStart, bytes + 6, 2);
    std::memcpy(&h.csumOffset, bytes + 8, 2);
    return h;
}

void WriteVnetHeader(const Nat::FrameOffload& h, uint8_t* bytes) {
    bytes[0] = h.flags;
    bytes[1] = h.gsoType;
    std::memcpy(bytes + 2, &h.hdrLen, 2);
    std::memcpy(bytes + 4, &h.gsoSize, 2);
    std::memcpy(bytes + 6, &h.csumStart, 2);
    std::memcpy(bytes + 8, &h.csumOffset, 2);
}

bool EnableVnetHeader(int fd) {
    const int on = 1;
    return setsockopt(fd, SOL_PACKET, PACKET_VNET_HDR, &on, sizeof(on)) == 0;
}

void SetBuffer(int fd, int forceOption, int option, int bytes) {
    if (setsockopt(fd, SOL_SOCKET, forceOption, &bytes, sizeof(bytes)) != 0) {
        (void)setsockopt(fd, SOL_SOCKET, option, &bytes, sizeof(bytes));
    }
}

bool BindToInterface(int fd, int ifindex, uint16_t protocol) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(protocol);
    address.sll_ifindex = ifindex;
    return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

// A socket that only sends, with the mark that routes its frames through the egress program.
Bpf::Fd MakeSendSocket(int ifindex, uint32_t mark, const DiagnosticSink& diagnostics) {
    // Protocol 0: the socket never queues received frames.
    Bpf::Fd fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    if (!fd.Valid()) return fd;
    if (setsockopt(fd.Get(), SOL_SOCKET, SO_MARK, &mark, sizeof(mark)) != 0 || !EnableVnetHeader(fd.Get()) ||
        !BindToInterface(fd.Get(), ifindex, 0)) {
        Report(diagnostics,
               "Linux filter driver: send socket on ifindex " + std::to_string(ifindex) + " failed: " + ErrnoText(errno));
        return Bpf::Fd();
    }
    SetBuffer(fd.Get(), SO_SNDBUFFORCE, SO_SNDBUF, kSendBufferBytes);
    timeval timeout{0, kSendTimeoutMicroseconds};
    (void)setsockopt(fd.Get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
    return fd;
}

// Frames of one capture socket, read in batches and handed out one at a time.
struct CaptureSource {
    Bpf::Fd socket;
    uint32_t deviceFlags = 0;
    bool padRunts = false;
    std::vector<uint8_t> storage;
    std::vector<iovec> vectors;
    std::vector<mmsghdr> messages;
    unsigned count = 0;  // messages in the current batch
    unsigned next = 0;   // next message to start
    Nat::SuperFrameSplitter splitter;
    bool splitting = false;  // splitter holds frames still to hand out

    void Discard() {
        count = 0;
        next = 0;
        splitting = false;
        splitter.Reset();
    }
};

std::unique_ptr<CaptureSource> MakeCaptureSource(int ifindex, bool fromWire) {
    auto source = std::make_unique<CaptureSource>();
    // Protocol 0 until bound, so no frame is queued before the filter is in place.
    source->socket = Bpf::Fd(socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int fd = source->socket.Get();
    if (fd < 0) return nullptr;
    const bool filtered = fromWire ? Bpf::AttachWireCaptureFilter(fd) : Bpf::AttachStackCaptureFilter(fd);
    if (!filtered || !EnableVnetHeader(fd)) return nullptr;
    // Every frame reaches these sockets on the receive path (the egress program turns the
    // stack's frames round); our own sends must not be cloned to them on the way out.
    const int on = 1;
    (void)setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof(on));
    SetBuffer(fd, SO_RCVBUFFORCE, SO_RCVBUF, kCaptureBufferBytes);
    if (!BindToInterface(fd, ifindex, ETH_P_ALL)) return nullptr;

    source->deviceFlags = fromWire ? NdisApi::PACKET_FLAG_ON_RECEIVE : NdisApi::PACKET_FLAG_ON_SEND;
    source->padRunts = fromWire;
    source->storage.resize(kBatch * kSlotSize);
    source->vectors.resize(kBatch);
    source->messages.resize(kBatch);
    for (unsigned i = 0; i < kBatch; ++i) {
        source->vectors[i].iov_base = source->storage.data() + i * kSlotSize;
        source->vectors[i].iov_len = kSlotSize;
        std::memset(&source->messages[i], 0, sizeof(mmsghdr));
        source->messages[i].msg_hdr.msg_iov = &source->vectors[i];
        source->messages[i].msg_hdr.msg_iovlen = 1;
    }
    return source;
}

}  // namespace

struct LinuxFilterDriverApi::Adapter {
    int ifindex = 0;
    Bpf::Fd wireSocket;   // SO_MARK TO_WIRE; also holds the promiscuous membership
    Bpf::Fd stackSocket;  // SO_MARK TO_STACK

    // Mode, promiscuous state and events; taken before readMutex.
    std::mutex controlMutex;
    bool promiscuous = false;
    std::vector<Bpf::Fd> events;  // epoll descriptors handed out by CreateAdapterEvent
    bool tunnel = false;
    Bpf::Fd ingressLink;
    Bpf::Fd egressLink;
    std::atomic<bool> tunnelActive{false};

    // Capture state, used by ReadPacket.
    std::mutex readMutex;
    std::unique_ptr<CaptureSource> sources[2];  // 0: from the wire, 1: from the stack
    unsigned nextSource = 0;
    bool empty[2] = {false, false};  // found empty during the current drain
    unsigned framesSinceRecheck = 0;
    Counters counters;

    bool TakeFrame(CaptureSource& source, NdisApi::ETH_REQUEST& request);
    size_t TakeFrames(CaptureSource& source, NativeNetworkDriver::CapturedFrame* frames, size_t count);
    // Reads the next batch of the socket into its slots; false when nothing came.
    bool Refill(CaptureSource& source);
    void Drain(CaptureSource& source);
};

bool LinuxFilterDriverApi::Adapter::TakeFrame(CaptureSource& s, NdisApi::ETH_REQUEST& request) {
    NdisApi::INTERMEDIATE_BUFFER& out = *request.EthPacket;
    for (;;) {
        if (s.splitting) {
            size_t length = s.splitter.Next(out.m_IBuffer, sizeof(out.m_IBuffer));
            if (length > 0) {
                if (s.splitter.IsGso()) ++counters.segments;
                if (s.splitter.ChecksumCompleted()) ++counters.checksumsCompleted;
                if (s.padRunts && length < kMinEtherFrame) {
                    std::memset(out.m_IBuffer + length, 0, kMinEtherFrame - length);
                    length = kMinEtherFrame;
                }
                out.m_hAdapter = request.hAdapterHandle;
                out.m_dwDeviceFlags = s.deviceFlags;
                out.m_Length = static_cast<uint32_t>(length);
                out.m_Flags = 0;
                out.m_8021q = 0;
                out.m_FilterID = 0;
                ++counters.framesRead;
                return true;
            }
            s.splitting = false;
        }
        if (s.next < s.count) {
            const mmsghdr& message = s.messages[s.next];
            const uint8_t* slot = s.storage.data() + static_cast<size_t>(s.next) * kSlotSize;
            ++s.next;
            const size_t length = message.msg_len;
            if (length < kVnetHeaderSize || length > kSlotSize || (message.msg_hdr.msg_flags & MSG_TRUNC) != 0) {
                ++counters.dropped;
                continue;
            }
            const Nat::FrameOffload header = ParseVnetHeader(slot);
            if (!s.splitter.Start(header, slot + kVnetHeaderSize, length - kVnetHeaderSize, NdisApi::kMaxEtherFrame)) {
                ++counters.dropped;
                continue;
            }
            if (s.splitter.IsGso()) ++counters.gsoFrames;
            s.splitting = true;
            continue;
        }
        if (!Refill(s)) return false;
    }
}

bool LinuxFilterDriverApi::Adapter::Refill(CaptureSource& s) {
    bool errorSeen = false;
    for (;;) {
        for (auto& message : s.messages) message.msg_hdr.msg_flags = 0;
        const int received = recvmmsg(s.socket.Get(), s.messages.data(), kBatch, MSG_DONTWAIT, nullptr);
        if (received < 0 && errno == EINTR) continue;
        if (received < 0 && errno != EAGAIN && errno != EWOULDBLOCK && !errorSeen) {
            // A pending socket error (the interface went down or away) is reported before
            // queued frames; it is cleared now, so read once more.
            errorSeen = true;
            continue;
        }
        if (received <= 0) return false;
        s.count = static_cast<unsigned>(received);
        s.next = 0;
        return true;
    }
}

// Frames go out whole, super-frames included, with their offload state beside them.
size_t LinuxFilterDriverApi::Adapter::TakeFrames(CaptureSource& s, NativeNetworkDriver::CapturedFrame* frames,
                                                 size_t count) {
    size_t taken = 0;
    bool refilled = false;
    while (taken < count) {
        if (s.next == s.count) {
            // One socket read per call: the other socket gets its turn in between.
            if (refilled || !Refill(s)) break;
            refilled = true;
        }
        const mmsghdr& message = s.messages[s.next];
        const uint8_t* slot = s.storage.data() + static_cast<size_t>(s.next) * kSlotSize;
        ++s.next;
        const size_t length = message.msg_len;
        if (length < kVnetHeaderSize + 14 || length > kSlotSize || (message.msg_hdr.msg_flags & MSG_TRUNC) != 0) {
            ++counters.dropped;
            continue;
        }
        NativeNetworkDriver::CapturedFrame& out = frames[taken++];
        out.offload = ParseVnetHeader(slot);
        out.isSend = s.deviceFlags == NdisApi::PACKET_FLAG_ON_SEND;
        size_t frameLength = length - kVnetHeaderSize;
        const bool pad = s.padRunts && frameLength < kMinEtherFrame && !out.offload.Any();
        out.bytes.resize(pad ? kMinEtherFrame : frameLength);
        std::memcpy(out.bytes.data(), slot + kVnetHeaderSize, frameLength);
        if (pad) std::memset(out.bytes.data() + frameLength, 0, kMinEtherFrame - frameLength);
        if (out.offload.IsSuperFrame()) ++counters.gsoFrames;
        ++counters.framesRead;
    }
    return taken;
}

void LinuxFilterDriverApi::Adapter::Drain(CaptureSource& s) {
    s.Discard();
    // Bounded: under a flood the queue never empties.
    for (int round = 0; round < 1024; ++round) {
        const int received = recvmmsg(s.socket.Get(), s.messages.data(), kBatch, MSG_DONTWAIT, nullptr);
        if (received < 0 && errno == EINTR) continue;
        if (received <= 0) break;
    }
}

LinuxFilterDriverApi::LinuxFilterDriverApi(DiagnosticSink diagnostics) : diagnostics_(std::move(diagnostics)) {}

LinuxFilterDriverApi::~LinuxFilterDriverApi() {
    std::map<int, std::shared_ptr<Adapter>> adapters;
    {
        std::lock_guard<std::mutex> lock(adaptersMutex_);
        adapters.swap(adapters_);
    }
    for (auto& entry : adapters) {
        std::lock_guard<std::mutex> control(entry.second->controlMutex);
        if (entry.second->tunnel) CloseTunnel(*entry.second);
    }
}

std::shared_ptr<LinuxFilterDriverApi::Adapter> LinuxFilterDriverApi::Find(Handle handle) const {
    if (handle == 0 || handle > static_cast<Handle>(INT32_MAX)) return nullptr;
    std::lock_guard<std::mutex> lock(adaptersMutex_);
    const auto it = adapters_.find(static_cast<int>(handle));
    return it == adapters_.end() ? nullptr : it->second;
}

std::shared_ptr<LinuxFilterDriverApi::Adapter> LinuxFilterDriverApi::FindOrCreate(Handle handle) {
    if (handle == 0 || handle > static_cast<Handle>(INT32_MAX)) return nullptr;
    const int ifindex = static_cast<int>(handle);
    std::lock_guard<std::mutex> lock(adaptersMutex_);
    const auto it = adapters_.find(ifindex);
    if (it != adapters_.end()) return it->second;
    if (InterfaceName(ifindex).empty()) return nullptr;
    auto adapter = std::make_shared<Adapter>();
    adapter->ifindex = ifindex;
    adapter->wireSocket = MakeSendSocket(ifindex, Bpf::kMarkToWire, diagnostics_);
    adapter->stackSocket = MakeSendSocket(ifindex, Bpf::kMarkToStack, diagnostics_);
    if (!adapter->wireSocket.Valid() || !adapter->stackSocket.Valid()) return nullptr;
    adapters_.emplace(ifindex, adapter);
    return adapter;
}

bool LinuxFilterDriverApi::EnsurePrograms() {
    std::lock_guard<std::mutex> lock(programsMutex_);
    if (programs_.Loaded()) return true;
    int code = 0;
    std::string error;
    if (!Bpf::LoadTunnelPrograms(programs_, code, error)) {
        Report(diagnostics_, "Linux filter driver: loading the tcx programs failed: " + ErrnoText(code) + " " + error);
        return false;
    }
    return true;
}

bool LinuxFilterDriverApi::IsDriverLoaded() { return EnsurePrograms() && Bpf::HasNetAdmin(); }

bool LinuxFilterDriverApi::GetTcpipBoundAdaptersInfo(NdisApi::TCP_AdapterList* list) {
    if (list == nullptr) return false;
    std::memset(list, 0, sizeof(*list));
    const std::vector<InterfaceInfo> interfaces = ListInterfaces();
    uint32_t count = 0;
    for (const InterfaceInfo& info : interfaces) {
        if (count == NdisApi::kAdapterListSize) break;
        const std::string name = "\\DEVICE\\" + InterfaceGuidText(info.name);
        std::memcpy(list->m_szAdapterNameList[count], name.data(),
                    std::min<size_t>(name.size(), NdisApi::kAdapterNameSize - 1));
        list->m_nAdapterHandle[count] = static_cast<Handle>(info.ifindex);
        list->m_nAdapterMediumList[count] = 0;  // 802.3
        std::memcpy(list->m_czCurrentAddress[count], info.mac.data(), NdisApi::kEtherAddressLength);
        list->m_usMTU[count] = static_cast<uint16_t>(std::min<uint32_t>(info.mtu, 0xFFFF));
        ++count;
    }
    list->m_nAdapterCount = count;
    return true;
}

bool LinuxFilterDriverApi::SetAdapterMode(const NdisApi::ADAPTER_MODE* mode) {
    if (mode == nullptr) return false;
    const std::shared_ptr<Adapter> adapter = FindOrCreate(mode->hAdapterHandle);
    if (!adapter) return false;
    // Either tunnel flag gives the full tunnel: a half tunnel cannot be built from these parts.
    const bool want = (mode->dwFlags & kTunnelFlags) != 0;
    std::lock_guard<std::mutex> control(adapter->controlMutex);
    if (want == adapter->tunnel) return true;
    if (want) return OpenTunnel(*adapter);
    CloseTunnel(*adapter);
    return true;
}

bool LinuxFilterDriverApi::OpenTunnel(Adapter& adapter) {
    if (!EnsurePrograms()) return false;
    const std::string name = InterfaceName(adapter.ifindex);
    if (name.empty()) return false;

    // The interface's offloads stay as they are: super-frames travel whole.
    std::unique_ptr<CaptureSource> fromWire = MakeCaptureSource(adapter.ifindex, true);
    std::unique_ptr<CaptureSource> fromStack = MakeCaptureSource(adapter.ifindex, false);
    int code = 0;
    Bpf::Fd ingress;
    Bpf::Fd egress;
    if (fromWire && fromStack) {
        // Ingress first: until egress is attached the stack's frames still leave directly.
        ingress = Bpf::AttachTcx(programs_.ingress, adapter.ifindex, Bpf::kAttachTcxIngress, code);
        if (ingress.Valid()) egress = Bpf::AttachTcx(programs_.egress, adapter.ifindex, Bpf::kAttachTcxEgress, code);
    } else {
        code = errno;
    }
    if (!egress.Valid()) {
        Report(diagnostics_, "Linux filter driver: tunnel mode on " + name + " failed: " + ErrnoText(code));
        ingress.Reset();
        return false;
    }
    for (const Bpf::Fd& event : adapter.events) {
        for (const CaptureSource* source : {fromWire.get(), fromStack.get()}) {
            epoll_event ev{};
            ev.events = EPOLLIN;
            ev.data.fd = source->socket.Get();
            (void)epoll_ctl(event.Get(), EPOLL_CTL_ADD, source->socket.Get(), &ev);
        }
    }
    {
        std::lock_guard<std::mutex> read(adapter.readMutex);
        adapter.sources[0] = std::move(fromWire);
        adapter.sources[1] = std::move(fromStack);
        adapter.nextSource = 0;
        adapter.empty[0] = adapter.empty[1] = false;
    }
    adapter.ingressLink = std::move(ingress);
    adapter.egressLink = std::move(egress);
    adapter.tunnel = true;
    adapter.tunnelActive = true;
    return true;
}

void LinuxFilterDriverApi::CloseTunnel(Adapter& adapter) {
    // Egress first, so nothing the stack sends is turned round with no program to pass it up.
    adapter.egressLink.Reset();
    adapter.ingressLink.Reset();
    adapter.tunnelActive = false;
    std::unique_ptr<CaptureSource> sources[2];
    {
        std::lock_guard<std::mutex> read(adapter.readMutex);
        sources[0] = std::move(adapter.sources[0]);
        sources[1] = std::move(adapter.sources[1]);
    }
    for (const Bpf::Fd& event : adapter.events) {
        for (const auto& source : sources) {
            if (source) (void)epoll_ctl(event.Get(), EPOLL_CTL_DEL, source->socket.Get(), nullptr);
        }
    }
    adapter.tunnel = false;
}

bool LinuxFilterDriverApi::GetHwPacketFilter(Handle handle, uint32_t* filter) {
    if (filter == nullptr) return false;
    const std::shared_ptr<Adapter> adapter = FindOrCreate(handle);
    if (!adapter) return false;
    unsigned flags = 0;
    if (!InterfaceFlags(InterfaceName(adapter->ifindex), flags)) return false;
    uint32_t value = kNdisDirected | kNdisMulticast | kNdisBroadcast;
    if (flags & IFF_ALLMULTI) value |= kNdisAllMulticast;
    std::lock_guard<std::mutex> control(adapter->controlMutex);
    if (adapter->promiscuous || (flags & IFF_PROMISC)) value |= NdisApi::NDIS_PACKET_TYPE_PROMISCUOUS;
    *filter = value;
    return true;
}

bool LinuxFilterDriverApi::SetHwPacketFilter(Handle handle, uint32_t filter) {
    const std::shared_ptr<Adapter> adapter = FindOrCreate(handle);
    if (!adapter) return false;
    const bool want = (filter & NdisApi::NDIS_PACKET_TYPE_PROMISCUOUS) != 0;
    std::lock_guard<std::mutex> control(adapter->controlMutex);
    if (want == adapter->promiscuous) return InterfaceName(adapter->ifindex).size() > 0;
    packet_mreq request{};
    request.mr_ifindex = adapter->ifindex;
    request.mr_type = PACKET_MR_PROMISC;
    const int option = want ? PACKET_ADD_MEMBERSHIP : PACKET_DROP_MEMBERSHIP;
    if (setsockopt(adapter->wireSocket.Get(), SOL_PACKET, option, &request, sizeof(request)) != 0) return false;
    adapter->promiscuous = want;
    return true;
}

bool LinuxFilterDriverApi::SetPacketFilterTable(const NdisApi::STATIC_FILTER_TABLE* table) {
    if (table == nullptr || table->m_TableSize > kMaxFilterTableSize) return false;
    // Tunnel mode already hands every frame to user mode: only catch-all redirect filters
    // describe what happens; anything narrower cannot be honoured.
    const auto* bytes = reinterpret_cast<const uint8_t*>(table) + offsetof(NdisApi::STATIC_FILTER_TABLE, m_StaticFilters);
    for (uint32_t i = 0; i < table->m_TableSize; ++i) {
        NdisApi::STATIC_FILTER filter;
        std::memcpy(&filter, bytes + static_cast<size_t>(i) * sizeof(filter), sizeof(filter));
        if (filter.m_FilterAction != NdisApi::FILTER_PACKET_REDIRECT || filter.m_ValidFields != 0) return false;
    }
    return true;
}

bool LinuxFilterDriverApi::SetPacketEvent(Handle handle, Handle event) {
    const std::shared_ptr<Adapter> adapter = FindOrCreate(handle);
    if (!adapter) return false;
    // The event is the adapter's own epoll descriptor: nothing to register.
    if (event == 0) return true;
    std::lock_guard<std::mutex> control(adapter->controlMutex);
    return std::any_of(adapter->events.begin(), adapter->events.end(),
                       [event](const Bpf::Fd& fd) { return static_cast<Handle>(fd.Get()) == event; });
}

bool LinuxFilterDriverApi::ReadPacket(NdisApi::ETH_REQUEST* request) {
    if (request == nullptr || request->EthPacket == nullptr) return false;
    const std::shared_ptr<Adapter> adapter = Find(request->hAdapterHandle);
    if (!adapter) return false;
    std::lock_guard<std::mutex> read(adapter->readMutex);
    if (!adapter->sources[0] || !adapter->sources[1]) return false;
    // Alternate between the sockets so neither direction starves the other. A socket found
    // empty is skipped for a while rather than asked again for every frame of the other.
    if (++adapter->framesSinceRecheck >= kRecheckInterval) {
        adapter->framesSinceRecheck = 0;
        adapter->empty[0] = adapter->empty[1] = false;
    }
    for (unsigned i = 0; i < 2; ++i) {
        const unsigned index = (adapter->nextSource + i) % 2;
        if (adapter->empty[index]) continue;
        if (adapter->TakeFrame(*adapter->sources[index], *request)) {
            adapter->nextSource = (index + 1) % 2;
            return true;
        }
        adapter->empty[index] = true;
    }
    // Both empty: the next drain starts afresh (the event is level-triggered, so a frame
    // that came in on a skipped socket wakes the reader again at once).
    adapter->empty[0] = adapter->empty[1] = false;
    adapter->framesSinceRecheck = 0;
    return false;
}

size_t LinuxFilterDriverApi::ReadPackets(Handle handle, NativeNetworkDriver::CapturedFrame* frames, size_t count) {
    if (frames == nullptr || count == 0) return 0;
    const std::shared_ptr<Adapter> adapter = Find(handle);
    if (!adapter) return 0;
    std::lock_guard<std::mutex> read(adapter->readMutex);
    if (!adapter->sources[0] || !adapter->sources[1]) return 0;
    // Both sockets in turn, starting with the one that went second last time.
    size_t taken = 0;
    for (unsigned i = 0; i < 2 && taken < count; ++i) {
        taken += adapter->TakeFrames(*adapter->sources[(adapter->nextSource + i) % 2], frames + taken, count - taken);
    }
    adapter->nextSource = (adapter->nextSource + 1) % 2;
    return taken;
}

bool LinuxFilterDriverApi::SendFrame(Handle handle, const uint8_t* frame, size_t length,
                                     const Nat::FrameOffload& offload, bool toStack) {
    const size_t limit = offload.IsSuperFrame() ? Nat::kMaxSuperFrameSize : NdisApi::kMaxEtherFrame;
    if (frame == nullptr || length == 0 || length > limit) return false;
    const std::shared_ptr<Adapter> adapter = FindOrCreate(handle);
    if (!adapter) return false;
    // Without the egress program a frame marked for the stack would leave on the wire.
    if (toStack && !adapter->tunnelActive) return false;
    const int fd = toStack ? adapter->stackSocket.Get() : adapter->wireSocket.Get();
    uint8_t header[kVnetHeaderSize];
    WriteVnetHeader(offload, header);
    iovec parts[2] = {{header, sizeof(header)}, {const_cast<uint8_t*>(frame), length}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    for (;;) {
        const ssize_t sent = sendmsg(fd, &message, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        return sent == static_cast<ssize_t>(sizeof(header) + length);
    }
}

bool LinuxFilterDriverApi::Send(const NdisApi::ETH_REQUEST* request, bool toStack) {
    if (request == nullptr || request->EthPacket == nullptr) return false;
    return SendFrame(request->hAdapterHandle, request->EthPacket->m_IBuffer, request->EthPacket->m_Length, {},
                     toStack);
}

bool LinuxFilterDriverApi::SendPacketToAdapter(const NdisApi::ETH_REQUEST* request) { return Send(request, false); }

bool LinuxFilterDriverApi::SendPacketToMstcp(const NdisApi::ETH_REQUEST* request) { return Send(request, true); }

bool LinuxFilterDriverApi::FlushAdapterPacketQueue(Handle handle) {
    const std::shared_ptr<Adapter> adapter = FindOrCreate(handle);
    if (!adapter) return false;
    std::lock_guard<std::mutex> read(adapter->readMutex);
    for (auto& source : adapter->sources) {
        if (source) adapter->Drain(*source);
    }
    return true;
}

Handle LinuxFilterDriverApi::CreateAdapterEvent(Handle handle) {
    const std::shared_ptr<Adapter> adapter = FindOrCreate(handle);
    if (!adapter) return 0;
    Bpf::Fd event(epoll_create1(EPOLL_CLOEXEC));
    if (event.Get() == 0) {
        // Handle 0 means failure: move off descriptor 0.
        Bpf::Fd moved(fcntl(0, F_DUPFD_CLOEXEC, 1));
        event = std::move(moved);
    }
    if (!event.Valid()) return 0;
    std::lock_guard<std::mutex> control(adapter->controlMutex);
    std::lock_guard<std::mutex> read(adapter->readMutex);
    for (const auto& source : adapter->sources) {
        if (!source) continue;
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.fd = source->socket.Get();
        if (epoll_ctl(event.Get(), EPOLL_CTL_ADD, source->socket.Get(), &ev) != 0) return 0;
    }
    const Handle result = static_cast<Handle>(event.Get());
    adapter->events.push_back(std::move(event));
    return result;
}

void LinuxFilterDriverApi::CloseAdapterEvent(Handle handle, Handle event) {
    if (event == 0) return;
    std::vector<std::shared_ptr<Adapter>> candidates;
    if (auto adapter = Find(handle)) {
        candidates.push_back(adapter);
    } else {
        std::lock_guard<std::mutex> lock(adaptersMutex_);
        for (const auto& entry : adapters_) candidates.push_back(entry.second);
    }
    // Only descriptors this object created are closed.
    for (const auto& adapter : candidates) {
        std::lock_guard<std::mutex> control(adapter->controlMutex);
        auto& events = adapter->events;
        const auto it = std::find_if(events.begin(), events.end(),
                                     [event](const Bpf::Fd& fd) { return static_cast<Handle>(fd.Get()) == event; });
        if (it != events.end()) {
            events.erase(it);
            return;
        }
    }
}

LinuxFilterDriverApi::Counters LinuxFilterDriverApi::GetCounters(Handle handle) const {
    const std::shared_ptr<Adapter> adapter = Find(handle);
    if (!adapter) return Counters{};
    std::lock_guard<std::mutex> read(adapter->readMutex);
    return adapter->counters;
}

std::unique_ptr<NativeNetworkDriver::IFilterDriverApi> CreateLinuxFilterDriverApi(DiagnosticSink diagnostics) {
    return std::make_unique<LinuxFilterDriverApi>(std::move(diagnostics));
}

}  // namespace Platform
