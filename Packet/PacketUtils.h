#pragma once
// Field access on raw Ethernet II frames carrying ARP or IPv4 with TCP or UDP.
// Every function checks the frame length first and throws Nat::Exception with a fixed
// text when the frame is too short. Multi-byte fields are big-endian on the wire.
#include <cstdint>
#include <string>
#include <vector>

#include "Packet/Frame.h"
#include "Packet/NatException.h"

namespace Nat::PacketUtils {

using Bytes = std::vector<uint8_t>;

// Ethernet
uint16_t GetFrameType(const Frame& frame);

// ARP
uint16_t GetArpProtocolType(const Frame& frame);
uint16_t GetArpOpcode(const Frame& frame);
Bytes GetArpSenderMacAddress(const Frame& frame);
Bytes GetArpSenderIpAddress(const Frame& frame);
bool IsArpReply(const Frame& frame);

// IPv4
uint32_t GetIpHeaderSize(const Frame& frame);
uint16_t GetIpPacketTotalLength(const Frame& frame);
void SetIpPacketTotalLength(Frame& frame, uint16_t length);
uint8_t GetIpProtocol(const Frame& frame);
void SetSourceIpAddress(Frame& frame, const Bytes& ip);
void SetDestinationIpAddress(Frame& frame, const Bytes& ip);

// TCP / UDP
uint16_t GetSourcePort(const Frame& frame);
uint16_t GetDestinationPort(const Frame& frame);
uint32_t GetTcpSequenceNumber(const Frame& frame);
uint32_t GetAcknowledgmentNumber(const Frame& frame);
uint16_t GetTransportHeaderChecksum(const Frame& frame);
uint32_t GetTransportHeaderLength(const Frame& frame);
bool IsTcpRstFlagSet(const Frame& frame);
bool IsTcpFinFlagSet(const Frame& frame);
bool IsTcpAckFlagSet(const Frame& frame);

// Writers that keep the transport checksum right (incremental update). None of them
// touches the IPv4 header checksum.
void SetSourcePort(Frame& frame, uint16_t port);
void SetDestinationPort(Frame& frame, uint16_t port);
void SetTcpSequenceNumber(Frame& frame, uint32_t number);
void SetAcknowledgmentNumber(Frame& frame, uint32_t number);

// Checksums
// RFC 1624 incremental update: the checksum after one 16-bit word of the covered data
// changed from oldWord to newWord. Pure arithmetic: no frame, no bounds.
uint16_t AdjustChecksum(uint16_t checksum, uint16_t oldWord, uint16_t newWord);
// The one's-complement sum of a byte range's big-endian words (an odd last byte padded with
// zero) plus `seed`, folded to 16 bits and not inverted; 0 only when all of them are zero.
uint16_t InternetChecksumFold(uint32_t seed, const uint8_t* data, size_t length);
void FixIpHeaderChecksum(Frame& frame);
void UpdateTransportHeaderChecksum(Frame& frame, uint16_t oldChecksum, uint16_t oldWord, uint16_t newWord);
void FixTransportHeaderChecksum(Frame& frame);
void SetTransportHeaderChecksum(Frame& frame, uint16_t checksum);

// Text conversions
std::string FromVectorToIpString(const Bytes& ip);
Bytes FromIPStringToByteArray(const std::string& text);
bool IsValidIpAddress(const std::string& text);
std::string FromVectorToHexString(const Bytes& bytes, const std::string& separator);

// Addresses as fixed-size values, so that the translation hot path does not allocate.
MacAddress GetDestinationMac(const Frame& frame);
MacAddress GetSourceMac(const Frame& frame);
Ipv4Address GetSourceIp(const Frame& frame);
Ipv4Address GetDestinationIp(const Frame& frame);
void UpdateSourceIp(Frame& frame, const Ipv4Address& ip);
void UpdateDestinationIp(Frame& frame, const Ipv4Address& ip);
void SetDestinationMac(Frame& frame, const MacAddress& mac);
void SetSourceMac(Frame& frame, const MacAddress& mac);

}  // namespace Nat::PacketUtils
