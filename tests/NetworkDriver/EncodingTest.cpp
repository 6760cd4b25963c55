#include <gtest/gtest.h>

#include "NetworkDriver/Encoding.h"
#include "support/Thrown.h"

using namespace NativeNetworkDriver;

namespace {

std::string Mismatch(const std::string& found, int expected) {
    return "Deserialization error: found type: " + found + " expected: " + std::to_string(expected);
}

}  // namespace

TEST(Encoding, ValuesHaveTheirWireForm) {
    Encoder e = Encoder::Payload();
    e.Enum32(0xA1B2C3D4).String("AB").Bytes({}).Bytes({1, 2, 3}).Bool(true).Bool(false).UInt32(65536).ListHeader(0);
    const Bytes payload = e.Take();
    // A tag byte, then little-endian values; strings as UTF-16LE with their byte count.
    EXPECT_EQ(payload, (Bytes{0, 1, 0xD4, 0xC3, 0xB2, 0xA1, 2, 4, 0, 0, 0, 0x41, 0, 0x42, 0, 3, 0, 0, 0, 0, 3, 3,
                              0, 0, 0, 1, 2, 3, 5, 1, 5, 0, 7, 0, 0, 1, 0, 13, 0, 0, 0, 0}));
    // Reading each value back is left to the message round trips; the top byte is checked here.
    EXPECT_EQ(Decoder(payload, 1).ReadEnum32(), 0xA1B2C3D4u);
    EXPECT_EQ(EncodeHeader(4, 0x01020304), (Bytes{0, 1, 4, 0, 0, 0, 7, 4, 3, 2, 1}));
}

// The leading byte and a record's field count are never looked at; a string narrows each code
// unit and skips an odd last byte; a list reads exactly its count, none when it is negative.
TEST(Encoding, DecoderReadsWhatOtherWritersMaySend) {
    Encoder e;
    e.Raw({0xEE}).StructHeader(0xDEADBEEF).Raw({2, 5, 0, 0, 0, 0x41, 0x00, 0x42, 0x01, 0x43});
    e.ListHeader(2).UInt32(7).UInt32(8).ListHeader(-3).UInt32(9).Bytes(Bytes(16, 0xAB));
    Decoder d(e.Result(), 1);
    const auto readList = [&] { return d.ReadList<uint32_t>([](Decoder& x) { return x.ReadUInt32(); }); };
    d.ReadStructHeader();
    EXPECT_EQ(d.ReadString(), "AB");
    EXPECT_EQ(readList(), (std::vector<uint32_t>{7, 8}));
    EXPECT_TRUE(readList().empty());
    EXPECT_EQ(d.ReadUInt32(), 9u);
    EXPECT_EQ(d.ReadGuid(), Bytes(16, 0xAB));
}

// The found byte is written as a character, a zero byte included; running past the end fails
// like a tag mismatch, with a zero byte for the missing one.
TEST(Encoding, MalformedValuesThrowTheDecodingError) {
    const std::string zero(1, '\0');
    const auto b = [](Decoder& d) { d.ReadBool(); };
    const auto u = [](Decoder& d) { d.ReadUInt32(); };
    const auto y = [](Decoder& d) { d.ReadBytes(); };
    const auto s = [](Decoder& d) { d.ReadString(); };
    const auto g = [](Decoder& d) { d.ReadGuid(); };
    const struct {
        Bytes payload;
        void (*reader)(Decoder&);
        std::string text;
    } cases[] = {
        {{0, 0x35, 1}, b, Mismatch("5", 5)},
        {{0, 'A', 0, 0, 0, 0}, u, Mismatch("A", 7)},
        {{0, 0}, b, Mismatch(zero, 5)},
        {{0}, u, Mismatch(zero, 7)},
        {{0, 3}, y, Mismatch(zero, 3)},
        {{0, 3, 5, 0, 0, 0, 1, 2}, y, Mismatch("\x01", 3)},
        {{0, 3, 0xFF, 0xFF, 0xFF, 0x7F}, y, Mismatch(zero, 3)},
        {{0, 3, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2}, y, Mismatch("\x01", 3)},  // -1
        {{0, 2, 8, 0, 0, 0, 0x41}, s, Mismatch("A", 2)},
        {{0, 5}, b, Mismatch(zero, 5)},
        {{0, 7, 1, 2}, u, Mismatch("\x01", 7)},
        {{0, 3, 15, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}, g,
         "Error in deserialization of uint8 vector representing a Guid: expected 16 as vector length."},
    };
    for (const auto& c : cases) {
        Decoder d(c.payload, 1);
        const std::string text = ndtest::Thrown<DecodingError>([&] { c.reader(d); });
        EXPECT_EQ(text, c.text) << testing::PrintToString(c.payload);
    }
}
