#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace ndpeer {

// A tap interface: the remote end of the VPN bridge. Frames read from it go to the daemon,
// frames from the daemon are written to it. Linux only: on Windows, Open refuses.
class TapDevice {
public:
    TapDevice() = default;
    ~TapDevice();
    TapDevice(const TapDevice&) = delete;
    TapDevice& operator=(const TapDevice&) = delete;

    // Creates (or attaches to) the tap, sets its MAC when given and brings it up. With a
    // network namespace name the tap is made inside that namespace (/run/netns/NAME): the
    // remote end of the bridge lives apart from the daemon. Throws.
    void Open(const std::string& name, const std::vector<uint8_t>& mac, const std::string& netns = {});
    bool IsOpen() const { return fd_ >= 0; }
    // True when a frame is waiting; false after `timeoutMs`.
    bool WaitReadable(int timeoutMs);
    // One frame, or -1 when none is waiting (non-blocking).
    int Read(uint8_t* buffer, size_t size);
    bool Write(const std::vector<uint8_t>& frame);

private:
    void OpenHere(const std::string& name, const std::vector<uint8_t>& mac);
    int fd_ = -1;
};

}  // namespace ndpeer
