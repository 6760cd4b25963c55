#include "PeerChannel.h"

#include <iostream>

#include "NetworkDriver/Encoding.h"

namespace ndpeer {

bool PeerChannel::Send(uint32_t type, const std::vector<uint8_t>& payload) {
    std::vector<uint8_t> bytes = NativeNetworkDriver::EncodeHeader(type, static_cast<uint32_t>(payload.size()));
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return SendRaw(bytes);
}

bool PeerChannel::Receive(Message& message, int timeoutMs) {
    if (closed_) return false;
    std::vector<uint8_t> header(11);
    if (!ReadExactly(header.data(), header.size(), timeoutMs)) return false;
    uint32_t length = 0;
    try {
        NativeNetworkDriver::Decoder decoder(header, 1);
        message.type = decoder.ReadEnum32();
        length = decoder.ReadUInt32();
    } catch (const std::exception& e) {
        std::cerr << "malformed header from the daemon: " << e.what() << std::endl;
        closed_ = true;
        return false;
    }
    message.header = header;
    message.payload.assign(length, 0);
    // Once a header is in, its payload follows at once.
    return length == 0 || ReadExactly(message.payload.data(), length, 10000);
}

}  // namespace ndpeer
