#include "Platform/PortSockets.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace Platform {

BoundSocket OpenBoundSocket(SocketProtocol protocol, const std::string& port) {
    BoundSocket result;
    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_family = AF_INET;
    hints.ai_socktype = protocol == SocketProtocol::Tcp ? SOCK_STREAM : SOCK_DGRAM;
    // A ping socket binds an identifier as a UDP socket binds a port; the address lookup
    // knows no ICMP service, so it is asked for the UDP one.
    hints.ai_protocol = protocol == SocketProtocol::Tcp ? IPPROTO_TCP : IPPROTO_UDP;
    addrinfo* address = nullptr;
    const int lookup = getaddrinfo(nullptr, port.c_str(), &hints, &address);
    if (lookup != 0) {
        result.failure = BoundSocket::Failure::AddressLookup;
        result.error = lookup;
        return result;
    }
    // Close-on-exec: a child process must not keep the port held.
    const int fd = socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC,
                          protocol == SocketProtocol::IcmpEcho ? IPPROTO_ICMP : address->ai_protocol);
    if (fd < 0) {
        result.failure = BoundSocket::Failure::Create;
        result.error = errno;
        freeaddrinfo(address);
        return result;
    }
    if (protocol == SocketProtocol::Tcp) {
        const int one = 1;
        (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    }
    if (bind(fd, address->ai_addr, address->ai_addrlen) != 0) {
        result.failure = BoundSocket::Failure::Bind;
        result.error = errno;
        result.portInUse = result.error == EADDRINUSE;
        freeaddrinfo(address);
        close(fd);
        return result;
    }
    freeaddrinfo(address);
    result.socket = static_cast<SocketHandle>(fd);
    return result;
}

bool BoundPort(SocketHandle socket, uint16_t& port) {
    sockaddr_in local{};
    socklen_t length = sizeof(local);
    if (getsockname(static_cast<int>(socket), reinterpret_cast<sockaddr*>(&local), &length) != 0) return false;
    port = ntohs(local.sin_port);
    return true;
}

void CloseSocket(SocketHandle socket) {
    if (socket != kInvalidSocket) close(static_cast<int>(socket));
}

}  // namespace Platform
