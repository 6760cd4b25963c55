#pragma once
#include <string>

#include "NetworkDriver/Messages.h"

namespace ndpeer {

// The 16-byte GUID of a Linux interface: its name, zero-padded.
NativeNetworkDriver::Bytes InterfaceGuid(const std::string& interfaceName);

// Reads an interface's MAC, IPv4 addresses with masks, default gateway and the gateway's MAC
// (from the neighbour table) from this network namespace. Throws when the interface is missing.
NativeNetworkDriver::AdapterInfo ReadAdapter(const std::string& interfaceName);

NativeNetworkDriver::Bytes ParseMac(const std::string& text);  // "02:00:00:00:00:01"; throws
NativeNetworkDriver::Bytes ParseIp(const std::string& text);   // dotted; throws

}  // namespace ndpeer
