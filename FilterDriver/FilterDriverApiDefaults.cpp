// The batch and offload calls of a driver client that has only the single-frame calls.
#include <cstring>

#include "FilterDriver/IFilterDriverApi.h"

namespace NativeNetworkDriver {

namespace {

// Resizes without clearing what is about to be overwritten: a vector that held a longer
// frame before only shrinks.
void CopyInto(Nat::Frame& bytes, const uint8_t* data, size_t length) {
    bytes.resize(length);
    if (length != 0) std::memcpy(bytes.data(), data, length);
}

}  // namespace

size_t IFilterDriverApi::ReadPackets(NdisApi::Handle adapter, CapturedFrame* frames, size_t count) {
    NdisApi::INTERMEDIATE_BUFFER buffer;
    buffer.m_Length = 0;
    NdisApi::ETH_REQUEST request{adapter, &buffer};
    size_t read = 0;
    while (read < count && ReadPacket(&request)) {
        if (buffer.m_Length > NdisApi::kMaxEtherFrame) continue;
        CapturedFrame& out = frames[read++];
        CopyInto(out.bytes, buffer.m_IBuffer, buffer.m_Length);
        out.offload = {};
        out.isSend = buffer.m_dwDeviceFlags == NdisApi::PACKET_FLAG_ON_SEND;
    }
    return read;
}

bool IFilterDriverApi::SendFrame(NdisApi::Handle adapter, const uint8_t* frame, size_t length,
                                 const Nat::FrameOffload& offload, bool toStack) {
    NdisApi::INTERMEDIATE_BUFFER buffer;
    std::memset(&buffer, 0, offsetof(NdisApi::INTERMEDIATE_BUFFER, m_IBuffer));
    const NdisApi::ETH_REQUEST request{adapter, &buffer};
    const auto send = [&] { return toStack ? SendPacketToMstcp(&request) : SendPacketToAdapter(&request); };
    if (!offload.Any()) {
        if (length > NdisApi::kMaxEtherFrame) return false;
        if (length != 0) std::memcpy(buffer.m_IBuffer, frame, length);
        buffer.m_Length = static_cast<uint32_t>(length);
        return send();
    }
    Nat::SuperFrameSplitter splitter;
    if (!splitter.Start(offload, frame, length, NdisApi::kMaxEtherFrame)) return false;
    bool all = true;
    for (size_t n; (n = splitter.Next(buffer.m_IBuffer, sizeof(buffer.m_IBuffer))) > 0;) {
        buffer.m_Length = static_cast<uint32_t>(n);
        all = send() && all;
    }
    return all;
}

}  // namespace NativeNetworkDriver
