#include "VPN/VPN.h"

#include <algorithm>
#include <array>

#include "FilterDriver/FilterDriversPublisher.h"
#include "Logging/Logger.h"

namespace NativeNetworkDriver {

namespace {

// An existing MAC against a new one, over the new one's length (two empty MACs are equal).
bool SameMac(const std::vector<uint8_t>& existing, const std::vector<uint8_t>& added) {
    return existing.size() >= added.size() && std::equal(added.begin(), added.end(), existing.begin());
}

}  // namespace

VPN::VPN(FilterDriversPublisher* publisher) : publisher_(publisher) {}

VPN::~VPN() {
    if (publisher_ != nullptr) publisher_->Unregister(this);
    state_ = VpnState::Closed;
    std::lock_guard lock(lock_);
    supervisors_.clear();
}

bool VPN::OnSentFragments(Nat::FragmentList& fragments, const Nat::FrameView&, const std::string&) {
    bool consumed = false;
    for (const auto& fragment : fragments) consumed = Classify(fragment) || consumed;
    return consumed;
}

bool VPN::OnSentFrame(Nat::Frame& frame, const Nat::FrameView&, const Nat::FrameOffload& offload, const std::string&) {
    return Classify(frame, offload);
}

bool VPN::OnReceivedFragments(Nat::FragmentList& fragments, const Nat::FrameView&, const std::string&) {
    bool consumed = false;
    for (const auto& fragment : fragments) consumed = Classify(fragment) || consumed;
    return consumed;
}

bool VPN::OnReceivedFrame(Nat::Frame& frame, const Nat::FrameView&,
                          const Nat::FrameOffload& offload, const std::string&) {
    return Classify(frame, offload);
}

void VPN::Open(const std::set<std::string>& guids) {
    if (state_ == VpnState::Failed) {
        if (publisher_ != nullptr) publisher_->Unregister(this);
        state_ = VpnState::Closed;
    }
    if (state_ == VpnState::Opened) {
        Log("Error opening VPN: drivers already opened.", LogLevel::Debug);
        state_ = VpnState::AlreadyOpened;
        return;
    }
    if (publisher_ == nullptr) {
        Log("Error opening VPN: publisher is NULL.", LogLevel::Debug);
        state_ = VpnState::Failed;
        return;
    }
    if (publisher_->Register(this, guids)) {
        state_ = VpnState::Opened;
        return;
    }
    Log("Error opening VPN: Publisher registration failed", LogLevel::Debug);
    publisher_->Unregister(this);
    state_ = VpnState::Failed;
}

std::vector<SupervisorEntry>::iterator VPN::FindSupervisor(const std::vector<uint8_t>& mac) {
    return std::find_if(supervisors_.begin(), supervisors_.end(),
                        [&mac](const SupervisorEntry& entry) { return SameMac(entry.mac, mac); });
}

void VPN::RecomputePromiscuous() {
    promiscuous_ = std::any_of(supervisors_.begin(), supervisors_.end(),
                               [](const SupervisorEntry& entry) { return entry.promiscuous; });
}

void VPN::AddSupervisorMAC(const SupervisorEntry& entry) {
    std::lock_guard lock(lock_);
    if (FindSupervisor(entry.mac) == supervisors_.end()) supervisors_.push_back(entry);
    RecomputePromiscuous();
}

void VPN::RemoveSupervisorMAC(const std::vector<uint8_t>& mac) {
    std::lock_guard lock(lock_);
    auto found = FindSupervisor(mac);
    if (found != supervisors_.end()) supervisors_.erase(found);
    RecomputePromiscuous();
}

bool VPN::IsPromiscuous() const {
    std::lock_guard lock(lock_);
    return promiscuous_;
}

std::vector<SupervisorEntry> VPN::Supervisors() const {
    std::lock_guard lock(lock_);
    return supervisors_;
}

// The tunnel carries wire frames only: a super-frame goes as the frames it stands for.
void VPN::ToTunnel(IVPNDataRead* reader, const Nat::Frame& frame, const Nat::FrameOffload& offload) {
    if (reader == nullptr) return;
    if (!offload.Any()) {
        reader->OnVPNDataRead(frame);
        return;
    }
    Nat::SuperFrameSplitter splitter;
    if (!splitter.Start(offload, frame.data(), frame.size(), Nat::kMaxFrameSize)) return;
    std::array<uint8_t, Nat::kMaxFrameSize> buffer;
    for (size_t n; (n = splitter.Next(buffer.data(), buffer.size())) > 0;) {
        segment_.assign(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(n));
        reader->OnVPNDataRead(segment_);
    }
}

bool VPN::Classify(const Nat::Frame& frame, const Nat::FrameOffload& offload) {
    std::lock_guard lock(lock_);
    IVPNDataRead* reader = reader_.load();
    if (Nat::IsGroupFrame(frame)) {
        ToTunnel(reader, frame, offload);
        return true;
    }
    for (const auto& supervisor : supervisors_) {
        if (!Nat::IsAddressedTo(frame, supervisor.mac)) continue;
        ToTunnel(reader, frame, offload);
        return true;
    }
    if (!promiscuous_) return false;
    // Promiscuous: the frame goes to the tunnel as well as on its local way, unless it is
    // for one of our own adapters.
    if (publisher_ != nullptr && !publisher_->FindGuidByMac(this, frame).empty()) return false;
    ToTunnel(reader, frame, offload);
    return false;
}

void VPN::SendFrame(const Nat::Frame& frame) {
    if (publisher_ == nullptr) return;
    if (Nat::IsGroupFrame(frame)) {
        publisher_->SendToAllAdapters(this, frame);
        return;
    }
    const std::string guid = publisher_->FindGuidByMac(this, frame);
    if (!guid.empty()) {
        (void)publisher_->WriteToAdapter(this, guid, frame, ToStack);
    } else if (!publisher_->HandleVirtualMachine()) {
        publisher_->WriteToAllAdapters(this, frame, ToAdapter);
    } else {
        publisher_->SendToAllAdapters(this, frame);
    }
}

}  // namespace NativeNetworkDriver
