#include "Platform/InterfaceGuid.h"

#include <gtest/gtest.h>

using namespace Platform;

TEST(InterfaceGuid, NameBytesReadAsWindowsGuidAndBack) {
    EXPECT_EQ(InterfaceGuidText("eth0"), "{30687465-0000-0000-0000-000000000000}");
    // Data1..Data3 are little-endian, Data4 is a plain byte string.
    EXPECT_EQ(InterfaceGuidText("abcdefghijklmno"), "{64636261-6665-6867-696A-6B6C6D6E6F00}");
    for (const char* name : {"eth0", "lo", "veth-a.100", "abcdefghijklmno", "wg0"})
        EXPECT_EQ(GuidTextToInterfaceName(InterfaceGuidText(name)), name);
    EXPECT_EQ(GuidTextToInterfaceName("30687465-0000-0000-0000-000000000000"), "eth0");
    EXPECT_EQ(GuidTextToInterfaceName("{64636261-6665-6867-696a-6b6c6d6e6f00}"), "abcdefghijklmno");
    for (const char* refused : {"{30687465-0000-0000-0000-00000000000a}",    // byte after the end
                                "{30687465-0000-0000-0000-0000000000}",      // short
                                "{3068746G-0000-0000-0000-000000000000}",    // not hex
                                "{64636261-6665-6867-696A-6B6C6D6E6F70}",    // 16 bytes, no terminator
                                "{00000000-0000-0000-0000-000000000000}",    // empty name
                                "{2F687465-0000-0000-0000-000000000000}"})  // '/' not allowed
        EXPECT_EQ(GuidTextToInterfaceName(refused), "") << refused;
}
