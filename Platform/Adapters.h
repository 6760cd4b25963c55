#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace Platform {

// The machine's name for the adapter with this GUID, or "" when there is none.
std::string AdapterNameForGuid(const std::vector<uint8_t>& guid, const std::string& guidText);

}  // namespace Platform
