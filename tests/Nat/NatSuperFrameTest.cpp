// Super-frames and frames with a partial checksum are translated header-only. Each is
// checked by cutting the result into wire frames and comparing them with the same wire
// frames translated one by one by a second, identical translator.
#include <gtest/gtest.h>

#include "Packet/SuperFrame.h"
#include "support/NatRig.h"

using namespace NatTest;

namespace {

constexpr uint16_t kMss = 1448;

std::vector<Frame> WireFrames(const Frame& f, const Nat::FrameOffload& offload) {
    Nat::SuperFrameSplitter splitter;
    std::vector<Frame> out;
    EXPECT_TRUE(splitter.Start(offload, f.data(), f.size(), Nat::kMaxFrameSize));
    uint8_t buffer[Nat::kMaxFrameSize];
    for (size_t n; (n = splitter.Next(buffer, sizeof(buffer))) > 0;) out.emplace_back(buffer, buffer + n);
    return out;
}

}  // namespace

TEST(NatSuperFrame, HeaderOnlyTranslationEqualsTranslatingEachWireFrame) {
    const struct {
        const char* name;
        bool outbound, tcp, superFrame;
    } cases[] = {
        {"TCP super-frame out", true, true, true},   {"TCP super-frame in", false, true, true},
        {"TCP partial out", true, true, false},      {"UDP partial in", false, false, false},
        {"UDP super-frame out", true, false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        // Two identical translators with the flow set up: one sees the super-frame, the
        // other the wire frames it stands for.
        Rig whole({}, {Rig::DefaultMapping()});
        Rig wire({}, {Rig::DefaultMapping()});
        const size_t payload = c.superFrame ? 7 * kMss + 100 : 300;
        Frame setup, out, in;
        if (c.tcp) {
            setup = Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40000, 443, 1, 0, kSyn});
            out = Tcp({kHostMac, kIntMac, kHostIp, kFarIp, 40000, 443, 2, 9, kAck, std::string(payload, 'o')});
            in = Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 443, 5000, 9, 2, kAck, std::string(payload, 'i')});
        } else {
            setup = Udp({kHostMac, kIntMac, kHostIp, kFarIp, 40000, 53, "q"});
            out = Udp({kHostMac, kIntMac, kHostIp, kFarIp, 40000, 53, std::string(payload, 'o')});
            in = Udp({kGatewayMac, kExtMac, kFarIp, kExtIp, 53, 6000, std::string(payload, 'i')});
        }
        for (Rig* rig : {&whole, &wire}) {
            Frame first = setup;
            ASSERT_NE(rig->Out(first), 0u);
        }
        Frame frame = c.outbound ? out : in;
        // As a sender with checksum offload hands it over.
        Nat::FrameOffload offload = LeaveChecksumToHardware(frame);
        if (c.superFrame) {
            offload.gsoType = c.tcp ? Nat::kGsoTcpV4 : Nat::kGsoUdpL4;
            offload.gsoSize = kMss;
        }
        const std::vector<Frame> expectedInput = WireFrames(frame, offload);

        ASSERT_NE(c.outbound ? whole.Out(frame, "int0", true) : whole.In(frame, "ext0", true), 0u);
        const std::vector<Frame> got = WireFrames(frame, offload);
        ASSERT_EQ(got.size(), expectedInput.size());
        for (size_t i = 0; i < got.size(); ++i) {
            Frame expected = expectedInput[i];
            ASSERT_NE(c.outbound ? wire.Out(expected) : wire.In(expected), 0u);
            EXPECT_EQ(got[i], expected) << "segment " << i;
        }
    }
}
