#include "Sessions/TranslationSession.h"

#include <array>
#include <limits>

#include "FilterDriver/FilterDriversPublisher.h"
#include "Logging/Logger.h"
#include "Packet/ArpTable.h"
#include "Platform/SocketStartup.h"

namespace NativeNetworkDriver {

namespace {

bool InSubnet(const Nat::IpEntry& entry, const std::vector<uint8_t>& ip) {
    if (entry.address.size() != 4 || entry.mask.size() != 4 || ip.size() != 4) return false;
    for (size_t i = 0; i < 4; ++i)
        if ((entry.address[i] & entry.mask[i]) != (ip[i] & entry.mask[i])) return false;
    return true;
}

template <size_t N>
std::array<uint8_t, N> ToArray(const std::vector<uint8_t>& bytes) {
    std::array<uint8_t, N> out{};
    for (size_t i = 0; i < N && i < bytes.size(); ++i) out[i] = bytes[i];
    return out;
}

}  // namespace

TranslationSession::TranslationSession(std::string word, FilterDriversPublisher* publisher, IArpCache* arpCache)
    : word_(std::move(word)), publisher_(publisher), arpCache_(arpCache) {}

TranslationSession::~TranslationSession() {
    Unsubscribe();
    engine_.reset();
    tcpPool_.reset();
    udpPool_.reset();
    icmpPool_.reset();
}

void TranslationSession::Unsubscribe() {
    // Off the publisher first: its dispatch thread offers frames under the lock that
    // Unregister takes, so no frame reaches this session afterwards.
    if (publisher_ != nullptr && publisherRegistered_) publisher_->Unregister(this);
    publisherRegistered_ = false;
    if (arpCache_ != nullptr && arpRegistered_) arpCache_->UnregisterDrivers(this);
    arpRegistered_ = false;
}

bool TranslationSession::ReservePorts(const OpenSettings& settings) {
    const int socketError = Platform::StartSockets();
    if (socketError != 0) {
        Log(word_ + ": error initializing Winsock, error code: " + std::to_string(socketError), LogLevel::Error);
        return false;
    }
    try {
        tcpPool_ = std::make_unique<PortPool::SocketPortPool>(PortPool::Kind::Tcp, settings.tcpPoolSize,
                                                              settings.customTcpPorts);
        udpPool_ = std::make_unique<PortPool::SocketPortPool>(PortPool::Kind::Udp, settings.udpPoolSize,
                                                              settings.customUdpPorts);
    } catch (const std::exception&) {
        // A published port that another program holds: the session cannot come up. The
        // open sequence's own line reports it.
        return false;
    }
    std::vector<uint32_t> tcp, udp;
    tcpPool_->GetPorts(tcp);
    udpPool_->GetPorts(udp);
    bool ok = true;
    if (tcp.size() < settings.tcpPoolSize) {
        Log(word_ + ": error reserving TCP ports, required: " + std::to_string(settings.tcpPoolSize) +
                " reserved: " + std::to_string(tcp.size()), LogLevel::Error);
        ok = false;
    }
    if (udp.size() < settings.udpPoolSize) {
        Log(word_ + ": error reserving UDP ports, required: " + std::to_string(settings.udpPoolSize) +
                " reserved: " + std::to_string(udp.size()), LogLevel::Error);
        ok = false;
    }
    return ok;
}

// As many echo identifiers as UDP ports. Not a failure of the session when the system
// refuses them: the engine then keeps the UDP port numbers (see Nat/IcmpTranslation.cpp).
std::vector<uint32_t> TranslationSession::ReserveEchoIdentifiers(uint32_t count) {
    std::vector<uint32_t> identifiers;
    try {
        icmpPool_ = std::make_unique<PortPool::SocketPortPool>(PortPool::Kind::Icmp, count, std::set<uint32_t>{});
        icmpPool_->GetPorts(identifiers);
    } catch (const std::exception&) {
    }
    if (identifiers.size() < count) {
        Log(word_ + ": error reserving ICMP identifiers, required: " + std::to_string(count) +
                " reserved: " + std::to_string(identifiers.size()), LogLevel::Info);
    }
    return identifiers;
}

void TranslationSession::Open(const OpenSettings& settings, const EngineFactory& buildEngine) {
    if (publisher_ == nullptr) return;
    for (const auto& a : settings.internalAdapters) internalGuids_.insert(a.id);
    for (const auto& a : settings.externalAdapters) externalGuids_.insert(a.id);
    adapters_ = settings.externalAdapters;
    adapters_.insert(adapters_.end(), settings.internalAdapters.begin(), settings.internalAdapters.end());

    Log(word_ + ": Reserving TCP/UDP ports", LogLevel::Info);
    if (!ReservePorts(settings)) {
        Log("Error opening " + word_ + ": error reserving TCP/UDP ports", LogLevel::Error);
        return;
    }
    Log(word_ + ": TCP/UDP ports successfully reserved", LogLevel::Info);

    Log("Initializing " + word_ + " process", LogLevel::Info);
    try {
        std::vector<uint32_t> tcp, udp;
        tcpPool_->GetPorts(tcp);
        udpPool_->GetPorts(udp);
        engine_ = buildEngine(tcp, udp);
        if (engine_) engine_->UseEchoIdentifiers(ReserveEchoIdentifiers(settings.udpPoolSize));
    } catch (...) {
        engine_.reset();
    }
    if (!engine_) {
        Log("Error opening " + word_ + ": error initializing NAT process", LogLevel::Error);  // "NAT" in both sessions
        return;
    }
    Log(word_ + " process successfully initialized", LogLevel::Info);

    std::set<std::string> guids = internalGuids_;
    guids.insert(externalGuids_.begin(), externalGuids_.end());
    Log(word_ + ": Registering to ArpCache", LogLevel::Info);
    arpRegistered_ = arpCache_ != nullptr;
    if (arpCache_ == nullptr || !arpCache_->RegisterDrivers(this, guids)) {
        Log("Error opening " + word_ + ": ArpCache registration failed", LogLevel::Error);
        Unsubscribe();
        engine_.reset();
        return;
    }
    Log(word_ + ": registering drivers", LogLevel::Info);
    publisherRegistered_ = true;
    if (!publisher_->Register(this, guids)) {
        Log("Error opening " + word_ + ": Publisher registration failed", LogLevel::Error);
        // The adapters registered before the refused one are given back at once.
        Unsubscribe();
        engine_.reset();
        return;
    }
    Log(word_ + ": drivers successfully registered", LogLevel::Info);
}

const Nat::AdapterInfo* TranslationSession::AdapterByMac(const std::vector<uint8_t>& mac) const {
    for (const auto& a : adapters_)
        if (a.mac == mac) return &a;
    return nullptr;
}

// The ARP request leaves on the adapter the frame was to leave on: the exception names it
// by MAC, and that adapter faces the address. Its sender address is the adapter's own
// address in the target's subnet, or its first address.
void TranslationSession::RequestMac(const Nat::UnknownMacException& unknown) {
    const Nat::AdapterInfo* adapter = AdapterByMac(unknown.adapterMac);
    if (adapter == nullptr || adapter->ips.empty() || unknown.resolveIp.size() != 4) return;
    const Nat::IpEntry* source = &adapter->ips.front();
    for (const auto& entry : adapter->ips)
        if (InSubnet(entry, unknown.resolveIp)) {
            source = &entry;
            break;
        }
    const Nat::Frame request =
        BuildArpRequest(ToArray<6>(adapter->mac), ToArray<4>(source->address), ToArray<4>(unknown.resolveIp));
    publisher_->SendToAdapter(this, adapter->id, request);
}

template <typename Step>
bool TranslationSession::Guarded(bool inbound, Step&& step) {
    const char* way = inbound ? "external to internal" : "internal to external";
    try {
        step();
        return true;
    } catch (const Nat::UnknownMacException& unknown) {
        // The ARP cache holds the frame; it comes back through the publisher once resolved.
        RequestMac(unknown);
    } catch (const Nat::Exception& e) {
        Log(std::string("Error translating a NAT packet from ") + way + ": " + e.Message(), LogLevel::Error);
    } catch (...) {
        Log(std::string("Error translating a NAT packet from ") + way, LogLevel::Error);
    }
    return false;
}

int TranslationSession::Side(const std::string& guid) const {
    if (!engine_) return -1;
    if (externalGuids_.count(guid) != 0) return 1;
    return internalGuids_.count(guid) != 0 ? 0 : -1;
}

// Each wire frame is translated as if it had come alone, so a payload rewrite sees whole
// segments and the wire carries what it would without offloads. The super-frame's decision
// holds for all of them.
void TranslationSession::TranslateSegments(const Nat::Decision& decision, bool inbound, const Nat::Frame& frame,
                                           const Nat::FrameOffload& offload, const std::string& guid) {
    Nat::SuperFrameSplitter splitter;
    if (!splitter.Start(offload, frame.data(), frame.size(), Nat::kMaxFrameSize)) return;
    std::array<uint8_t, Nat::kMaxFrameSize> buffer;
    for (size_t n; (n = splitter.Next(buffer.data(), buffer.size())) > 0;) {
        segment_.assign(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(n));
        const Nat::FrameView view = Nat::ReadFrameView(segment_);
        (void)Guarded(inbound, [&] {
            const Nat::AdapterInfo& out = engine_->Apply(decision, inbound, segment_, view, guid);
            publisher_->SendToAdapter(this, out.id, segment_);
        });
    }
}

// A frame the engine claimed and then failed on, in deciding as in translating, is
// dropped: true (consumed) unless the engine said it is not its own.
bool TranslationSession::OnReceivedFrame(Nat::Frame& frame, const Nat::FrameView& view,
                                         const Nat::FrameOffload& offload, const std::string& guid) {
    const int side = Side(guid);
    if (side < 0 || !view.Translatable()) return false;
    const bool inbound = side == 1;
    bool mine = true;
    (void)Guarded(inbound, [&] {
        const bool partial = offload.PartialChecksum();
        if (offload.Any() && engine_->RewritesPayloads()) {
            // A payload may be rewritten: a DNAT super-frame goes as wire frames.
            const Nat::Decision decision = engine_->Decide(inbound, frame, view);
            mine = decision.kind != Nat::TranslationKind::None;
            if (!mine) return;
            if (decision.kind == Nat::TranslationKind::Dnat) {
                TranslateSegments(decision, inbound, frame, offload, guid);
                return;
            }
            const Nat::AdapterInfo& out = engine_->Apply(decision, inbound, frame, view, guid, partial);
            publisher_->SendToAdapter(this, out.id, frame, offload);
            return;
        }
        const Nat::AdapterInfo* out = engine_->Translate(inbound, frame, view, guid, partial);
        mine = out != nullptr;
        if (mine) publisher_->SendToAdapter(this, out->id, frame, offload);
    });
    return mine;
}

// The first fragment decides; the others follow it.
bool TranslationSession::OnReceivedFragments(Nat::FragmentList& fragments, const Nat::FrameView& head,
                                             const std::string& guid) {
    const int side = Side(guid);
    if (side < 0 || fragments.empty() || !head.Translatable()) return false;
    const bool inbound = side == 1;
    bool mine = true;
    (void)Guarded(inbound, [&] {
        const Nat::AdapterInfo* out = engine_->Translate(inbound, fragments, head, guid);
        mine = out != nullptr;
        if (mine)
            for (const auto& fragment : fragments) publisher_->SendToAdapter(this, out->id, fragment);
    });
    return mine;
}

}  // namespace NativeNetworkDriver
