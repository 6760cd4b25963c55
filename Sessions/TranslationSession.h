#pragma once
// What NAT and ICS share: reserving ports, building the engine, registering with the ARP
// cache and the publisher, and routing every received frame of their adapters through the
// engine. The two differ only in the engine they build and the word of their log lines.
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Packet/IFilterDriversSubscriber.h"
#include "Nat/NetworkAddressTranslator.h"
#include "Packet/IArpCache.h"
#include "Packet/NatException.h"
#include "PortPool/SocketPortPool.h"
#include "Sessions/SessionSettings.h"

namespace NativeNetworkDriver {

class FilterDriversPublisher;

class TranslationSession : public IFilterDriversSubscriber {
public:
    ~TranslationSession() override;
    TranslationSession(const TranslationSession&) = delete;
    TranslationSession& operator=(const TranslationSession&) = delete;

    // 1 when the session is open (its engine exists), else 0.
    uint32_t Status() const { return engine_ ? 1 : 0; }
    Nat::NetworkAddressTranslator* Engine() { return engine_.get(); }

    // Frames the local stack sends are never translated.
    bool OnSentFragments(Nat::FragmentList&, const Nat::FrameView&, const std::string&) override { return false; }
    bool OnSentFrame(Nat::Frame&, const Nat::FrameView&, const Nat::FrameOffload&, const std::string&) override {
        return false;
    }
    bool OnReceivedFragments(Nat::FragmentList& fragments, const Nat::FrameView& head,
                             const std::string& guid) override;
    // Translates in place and sends the frame on. A super-frame is translated whole
    // (headers only) unless its payload may be rewritten: then it goes as wire frames.
    bool OnReceivedFrame(Nat::Frame& frame, const Nat::FrameView& view, const Nat::FrameOffload& offload,
                         const std::string& guid) override;

protected:
    using EngineFactory = std::function<std::unique_ptr<Nat::NetworkAddressTranslator>(
        const std::vector<uint32_t>& tcpPorts, const std::vector<uint32_t>& udpPorts)>;

    struct OpenSettings {
        std::vector<Nat::AdapterInfo> internalAdapters;
        std::vector<Nat::AdapterInfo> externalAdapters;
        uint32_t tcpPoolSize = 0;
        uint32_t udpPoolSize = 0;
        std::set<uint32_t> customTcpPorts;
        std::set<uint32_t> customUdpPorts;
    };

    TranslationSession(std::string word, FilterDriversPublisher* publisher, IArpCache* arpCache);
    // Leaves the publisher and the ARP cache; safe to call again. The destructors of the
    // sessions call it first, so that no frame is offered to a half-destroyed object.
    void Unsubscribe();
    // The open sequence; a failed step leaves the session without an engine.
    void Open(const OpenSettings& settings, const EngineFactory& buildEngine);

private:
    bool ReservePorts(const OpenSettings& settings);
    std::vector<uint32_t> ReserveEchoIdentifiers(uint32_t count);
    // 1 for an external adapter, 0 for an internal one, -1 when the frame is none of this
    // session's (not its adapter, or no engine).
    int Side(const std::string& guid) const;
    // Runs one translation step; its failures are logged (or answered with an ARP
    // request) and cost the frame. False when it failed.
    template <typename Step>
    bool Guarded(bool inbound, Step&& step);
    void TranslateSegments(const Nat::Decision& decision, bool inbound, const Nat::Frame& frame,
                           const Nat::FrameOffload& offload, const std::string& guid);
    void RequestMac(const Nat::UnknownMacException& unknown);
    const Nat::AdapterInfo* AdapterByMac(const std::vector<uint8_t>& mac) const;

    std::string word_;
    FilterDriversPublisher* publisher_;
    std::set<std::string> internalGuids_;
    std::set<std::string> externalGuids_;
    std::vector<Nat::AdapterInfo> adapters_;
    std::unique_ptr<PortPool::SocketPortPool> tcpPool_;
    std::unique_ptr<PortPool::SocketPortPool> udpPool_;
    std::unique_ptr<PortPool::SocketPortPool> icmpPool_;  // echo identifiers; may hold none
    std::unique_ptr<Nat::NetworkAddressTranslator> engine_;
    IArpCache* arpCache_;
    bool arpRegistered_ = false;
    bool publisherRegistered_ = false;
    Nat::Frame segment_;  // reused for every wire frame cut from a super-frame
};

}  // namespace NativeNetworkDriver
