#pragma once
// What the command dispatch needs of the packet side: the publisher's configuration flag,
// and the VPN, NAT and ICS sessions with the ARP cache they share. The packet side fills
// these in; the dispatch only creates, queries and deletes them.
#include <cstdint>
#include <functional>
#include <memory>

#include "NetworkDriver/Messages.h"

namespace NativeNetworkDriver {

class IVpnSession {
public:
    virtual ~IVpnSession() = default;
    virtual uint32_t Status() const = 0;
    virtual void AddSupervisorMAC(const Bytes& mac, bool promiscuous) = 0;
    virtual void RemoveSupervisorMAC(const Bytes& mac) = 0;
    // A frame from the tunnel, to be written to the adapters.
    virtual void SendFrame(const Bytes& frame) = 0;
    // Where frames for the tunnel go.
    virtual void SetReader(std::function<void(const Bytes&)> reader) = 0;
};

class ITranslationSession {
public:
    virtual ~ITranslationSession() = default;
    virtual uint32_t Status() const = 0;
};

class ISharedArpCache {
public:
    virtual ~ISharedArpCache() = default;
};

class ISessionFactory {
public:
    virtual ~ISessionFactory() = default;
    // False when there is no publisher to configure.
    virtual bool SetHandleVirtualMachine(bool flag) = 0;
    virtual std::unique_ptr<IVpnSession> CreateVpn(const StartVPNRequest& request) = 0;
    virtual std::unique_ptr<ISharedArpCache> CreateArpCache() = 0;
    virtual std::unique_ptr<ITranslationSession> CreateIcs(ISharedArpCache* arpCache, const StartICSRequest& request) = 0;
    virtual std::unique_ptr<ITranslationSession> CreateNat(ISharedArpCache* arpCache, const StartNATRequest& request) = 0;
};

// The factory the process runs with.
std::unique_ptr<ISessionFactory> CreateSessionFactory();

}  // namespace NativeNetworkDriver
