#include "Packet/PacketUtils.h"

#include <bit>
#include <cstdio>
#include <cstring>
#include <sstream>
#include "Packet/IpProtocol.h"

namespace Nat::PacketUtils {

namespace {

[[noreturn]] void ThrowSize(const char* text, size_t size) {
    throw Exception(std::string(text) + std::to_string(size));
}

[[noreturn]] void ThrowUnsupportedProtocol(uint8_t protocol) {
    // The protocol goes in as one raw character, not as digits.
    std::string message = "Unsupported IP protocol: ";
    message.push_back(static_cast<char>(protocol));
    throw Exception(std::move(message));
}

void CheckSize(const Frame& frame, size_t threshold, const char* text) {
    if (frame.size() < threshold) ThrowSize(text, frame.size());
}

// Several thresholds admit a frame one byte shorter than the field: such a byte reads as 0.
inline uint8_t ByteAt(const Frame& frame, size_t i) { return i < frame.size() ? frame[i] : 0; }

inline uint16_t U16At(const Frame& frame, size_t i) {
    return static_cast<uint16_t>((ByteAt(frame, i) << 8) | ByteAt(frame, i + 1));
}

inline uint32_t U32At(const Frame& frame, size_t i) {
    return (static_cast<uint32_t>(U16At(frame, i)) << 16) | U16At(frame, i + 2);
}

// Writes past the end are dropped for the same reason.
inline void PutByte(Frame& frame, size_t i, uint8_t value) {
    if (i < frame.size()) frame[i] = value;
}

inline void PutU16(Frame& frame, size_t i, uint16_t value) {
    PutByte(frame, i, static_cast<uint8_t>(value >> 8));
    PutByte(frame, i + 1, static_cast<uint8_t>(value));
}

inline void PutU32(Frame& frame, size_t i, uint32_t value) {
    PutU16(frame, i, static_cast<uint16_t>(value >> 16));
    PutU16(frame, i + 2, static_cast<uint16_t>(value));
}

template <size_t N>
std::array<uint8_t, N> ReadArray(const Frame& frame, size_t offset) {
    std::array<uint8_t, N> out;
    std::memcpy(out.data(), frame.data() + offset, N);
    return out;
}

// One's-complement folding: the result is 0 only for a zero sum.
inline uint32_t Fold(uint64_t sum) {
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint32_t>(sum);
}

// Offset of the TCP or UDP checksum; throws for other protocols.
size_t TransportChecksumOffset(uint32_t headerSize, uint8_t protocol) {
    if (protocol == IpProtocol::kTcp) return headerSize + 30;
    if (protocol == IpProtocol::kUdp) return headerSize + 20;
    ThrowUnsupportedProtocol(protocol);
}

void WriteBytes(Frame& frame, size_t offset, const uint8_t* data, size_t length) {
    std::memcpy(frame.data() + offset, data, length);
}

std::string HexAddress(const void* address) {
    char text[24];
    std::snprintf(text, sizeof(text), "%016llX",
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(address)));
    return text;
}

// Two 16-bit steps, re-reading the checksum in between.
void UpdateChecksum32(Frame& frame, uint16_t checksum, uint32_t oldValue, uint32_t newValue) {
    UpdateTransportHeaderChecksum(frame, checksum, static_cast<uint16_t>(oldValue >> 16),
                                  static_cast<uint16_t>(newValue >> 16));
    UpdateTransportHeaderChecksum(frame, GetTransportHeaderChecksum(frame), static_cast<uint16_t>(oldValue),
                                  static_cast<uint16_t>(newValue));
}

uint32_t IpAsU32(const Ipv4Address& ip) {
    return (static_cast<uint32_t>(ip[0]) << 24) | (static_cast<uint32_t>(ip[1]) << 16) |
           (static_cast<uint32_t>(ip[2]) << 8) | ip[3];
}

// atoi on a run of decimal digits, saturating instead of overflowing.
uint32_t DigitsValue(const std::string& piece) {
    uint32_t value = 0;
    for (char c : piece) {
        if (c < '0' || c > '9') break;
        value = value * 10 + static_cast<uint32_t>(c - '0');
        if (value > 0xFFFFFF) value = 0xFFFFFF;
    }
    return value;
}

std::vector<std::string> SplitAtDots(const std::string& text) {
    std::vector<std::string> pieces;
    size_t start = 0;
    for (;;) {
        const size_t dot = text.find('.', start);
        if (dot == std::string::npos) {
            pieces.push_back(text.substr(start));
            return pieces;
        }
        pieces.push_back(text.substr(start, dot - start));
        start = dot + 1;
    }
}

}  // namespace

// ---- Ethernet ----

uint16_t GetFrameType(const Frame& frame) {
    CheckSize(frame, 13, "Error getting ethernet frame type, unexpected packet size: ");
    return U16At(frame, 12);
}

MacAddress GetDestinationMac(const Frame& frame) {
    CheckSize(frame, 6, "Error getting destination MAC address, unexpected packet size: ");
    return ReadArray<6>(frame, 0);
}

MacAddress GetSourceMac(const Frame& frame) {
    CheckSize(frame, 12, "Error getting source MAC address, unexpected packet size: ");
    return ReadArray<6>(frame, 6);
}

void SetDestinationMac(Frame& frame, const MacAddress& mac) {
    CheckSize(frame, 6, "Error setting destination MAC address, unexpected packet size: ");
    WriteBytes(frame, 0, mac.data(), 6);
}

void SetSourceMac(Frame& frame, const MacAddress& mac) {
    CheckSize(frame, 12, "Error setting source MAC address, unexpected packet size: ");
    WriteBytes(frame, 6, mac.data(), 6);
}

// ---- ARP ----

uint16_t GetArpProtocolType(const Frame& frame) {
    CheckSize(frame, 17, "Error getting ARP protocol type, unexpected packet size: ");
    return U16At(frame, 16);
}

uint16_t GetArpOpcode(const Frame& frame) {
    CheckSize(frame, 21, "Error getting ARP opcode, unexpected packet size: ");
    return U16At(frame, 20);
}

Bytes GetArpSenderMacAddress(const Frame& frame) {
    CheckSize(frame, 28, "Error getting ARP sender MAC address, unexpected packet size: ");
    return Bytes(frame.begin() + 22, frame.begin() + 28);
}

Bytes GetArpSenderIpAddress(const Frame& frame) {
    CheckSize(frame, 34, "Error getting ARP sender IP address, unexpected packet size: ");
    return Bytes(frame.begin() + 28, frame.begin() + 32);
}

bool IsArpReply(const Frame& frame) {
    const uint16_t opcode = GetArpOpcode(frame);
    const uint16_t protocolType = GetArpProtocolType(frame);
    const uint16_t frameType = GetFrameType(frame);
    return frameType == 0x0806 && protocolType == 0x0800 && opcode == 2;
}

// ---- IPv4 ----

uint32_t GetIpHeaderSize(const Frame& frame) {
    CheckSize(frame, 14, "Error getting IP header size, unexpected packet size: ");
    return static_cast<uint32_t>(ByteAt(frame, 14) & 0x0F) * 4;
}

uint16_t GetIpPacketTotalLength(const Frame& frame) {
    CheckSize(frame, 17, "Error getting IP packet total length, unexpected packet size: ");
    return U16At(frame, 16);
}

void SetIpPacketTotalLength(Frame& frame, uint16_t length) {
    CheckSize(frame, 17, "Error setting IP packet total length, unexpected packet size: ");
    PutU16(frame, 16, length);
}

uint8_t GetIpProtocol(const Frame& frame) {
    CheckSize(frame, 23, "Error getting IP protocol, unexpected packet size: ");
    return ByteAt(frame, 23);
}

void SetSourceIpAddress(Frame& frame, const Bytes& ip) {
    if (ip.size() != 4) ThrowSize("SetSourceIpAddress: unexpected IP address value, size: ", ip.size());
    CheckSize(frame, 30, "Error setting source IP address, unexpected packet size: ");
    WriteBytes(frame, 26, ip.data(), 4);
}

void SetDestinationIpAddress(Frame& frame, const Bytes& ip) {
    if (ip.size() != 4) ThrowSize("SetDestinationIpAddress: unexpected IP address value, size: ", ip.size());
    CheckSize(frame, 34, "Error setting destination IP address, unexpected packet size: ");
    WriteBytes(frame, 30, ip.data(), 4);
}

Ipv4Address GetSourceIp(const Frame& frame) {
    CheckSize(frame, 30, "Error getting source IP address, unexpected packet size: ");
    return ReadArray<4>(frame, 26);
}

Ipv4Address GetDestinationIp(const Frame& frame) {
    CheckSize(frame, 34, "Error getting destination IP address, unexpected packet size: ");
    return ReadArray<4>(frame, 30);
}

// ---- TCP / UDP ----

uint16_t GetSourcePort(const Frame& frame) {
    const uint32_t h = GetIpHeaderSize(frame);
    CheckSize(frame, h + 15, "Error getting source port, unexpected packet size: ");
    return U16At(frame, h + 14);
}

uint16_t GetDestinationPort(const Frame& frame) {
    const uint32_t h = GetIpHeaderSize(frame);
    CheckSize(frame, h + 17, "Error getting destination port, unexpected packet size: ");
    return U16At(frame, h + 16);
}

uint32_t GetTcpSequenceNumber(const Frame& frame) {
    const uint32_t h = GetIpHeaderSize(frame);
    CheckSize(frame, h + 21, "Error getting TCP sequence number, unexpected packet size: ");
    return U32At(frame, h + 18);
}

uint32_t GetAcknowledgmentNumber(const Frame& frame) {
    const uint32_t h = GetIpHeaderSize(frame);
    CheckSize(frame, h + 25, "Error getting acknowledgment number, unexpected packet size: ");
    return U32At(frame, h + 22);
}

uint16_t GetTransportHeaderChecksum(const Frame& frame) {
    static constexpr const char* kText = "Error getting transport header checksum, unexpected packet size: ";
    const uint32_t h = GetIpHeaderSize(frame);
    CheckSize(frame, h + 14, kText);
    const size_t offset = TransportChecksumOffset(h, GetIpProtocol(frame));
    CheckSize(frame, offset, kText);
    return U16At(frame, offset);
}

uint32_t GetTransportHeaderLength(const Frame& frame) {
    if (ByteAt(frame, 12) != 0x08 || ByteAt(frame, 13) != 0x00)
        throw Exception("Error getting transport header length, unexpected protocol.");
    const uint8_t protocol = GetIpProtocol(frame);
    if (protocol == IpProtocol::kTcp) {
        const uint32_t h = GetIpHeaderSize(frame);
        CheckSize(frame, h + 26, "Error getting TCP header length, unexpected packet size: ");
        return static_cast<uint32_t>(ByteAt(frame, h + 26) >> 4) * 4;
    }
    if (protocol == IpProtocol::kUdp) return 8;
    std::string message = "Error getting transport header length, unexpected protocol: ";
    message.push_back(static_cast<char>(protocol));
    throw Exception(std::move(message));
}

namespace {

bool TcpFlag(const Frame& frame, uint8_t mask) {
    if (ByteAt(frame, 12) != 0x08 || ByteAt(frame, 13) != 0x00) return false;
    if (GetIpProtocol(frame) != IpProtocol::kTcp) return false;
    const uint32_t h = GetIpHeaderSize(frame);
    // One wording for all three flags.
    CheckSize(frame, h + 27, "Error setting tcp RST flag, unexpected packet size: ");
    return (ByteAt(frame, h + 27) & mask) != 0;
}

}  // namespace

bool IsTcpRstFlagSet(const Frame& frame) { return TcpFlag(frame, 0x04); }
bool IsTcpFinFlagSet(const Frame& frame) { return TcpFlag(frame, 0x01); }
bool IsTcpAckFlagSet(const Frame& frame) { return TcpFlag(frame, 0x10); }

// ---- Writers that keep the transport checksum right ----

namespace {

// The checksum-keeping field writers: read the transport checksum (which checks the
// protocol), then the old value at IHL + `at`, write the new one and carry the change into
// the checksum, 16 bits per step.
void RewriteTransportField16(Frame& frame, uint32_t at, uint32_t threshold, const char* text, uint16_t value) {
    const uint16_t checksum = GetTransportHeaderChecksum(frame);
    const uint32_t h = GetIpHeaderSize(frame);
    CheckSize(frame, h + threshold, text);
    const uint16_t oldValue = U16At(frame, h + at);
    PutU16(frame, h + at, value);
    UpdateTransportHeaderChecksum(frame, checksum, oldValue, U16At(frame, h + at));
}

void RewriteTransportField32(Frame& frame, uint32_t at, uint32_t threshold, const char* text, uint32_t value) {
    const uint16_t checksum = GetTransportHeaderChecksum(frame);
    const uint32_t h = GetIpHeaderSize(frame);
    CheckSize(frame, h + threshold, text);
    const uint32_t oldValue = U32At(frame, h + at);
    PutU32(frame, h + at, value);
    UpdateChecksum32(frame, checksum, oldValue, U32At(frame, h + at));
}

}  // namespace

void SetSourcePort(Frame& frame, uint16_t port) {
    RewriteTransportField16(frame, 14, 15, "Error setting source port, unexpected packet size: ", port);
}

void SetDestinationPort(Frame& frame, uint16_t port) {
    RewriteTransportField16(frame, 16, 17, "Error setting destination port, unexpected packet size: ", port);
}

void SetTcpSequenceNumber(Frame& frame, uint32_t number) {
    RewriteTransportField32(frame, 18, 21, "Error setting TCP sequence number, unexpected packet size: ", number);
}

void SetAcknowledgmentNumber(Frame& frame, uint32_t number) {
    RewriteTransportField32(frame, 22, 25, "Error setting acknowledgment number, unexpected packet size: ", number);
}

void UpdateSourceIp(Frame& frame, const Ipv4Address& ip) {
    const uint16_t checksum = GetTransportHeaderChecksum(frame);
    const uint32_t oldIp = IpAsU32(GetSourceIp(frame));
    CheckSize(frame, 30, "Error setting source IP address, unexpected packet size: ");
    WriteBytes(frame, 26, ip.data(), 4);
    UpdateChecksum32(frame, checksum, oldIp, IpAsU32(ip));
}

void UpdateDestinationIp(Frame& frame, const Ipv4Address& ip) {
    const uint16_t checksum = GetTransportHeaderChecksum(frame);
    const uint32_t oldIp = IpAsU32(GetDestinationIp(frame));
    CheckSize(frame, 34, "Error setting destination IP address, unexpected packet size: ");
    WriteBytes(frame, 30, ip.data(), 4);
    UpdateChecksum32(frame, checksum, oldIp, IpAsU32(ip));
}

// ---- Checksums ----

uint16_t AdjustChecksum(uint16_t checksum, uint16_t oldWord, uint16_t newWord) {
    // RFC 1624: HC' = ~(~HC + ~m + m')
    const uint32_t sum = (~static_cast<uint32_t>(checksum) & 0xFFFF) + (~static_cast<uint32_t>(oldWord) & 0xFFFF) +
                         newWord;
    return static_cast<uint16_t>(~Fold(sum));
}

// The words are read four bytes at a time in host order into a 64-bit accumulator (a loop
// the compiler vectorises); since 2^16 = 1 modulo 0xFFFF the host-order sum only differs
// from the big-endian one by a byte swap, and both are zero exactly when every byte is.
uint16_t InternetChecksumFold(uint32_t seed, const uint8_t* data, size_t length) {
    uint64_t sum = 0;
    size_t i = 0;
    for (; i + 4 <= length; i += 4) {
        uint32_t word;
        std::memcpy(&word, data + i, 4);
        sum += word;
    }
    if (i < length) {
        uint8_t tail[4] = {0, 0, 0, 0};
        std::memcpy(tail, data + i, length - i);
        uint32_t word;
        std::memcpy(&word, tail, 4);
        sum += word;
    }
    uint32_t folded = Fold(sum);
    if constexpr (std::endian::native == std::endian::little) folded = ((folded & 0xFF) << 8) | (folded >> 8);
    return static_cast<uint16_t>(Fold(static_cast<uint64_t>(folded) + seed));
}

void FixIpHeaderChecksum(Frame& frame) {
    const uint32_t h = GetIpHeaderSize(frame);
    CheckSize(frame, h + 14, "Error fixing IP header checksum, unexpected packet size: ");
    uint32_t sum = 0;
    for (size_t i = 14; i + 1 < h + 14; i += 2) {
        if (i == 24) continue;  // the checksum field itself
        sum += (static_cast<uint32_t>(frame[i]) << 8) | frame[i + 1];
    }
    PutU16(frame, 24, static_cast<uint16_t>(~Fold(sum)));
}

void UpdateTransportHeaderChecksum(Frame& frame, uint16_t oldChecksum, uint16_t oldWord, uint16_t newWord) {
    const uint32_t h = GetIpHeaderSize(frame);
    const size_t offset = TransportChecksumOffset(h, GetIpProtocol(frame));
    CheckSize(frame, offset, "Error getting transport header checksum, unexpected packet size: ");
    // RFC 1624: HC' = ~(~HC + ~m + m')
    const uint32_t sum = (~static_cast<uint32_t>(oldChecksum) & 0xFFFF) + (~static_cast<uint32_t>(oldWord) & 0xFFFF) +
                         newWord;
    uint16_t result = static_cast<uint16_t>(~Fold(sum));
    if (result == 0xFFFF) result = 0;
    PutU16(frame, offset, result);
}

void SetTransportHeaderChecksum(Frame& frame, uint16_t checksum) {
    const uint32_t h = GetIpHeaderSize(frame);
    const size_t offset = TransportChecksumOffset(h, GetIpProtocol(frame));
    CheckSize(frame, offset, "Error getting transport header checksum, unexpected packet size: ");
    PutU16(frame, offset, checksum);
}

void FixTransportHeaderChecksum(Frame& frame) {
    static constexpr const char* kSizeText = "Error fixing transport header checksum, unexpected packet size: ";
    const uint32_t h = GetIpHeaderSize(frame);
    CheckSize(frame, h + 14, kSizeText);
    const Ipv4Address source = GetSourceIp(frame);
    const Ipv4Address destination = GetDestinationIp(frame);
    const uint8_t protocol = GetIpProtocol(frame);
    const uint16_t totalLength = GetIpPacketTotalLength(frame);
    if (static_cast<size_t>(totalLength) + 14 != frame.size()) {
        // Wide texts streamed into a narrow stream come out as their addresses.
        static const wchar_t kPrefix[] = L"Error fixing transport header checksum, ";
        static const wchar_t kTotal[] = L"found mismatch between IP total length(";
        static const wchar_t kClose[] = L")";
        static const wchar_t kSize[] = L" and packet size(";
        std::ostringstream message;
        message << HexAddress(kPrefix) << HexAddress(kTotal) << totalLength << HexAddress(kClose)
                << HexAddress(kSize) << frame.size() << HexAddress(kClose);
        throw Exception(message.str());
    }
    const uint16_t segmentLength = static_cast<uint16_t>(totalLength - h);
    const size_t offset = TransportChecksumOffset(h, protocol);
    CheckSize(frame, offset, kSizeText);

    uint64_t sum = ((static_cast<uint32_t>(source[0]) + destination[0] + source[2] + destination[2]) << 8) +
                   source[1] + source[3] + destination[1] + destination[3] + segmentLength + protocol;
    // Clearing the old checksum first equals skipping its word; it is overwritten below anyway.
    PutU16(frame, offset, 0);
    const size_t start = h + 14;
    sum += InternetChecksumFold(0, frame.data() + start, segmentLength);
    uint16_t result = static_cast<uint16_t>(~Fold(sum));
    if (result == 0xFFFF) result = 0;
    PutU16(frame, offset, result);
}

// ---- Text conversions ----

std::string FromVectorToIpString(const Bytes& ip) {
    if (ip.size() != 4) ThrowSize("FromVectorToIpString: unexpected IP address value, size: ", ip.size());
    std::string text;
    text.reserve(15);
    for (size_t i = 0; i < 4; ++i) {
        if (i != 0) text.push_back('.');
        text += std::to_string(ip[i]);
    }
    return text;
}

Bytes FromIPStringToByteArray(const std::string& text) {
    if (!IsValidIpAddress(text)) throw Exception("FromIPStringToByteArray: invalid IP address: " + text);
    Bytes bytes;
    bytes.reserve(4);
    for (const std::string& piece : SplitAtDots(text)) bytes.push_back(static_cast<uint8_t>(DigitsValue(piece)));
    return bytes;
}

bool IsValidIpAddress(const std::string& text) {
    if (text.empty() || text == "0.0.0.0") return false;
    const std::vector<std::string> pieces = SplitAtDots(text);
    if (pieces.size() != 4) return false;
    for (const std::string& piece : pieces) {
        if (piece.empty()) return false;
        if (piece.find_first_not_of("0123456789") != std::string::npos) return false;
        if (DigitsValue(piece) > 255) return false;
    }
    return true;
}

std::string FromVectorToHexString(const Bytes& bytes, const std::string& separator) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i != 0) text += separator;
        text.push_back(kDigits[bytes[i] >> 4]);
        text.push_back(kDigits[bytes[i] & 0x0F]);
    }
    return text;
}

}  // namespace Nat::PacketUtils
