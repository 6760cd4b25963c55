#include "TapDevice.h"

#include <stdexcept>

namespace ndpeer {

TapDevice::~TapDevice() = default;

void TapDevice::Open(const std::string& name, const std::vector<uint8_t>&, const std::string&) {
    throw std::runtime_error("cannot bridge to tap " + name + ": tap devices exist only on Linux");
}

bool TapDevice::WaitReadable(int) { return false; }

int TapDevice::Read(uint8_t*, size_t) { return -1; }

bool TapDevice::Write(const std::vector<uint8_t>&) { return false; }

}  // namespace ndpeer
