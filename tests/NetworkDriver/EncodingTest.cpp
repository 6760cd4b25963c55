#include <gtest/gtest.h>

#include "NetworkDriver/Encoding.h"
#include "support/Thrown.h"

using namespace NativeNetworkDriver;

namespace {
const auto ErrorText = ndtest::Thrown<DecodingError>;
}  // namespace

TEST(Encoding, ValuesHaveTheirWireFormAndReadBackExactly) {
    Encoder e = Encoder::Payload();
    e.Enum32(0xA1B2C3D4).String("AB").Bytes({}).Bytes({1, 2, 3}).Bool(true).Bool(false).UInt32(65536).ListHeader(0);
    const Bytes payload = e.Take();
    // A tag byte, then little-endian values; strings as UTF-16LE with their byte count.
    EXPECT_EQ(payload, (Bytes{0, 1, 0xD4, 0xC3, 0xB2, 0xA1, 2, 4, 0, 0, 0, 0x41, 0, 0x42, 0, 3, 0, 0, 0, 0, 3, 3,
                              0, 0, 0, 1, 2, 3, 5, 1, 5, 0, 7, 0, 0, 1, 0, 13, 0, 0, 0, 0}));
    Decoder d(payload, 1);
    EXPECT_EQ(d.ReadEnum32(), 0xA1B2C3D4u);
    EXPECT_EQ(d.ReadString(), "AB");
    EXPECT_TRUE(d.ReadBytes().empty());
    EXPECT_EQ(d.ReadBytes(), (Bytes{1, 2, 3}));
    EXPECT_TRUE(d.ReadBool());
    EXPECT_FALSE(d.ReadBool());
    EXPECT_EQ(d.ReadUInt32(), 65536u);
    EXPECT_TRUE(d.ReadList<uint32_t>([](Decoder& x) { return x.ReadUInt32(); }).empty());
    EXPECT_EQ(d.Offset(), payload.size());
    EXPECT_EQ(EncodeHeader(4, 0x01020304), (Bytes{0, 1, 4, 0, 0, 0, 7, 4, 3, 2, 1}));
}

TEST(Encoding, StringsNarrowEachCodeUnitAndSkipAnOddByte) {
    // "A", then U+0142 (loses its high byte), then an odd trailing byte.
    const Bytes payload = {0, 2, 5, 0, 0, 0, 0x41, 0x00, 0x42, 0x01, 0x43, 7, 9, 0, 0, 0};
    Decoder d(payload, 1);
    EXPECT_EQ(d.ReadString(), "AB");
    EXPECT_EQ(d.ReadUInt32(), 9u);  // the offset advanced past all 5 bytes
}

TEST(Encoding, LeadingByteAndStructFieldCountAreNeverLookedAt) {
    Encoder e;
    e.Raw({0xEE}).StructHeader(0xDEADBEEF).Bool(true);
    Decoder d(e.Result(), 1);
    d.ReadStructHeader();
    EXPECT_TRUE(d.ReadBool());
}

TEST(Encoding, ListsReadExactlyTheirCount) {
    Encoder e = Encoder::Payload();
    e.ListHeader(2).UInt32(7).UInt32(8).ListHeader(-3).UInt32(9);
    Decoder d(e.Result(), 1);
    EXPECT_EQ(d.ReadList<uint32_t>([](Decoder& x) { return x.ReadUInt32(); }), (std::vector<uint32_t>{7, 8}));
    EXPECT_TRUE(d.ReadList<uint32_t>([](Decoder& x) { return x.ReadUInt32(); }).empty());  // negative count
    EXPECT_EQ(d.ReadUInt32(), 9u);
}

TEST(Encoding, TagMismatchNamesTheFoundByteAsACharacter) {
    const Bytes payload = {0, 0x35, 1};
    EXPECT_EQ(ErrorText([&] { Decoder(payload, 1).ReadBool(); }), "Deserialization error: found type: 5 expected: 5");
    const Bytes other = {0, 'A', 0, 0, 0, 0};
    EXPECT_EQ(ErrorText([&] { Decoder(other, 1).ReadUInt32(); }), "Deserialization error: found type: A expected: 7");
    // A zero byte is a character like any other and does not end the text.
    const Bytes zero = {0, 0};
    EXPECT_EQ(ErrorText([&] { Decoder(zero, 1).ReadBool(); }),
              std::string("Deserialization error: found type: \0 expected: 5", 48));
}

TEST(Encoding, RunningPastTheEndFailsLikeATagMismatch) {
    const std::vector<Bytes> truncated = {
        {0},                         // no tag at all
        {0, 3},                      // Bytes tag without length
        {0, 3, 5, 0, 0, 0, 1, 2},    // Bytes announcing 5, holding 2
        {0, 3, 0xFF, 0xFF, 0xFF, 0x7F},  // huge length
        {0, 3, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2},  // negative length (-1)
        {0, 3, 0, 0, 0, 0x80, 1, 2},           // negative length (INT32_MIN)
        {0, 2, 8, 0, 0, 0, 0x41},    // String announcing 8
        {0, 5},                      // Bool without its byte
        {0, 7, 1, 2},                // UInt32 cut short
    };
    for (const auto& payload : truncated) {
        const std::string text = ErrorText([&] {
            Decoder d(payload, 1);
            switch (payload.size() > 1 ? payload[1] : 7) {
                case 2: d.ReadString(); break;
                case 3: d.ReadBytes(); break;
                case 5: d.ReadBool(); break;
                default: d.ReadUInt32(); break;
            }
        });
        EXPECT_EQ(text.rfind("Deserialization error: found type: ", 0), 0u) << text;
    }
}

TEST(Encoding, GuidsMustHoldSixteenBytes) {
    Encoder ok = Encoder::Payload();
    ok.Bytes(Bytes(16, 0xAB));
    EXPECT_EQ(Decoder(ok.Result(), 1).ReadGuid().size(), 16u);
    Encoder bad = Encoder::Payload();
    bad.Bytes(Bytes(15, 0xAB));
    EXPECT_EQ(ErrorText([&] { Decoder(bad.Result(), 1).ReadGuid(); }),
              "Error in deserialization of uint8 vector representing a Guid: expected 16 as vector length.");
}
