// HTTP Host and FTP rewriting through published services, with the sequence numbers
// of both ends kept consistent across the segments that follow a rewrite.
#include <gtest/gtest.h>

#include "Nat/ApplicationLayer.h"
#include "support/NatRig.h"

using namespace NatTest;
namespace App = Nat::ApplicationLayer;

namespace {

// A client out on the far side talking to the published server.
struct Conversation {
    Rig& rig;
    Ipv4Address client = kFarIp;
    uint16_t clientPort = 40000;
    uint16_t published = 8080;
    Ipv4Address serverSees = kFarIp;  // the peer address the server is shown
    uint16_t serverSeesPort = 40000;
    uint16_t serverPort = 80;

    Fields FromClient(uint32_t seq, uint32_t ack, uint8_t flags, const std::string& payload = {}) {
        Frame f = Tcp({kGatewayMac, kExtMac, client, kExtIp, clientPort, published, seq, ack, flags, payload});
        EXPECT_EQ(rig.In(f), 2u);
        EXPECT_TRUE(IpChecksumValid(f) && TransportChecksumValid(f));
        return Parse(f);
    }
    Fields FromServer(uint32_t seq, uint32_t ack, uint8_t flags, const std::string& payload = {}) {
        Frame f = Tcp({kServerMac, kSrvMac, kServerIp, serverSees, serverPort, serverSeesPort, seq, ack,
                       flags, payload});
        EXPECT_EQ(rig.Out(f, "srv0"), 2u);
        EXPECT_TRUE(IpChecksumValid(f) && TransportChecksumValid(f));
        return Parse(f);
    }
};

}  // namespace

// Each row: a payload and what it becomes (HTTP Host for the server on port 80 or 8081,
// a passive reply for this machine's port 5000, an active command for the server side's
// port 5001), or nothing when it is not for rewriting.
TEST(NatApplicationLayer, ParsersFindWhatToRewriteAndNothingElse) {
    enum Kind { Host80, Host8081, Passive, Port };
    const std::string get = "GET / HTTP/1.1\r\nHost: 10.0.0.5:8080\r\nAccept: */*\r\n\r\n";
    const struct {
        Kind kind;
        std::string in;
        std::optional<std::string> out;
    } cases[] = {
        {Host80, get, "GET / HTTP/1.1\r\nHost: 172.20.0.20\r\nAccept: */*\r\n\r\n"},
        {Host8081, get, "GET / HTTP/1.1\r\nHost: 172.20.0.20:8081\r\nAccept: */*\r\n\r\n"},
        {Host80, "POST / HTTP/1.1\r\nHost: 10.0.0.5\r\n\r\n", std::nullopt},
        {Host80, "GET / HTTP/1.1\r\nHost: example.com:8080\r\n\r\n", std::nullopt},
        {Host80, "GET / HTTP/1.1\r\nHost: 10.0.0.5", std::nullopt},  // value not ended
        {Host80, "GE", std::nullopt},
        {Passive, "227 Entering Passive Mode (192,168,1,20,19,137).\r\n",
         "227 Entering Passive Mode (10,0,0,2,19,136).\r\n"},
        {Passive, "229 Entering Extended Passive Mode (|||6446|)\r\n",
         "229 Entering Extended Passive Mode (|||5000|)\r\n"},
        {Passive, "227 Entering Passive Mode (192,168,1,20,19).\r\n", std::nullopt},
        {Passive, "227 Entering Passive Mode (192,168,1,256,19,1).\r\n", std::nullopt},
        {Passive, "227 Entering Passive Mode (0,0,0,0,19,1).\r\n", std::nullopt},
        {Passive, "226 Done (1,2,3,4,5,6)\r\n", std::nullopt},
        {Passive, "227 no parenthesis", std::nullopt},
        {Port, "port 93,184,216,34,156,64\r\n", "port 172,20,0,1,19,137\r\n"},
        {Port, "EPRT |1|93.184.216.34|40000|\r\n", "EPRT |1|172.20.0.1|5001|\r\n"},
        {Port, "EPRT |2|::1|40000|\r\n", std::nullopt},
        {Port, "EPRT |||\r\n", std::nullopt},
        {Port, "EPRT |1|93.184.216.34|040000|\r\n", std::nullopt},  // six digits
        {Port, "PORT 93,184,216,34,156,64", std::nullopt},           // line not complete
        {Port, "PORT 93,184,216,34,0,0\r\n", std::nullopt},
    };
    for (const auto& c : cases) {
        const auto* data = reinterpret_cast<const uint8_t*>(c.in.data());
        std::optional<App::Edit> edit;
        if (c.kind == Host80 || c.kind == Host8081) {
            edit = App::HostFieldEdit(data, c.in.size(), kServerIp, c.kind == Host80 ? 80 : 8081);
        } else if (c.kind == Passive) {
            if (auto reply = App::ParsePassiveReply(data, c.in.size())) {
                edit = App::Edit{reply->begin, reply->end, App::PassiveReplyText(*reply, kExtIp, 5000)};
            }
        } else if (auto command = App::ParsePortCommand(data, c.in.size())) {
            edit = App::Edit{command->begin, command->end, App::PortCommandText(*command, kSrvSideIp, 5001)};
        }
        ASSERT_EQ(edit.has_value(), c.out.has_value()) << c.in;
        if (edit) {
            EXPECT_EQ(c.in.substr(0, edit->begin) + edit->text + c.in.substr(edit->end), *c.out);
        }
    }
}

TEST(NatHttp, RewrittenRequestsKeepBothEndsSequenceNumbersConsistent) {
    Rig rig({Rule(6, 8080, 80, false, true)});
    rig.Learn(kServerIp, kServerMac);
    Conversation c{rig};

    c.FromClient(1000, 0, kSyn);
    c.FromServer(5000, 1001, kSyn | kAck);
    const std::string first = "GET / HTTP/1.1\r\nHost: 10.0.0.2:8080\r\n\r\n";
    Fields got = c.FromClient(1001, 5001, kAck | kPsh, first);
    EXPECT_EQ(got.payload, "GET / HTTP/1.1\r\nHost: 172.20.0.20\r\n\r\n");
    EXPECT_EQ(got.seq, 1001u);
    const uint32_t firstLen = static_cast<uint32_t>(first.size());

    // The server acknowledges what it got; the client must see its own numbering.
    Fields ack = c.FromServer(5001, 1001 + firstLen - 2, kAck);
    EXPECT_EQ(ack.ack, 1001 + firstLen);

    const std::string second = "GET /b HTTP/1.1\r\nHost: 10.0.0.2:8080\r\n\r\n";
    const uint32_t secondSeq = 1001 + firstLen;
    got = c.FromClient(secondSeq, 5001, kAck | kPsh, second);
    EXPECT_EQ(got.seq, secondSeq - 2);
    // A retransmission of the latest rewritten segment moves nothing twice.
    got = c.FromClient(secondSeq, 5001, kAck | kPsh, second);
    EXPECT_EQ(got.seq, secondSeq - 2);
    EXPECT_EQ(got.payload, "GET /b HTTP/1.1\r\nHost: 172.20.0.20\r\n\r\n");

    const uint32_t thirdSeq = secondSeq + static_cast<uint32_t>(second.size());
    got = c.FromClient(thirdSeq, 5001, kAck | kPsh, "body");
    EXPECT_EQ(got.seq, thirdSeq - 4);
    ack = c.FromServer(5001, thirdSeq - 4 + 4, kAck);
    EXPECT_EQ(ack.ack, thirdSeq + 4);
    Fields response = c.FromServer(5001, thirdSeq, kAck | kPsh, "HTTP/1.1 200 OK\r\n\r\n");
    EXPECT_EQ(response.seq, 5001u);  // the server's own direction is not moved
}

TEST(NatHttp, RewriteThatWouldOverflowTheFrameIsSkipped) {
    Rig rig({Rule(6, 8080, 8081, false, true)});
    rig.Learn(kServerIp, kServerMac);
    Conversation c{.rig = rig, .serverPort = 8081};
    const std::string head = "GET / HTTP/1.1\r\nHost: 1.2.3.4\r\n";
    std::string big = head + std::string(1514 - 54 - head.size() - 4, 'a') + "\r\n\r\n";
    ASSERT_EQ(54 + big.size(), 1514u);
    EXPECT_EQ(c.FromClient(1, 0, kAck, big).payload, big);
    std::string fits = head + "\r\n";
    EXPECT_EQ(c.FromClient(1 + static_cast<uint32_t>(big.size()), 0, kAck, fits).payload,
              "GET / HTTP/1.1\r\nHost: 172.20.0.20:8081\r\n\r\n");
}

TEST(NatFtp, PassiveReplyOpensATemporaryRuleForTheDataConnection) {
    Rig rig({Rule(6, 21, 21, false, false, true)});
    rig.Learn(kServerIp, kServerMac);
    Conversation control{.rig = rig, .published = 21, .serverPort = 21};
    control.FromClient(100, 0, kSyn);
    control.FromServer(7000, 101, kSyn | kAck);
    const std::string reply = "227 Entering Passive Mode (172,20,0,20,19,137).\r\n";
    Fields out = control.FromServer(7001, 101, kAck | kPsh, reply);
    EXPECT_EQ(out.payload, "227 Entering Passive Mode (10,0,0,2,19,136).\r\n");
    EXPECT_EQ(out.seq, 7001u);
    ASSERT_EQ(rig.nat->Rules().size(), 2u);
    EXPECT_TRUE(rig.nat->Rules().back().temporary);
    EXPECT_EQ(rig.nat->TcpTable().FreePortCount(), 7u);

    const uint32_t replyLen = static_cast<uint32_t>(reply.size());
    EXPECT_EQ(control.FromClient(101, 7001 + replyLen - 3, kAck).ack, 7001 + replyLen);
    EXPECT_EQ(control.FromServer(7001 + replyLen, 101, kAck | kPsh, "150 ok\r\n").seq, 7001 + replyLen - 3);

    // The data connection through the published pool port reaches the server's port.
    Conversation data{.rig = rig, .clientPort = 40001, .published = 5000, .serverSeesPort = 40001, .serverPort = 5001};
    Fields syn = data.FromClient(1, 0, kSyn);
    EXPECT_EQ(syn.dstIp, kServerIp);
    EXPECT_EQ(syn.dstPort, 5001);
    EXPECT_EQ(syn.srcIp, kFarIp);
    EXPECT_EQ(data.FromServer(9, 2, kSyn | kAck).srcPort, 5000);
    EXPECT_EQ(rig.Decide(true, Tcp({kGatewayMac, kExtMac, Ip(8, 8, 8, 8), kExtIp, 40001, 5000, 1, 0, kSyn})).kind,
              Nat::TranslationKind::None);  // not the client

    // Data activity keeps the idle control connection alive: its own last frame is
    // 70 s old when the next one comes.
    rig.now += 25000;
    data.FromClient(2, 10, kAck);
    rig.now += 25000;
    data.FromClient(2, 10, kAck);
    rig.now += 20000;
    control.FromClient(101, 7009, kAck);

    // The temporary rule lives 30 s past its last match, then its port returns.
    data.FromClient(2, 10, kRst);
    rig.now += 29999;
    const Frame another = Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 40002, 5000, 1, 0, kSyn});
    EXPECT_EQ(rig.Decide(true, another).kind, Nat::TranslationKind::Dnat);
    rig.now += 30000;
    EXPECT_EQ(rig.Decide(true, another).kind, Nat::TranslationKind::None);
    EXPECT_EQ(rig.nat->Rules().size(), 1u);
    EXPECT_EQ(rig.nat->TcpTable().FreePorts().back(), 5000u);
}

TEST(NatFtp, ActiveModeDataConnectionReachesTheClientThroughTranslateSource) {
    Rig rig({Rule(6, 21, 21, true, false, true)});
    rig.Learn(kServerIp, kServerMac);
    Conversation control{
        .rig = rig, .published = 21, .serverSees = kSrvSideIp, .serverSeesPort = 5000, .serverPort = 21};

    EXPECT_EQ(control.FromClient(100, 0, kSyn).srcPort, 5000);
    control.FromServer(7000, 101, kSyn | kAck);
    const std::string command = "PORT 93,184,216,34,156,65\r\n";  // the client listens on 40001
    Fields got = control.FromClient(101, 7001, kAck | kPsh, command);
    EXPECT_EQ(got.payload, "PORT 172,20,0,1,19,137\r\n");
    EXPECT_EQ(rig.nat->TcpTable().FreePortCount(), 6u);
    const uint32_t commandLen = static_cast<uint32_t>(command.size());
    EXPECT_EQ(control.FromServer(7001, 101 + commandLen - 3, kAck).ack, 101 + commandLen);
    EXPECT_EQ(control.FromClient(101 + commandLen, 7001, kAck | kPsh, "LIST\r\n").seq, 101 + commandLen - 3);

    // The server connects from its data port to the address it was given.
    Frame dataSyn = Tcp({kServerMac, kSrvMac, kServerIp, kSrvSideIp, 20, 5001, 300, 0, kSyn});
    ASSERT_EQ(rig.Out(dataSyn, "srv0"), 2u);
    EXPECT_EQ(rig.lastAdapter->id, "ext0");
    EXPECT_EQ(dataSyn, Tcp({kExtMac, kGatewayMac, kExtIp, kFarIp, 5001, 40001, 300, 0, kSyn}));

    Frame dataSynAck = Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 40001, 5001, 800, 301, kSyn | kAck});
    ASSERT_EQ(rig.In(dataSynAck), 2u);
    EXPECT_EQ(rig.lastAdapter->id, "srv0");
    EXPECT_EQ(dataSynAck,
              Tcp({kSrvMac, kServerMac, kSrvSideIp, kServerIp, 5001, 20, 800, 301, kSyn | kAck}));
}

// Two rules publish the same server, one of them translating the source. A passive data
// connection must reach the server from the same address as its control connection, or
// the server refuses it, whichever rule comes first in the list.
TEST(NatFtp, PassiveDataConnectionIsTranslatedLikeItsControlConnection) {
    Rig rig({Rule(6, 21, 21, false, false, true), Rule(6, 2121, 21, true, false, true)});
    rig.Learn(kServerIp, kServerMac);
    Conversation control{
        .rig = rig, .published = 2121, .serverSees = kSrvSideIp, .serverSeesPort = 5000, .serverPort = 21};

    EXPECT_EQ(control.FromClient(100, 0, kSyn).srcIp, kSrvSideIp);
    control.FromServer(7000, 101, kSyn | kAck);
    Fields out = control.FromServer(7001, 101, kAck | kPsh, "227 Entering Passive Mode (172,20,0,20,156,64).\r\n");
    EXPECT_EQ(out.payload, "227 Entering Passive Mode (10,0,0,2,19,137).\r\n");

    Conversation data{.rig = rig, .clientPort = 40001, .published = 5001, .serverSees = kSrvSideIp,
                      .serverSeesPort = 5002, .serverPort = 40000};
    Fields syn = data.FromClient(1, 0, kSyn);
    EXPECT_EQ(syn.srcIp, kSrvSideIp);
    EXPECT_EQ(syn.srcPort, 5002);
    EXPECT_EQ(syn.dstPort, 40000);
    Fields synAck = data.FromServer(9, 2, kSyn | kAck);
    EXPECT_EQ(synAck.srcPort, 5001);
    EXPECT_EQ(synAck.dstIp, kFarIp);
    EXPECT_EQ(synAck.dstPort, 40001);
}
