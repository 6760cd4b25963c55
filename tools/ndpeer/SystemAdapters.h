#pragma once
#include <optional>
#include <string>

#include "NetworkDriver/Messages.h"

namespace ndpeer {

// The 16-byte GUID of an adapter. On Linux: the interface name, zero-padded. On Windows:
// the adapter's GUID, named by its GUID text ("{6B29FC40-CA47-1067-B31D-00DD010662DA}") or
// by its adapter or friendly name (throws when no adapter has that name).
NativeNetworkDriver::Bytes InterfaceGuid(const std::string& interfaceName);

// Reads an adapter's MAC, IPv4 addresses with masks, default gateway and the gateway's MAC
// (from the neighbour table) from this machine. Throws when the adapter is missing.
NativeNetworkDriver::AdapterInfo ReadAdapter(const std::string& interfaceName);

NativeNetworkDriver::Bytes ParseMac(const std::string& text);   // "02:00:00:00:00:01"; throws
NativeNetworkDriver::Bytes ParseIp(const std::string& text);    // dotted; throws
// GUID text in braces, as FormatGuid writes it, back to the 16 bytes; nothing if it is not one.
std::optional<NativeNetworkDriver::Bytes> ParseGuid(const std::string& text);

}  // namespace ndpeer
