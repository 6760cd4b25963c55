#include "Packet/ArpTable.h"

#include <algorithm>
#include <utility>

#include "Logging/Logger.h"
#include "Packet/NatException.h"
#include "Packet/PacketUtils.h"
#include "Platform/Platform.h"

namespace NativeNetworkDriver {

namespace {

constexpr uint32_t kEntryLifetimeMs = 30000;     // a binding is trusted this long after its reply
constexpr uint32_t kHeldLifetimeMs = 5000;       // older held frames are not worth sending
constexpr uint32_t kCleanupIntervalMs = 120000;
constexpr size_t kMaxHeldPerAddress = 10;

std::string Dotted(const Nat::Ipv4Address& ip) {
    return Nat::PacketUtils::FromVectorToIpString(Nat::PacketUtils::Bytes(ip.begin(), ip.end()));
}

}  // namespace

ArpTable::ArpTable(Clock clock) : clock_(clock ? std::move(clock) : Clock(&Platform::TickCount)) {
    lastCleanup_ = clock_();
}

std::optional<Nat::MacAddress> ArpTable::ResolveOrHold(const Nat::Ipv4Address& ip, const Nat::Frame& frame,
                                                       const std::string& adapterGuid,
                                                       const std::set<Nat::Frame>& fragments,
                                                       bool partialChecksum) {
    const auto held = [&](uint32_t now) {
        UnresolvedPacket packet{frame, fragments, adapterGuid, now};
        if (partialChecksum) {
            try {
                Nat::PacketUtils::FixTransportHeaderChecksum(packet.frame);
            } catch (const Nat::Exception&) {
            }
        }
        return packet;
    };
    std::lock_guard lock(lock_);
    const uint32_t now = clock_();
    auto it = entries_.find(ip);
    if (it != entries_.end()) {
        ArpEntry& entry = it->second;
        if (now - entry.updated < kEntryLifetimeMs) {
            if (entry.mac) return entry.mac;
            if (entry.packets.size() >= kMaxHeldPerAddress) {
                std::erase_if(entry.packets,
                              [now](const UnresolvedPacket& p) { return now - p.added >= kHeldLifetimeMs; });
                if (entry.packets.size() >= kMaxHeldPerAddress) entry.packets.erase(entry.packets.begin());
            }
            entry.packets.push_back(held(now));
            LogChange("Added unresolved packet to Arp cache", &ip);
            return std::nullopt;
        }
        entries_.erase(it);
        LogChange("Removed entry from Arp cache", &ip);
    }
    ArpEntry entry;
    entry.packets.push_back(held(now));
    entry.updated = now;
    entries_.emplace(ip, std::move(entry));
    LogChange("Added entry to Arp cache", &ip);
    return std::nullopt;
}

void ArpTable::LearnFromArpReply(const Nat::Ipv4Address& ip, const Nat::MacAddress& mac) {
    std::lock_guard lock(lock_);
    const uint32_t now = clock_();
    auto it = entries_.find(ip);
    if (it == entries_.end()) {
        ArpEntry entry;
        entry.mac = mac;
        entry.updated = now;
        entries_.emplace(ip, std::move(entry));
        LogChange("Added entry to Arp cache", &ip);
    } else {
        ArpEntry& entry = it->second;
        entry.mac = mac;
        std::vector<UnresolvedPacket> released;
        for (UnresolvedPacket& p : entry.packets)
            if (now - p.added < kHeldLifetimeMs) released.push_back(std::move(p));
        entry.packets.clear();
        entry.updated = now;
        LogChange("Updated MAC address for Arp entry", &ip);
        // Still under the lock: a released frame may come straight back here on this thread.
        if (subscriber_ != nullptr) {
            for (const UnresolvedPacket& p : released) {
                if (!p.fragments.empty())
                    subscriber_->OnResolvedFragments(p.fragments, p.adapterGuid);
                else
                    subscriber_->OnResolvedFrame(p.frame, p.adapterGuid);
            }
        }
    }
    Cleanup();
}

void ArpTable::Cleanup() {
    const uint32_t now = clock_();
    if (now - lastCleanup_ < kCleanupIntervalMs) return;
    for (auto it = entries_.begin(); it != entries_.end();) {
        if (now - it->second.updated >= kEntryLifetimeMs) {
            it = entries_.erase(it);
            LogChange("Removed entry from Arp cache by Cleanup", nullptr);
        } else {
            ++it;
        }
    }
    lastCleanup_ = now;
}

std::string ArpTable::ToString() const {
    std::lock_guard lock(lock_);
    return DumpLocked();
}

std::string ArpTable::DumpLocked() const {
    std::string text;
    for (const auto& [ip, entry] : entries_) {
        const std::string mac =
            entry.mac ? Nat::PacketUtils::FromVectorToHexString(Nat::PacketUtils::Bytes(entry.mac->begin(), entry.mac->end()), "::")
                      : std::string();
        text += "IP " + Dotted(ip) + " " + "MAC " + mac + " " + " unresolved packets count: " +
                std::to_string(entry.packets.size()) + "\n";
    }
    return text;
}

void ArpTable::LogChange(const std::string& what, const Nat::Ipv4Address* ip) const {
    if (!DebugEnabled()) return;
    std::string text = what;
    if (ip != nullptr) text += " (" + Dotted(*ip) + ")";
    text += "\n";
    text += DumpLocked();
    Log(text, LogLevel::Debug);
}

void ArpTable::Subscribe(Nat::IResolvedPacketSubscriber* subscriber) {
    std::lock_guard lock(lock_);
    if (subscriber_ != nullptr) throw Nat::Exception("Subscription for Arp resolved packets already done.");
    subscriber_ = subscriber;
}

void ArpTable::Unsubscribe(Nat::IResolvedPacketSubscriber* subscriber) {
    std::lock_guard lock(lock_);
    if (subscriber_ == subscriber) subscriber_ = nullptr;
}

Nat::Frame BuildArpRequest(const Nat::MacAddress& senderMac, const Nat::Ipv4Address& senderIp,
                           const Nat::Ipv4Address& targetIp) {
    Nat::Frame frame(60, 0);
    std::fill(frame.begin(), frame.begin() + 6, 0xFF);
    std::copy(senderMac.begin(), senderMac.end(), frame.begin() + 6);
    const uint8_t fixed[] = {0x08, 0x06,   // EtherType ARP
                             0x00, 0x01,   // hardware: Ethernet
                             0x08, 0x00,   // protocol: IPv4
                             6,    4,      // address lengths
                             0x00, 0x01};  // request
    std::copy(std::begin(fixed), std::end(fixed), frame.begin() + 12);
    std::copy(senderMac.begin(), senderMac.end(), frame.begin() + 22);
    std::copy(senderIp.begin(), senderIp.end(), frame.begin() + 28);
    std::copy(targetIp.begin(), targetIp.end(), frame.begin() + 38);
    return frame;
}

}  // namespace NativeNetworkDriver
