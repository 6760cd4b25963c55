#include "NetworkDriver/SessionFactory.h"

namespace NativeNetworkDriver {

namespace {

// Sessions that never come up: the packet side is not part of this build yet.
class UnopenedVpn : public IVpnSession {
public:
    uint32_t Status() const override { return 0; }
    void AddSupervisorMAC(const Bytes&, bool) override {}
    void RemoveSupervisorMAC(const Bytes&) override {}
    void SendFrame(const Bytes&) override {}
    void SetReader(std::function<void(const Bytes&)>) override {}
};

class UnopenedTranslation : public ITranslationSession {
public:
    uint32_t Status() const override { return 0; }
};

class UnopenedFactory : public ISessionFactory {
public:
    bool SetHandleVirtualMachine(bool) override { return true; }
    std::unique_ptr<IVpnSession> CreateVpn(const StartVPNRequest&) override { return std::make_unique<UnopenedVpn>(); }
    std::unique_ptr<ISharedArpCache> CreateArpCache() override { return std::make_unique<ISharedArpCache>(); }
    std::unique_ptr<ITranslationSession> CreateIcs(ISharedArpCache*, const StartICSRequest&) override {
        return std::make_unique<UnopenedTranslation>();
    }
    std::unique_ptr<ITranslationSession> CreateNat(ISharedArpCache*, const StartNATRequest&) override {
        return std::make_unique<UnopenedTranslation>();
    }
};

}  // namespace

std::unique_ptr<ISessionFactory> CreateSessionFactory() { return std::make_unique<UnopenedFactory>(); }

}  // namespace NativeNetworkDriver
