#pragma once
#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Packet/IFilterDriversSubscriber.h"
#include "Packet/Frame.h"
#include "Packet/SuperFrame.h"
#include "VPN/IVPNDataRead.h"

namespace NativeNetworkDriver {

class FilterDriversPublisher;

enum class VpnState : uint32_t {
    Failed = 0,         // the last open failed; the next open unregisters first
    Opened = 1,         // registered on the adapters
    Closed = 2,         // constructed, or cleaned up
    AlreadyOpened = 3,  // an open was attempted while opened; the registration stands
};

// A remote supervisor's MAC address (as received) and whether it wants every frame.
struct SupervisorEntry {
    std::vector<uint8_t> mac;
    bool promiscuous = false;
};

// Bridges Ethernet frames between the tunnel and the local adapters of the start request.
// Towards the tunnel: group frames, frames to a supervisor's MAC, and in promiscuous mode
// unicast frames for other hosts. From the tunnel: to the wire or to the local stack by
// destination MAC.
class VPN : public IFilterDriversSubscriber {
public:
    explicit VPN(FilterDriversPublisher* publisher);
    ~VPN() override;

    VPN(const VPN&) = delete;
    VPN& operator=(const VPN&) = delete;

    bool OnSentFragments(Nat::FragmentList& fragments, const Nat::FrameView&, const std::string& guid) override;
    bool OnSentFrame(Nat::Frame& frame, const Nat::FrameView&,
                     const Nat::FrameOffload& offload, const std::string& guid) override;
    bool OnReceivedFragments(Nat::FragmentList& fragments, const Nat::FrameView&, const std::string& guid) override;
    bool OnReceivedFrame(Nat::Frame& frame, const Nat::FrameView&,
                         const Nat::FrameOffload& offload, const std::string& guid) override;

    void Open(const std::set<std::string>& guids);
    VpnState State() const { return state_; }

    void AddSupervisorMAC(const SupervisorEntry& entry);
    void RemoveSupervisorMAC(const std::vector<uint8_t>& mac);
    bool IsPromiscuous() const;
    std::vector<SupervisorEntry> Supervisors() const;

    // A frame from the tunnel (pipe thread).
    void SendFrame(const Nat::Frame& frame);
    void SetReader(IVPNDataRead* reader) { reader_ = reader; }

    // True when the frame is consumed (sent to the tunnel only).
    bool Classify(const Nat::Frame& frame, const Nat::FrameOffload& offload = {});

private:
    void RecomputePromiscuous();
    void ToTunnel(IVPNDataRead* reader, const Nat::Frame& frame, const Nat::FrameOffload& offload);
    std::vector<SupervisorEntry>::iterator FindSupervisor(const std::vector<uint8_t>& mac);

    FilterDriversPublisher* publisher_;
    std::atomic<IVPNDataRead*> reader_{nullptr};  // set on the control thread, read on the dispatch thread
    VpnState state_ = VpnState::Closed;
    std::vector<SupervisorEntry> supervisors_;
    bool promiscuous_ = false;
    mutable std::recursive_mutex lock_;
    Nat::Frame segment_;  // one wire frame of a super-frame on its way to the tunnel; under lock_
};

}  // namespace NativeNetworkDriver
