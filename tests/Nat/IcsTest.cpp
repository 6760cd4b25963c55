// Connection sharing: private destinations stay untranslated except name look-ups and
// the proxy; each internal adapter gets its own mapping.
#include <gtest/gtest.h>

#include "Nat/InternetConnectionSharing.h"
#include "support/NatRig.h"

using namespace NatTest;

namespace {

struct IcsRig {
    uint32_t now = 5000;
    FakeArpCache arp{[this] { return now; }};
    Nat::InternetConnectionSharing ics;

    explicit IcsRig(Nat::ProxyInfo proxy = {})
        : ics(Rig::Ports(5000, 4), Rig::Ports(6000, 4), 60000, Net::External(),
              {Net::Internal(),
               {"int1", "Second", ToBytes(Mac(0x05)), {{{192, 168, 2, 1}, {255, 255, 255, 0}}}, {}, {}}},
              std::move(proxy), {}, &arp, [this] { return now; }) {}
};

}  // namespace

TEST(Ics, SharesPublicDestinationsNameLookupsAndTheProxy) {
    const Nat::ProxyInfo proxy{true, ToBytes(Mac(0x55)), ToBytes(Ip(10, 9, 9, 9)), 8080};
    struct Case {
        Ipv4Address dst;
        uint16_t port;
        MacAddress dstMac;
        bool shared;
    } cases[] = {
        {Ip(192, 168, 1, 10), 80, kIntMac, false},  {Ip(192, 168, 1, 10), 53, kIntMac, true},
        {Ip(192, 168, 1, 10), 53, Mac(0x77), false},  // not sent to this machine
        {Ip(10, 1, 2, 3), 443, kIntMac, false},     {Ip(172, 16, 0, 1), 80, kIntMac, false},
        {Ip(172, 31, 255, 255), 80, kIntMac, false}, {Ip(172, 15, 0, 1), 80, kIntMac, true},
        {Ip(172, 32, 0, 1), 80, kIntMac, true},     {Ip(192, 169, 0, 1), 80, kIntMac, true},
        {Ip(10, 9, 9, 9), 8080, kIntMac, true},     {Ip(10, 9, 9, 9), 8081, kIntMac, false},
    };
    IcsRig rig(proxy);
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.dst[0]) + "." + std::to_string(c.dst[1]) + ":" + std::to_string(c.port));
        const Frame frame = Udp({kHostMac, c.dstMac, kHostIp, c.dst, 50000, c.port});
        EXPECT_EQ(rig.ics.Decide(false, frame, Nat::ReadFrameView(frame)).kind,
                  c.shared ? Nat::TranslationKind::Snat : Nat::TranslationKind::None);
    }
    EXPECT_TRUE(rig.ics.Rules().empty());
    EXPECT_FALSE(rig.ics.FtpEnabled());
}

TEST(Ics, EachInternalAdapterGetsItsRepliesBack) {
    IcsRig rig;
    const MacAddress secondHost = Mac(0x41);
    Frame a = Udp({kHostMac, kIntMac, kHostIp, kFarIp, 50000, 53, "a"});
    Frame b = Udp({secondHost, Mac(0x05), Ip(192, 168, 2, 10), kFarIp, 50000, 53, "b"});
    for (Frame* f : {&a, &b}) {
        const Nat::AdapterInfo* out = rig.ics.Translate(false, *f, Nat::ReadFrameView(*f), "x");
        ASSERT_NE(out, nullptr);
        EXPECT_EQ(out->id, "ext0");
    }
    EXPECT_EQ(Parse(a).srcPort, 6000);
    EXPECT_EQ(Parse(b).srcPort, 6001);

    Frame reply = Udp({kGatewayMac, kExtMac, kFarIp, kExtIp, 53, 6001, "r"});
    const Nat::AdapterInfo* back = rig.ics.Translate(true, reply, Nat::ReadFrameView(reply), "ext0");
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->id, "int1");
    EXPECT_EQ(reply, Udp({Mac(0x05), secondHost, kFarIp, Ip(192, 168, 2, 10), 53, 50000, "r"}));
}
