#include "NetworkDriver/Encoding.h"

#include "Logging/NoThousandSep.h"

namespace NativeNetworkDriver {

DecodingError DeserializationError(uint8_t found, uint8_t expected) {
    TorvUtils::LogStream text;
    text << "Deserialization error: found type: " << static_cast<char>(found) << " expected: "
         << static_cast<unsigned>(expected);
    return DecodingError(text.str());
}

void Decoder::Require(size_t count, uint8_t expectedTag) {
    if (offset_ > buffer_.size() || buffer_.size() - offset_ < count) {
        // Past the end there is no byte to report; a zero byte stands for it.
        const uint8_t found = offset_ < buffer_.size() ? buffer_[offset_] : 0;
        throw DeserializationError(found, expectedTag);
    }
}

void Decoder::ExpectTag(uint8_t expectedTag) {
    Require(1, expectedTag);
    if (buffer_[offset_] != expectedTag) throw DeserializationError(buffer_[offset_], expectedTag);
    lastTag_ = expectedTag;
    ++offset_;
}

uint32_t Decoder::ReadRaw32() {
    Require(4, lastTag_);
    const uint32_t value = static_cast<uint32_t>(buffer_[offset_]) | static_cast<uint32_t>(buffer_[offset_ + 1]) << 8 |
                           static_cast<uint32_t>(buffer_[offset_ + 2]) << 16 |
                           static_cast<uint32_t>(buffer_[offset_ + 3]) << 24;
    offset_ += 4;
    return value;
}

uint32_t Decoder::ReadEnum32() {
    ExpectTag(kTagEnum32);
    return ReadRaw32();
}

uint32_t Decoder::ReadUInt32() {
    ExpectTag(kTagUInt32);
    return ReadRaw32();
}

bool Decoder::ReadBool() {
    ExpectTag(kTagBool);
    Require(1, kTagBool);
    return buffer_[offset_++] != 0;
}

std::string Decoder::ReadString() {
    ExpectTag(kTagString);
    const uint32_t length = ReadRaw32();
    Require(length, kTagString);
    std::string text;
    text.reserve(length / 2);
    // Each UTF-16 code unit is narrowed to its low byte; an odd last byte is skipped.
    for (uint32_t i = 0; i + 1 < length; i += 2) text.push_back(static_cast<char>(buffer_[offset_ + i]));
    offset_ += length;
    return text;
}

Bytes Decoder::ReadBytes() {
    ExpectTag(kTagBytes);
    // The length is an int32 on the wire; a negative one, read unsigned, is longer than any
    // payload and fails like every other length that runs past the end.
    const uint32_t length = ReadRaw32();
    if (length == 0) return {};
    Require(length, kTagBytes);
    Bytes value(buffer_.begin() + static_cast<std::ptrdiff_t>(offset_),
                buffer_.begin() + static_cast<std::ptrdiff_t>(offset_ + length));
    offset_ += length;
    return value;
}

Bytes Decoder::ReadGuid() {
    Bytes guid = ReadBytes();
    if (guid.size() != 16)
        throw DecodingError(
            "Error in deserialization of uint8 vector representing a Guid: expected 16 as vector length.");
    return guid;
}

void Decoder::ReadStructHeader() {
    ExpectTag(kTagStruct);
    (void)ReadRaw32();  // the field count is never compared
}

void Encoder::Put32(uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes_.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

Encoder& Encoder::Enum32(uint32_t value) {
    bytes_.push_back(kTagEnum32);
    Put32(value);
    return *this;
}

Encoder& Encoder::UInt32(uint32_t value) {
    bytes_.push_back(kTagUInt32);
    Put32(value);
    return *this;
}

Encoder& Encoder::Bool(bool value) {
    bytes_.push_back(kTagBool);
    bytes_.push_back(value ? 1 : 0);
    return *this;
}

Encoder& Encoder::String(const std::string& text) {
    bytes_.push_back(kTagString);
    Put32(static_cast<uint32_t>(text.size() * 2));
    for (char c : text) {
        bytes_.push_back(static_cast<uint8_t>(c));
        bytes_.push_back(0);
    }
    return *this;
}

Encoder& Encoder::Bytes(const NativeNetworkDriver::Bytes& value) {
    bytes_.push_back(kTagBytes);
    Put32(static_cast<uint32_t>(value.size()));
    bytes_.insert(bytes_.end(), value.begin(), value.end());
    return *this;
}

Encoder& Encoder::ListHeader(int32_t count) {
    bytes_.push_back(kTagList);
    Put32(static_cast<uint32_t>(count));
    return *this;
}

Encoder& Encoder::StructHeader(uint32_t fieldCount) {
    bytes_.push_back(kTagStruct);
    Put32(fieldCount);
    return *this;
}

Encoder& Encoder::Raw(const NativeNetworkDriver::Bytes& raw) {
    bytes_.insert(bytes_.end(), raw.begin(), raw.end());
    return *this;
}

void EncodeHeaderInto(Bytes& out, uint32_t type, uint32_t length) {
    out.resize(11);
    out[0] = 0;
    out[1] = kTagEnum32;
    out[6] = kTagUInt32;
    for (int i = 0; i < 4; ++i) {
        out[2 + i] = static_cast<uint8_t>(type >> (8 * i));
        out[7 + i] = static_cast<uint8_t>(length >> (8 * i));
    }
}

Bytes EncodeHeader(uint32_t type, uint32_t length) {
    Bytes header;
    EncodeHeaderInto(header, type, length);
    return header;
}

}  // namespace NativeNetworkDriver
