#pragma once
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "Platform/PortSockets.h"
#include "PortPool/BasePortPool.h"

namespace PortPool {

// Holds ports (or ICMP echo identifiers) by keeping a socket bound to each for the pool's lifetime. Pool ports are
// whatever the system picks; custom ports are held too but not handed out.
class SocketPortPool : public BasePortPool {
public:
    // Reserves at once. A custom port that cannot be held throws std::runtime_error (and
    // nothing stays open); a pool port that cannot be had is logged and skipped, so the
    // pool may hold fewer than `count` ports.
    SocketPortPool(Kind protocol, uint32_t count, const std::set<uint32_t>& customPorts);
    ~SocketPortPool() override;
    SocketPortPool(const SocketPortPool&) = delete;
    SocketPortPool& operator=(const SocketPortPool&) = delete;

    virtual void ReservePorts();
    virtual void FreePorts();

private:
    Platform::SocketHandle CreateSocket(uint32_t port) const;
    std::string ProtocolName() const;
    void CloseAll();

    std::vector<Platform::SocketHandle> sockets_;  // custom ports first, then pool ports
};

}  // namespace PortPool
