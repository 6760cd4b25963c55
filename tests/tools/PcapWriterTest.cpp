// The capture file as a reader sees it while the peer still runs (or after it was killed).
#include <gtest/gtest.h>

#include <ctime>
#include <cstdint>
#include <string>
#include <vector>

#include "PcapWriter.h"
#include "support/TestFiles.h"

TEST(PcapWriter, EveryRecordIsOnDiskWholeAsSoonAsItIsWritten) {
    const auto get32 = [](const std::string& bytes, size_t at) {  // little-endian, as the magic says
        uint32_t value = 0;
        for (int i = 3; i >= 0; --i) value = value << 8 | static_cast<uint8_t>(bytes.at(at + i));
        return value;
    };
    ndtest::TempDir dir;
    const std::string path = dir.Path() + "/tunnel.pcap";
    ndpeer::PcapWriter writer;
    writer.Open(path);
    // Microsecond stamps, format 2.4, snap length 262144, link type Ethernet.
    const std::string header("\xd4\xc3\xb2\xa1\x02\0\x04\0\0\0\0\0\0\0\0\0\0\0\x04\0\x01\0\0\0", 24);
    EXPECT_EQ(ndtest::ReadFile(path), header);

    // A small frame, an empty one, and one longer than the snap length (cut, real length kept).
    std::vector<uint8_t> longFrame(ndpeer::PcapWriter::kSnapLength + 100);
    for (size_t i = 0; i < longFrame.size(); ++i) longFrame[i] = static_cast<uint8_t>(i * 7);
    const std::vector<std::vector<uint8_t>> frames = {{0xff, 0xff, 0xff, 0xff, 0x02, 0x00, 0x08, 0x06}, {}, longFrame};
    size_t at = 24;
    for (const auto& frame : frames) {
        writer.Write(frame.data(), frame.size());
        const size_t kept = std::min<size_t>(frame.size(), ndpeer::PcapWriter::kSnapLength);

        const std::string file = ndtest::ReadFile(path);  // the writer is still open
        ASSERT_EQ(file.size(), at + 16 + kept) << "frame of " << frame.size() << " bytes";
        EXPECT_NEAR(get32(file, at), std::time(nullptr), 1.0);  // seconds, then microseconds
        EXPECT_LT(get32(file, at + 4), 1000000u);
        EXPECT_EQ(get32(file, at + 8), kept);
        EXPECT_EQ(get32(file, at + 12), frame.size());
        EXPECT_EQ(file.substr(at + 16), std::string(frame.begin(), frame.begin() + static_cast<long>(kept)));
        at = file.size();
    }
}
