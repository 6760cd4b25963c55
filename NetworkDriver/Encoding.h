#pragma once
// The control channel's tagged value encoding: one tag byte, then the value, little-endian.
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace NativeNetworkDriver {

using Bytes = std::vector<uint8_t>;

enum Tag : uint8_t {
    kTagEnum32 = 1,
    kTagString = 2,
    kTagBytes = 3,
    kTagBool = 5,
    kTagUInt32 = 7,
    kTagList = 13,
    kTagStruct = 14,
};

// Reads values from a payload, advancing `offset`. Running past the end of the buffer
// fails exactly like a tag mismatch.
class Decoder {
public:
    Decoder(const Bytes& buffer, size_t offset) : buffer_(buffer), offset_(offset) {}

    void ExpectTag(uint8_t expectedTag);
    uint32_t ReadEnum32();
    std::string ReadString();
    Bytes ReadBytes();
    bool ReadBool();
    uint32_t ReadUInt32();
    Bytes ReadGuid();
    // Skips the tag and the field count of a nested record.
    void ReadStructHeader();

    template <typename T>
    std::vector<T> ReadList(const std::function<T(Decoder&)>& readElement) {
        ExpectTag(kTagList);
        const int32_t count = static_cast<int32_t>(ReadRaw32());
        std::vector<T> list;
        for (int32_t i = 0; i < count; ++i) list.push_back(readElement(*this));
        return list;
    }

private:
    uint32_t ReadRaw32();
    // Throws the decoding error unless `count` more bytes are there.
    void Require(size_t count, uint8_t expectedTag);

    const Bytes& buffer_;
    size_t offset_;
    uint8_t lastTag_ = 0;
};

// A malformed payload. The text may hold any byte, a zero byte included (the found tag is
// written as a character), which what() would cut short: Message() has all of it.
class DecodingError : public std::runtime_error {
public:
    explicit DecodingError(const std::string& text) : std::runtime_error(text), text_(text) {}
    const std::string& Message() const { return text_; }

private:
    std::string text_;
};

// "Deserialization error: found type: <byte as a character> expected: <tag>"
DecodingError DeserializationError(uint8_t found, uint8_t expected);

// The mirror of Decoder, for the native-side peer and the tests.
class Encoder {
public:
    Encoder() = default;
    // Top-level payloads start with one byte that the reader skips.
    static Encoder Payload() {
        Encoder e;
        e.bytes_.push_back(0);
        return e;
    }

    Encoder& Enum32(uint32_t value);
    Encoder& String(const std::string& text);
    Encoder& Bytes(const NativeNetworkDriver::Bytes& value);
    Encoder& Bool(bool value);
    Encoder& UInt32(uint32_t value);
    Encoder& ListHeader(int32_t count);
    Encoder& StructHeader(uint32_t fieldCount);
    Encoder& Raw(const NativeNetworkDriver::Bytes& raw);

    const NativeNetworkDriver::Bytes& Result() const { return bytes_; }
    NativeNetworkDriver::Bytes Take() { return std::move(bytes_); }

private:
    void Put32(uint32_t value);
    NativeNetworkDriver::Bytes bytes_;
};

// The 11-byte pipe header: 0, Enum32 type, UInt32 length.
Bytes EncodeHeader(uint32_t type, uint32_t length);
// The same header written over the start of `out`, which is resized to hold it.
void EncodeHeaderInto(Bytes& out, uint32_t type, uint32_t length);

}  // namespace NativeNetworkDriver
