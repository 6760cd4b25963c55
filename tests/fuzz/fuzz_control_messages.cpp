// libFuzzer target for the control-message decoder. The first byte picks the message
// type, the rest is its payload. Every payload either decodes or throws DecodingError; a
// decoded request encodes to bytes that decode to the same request (so nothing half-read survives), and its log line can be written.
#include <cstdint>
#include <cstdlib>

#include "NetworkDriver/Messages.h"

using namespace NativeNetworkDriver;

namespace {

// Decoding, and encoding what was decoded, reaches a fixed point after one round.
template <typename Decode>
void RoundTrip(const Bytes& payload, Decode decode) {
    const auto request = decode(payload);
    (void)ToLogLine(request);
    const Bytes once = Encode(request);
    if (Encode(decode(once)) != once) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const Bytes payload(data + 1, data + size);
    try {
        switch (data[0] % 11) {
            case kInitializeConfiguration: RoundTrip(payload, DecodeInitializeConfigurationRequest); break;
            case kStartVPN: RoundTrip(payload, DecodeStartVPNRequest); break;
            case kAddSupervisorMACToVPN: RoundTrip(payload, DecodeAddSupervisorMACToVPNRequest); break;
            case kRemoveSupervisorMACFromVPN: RoundTrip(payload, DecodeRemoveSupervisorMACFromVPNRequest); break;
            case kStartICS: RoundTrip(payload, DecodeStartICSRequest); break;
            case kStartNAT: RoundTrip(payload, DecodeStartNATRequest); break;
            default: break;
        }
    } catch (const DecodingError&) {
        // a refusal is as good an outcome as a decoded request
    }
    return 0;
}
