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
        : ics(Rig::Ports(5000, 4), Rig::Ports(6000, 4), 60000, Net::External(), {Net::Internal(), Second()},
              std::move(proxy), {}, &arp, [this] { return now; }) {}

    static Nat::AdapterInfo Second() {
        return {"int1", "Second", ToBytes(Mac(0x05)), {{ToBytes(Ip(192, 168, 2, 1)), {255, 255, 255, 0}}}, {}, {}};
    }
    Nat::TranslationKind Classify(const Ipv4Address& dst, uint32_t port, const MacAddress& dstMac = kIntMac) {
        return ics.ClassifyInternalPacket(17, kHostMac, dstMac, kHostIp, dst, 50000, port);
    }
};

}  // namespace

TEST(Ics, PrivateDestinationsAreLeftAloneExceptNameLookups) {
    IcsRig rig;
    EXPECT_EQ(rig.Classify(Ip(192, 168, 1, 10), 80), Nat::TranslationKind::None);
    EXPECT_EQ(rig.Classify(Ip(192, 168, 1, 10), 53), Nat::TranslationKind::Snat);
    // Not sent to this machine.
    EXPECT_EQ(rig.Classify(Ip(192, 168, 1, 10), 53, Mac(0x77)), Nat::TranslationKind::None);
    EXPECT_EQ(rig.Classify(Ip(10, 1, 2, 3), 443), Nat::TranslationKind::None);
    EXPECT_EQ(rig.Classify(Ip(172, 16, 0, 1), 80), Nat::TranslationKind::None);
    EXPECT_EQ(rig.Classify(Ip(172, 31, 255, 255), 80), Nat::TranslationKind::None);
    EXPECT_EQ(rig.Classify(Ip(172, 15, 0, 1), 80), Nat::TranslationKind::Snat);
    EXPECT_EQ(rig.Classify(Ip(172, 32, 0, 1), 80), Nat::TranslationKind::Snat);
    EXPECT_EQ(rig.Classify(Ip(192, 169, 0, 1), 80), Nat::TranslationKind::Snat);
    EXPECT_EQ(rig.ics.ClassifyExternalPacket(6, kExtMac, kFarIp, 80, 5000), Nat::TranslationKind::None);
    EXPECT_TRUE(rig.ics.Rules().empty());
    EXPECT_FALSE(rig.ics.FtpEnabled());
}

TEST(Ics, ProxyOnAPrivateAddressIsShared) {
    IcsRig rig(Nat::ProxyInfo{true, ToBytes(Mac(0x55)), ToBytes(Ip(10, 9, 9, 9)), 8080});
    EXPECT_EQ(rig.Classify(Ip(10, 9, 9, 9), 8080), Nat::TranslationKind::Snat);
    EXPECT_EQ(rig.Classify(Ip(10, 9, 9, 9), 8081), Nat::TranslationKind::None);
}

TEST(Ics, EachInternalAdapterGetsItsRepliesBack) {
    IcsRig rig;
    ASSERT_EQ(rig.ics.Mappings().size(), 2u);
    EXPECT_EQ(rig.ics.Mappings()[0].internal.id, "int0");
    EXPECT_EQ(rig.ics.Mappings()[1].internal.id, "int1");

    const MacAddress secondHost = Mac(0x41);
    Frame a = Udp({kHostMac, kIntMac, kHostIp, kFarIp, 50000, 53, "a"});
    Frame b = Udp({secondHost, Mac(0x05), Ip(192, 168, 2, 10), kFarIp, 50000, 53, "b"});
    for (Frame* f : {&a, &b}) {
        Fields in = Parse(*f);
        ASSERT_EQ(rig.ics.ClassifyInternalPacket(17, in.srcMac, in.dstMac, in.srcIp, in.dstIp, in.srcPort, in.dstPort),
                  Nat::TranslationKind::Snat);
        EXPECT_EQ(rig.ics.TranslateInternalToExternal(Nat::TranslationKind::Snat, *f, "x").id, "ext0");
    }
    EXPECT_EQ(Parse(a).srcPort, 6000);
    EXPECT_EQ(Parse(b).srcPort, 6001);

    Frame reply = Udp({kGatewayMac, kExtMac, kFarIp, kExtIp, 53, 6001, "r"});
    ASSERT_EQ(rig.ics.ClassifyExternalPacket(17, kExtMac, kFarIp, 53, 6001), Nat::TranslationKind::Snat);
    EXPECT_EQ(rig.ics.TranslateExternalToInternal(Nat::TranslationKind::Snat, reply, "ext0").id, "int1");
    EXPECT_EQ(reply, Udp({Mac(0x05), secondHost, kFarIp, Ip(192, 168, 2, 10), 53, 50000, "r"}));
}
