#include "PortPool/SocketPortPool.h"

#include <stdexcept>

#include "Logging/Logger.h"

namespace PortPool {

SocketPortPool::SocketPortPool(Kind protocol, uint32_t count, const std::set<uint32_t>& customPorts)
    : BasePortPool(protocol, count, customPorts) {
    try {
        ReservePorts();
    } catch (...) {
        CloseAll();  // no destructor runs for a half-built pool
        throw;
    }
}

SocketPortPool::~SocketPortPool() { FreePorts(); }

std::string SocketPortPool::ProtocolName() const {
    return protocol_ == Kind::Tcp ? "TCP" : protocol_ == Kind::Udp ? "UDP" : "ICMP";
}

Platform::SocketHandle SocketPortPool::CreateSocket(uint32_t port) const {
    const Platform::BoundSocket bound = Platform::OpenBoundSocket(
        protocol_ == Kind::Tcp   ? Platform::SocketProtocol::Tcp
        : protocol_ == Kind::Udp ? Platform::SocketProtocol::Udp
                                 : Platform::SocketProtocol::IcmpEcho,
        std::to_string(port));
    switch (bound.failure) {
        case Platform::BoundSocket::Failure::None:
            return bound.socket;
        case Platform::BoundSocket::Failure::AddressLookup:
            throw std::runtime_error("Error creating socket, getaddrinfo failed: " + std::to_string(bound.error));
        case Platform::BoundSocket::Failure::Create:
            throw std::runtime_error("Error creating socket at port " + std::to_string(port) +
                                     ", socket() failed: " + std::to_string(bound.error));
        case Platform::BoundSocket::Failure::Bind:
            if (bound.portInUse) throw std::runtime_error("Error binding socket, port already bound");
            throw std::runtime_error("Error binding socket, bind() failed: " + std::to_string(bound.error));
    }
    throw std::logic_error("unknown socket failure");
}

void SocketPortPool::ReservePorts() {
    const std::string name = ProtocolName();
    // Custom ports must all be held: a failure here fails the pool.
    for (uint32_t port : customPorts_) {
        Log("Opening " + name + " custom port", LogLevel::Debug);
        sockets_.push_back(CreateSocket(port));
        Log("Opened " + name + " custom port " + std::to_string(port), LogLevel::Debug);
    }
    for (uint32_t i = 0; i < count_; ++i) {
        try {
            Log("Opening " + name + " port", LogLevel::Debug);
            const Platform::SocketHandle socket = CreateSocket(0);
            uint16_t port = 0;
            if (!Platform::BoundPort(socket, port)) {
                Platform::CloseSocket(socket);
                throw std::runtime_error("Error getting opened port");
            }
            ports_.push_back(port);
            sockets_.push_back(socket);
            Log("Opened " + name + " port " + std::to_string(port), LogLevel::Debug);
        } catch (const std::exception& e) {
            Log(e.what(), LogLevel::Info);
            // A system that refuses one ping socket refuses them all: one line is enough.
            if (protocol_ == Kind::Icmp) break;
        }
    }
}

void SocketPortPool::FreePorts() {
    Log("Freeing " + ProtocolName() + " ports", LogLevel::Debug);
    ports_.clear();
    CloseAll();
}

void SocketPortPool::CloseAll() {
    for (Platform::SocketHandle socket : sockets_)
        if (socket != Platform::kInvalidSocket) Platform::CloseSocket(socket);
    sockets_.clear();
}

}  // namespace PortPool
