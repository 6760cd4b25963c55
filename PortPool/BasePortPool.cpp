#include "PortPool/BasePortPool.h"

#include <utility>

namespace PortPool {

BasePortPool::BasePortPool(Kind protocol, uint32_t count, std::set<uint32_t> customPorts)
    : count_(count), protocol_(protocol), customPorts_(std::move(customPorts)) {}

void BasePortPool::GetPorts(std::vector<uint32_t>& ports) { ports = ports_; }

}  // namespace PortPool
