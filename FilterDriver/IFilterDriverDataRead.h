#pragma once
#include <cstdint>

namespace NativeNetworkDriver {

class FilterDriver;

// Receives every frame an adapter's capture thread reads. The frame memory belongs to the
// capture thread and is valid only during the call.
class IFilterDriverDataRead {
public:
    virtual ~IFilterDriverDataRead() = default;
    // isSend: the frame was on its way out of the local stack; false: received from the wire.
    virtual void OnDataRead(const uint8_t* frame, uint32_t length, FilterDriver* source, bool isSend) = 0;
};

}  // namespace NativeNetworkDriver
