// Broadcast endpoints through the exported functions. Cases that send a broadcast run in a
// private network namespace (DatagramTestUtil.h); the others use loopback only and never send.
#include <netinet/in.h>
#include <sys/socket.h>

#include <future>
#include <string>

#include "DatagramTestUtil.h"
#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;
using dgtest::ExpectFailure;
using nctest::ErrorFlag;
using nctest::Fd;

// An endpoint closed at the end of the test.
class Endpoint {
public:
    explicit Endpoint(int port, const char* addr = nullptr) { ok = NetCore_BroadCast_Create(&socket, port, addr); }
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;
    ~Endpoint() {
        if (ok) NetCore_BroadCast_Close(socket);
    }
    bool ok = false;
    int socket = -1;
};

struct Received {
    bool ok;
    std::string data;
    std::string addr;
};

Received Recv(int socket, int timeoutMs, int room = 2048) {
    std::string buffer(static_cast<size_t>(room), '\0');
    char addr[128] = {};
    int len = room;
    bool ok = NetCore_BroadCast_Recv(socket, &buffer[0], &len, addr, timeoutMs);
    return {ok, ok ? buffer.substr(0, static_cast<size_t>(len)) : std::string(), addr};
}

sockaddr_in BoundAddr(int socket) {
    sockaddr_in addr{};
    socklen_t len = sizeof(addr);
    EXPECT_EQ(0, getsockname(socket, reinterpret_cast<sockaddr*>(&addr), &len));
    return addr;
}

class BroadCastTest : public nctest::NetCoreTest {};
class BroadCastNsTest : public dgtest::NamespaceTest {};

// ----- on loopback, without broadcasting ---------------------------------------------------------

TEST_F(BroadCastTest, CreateBindsToAnyOrToTheGivenAddressWithBroadcastAndReuse) {
    Endpoint any(0);
    ASSERT_TRUE(any.ok);
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(htonl(INADDR_ANY), BoundAddr(any.socket).sin_addr.s_addr);

    Endpoint loop(0, "127.0.0.1");
    ASSERT_TRUE(loop.ok);
    EXPECT_EQ(htonl(INADDR_LOOPBACK), BoundAddr(loop.socket).sin_addr.s_addr);
    int value = 0;
    socklen_t len = sizeof(value);
    ASSERT_EQ(0, getsockopt(loop.socket, SOL_SOCKET, SO_BROADCAST, &value, &len));
    EXPECT_NE(0, value);

    // address reuse lets a second endpoint share the port
    const int port = ntohs(BoundAddr(loop.socket).sin_port);
    Endpoint second(port, "127.0.0.1");
    ASSERT_TRUE(second.ok);
    EXPECT_NE(loop.socket, second.socket);
}

TEST_F(BroadCastTest, CreateFailuresCloseTheirSocket) {
    EXPECT_FALSE(NetCore_BroadCast_Create(nullptr, 0, nullptr));
    ExpectFailure(ERROR_NETCORE_BROADCAST_PARAMENT);
    // an address no interface has cannot be bound; the fixture checks nothing stays open
    int socket = -7;
    EXPECT_FALSE(NetCore_BroadCast_Create(&socket, 0, "192.0.2.77"));
    ExpectFailure(ERROR_NETCORE_BROADCAST_CREATE_BIND);
    EXPECT_EQ(-7, socket);
}

TEST_F(BroadCastTest, RecvTimeOutsAndTheFlagItLeavesSet) {
    Endpoint endpoint(0, "127.0.0.1");
    ASSERT_TRUE(endpoint.ok);
    const int port = ntohs(BoundAddr(endpoint.socket).sin_port);

    // time-out 0 on an idle socket returns at once
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(Recv(endpoint.socket, 0).ok);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    ExpectFailure(ERROR_NETCORE_SOCKET_SELECT_TIMEOUT);

    // a unicast datagram from a loopback peer
    int peerPort = 0;
    Fd peer = nctest::BindUdp(AF_INET, &peerPort);
    ASSERT_TRUE(dgtest::SendTo(peer.Get(), "ping", "127.0.0.1", port));
    EXPECT_FALSE(NetCore_BroadCast_Send(endpoint.socket, "", 0));  // leaves a known code behind
    ExpectFailure(ERROR_NETCORE_BROADCAST_PARAMENT);
    Received got = Recv(endpoint.socket, nctest::kLongestWaitMs);
    ASSERT_TRUE(got.ok);
    EXPECT_EQ("ping", got.data);
    EXPECT_EQ("127.0.0.1:" + std::to_string(peerPort), got.addr);
    // success reads as "error occurred" with the old code untouched
    EXPECT_TRUE(ErrorFlag());
    EXPECT_EQ(ERROR_NETCORE_BROADCAST_PARAMENT, NetCore_GetLastError(nullptr));

    // time-out -1 blocks in the receive until a datagram comes; a null sender text is allowed
    auto pending = std::async(std::launch::async, [&] {
        char buffer[16] = {};
        int len = sizeof(buffer);
        bool ok = NetCore_BroadCast_Recv(endpoint.socket, buffer, &len, nullptr, -1);
        return ok ? std::string(buffer, static_cast<size_t>(len)) : std::string("<failed>");
    });
    EXPECT_EQ(std::future_status::timeout, pending.wait_for(50ms));
    ASSERT_TRUE(dgtest::SendTo(peer.Get(), "late", "127.0.0.1", port));
    ASSERT_EQ(std::future_status::ready, pending.wait_for(5s));
    EXPECT_EQ("late", pending.get());
}

TEST_F(BroadCastTest, ArgumentAndUnknownSocketCodes) {
    Endpoint endpoint(0, "127.0.0.1");
    ASSERT_TRUE(endpoint.ok);
    char buffer[8];
    int len = sizeof(buffer);
    EXPECT_FALSE(NetCore_BroadCast_Send(endpoint.socket, nullptr, 4));
    ExpectFailure(ERROR_NETCORE_BROADCAST_PARAMENT);
    EXPECT_FALSE(NetCore_BroadCast_Send(endpoint.socket, "abc", 0));
    ExpectFailure(ERROR_NETCORE_BROADCAST_PARAMENT);
    EXPECT_FALSE(NetCore_BroadCast_Recv(endpoint.socket, nullptr, &len, nullptr, 0));
    ExpectFailure(ERROR_NETCORE_BROADCAST_PARAMENT);
    EXPECT_FALSE(NetCore_BroadCast_Recv(endpoint.socket, buffer, nullptr, nullptr, 0));
    ExpectFailure(ERROR_NETCORE_BROADCAST_PARAMENT);

    // a socket the family did not create
    int peerPort = 0;
    Fd stranger = nctest::BindUdp(AF_INET, &peerPort);
    EXPECT_FALSE(NetCore_BroadCast_Send(stranger.Get(), "abc", 3));
    ExpectFailure(ERROR_NETCORE_BROADCAST_NOTFOUND);
    EXPECT_FALSE(NetCore_BroadCast_Recv(stranger.Get(), buffer, &len, nullptr, 0));
    ExpectFailure(ERROR_NETCORE_BROADCAST_NOTFOUND);
    EXPECT_TRUE(NetCore_BroadCast_Close(stranger.Get()));
    EXPECT_FALSE(ErrorFlag());

    // after Close the endpoint is unknown
    int closed = endpoint.socket;
    ASSERT_TRUE(NetCore_BroadCast_Close(closed));
    endpoint.ok = false;
    EXPECT_FALSE(NetCore_BroadCast_Send(closed, "abc", 3));
    ExpectFailure(ERROR_NETCORE_BROADCAST_NOTFOUND);
}

TEST_F(BroadCastTest, FailedReceiveGivesItsCode) {
    Endpoint endpoint(0, "127.0.0.1");
    ASSERT_TRUE(endpoint.ok);
    dgtest::BreakSocket(endpoint.socket);
    EXPECT_FALSE(Recv(endpoint.socket, -1).ok);
    ExpectFailure(ERROR_NETCORE_BROADCAST_RECV_FAILED);
}

// ----- broadcasting, in a private namespace ------------------------------------------------------

TEST_F(BroadCastNsTest, EndpointsSharingAPortAllHearABroadcast) {
    const int port = dgtest::FreeUdpPort(AF_INET);
    Endpoint sender(port);
    Endpoint listener(port);
    Endpoint loopOnly(port, "127.0.0.1");
    ASSERT_TRUE(sender.ok && listener.ok && loopOnly.ok);

    ASSERT_TRUE(NetCore_BroadCast_Send(sender.socket, "hello all", 9));
    EXPECT_FALSE(ErrorFlag());
    const std::string from = std::string(dgtest::kNsLocalAddr) + ":" + std::to_string(port);
    for (int socket : {listener.socket, sender.socket}) {
        Received got = Recv(socket, nctest::kLongestWaitMs);
        ASSERT_TRUE(got.ok);
        EXPECT_EQ("hello all", got.data);
        EXPECT_EQ(from, got.addr);
    }
    // bound to 127.0.0.1 only: a datagram to 255.255.255.255 is not addressed to it
    EXPECT_FALSE(Recv(loopOnly.socket, 50).ok);
    ExpectFailure(ERROR_NETCORE_SOCKET_SELECT_TIMEOUT);

    // a plain socket on the port hears it too, as any host on the link would
    Fd plain(socket(AF_INET, SOCK_DGRAM, 0));
    int on = 1;
    setsockopt(plain.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    ASSERT_EQ(0, bind(plain.Get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
    ASSERT_TRUE(NetCore_BroadCast_Send(listener.socket, "again", 5));
    EXPECT_EQ("again", dgtest::RecvPlain(plain.Get()));
}

TEST_F(BroadCastNsTest, BlockingRecvWakesOnABroadcast) {
    const int port = dgtest::FreeUdpPort(AF_INET);
    Endpoint sender(port);
    Endpoint listener(port);
    ASSERT_TRUE(sender.ok && listener.ok);
    auto pending = std::async(std::launch::async, [&] { return Recv(listener.socket, -1); });
    EXPECT_EQ(std::future_status::timeout, pending.wait_for(50ms));
    ASSERT_TRUE(NetCore_BroadCast_Send(sender.socket, "wake up", 7));
    ASSERT_EQ(std::future_status::ready, pending.wait_for(5s));
    Received got = pending.get();
    EXPECT_TRUE(got.ok);
    EXPECT_EQ("wake up", got.data);
}

}  // namespace
