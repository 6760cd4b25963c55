// HTTP Host and FTP rewriting through published services, with the sequence numbers
// of both ends kept consistent across the segments that follow a rewrite.
#include <gtest/gtest.h>

#include <initializer_list>

#include "Nat/ApplicationLayer.h"
#include "support/NatRig.h"

using namespace NatTest;
namespace App = Nat::ApplicationLayer;

namespace {

// One segment and, when they change on the way, its numbers and payload at the other end.
struct Step {
    bool fromClient;
    uint32_t seq, ack;
    uint8_t flags;
    std::string payload = {};
    uint32_t seqThere = seq, ackThere = ack;
    std::string payloadThere = payload;
};

// A client out on the far side talking to the published server. Each segment must reach
// the other end whole: addresses, ports, flags, numbers, payload and every checksum.
struct Conversation {
    Rig& rig;
    uint16_t clientPort = 40000;
    uint16_t published = 8080;
    Ipv4Address serverSees = kFarIp;  // the peer address the server is shown
    uint16_t serverSeesPort = 40000;
    uint16_t serverPort = 80;

    void Run(std::initializer_list<Step> steps) {
        for (const Step& s : steps) {
            SCOPED_TRACE(std::to_string(s.seq) + " " + std::to_string(s.ack));
            const TcpSpec client{kGatewayMac, kExtMac, kFarIp, kExtIp, clientPort, published, s.seq, s.ack, s.flags,
                                 s.payload};
            const TcpSpec server{kServerMac, kSrvMac, kServerIp, serverSees, serverPort, serverSeesPort, s.seq, s.ack,
                                 s.flags, s.payload};
            Frame f = s.fromClient ? client.Build() : server.Build();
            EXPECT_EQ(s.fromClient ? rig.In(f) : rig.Out(f, "srv0"), 2u);
            EXPECT_EQ(f, s.fromClient ? Tcp({kSrvMac, kServerMac, serverSees, kServerIp, serverSeesPort, serverPort,
                                             s.seqThere, s.ackThere, s.flags, s.payloadThere})
                                      : Tcp({kExtMac, kGatewayMac, kExtIp, kFarIp, published, clientPort,
                                             s.seqThere, s.ackThere, s.flags, s.payloadThere}));
        }
    }
};

}  // namespace

// Each row: a payload and what it becomes (HTTP Host for the server on port 80,
// a passive reply for this machine's port 5000, an active command for the server side's
// port 5001), or nothing when it is not for rewriting.
TEST(NatApplicationLayer, ParsersFindWhatToRewriteAndNothingElse) {
    enum Kind { Host, Passive, Port };
    const struct {
        Kind kind;
        std::string in;
        std::optional<std::string> out;
    } cases[] = {
        {Host, "GET / HTTP/1.1\r\nHost: 10.0.0.5:8080\r\nAccept: */*\r\n\r\n",
         "GET / HTTP/1.1\r\nHost: 172.20.0.20\r\nAccept: */*\r\n\r\n"},
        {Host, "POST / HTTP/1.1\r\nHost: 10.0.0.5\r\n\r\n", std::nullopt},
        {Host, "GET / HTTP/1.1\r\nHost: example.com:8080\r\n\r\n", std::nullopt},
        {Host, "GET / HTTP/1.1\r\nHost: 10.0.0.5", std::nullopt},  // value not ended
        {Host, "GE", std::nullopt},
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
        const size_t n = c.in.size();
        std::optional<App::Edit> edit = c.kind == Host ? App::HostFieldEdit(data, n, kServerIp, 80) : std::nullopt;
        if (auto reply = c.kind == Passive ? App::ParsePassiveReply(data, n) : std::nullopt)
            edit = App::Edit{reply->begin, reply->end, App::PassiveReplyText(*reply, kExtIp, 5000)};
        if (auto command = c.kind == Port ? App::ParsePortCommand(data, n) : std::nullopt)
            edit = App::Edit{command->begin, command->end, App::PortCommandText(*command, kSrvSideIp, 5001)};
        auto applied = [&c](const App::Edit& e) { return c.in.substr(0, e.begin) + e.text + c.in.substr(e.end); };
        EXPECT_EQ(edit ? std::optional(applied(*edit)) : std::nullopt, c.out) << c.in;
    }
    const std::string extended = "229 (|||6446|)";  // the data port the temporary rule leads to
    EXPECT_EQ(App::ParsePassiveReply(reinterpret_cast<const uint8_t*>(extended.data()), extended.size())->port, 6446);
}

// Each rewrite shortens a request by two bytes ("10.0.0.2:8080" becomes "172.20.0.20");
// the client's numbers move by what was cut before them, and the server's acknowledgments
// move back.
TEST(NatHttp, RewrittenRequestsKeepBothEndsSequenceNumbersConsistent) {
    Rig rig({Rule(6, 8080, 80, false, true)});
    rig.Learn(kServerIp, kServerMac);
    const std::string first = "GET / HTTP/1.1\r\nHost: 10.0.0.2:8080\r\n\r\n";    // 39 bytes at 1001
    const std::string second = "GET /b HTTP/1.1\r\nHost: 10.0.0.2:8080\r\n\r\n";  // 40 bytes at 1040
    const std::string secondThere = "GET /b HTTP/1.1\r\nHost: 172.20.0.20\r\n\r\n";
    Conversation{rig}.Run({
        {true, 1000, 0, kSyn},
        {false, 5000, 1001, kSyn | kAck},
        {true, 1001, 5001, kAck | kPsh, first, 1001, 5001, "GET / HTTP/1.1\r\nHost: 172.20.0.20\r\n\r\n"},
        {false, 5001, 1038, kAck, "", 5001, 1040},
        {true, 1040, 5001, kAck | kPsh, second, 1038, 5001, secondThere},
        // A retransmission of the latest rewritten segment moves nothing twice.
        {true, 1040, 5001, kAck | kPsh, second, 1038, 5001, secondThere},
        {true, 1080, 5001, kAck | kPsh, "body", 1076},
        {false, 5001, 1080, kAck, "", 5001, 1084},
        {false, 5001, 1080, kAck | kPsh, "HTTP/1.1 200 OK\r\n\r\n", 5001, 1084},
    });
}

TEST(NatHttp, RewriteThatWouldOverflowTheFrameIsSkipped) {
    Rig rig({Rule(6, 8080, 8081, false, true)});
    rig.Learn(kServerIp, kServerMac);
    const std::string head = "GET / HTTP/1.1\r\nHost: 1.2.3.4\r\n";
    // A request filling a 1514-byte frame: no room to grow.
    std::string big = head + std::string(1514 - 54 - head.size() - 4, 'a') + "\r\n\r\n";
    const uint32_t next = 1 + static_cast<uint32_t>(big.size());
    Conversation{.rig = rig, .serverPort = 8081}.Run({
        {true, 1, 0, kAck, big},
        {true, next, 0, kAck, head + "\r\n", next, 0, "GET / HTTP/1.1\r\nHost: 172.20.0.20:8081\r\n\r\n"},
    });
}

// The 49-byte passive reply at 7001 leaves 3 bytes shorter.
TEST(NatFtp, PassiveReplyOpensATemporaryRuleForTheDataConnection) {
    Rig rig({Rule(6, 21, 21, false, false, true)});
    rig.Learn(kServerIp, kServerMac);
    Conversation control{.rig = rig, .published = 21, .serverPort = 21};
    control.Run({
        {true, 100, 0, kSyn},
        {false, 7000, 101, kSyn | kAck},
        {false, 7001, 101, kAck | kPsh, "227 Entering Passive Mode (172,20,0,20,19,137).\r\n", 7001, 101,
         "227 Entering Passive Mode (10,0,0,2,19,136).\r\n"},
        {true, 101, 7047, kAck, "", 101, 7050},
        {false, 7050, 101, kAck | kPsh, "150 ok\r\n", 7047},
    });

    // The data connection through the published pool port reaches the server's port.
    Conversation data{.rig = rig, .clientPort = 40001, .published = 5000, .serverSeesPort = 40001, .serverPort = 5001};
    data.Run({{true, 1, 0, kSyn}, {false, 9, 2, kSyn | kAck}});
    EXPECT_EQ(rig.Decide(true, Tcp({kGatewayMac, kExtMac, Ip(8, 8, 8, 8), kExtIp, 40001, 5000, 1, 0, kSyn})).kind,
              Nat::TranslationKind::None);  // not the client

    // Data activity keeps the idle control connection alive: its own last frame is
    // 70 s old when the next one comes.
    rig.now += 25000;
    data.Run({{true, 2, 10, kAck}});
    rig.now += 25000;
    data.Run({{true, 2, 10, kAck}});
    rig.now += 20000;
    control.Run({{true, 101, 7055, kAck, "", 101, 7058}});

    // The temporary rule lives 30 s past its last match, then its port returns.
    data.Run({{true, 2, 10, kRst}});
    rig.now += 29999;
    const Frame another = Tcp({kGatewayMac, kExtMac, kFarIp, kExtIp, 40002, 5000, 1, 0, kSyn});
    EXPECT_EQ(rig.Decide(true, another).kind, Nat::TranslationKind::Dnat);
    rig.now += 30000;
    EXPECT_EQ(rig.Decide(true, another).kind, Nat::TranslationKind::None);
    EXPECT_EQ(rig.nat->Rules().size(), 1u);
    EXPECT_EQ(rig.nat->TcpTable().FreePorts().back(), 5000u);
}

// The 27-byte PORT command at 101 leaves 3 bytes shorter.
TEST(NatFtp, ActiveModeDataConnectionReachesTheClientThroughTranslateSource) {
    Rig rig({Rule(6, 21, 21, true, false, true)});
    rig.Learn(kServerIp, kServerMac);
    Conversation control{
        .rig = rig, .published = 21, .serverSees = kSrvSideIp, .serverSeesPort = 5000, .serverPort = 21};
    control.Run({
        {true, 100, 0, kSyn},
        {false, 7000, 101, kSyn | kAck},
        {true, 101, 7001, kAck | kPsh, "PORT 93,184,216,34,156,65\r\n", 101, 7001, "PORT 172,20,0,1,19,137\r\n"},
        {false, 7001, 125, kAck, "", 7001, 128},
        {true, 128, 7001, kAck | kPsh, "LIST\r\n", 125},
    });

    // The server connects from its data port to the address it was given (the client
    // listens on 40001).
    Conversation data{.rig = rig, .clientPort = 40001, .published = 5001, .serverSees = kSrvSideIp,
                      .serverSeesPort = 5001, .serverPort = 20};
    data.Run({{false, 300, 0, kSyn}, {true, 800, 301, kSyn | kAck}});
}

// Without translate source the server is shown the client itself: the command stands,
// a repeated command finds the entry the first one made, and the data connection leaves
// from a pool port.
TEST(NatFtp, ActiveModeWithoutTranslateSourceShowsTheClientItself) {
    Rig rig({Rule(6, 21, 21, false, false, true)});
    rig.Learn(kServerIp, kServerMac);
    const std::string command = "PORT 93,184,216,34,156,65\r\n";
    Conversation{.rig = rig, .published = 21, .serverPort = 21}.Run({
        {true, 100, 0, kSyn},
        {false, 7000, 101, kSyn | kAck},
        {true, 101, 7001, kAck | kPsh, command},
        {true, 101, 7001, kAck | kPsh, command},
    });
    Conversation data{.rig = rig, .clientPort = 40001, .published = 5000, .serverSeesPort = 40001, .serverPort = 20};
    data.Run({{false, 300, 0, kSyn}, {true, 800, 301, kSyn | kAck}});
}

// Two rules publish the same server, one of them translating the source. A passive data
// connection must reach the server from the same address as its control connection, or
// the server refuses it, whichever rule comes first in the list.
TEST(NatFtp, PassiveDataConnectionIsTranslatedLikeItsControlConnection) {
    Rig rig({Rule(6, 21, 21, false, false, true), Rule(6, 2121, 21, true, false, true)});
    rig.Learn(kServerIp, kServerMac);
    Conversation{.rig = rig, .published = 2121, .serverSees = kSrvSideIp, .serverSeesPort = 5000, .serverPort = 21}
        .Run({
            {true, 100, 0, kSyn},
            {false, 7000, 101, kSyn | kAck},
            {false, 7001, 101, kAck | kPsh, "227 Entering Passive Mode (172,20,0,20,156,64).\r\n", 7001, 101,
             "227 Entering Passive Mode (10,0,0,2,19,137).\r\n"},
        });
    Conversation{.rig = rig, .clientPort = 40001, .published = 5001, .serverSees = kSrvSideIp,
                 .serverSeesPort = 5002, .serverPort = 40000}
        .Run({{true, 1, 0, kSyn}, {false, 9, 2, kSyn | kAck}});
}
