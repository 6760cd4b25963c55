#include "Platform/Adapters.h"

#include <winsock2.h>
#include <iphlpapi.h>
#include <windows.h>

namespace Platform {

std::string AdapterNameForGuid(const std::vector<uint8_t>& /*guid*/, const std::string& guidText) {
    ULONG size = 15000;
    std::vector<uint8_t> buffer(size);
    ULONG result = ERROR_BUFFER_OVERFLOW;
    for (int attempt = 0; attempt < 3 && result == ERROR_BUFFER_OVERFLOW; ++attempt) {
        buffer.resize(size);
        result = GetAdaptersAddresses(AF_UNSPEC, 0, nullptr, reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()),
                                      &size);
    }
    if (result != NO_ERROR) return {};
    for (auto* a = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()); a != nullptr; a = a->Next) {
        if (a->AdapterName == nullptr || _stricmp(a->AdapterName, guidText.c_str()) != 0) continue;
        std::string name;
        for (const wchar_t* p = a->FriendlyName; p != nullptr && *p != 0; ++p) name.push_back(static_cast<char>(*p));
        return name;
    }
    return {};
}

}  // namespace Platform
