#include "Sessions/TranslationSession.h"

namespace NativeNetworkDriver {

namespace {
// Translation is not part of this build yet: sessions report that they did not come up.
class UnopenedSession : public ITranslationSession {
public:
    uint32_t Status() const override { return 0; }
};
}  // namespace

std::unique_ptr<ISharedArpCache> CreateArpCache(FilterDriversPublisher*) { return std::make_unique<ISharedArpCache>(); }

std::unique_ptr<ITranslationSession> CreateIcsSession(FilterDriversPublisher*, ISharedArpCache*, const StartICSRequest&) {
    return std::make_unique<UnopenedSession>();
}

std::unique_ptr<ITranslationSession> CreateNatSession(FilterDriversPublisher*, ISharedArpCache*, const StartNATRequest&) {
    return std::make_unique<UnopenedSession>();
}

}  // namespace NativeNetworkDriver
