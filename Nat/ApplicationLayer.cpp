#include "Nat/ApplicationLayer.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <string_view>

#include "Packet/PacketUtils.h"

namespace Nat::ApplicationLayer {

namespace {

std::string_view View(const uint8_t* payload, size_t size) {
    return {reinterpret_cast<const char*>(payload), size};
}

// Appends the pieces one by one (chains of operator+ trip a false -Wrestrict at -O3).
std::string Concat(std::initializer_list<std::string_view> pieces) {
    std::string text;
    for (std::string_view piece : pieces) text.append(piece.data(), piece.size());
    return text;
}

bool StartsWith(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && text.substr(0, prefix.size()) == prefix;
}

bool StartsWithNoCase(std::string_view text, std::string_view prefix) {
    if (text.size() < prefix.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i) {
        char c = text[i];
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
        if (c != prefix[i]) return false;
    }
    return true;
}

// A decimal number of 1 to `maxDigits` digits, at most `maxValue`.
std::optional<uint32_t> Number(std::string_view text, size_t maxDigits, uint32_t maxValue) {
    if (text.empty() || text.size() > maxDigits) return std::nullopt;
    uint32_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + static_cast<uint32_t>(c - '0');
    }
    if (value > maxValue) return std::nullopt;
    return value;
}

std::optional<Ipv4Address> DottedAddress(std::string_view text) {
    std::string value(text);
    if (!PacketUtils::IsValidIpAddress(value)) return std::nullopt;
    PacketUtils::Bytes bytes = PacketUtils::FromIPStringToByteArray(value);
    Ipv4Address ip{};
    if (bytes.size() != ip.size()) return std::nullopt;
    std::copy(bytes.begin(), bytes.end(), ip.begin());
    return ip;
}

// Six comma-separated numbers: an address and a port in high and low byte.
bool SixNumbers(std::string_view text, Ipv4Address& ip, uint16_t& port) {
    uint32_t numbers[6];
    for (size_t i = 0; i < 6; ++i) {
        size_t comma = i < 5 ? text.find(',') : text.size();
        if (comma == std::string_view::npos) return false;
        auto n = Number(text.substr(0, comma), 3, 255);
        if (!n) return false;
        numbers[i] = *n;
        text = i < 5 ? text.substr(comma + 1) : std::string_view{};
    }
    const std::string n0 = std::to_string(numbers[0]), n1 = std::to_string(numbers[1]),
                      n2 = std::to_string(numbers[2]), n3 = std::to_string(numbers[3]);
    std::string dotted = Concat({n0, ".", n1, ".", n2, ".", n3});
    auto address = DottedAddress(dotted);
    if (!address) return false;
    ip = *address;
    port = static_cast<uint16_t>(numbers[4] * 256 + numbers[5]);
    return port != 0;
}

std::string Joined(const Ipv4Address& ip, std::string_view separator) {
    const std::string a = std::to_string(ip[0]), b = std::to_string(ip[1]), c = std::to_string(ip[2]),
                      d = std::to_string(ip[3]);
    return Concat({a, separator, b, separator, c, separator, d});
}

std::string SixNumbersText(const Ipv4Address& ip, uint16_t port) {
    const std::string high = std::to_string(port / 256), low = std::to_string(port % 256);
    return Concat({Joined(ip, ","), ",", high, ",", low});
}

std::string DottedText(const Ipv4Address& ip) { return Joined(ip, "."); }

bool ValidDelimiter(char c) { return c >= 33 && c <= 126 && !(c >= '0' && c <= '9'); }

}  // namespace

std::optional<Edit> HostFieldEdit(const uint8_t* payload, size_t size, const Ipv4Address& ip, uint32_t port) {
    std::string_view text = View(payload, size);
    if (!StartsWith(text, "GET")) return std::nullopt;
    constexpr std::string_view kHost = "\r\nHost: ";
    size_t field = text.find(kHost);
    if (field == std::string_view::npos) return std::nullopt;
    size_t begin = field + kHost.size();
    size_t end = text.find("\r\n", begin);
    if (end == std::string_view::npos) return std::nullopt;
    std::string_view value = text.substr(begin, end - begin);
    std::string_view host = value.substr(0, value.find(':'));
    if (!DottedAddress(host)) return std::nullopt;
    Edit edit;
    edit.begin = begin;
    edit.end = end;
    edit.text = DottedText(ip);
    if (port != 80) {
        edit.text += ':';
        edit.text += std::to_string(port);
    }
    return edit;
}

std::optional<PassiveReply> ParsePassiveReply(const uint8_t* payload, size_t size) {
    std::string_view text = View(payload, size);
    PassiveReply reply;
    if (StartsWith(text, "227 ")) {
        reply.extended = false;
    } else if (StartsWith(text, "229 ")) {
        reply.extended = true;
    } else {
        return std::nullopt;
    }
    size_t open = text.find('(');
    if (open == std::string_view::npos) return std::nullopt;
    size_t close = text.find(')', open + 1);
    if (close == std::string_view::npos) return std::nullopt;
    reply.begin = open + 1;
    reply.end = close;
    std::string_view inside = text.substr(reply.begin, reply.end - reply.begin);
    if (!reply.extended) {
        if (!SixNumbers(inside, reply.address, reply.port)) return std::nullopt;
        return reply;
    }
    // <d><d><d>port<d>
    if (inside.size() < 5) return std::nullopt;
    char d = inside[0];
    if (!ValidDelimiter(d) || inside[1] != d || inside[2] != d || inside.back() != d) return std::nullopt;
    auto port = Number(inside.substr(3, inside.size() - 4), 5, 65535);
    if (!port || *port == 0) return std::nullopt;
    reply.delimiter = d;
    reply.port = static_cast<uint16_t>(*port);
    return reply;
}

std::string PassiveReplyText(const PassiveReply& reply, const Ipv4Address& ip, uint16_t port) {
    if (!reply.extended) return SixNumbersText(ip, port);
    const std::string d(1, reply.delimiter), number = std::to_string(port);
    return Concat({d, d, d, number, d});
}

std::optional<PortCommand> ParsePortCommand(const uint8_t* payload, size_t size) {
    std::string_view text = View(payload, size);
    PortCommand command;
    if (StartsWithNoCase(text, "PORT ")) {
        command.extended = false;
    } else if (StartsWithNoCase(text, "EPRT ")) {
        command.extended = true;
    } else {
        return std::nullopt;
    }
    command.begin = 5;
    size_t lineEnd = text.find("\r\n", command.begin);
    if (lineEnd == std::string_view::npos) return std::nullopt;
    command.end = lineEnd;
    std::string_view argument = text.substr(command.begin, command.end - command.begin);
    if (!command.extended) {
        if (!SixNumbers(argument, command.address, command.port)) return std::nullopt;
        return command;
    }
    // <d>1<d>address<d>port<d>; only IPv4 (network protocol 1) is translated.
    if (argument.size() < 4) return std::nullopt;
    char d = argument[0];
    if (!ValidDelimiter(d) || argument.back() != d) return std::nullopt;
    std::string_view fields = argument.substr(1, argument.size() - 2);
    size_t first = fields.find(d);
    if (first == std::string_view::npos || fields.substr(0, first) != "1") return std::nullopt;
    fields = fields.substr(first + 1);
    size_t second = fields.find(d);
    if (second == std::string_view::npos) return std::nullopt;
    auto address = DottedAddress(fields.substr(0, second));
    auto port = Number(fields.substr(second + 1), 5, 65535);
    if (!address || !port || *port == 0) return std::nullopt;
    command.delimiter = d;
    command.address = *address;
    command.port = static_cast<uint16_t>(*port);
    return command;
}

std::string PortCommandText(const PortCommand& command, const Ipv4Address& ip, uint16_t port) {
    if (!command.extended) return SixNumbersText(ip, port);
    const std::string d(1, command.delimiter), address = DottedText(ip), number = std::to_string(port);
    return Concat({d, "1", d, address, d, number, d});
}

}  // namespace Nat::ApplicationLayer
