#pragma once
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Nat {

// The translation layer's error: one message text. Deliberately not a std::exception,
// so that session boundaries catch it separately from everything else.
class Exception {
public:
    explicit Exception(std::string message) : message_(std::move(message)) {}
    virtual ~Exception() = default;
    const std::string& Message() const { return message_; }

private:
    std::string message_;
};

// The next-hop MAC is not known yet. The ARP cache already holds the frame; the session
// sends an ARP request for `resolveIp` out of the adapter whose MAC is `adapterMac`.
class UnknownMacException : public Exception {
public:
    UnknownMacException(std::string message, std::vector<uint8_t> adapterMac, std::vector<uint8_t> resolveIp,
                        std::vector<uint8_t> destinationIp, std::string adapterName)
        : Exception(std::move(message)),
          adapterMac(std::move(adapterMac)),
          resolveIp(std::move(resolveIp)),
          destinationIp(std::move(destinationIp)),
          adapterName(std::move(adapterName)) {}

    std::vector<uint8_t> adapterMac;
    std::vector<uint8_t> resolveIp;
    std::vector<uint8_t> destinationIp;
    std::string adapterName;
};

}  // namespace Nat
