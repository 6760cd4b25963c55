#pragma once
// The kernel side of tunnel mode: two tcx programs and two classic socket filters that
// steer frames by skb mark. Everything is held by file descriptors, so the kernel drops
// it when the process goes away and the interface works normally again.
#include <cstdint>
#include <string>

namespace Platform::Bpf {

// skb marks that say where a frame is going.
inline constexpr uint32_t kMarkToWire = 0x4E440001;     // written by the daemon, leaves on the wire
inline constexpr uint32_t kMarkToStack = 0x4E440002;    // written by the daemon, goes up to the stack
inline constexpr uint32_t kMarkFromStack = 0x4E440003;  // sent by the stack, diverted to the daemon

// tcx attach points (Linux 6.6+).
inline constexpr uint32_t kAttachTcxIngress = 46;
inline constexpr uint32_t kAttachTcxEgress = 47;

// An owned descriptor.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() { Reset(); }
    Fd(Fd&& other) noexcept : fd_(other.Release()) {}
    Fd& operator=(Fd&& other) noexcept {
        if (this != &other) {
            Reset();
            fd_ = other.Release();
        }
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

    int Get() const { return fd_; }
    bool Valid() const { return fd_ >= 0; }
    int Release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void Reset(int fd = -1);

private:
    int fd_ = -1;
};

struct TunnelPrograms {
    Fd egress;   // stack's frames to the daemon, the daemon's frames to wire or stack
    Fd ingress;  // only frames the daemon sends up reach the stack
    bool Loaded() const { return egress.Valid() && ingress.Valid(); }
};

// Loads both programs. On failure returns false with errno's value and the verifier log in error.
bool LoadTunnelPrograms(TunnelPrograms& programs, int& errorCode, std::string& error);

// Attaches a program to an interface's tcx hook and returns the link; invalid on failure (errorCode set).
Fd AttachTcx(const Fd& program, int ifindex, uint32_t attachType, int& errorCode);

// True when the calling thread holds CAP_NET_ADMIN in its effective set.
bool HasNetAdmin();

// Attaches the classic filter of a capture socket: frames arriving from the wire (mark 0,
// not an outgoing copy), or frames the stack sent (mark kMarkFromStack).
bool AttachWireCaptureFilter(int socketFd);
bool AttachStackCaptureFilter(int socketFd);

}  // namespace Platform::Bpf
