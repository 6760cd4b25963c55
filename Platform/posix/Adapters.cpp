#include "Platform/Adapters.h"

#include <net/if.h>

namespace Platform {

// On Linux an adapter's GUID is its interface name, zero-padded to 16 bytes.
std::string AdapterNameForGuid(const std::vector<uint8_t>& guid, const std::string& /*guidText*/) {
    std::string name;
    for (uint8_t b : guid) {
        if (b == 0) break;
        name.push_back(static_cast<char>(b));
    }
    if (name.empty() || name.size() >= IF_NAMESIZE) return {};
    return if_nametoindex(name.c_str()) != 0 ? name : std::string();
}

}  // namespace Platform
