#pragma once
// Parsing and formatting of the application payloads that carry addresses: the HTTP
// request's Host field and the FTP passive replies and active-mode commands.
// Pure functions on a payload; the translator applies the edits to frames.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "Packet/Frame.h"

namespace Nat::ApplicationLayer {

// Replace payload bytes [begin, end) with `text`.
struct Edit {
    size_t begin = 0;
    size_t end = 0;
    std::string text;
};

// For a GET request whose Host value is a dotted IPv4 address (with or without a port):
// the edit that names `ip` instead, with ":port" unless the port is 80.
std::optional<Edit> HostFieldEdit(const uint8_t* payload, size_t size, const Ipv4Address& ip, uint32_t port);

// "227 ...(h1,h2,h3,h4,p1,p2)" or, when `extended`, "229 ...(<d><d><d>port<d>)".
// [begin, end) is the text inside the parentheses; an extended reply names no address.
struct PassiveReply {
    bool extended = false;
    Ipv4Address address{};
    uint16_t port = 0;
    char delimiter = '|';
    size_t begin = 0;
    size_t end = 0;
};
std::optional<PassiveReply> ParsePassiveReply(const uint8_t* payload, size_t size);
std::string PassiveReplyText(const PassiveReply& reply, const Ipv4Address& ip, uint16_t port);

// "PORT h1,h2,h3,h4,p1,p2\r\n" or "EPRT <d>1<d>a.b.c.d<d>port<d>\r\n" (commands in any
// letter case). [begin, end) is the argument, up to the line end.
struct PortCommand {
    bool extended = false;
    Ipv4Address address{};
    uint16_t port = 0;
    char delimiter = '|';
    size_t begin = 0;
    size_t end = 0;
};
std::optional<PortCommand> ParsePortCommand(const uint8_t* payload, size_t size);
std::string PortCommandText(const PortCommand& command, const Ipv4Address& ip, uint16_t port);

}  // namespace Nat::ApplicationLayer
