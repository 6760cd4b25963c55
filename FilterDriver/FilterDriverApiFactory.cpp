#include <mutex>
#include <utility>

#include "FilterDriver/IFilterDriverApi.h"

namespace NativeNetworkDriver {

namespace {
std::mutex& FactoryMutex() {
    static std::mutex mutex;
    return mutex;
}
FilterDriverApiFactory& Factory() {
    static FilterDriverApiFactory factory;
    return factory;
}
}  // namespace

// Until the process entry installs its platform's factory, there is no driver client and
// every adapter reads as "driver not loaded".
std::unique_ptr<IFilterDriverApi> CreateFilterDriverApi() {
    FilterDriverApiFactory factory;
    {
        std::lock_guard lock(FactoryMutex());
        factory = Factory();
    }
    return factory ? factory() : nullptr;
}

void SetFilterDriverApiFactory(FilterDriverApiFactory factory) {
    std::lock_guard lock(FactoryMutex());
    Factory() = std::move(factory);
}

}  // namespace NativeNetworkDriver
