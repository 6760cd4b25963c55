#pragma once
// The start requests of the sessions, turned into the engine's records.
#include "NetworkDriver/Messages.h"
#include "Sessions/SessionSettings.h"

namespace NativeNetworkDriver {

IcsSettings ToIcsSettings(const StartICSRequest& request);
NatSettings ToNatSettings(const StartNATRequest& request);

Nat::AdapterInfo ToEngineAdapter(const AdapterInfo& adapter);
Nat::ProxyInfo ToEngineProxy(const ProxyInfo& proxy);

// The timeouts of the start requests are given in seconds; the engine counts milliseconds.
uint32_t TimeoutToMilliseconds(uint32_t seconds);

}  // namespace NativeNetworkDriver
