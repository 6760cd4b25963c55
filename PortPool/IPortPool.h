#pragma once
#include <cstdint>
#include <vector>

namespace PortPool {

// Protocol numbers of a pool.
inline constexpr uint32_t kTcp = 0;
inline constexpr uint32_t kUdp = 1;
inline constexpr uint32_t kIcmp = 2;  // ICMP echo identifiers, held by ping sockets

// A set of ports held for the translator so that the system does not hand them out.
class IPortPool {
public:
    virtual ~IPortPool() = default;
    // Copies the pool's ports, in reservation order, into `ports`.
    virtual void GetPorts(std::vector<uint32_t>& ports) = 0;
};

}  // namespace PortPool
