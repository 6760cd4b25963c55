#pragma once
#include <cstdint>
#include <set>
#include <vector>

#include "PortPool/IPortPool.h"

namespace PortPool {

// The data every pool keeps; how ports get reserved is the subclass's business.
class BasePortPool : public IPortPool {
public:
    BasePortPool(Kind protocol, uint32_t count, std::set<uint32_t> customPorts);
    void GetPorts(std::vector<uint32_t>& ports) override;

protected:
    uint32_t count_;                  // pool ports to reserve
    Kind protocol_;  // TCP or UDP ports, or ICMP echo identifiers
    std::set<uint32_t> customPorts_;  // held as well, but never handed out
    std::vector<uint32_t> ports_;     // the reserved pool ports, in reservation order
};

}  // namespace PortPool
