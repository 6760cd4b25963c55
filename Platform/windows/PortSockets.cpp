#include "Platform/PortSockets.h"

#include <winsock2.h>
#include <ws2tcpip.h>

namespace Platform {

BoundSocket OpenBoundSocket(SocketProtocol protocol, const std::string& port) {
    BoundSocket result;
    if (protocol == SocketProtocol::IcmpEcho) {  // Winsock has no ping sockets
        result.failure = BoundSocket::Failure::Create;
        result.error = WSAEPROTONOSUPPORT;
        return result;
    }
    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_family = AF_INET;
    hints.ai_socktype = protocol == SocketProtocol::Tcp ? SOCK_STREAM : SOCK_DGRAM;
    hints.ai_protocol = protocol == SocketProtocol::Tcp ? IPPROTO_TCP : IPPROTO_UDP;
    addrinfo* address = nullptr;
    const int lookup = getaddrinfo(nullptr, port.c_str(), &hints, &address);
    if (lookup != 0) {
        result.failure = BoundSocket::Failure::AddressLookup;
        result.error = lookup;
        return result;
    }
    const SOCKET s = socket(address->ai_family, address->ai_socktype, address->ai_protocol);
    if (s == INVALID_SOCKET) {
        result.failure = BoundSocket::Failure::Create;
        result.error = WSAGetLastError();
        freeaddrinfo(address);
        return result;
    }
    if (protocol == SocketProtocol::Tcp) {
        const BOOL one = TRUE;
        (void)setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&one), sizeof(one));
    }
    if (bind(s, address->ai_addr, static_cast<int>(address->ai_addrlen)) == SOCKET_ERROR) {
        result.failure = BoundSocket::Failure::Bind;
        result.error = WSAGetLastError();
        result.portInUse = result.error == WSAEADDRINUSE;
        freeaddrinfo(address);
        closesocket(s);
        return result;
    }
    freeaddrinfo(address);
    result.socket = static_cast<SocketHandle>(s);
    return result;
}

bool BoundPort(SocketHandle socket, uint16_t& port) {
    sockaddr_in local{};
    int length = sizeof(local);
    if (getsockname(static_cast<SOCKET>(socket), reinterpret_cast<sockaddr*>(&local), &length) == SOCKET_ERROR)
        return false;
    port = ntohs(local.sin_port);
    return true;
}

void CloseSocket(SocketHandle socket) {
    if (socket != kInvalidSocket) closesocket(static_cast<SOCKET>(socket));
}

}  // namespace Platform
