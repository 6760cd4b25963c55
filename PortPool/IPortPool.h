#pragma once
#include <cstdint>
#include <vector>

namespace PortPool {

// What a pool holds: TCP or UDP ports, or ICMP echo identifiers (held by ping sockets).
enum class Kind : uint32_t { Tcp = 0, Udp = 1, Icmp = 2 };

// A set of ports held for the translator so that the system does not hand them out.
class IPortPool {
public:
    virtual ~IPortPool() = default;
    // Copies the pool's ports, in reservation order, into `ports`.
    virtual void GetPorts(std::vector<uint32_t>& ports) = 0;
};

}  // namespace PortPool
