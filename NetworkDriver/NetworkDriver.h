#pragma once
#include <memory>
#include <string>

#include "NetworkDriver/Messages.h"
#include "NetworkDriver/PipeChannel.h"
#include "FilterDriver/FilterDriversPublisher.h"
#include "Packet/ArpCache.h"
#include "Sessions/ICS.h"
#include "Sessions/NAT.h"
#include "VPN/IVPNDataRead.h"
#include "VPN/VPN.h"

namespace NativeNetworkDriver {

// The root object: owns the pipe channel, the packet side and the sessions. The
// constructor runs the control pipe's read loop; the process lives as long as it does.
class NetworkDriver : public IVPNDataRead, private IPipeDataRead {
public:
    NetworkDriver();
    ~NetworkDriver() override;
    NetworkDriver(const NetworkDriver&) = delete;
    NetworkDriver& operator=(const NetworkDriver&) = delete;

    // A frame read from the virtual adapter, for the tunnel.
    void OnVPNDataRead(const Nat::Frame& frame) override;

    static std::string GetVersionString();

private:
    void OnPipeDataRead(const PipeMessage& message) override;
    void SendResult(uint32_t type, uint32_t result);
    void ReleaseArpCacheIfUnused();

    void OnInitializeConfiguration(const Bytes& payload);
    void OnStartVPN(const Bytes& payload);
    void OnAddSupervisorMAC(const Bytes& payload);
    void OnRemoveSupervisorMAC(const Bytes& payload);
    void OnStopVPN();
    void OnStartICS(const Bytes& payload);
    void OnStopICS();
    void OnStartNAT(const Bytes& payload);
    void OnStopNAT();

    std::unique_ptr<PipeChannel> pipe;
    std::unique_ptr<FilterDriversPublisher> publisher;
    std::unique_ptr<ArpCache> arpCache;
    std::unique_ptr<VPN> vpn;
    std::unique_ptr<NAT> nat;
    std::unique_ptr<ICS> ics;
};

}  // namespace NativeNetworkDriver
