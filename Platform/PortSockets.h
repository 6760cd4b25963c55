#pragma once
// Sockets that exist only to hold a TCP or UDP port, or an ICMP echo identifier (a ping
// socket, where the system has them): opened, bound, closed, never used for traffic. Winsock must already be started on Windows (the session does it).
#include <cstdint>
#include <string>

namespace Platform {

// SOCKET on Windows, a file descriptor on POSIX; kInvalidSocket is INVALID_SOCKET / -1.
using SocketHandle = std::uintptr_t;
inline constexpr SocketHandle kInvalidSocket = ~static_cast<SocketHandle>(0);

enum class SocketProtocol { Tcp, Udp, IcmpEcho };

struct BoundSocket {
    enum class Failure { None, AddressLookup, Create, Bind };
    Failure failure = Failure::None;
    // getaddrinfo's result for AddressLookup, otherwise WSAGetLastError() / errno.
    int error = 0;
    // The bind failed because another socket holds the port (WSAEADDRINUSE / EADDRINUSE).
    bool portInUse = false;
    SocketHandle socket = kInvalidSocket;
};

// An IPv4 wildcard socket bound to `port` (decimal text; "0" lets the system choose), with
// TCP_NODELAY for TCP. IcmpEcho fails with Failure::Create where the system refuses ping
// sockets (always on Windows). No address-reuse option is set, so a port held elsewhere fails.
// On failure nothing is left open.
BoundSocket OpenBoundSocket(SocketProtocol protocol, const std::string& port);

// The local port of a bound socket; false when the system cannot tell.
bool BoundPort(SocketHandle socket, uint16_t& port);

void CloseSocket(SocketHandle socket);

}  // namespace Platform
