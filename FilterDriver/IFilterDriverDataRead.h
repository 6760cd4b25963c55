#pragma once
#include <cstddef>
#include <cstdint>

#include "FilterDriver/IFilterDriverApi.h"

namespace NativeNetworkDriver {

class FilterDriver;

// Receives every frame an adapter's capture thread reads. The frame memory belongs to the
// capture thread and is valid only during the call.
class IFilterDriverDataRead {
public:
    virtual ~IFilterDriverDataRead() = default;
    // isSend: the frame was on its way out of the local stack; false: received from the wire.
    virtual void OnDataRead(const uint8_t* frame, uint32_t length, FilterDriver* source, bool isSend) = 0;
    // A batch read in one go: what the capture thread calls. The reader may swap a frame's
    // bytes with a vector of its own (the capture thread reuses whatever it gets back).
    // Readers that take frames one by one get them through OnDataRead.
    virtual void OnFramesRead(CapturedFrame* frames, size_t count, FilterDriver* source) {
        for (size_t i = 0; i < count; ++i) {
            const Nat::Frame& bytes = frames[i].bytes;
            OnDataRead(bytes.data(), static_cast<uint32_t>(bytes.size()), source, frames[i].isSend);
        }
    }
};

}  // namespace NativeNetworkDriver
