// Multicast endpoints through the exported functions. Cases that join a group and send run in a
// private network namespace (DatagramTestUtil.h); the failures that need no traffic run on the
// machine's own loopback.
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "DatagramTestUtil.h"
#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;
using dgtest::ExpectFailure;
using dgtest::kNsGroupAddr;
using dgtest::kNsLocalAddr;
using nctest::ErrorFlag;
using nctest::Fd;

// An endpoint closed at the end of the test.
class Endpoint {
public:
    Endpoint(int port, const char* group, const char* local, int ttl, bool loop, int ipver = AF_INET) {
        ok = NetCore_GroupCast_Create(&socket, port, group, local, ttl, loop, ipver);
    }
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;
    ~Endpoint() {
        if (ok) NetCore_GroupCast_Close(socket);
    }
    bool ok = false;
    int socket = -1;
};

struct Received {
    bool ok;
    std::string data;
    std::string addr;
};

Received Recv(int socket, int timeoutMs) {
    char buffer[2048] = {};
    char addr[128] = "untouched";
    int len = sizeof(buffer);
    bool ok = NetCore_GroupCast_Recv(socket, buffer, &len, addr, timeoutMs);
    return {ok, ok ? std::string(buffer, static_cast<size_t>(len)) : std::string(), addr};
}

int IpOption(int socket, int option) {
    int value = -1;
    socklen_t len = sizeof(value);
    EXPECT_EQ(0, getsockopt(socket, IPPROTO_IP, option, &value, &len));
    return value;
}

// Sockets joined to a group on a device, as this namespace's IGMP table counts them.
int GroupUsers(const std::string& device, const char* group) {
    in_addr addr{};
    EXPECT_EQ(1, inet_pton(AF_INET, group, &addr));
    char hex[16];
    snprintf(hex, sizeof(hex), "%08X", addr.s_addr);  // the table prints the address as stored
    std::ifstream table("/proc/thread-self/net/igmp");
    std::string line;
    bool inDevice = false;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        if (line.empty()) continue;
        if (line[0] != '\t') {  // a device line; its groups follow, indented
            std::string index, name;
            fields >> index >> name;
            inDevice = (name == device);
            continue;
        }
        std::string groupHex;
        int users = 0;
        fields >> groupHex >> users;
        if (inDevice && groupHex == hex) return users;
    }
    return 0;
}

class GroupCastTest : public nctest::NetCoreTest {};
class GroupCastNsTest : public dgtest::NamespaceTest {
protected:
    void SetUp() override {
        dgtest::NamespaceTest::SetUp();
        if (IsSkipped()) return;
        if (!dgtest::MulticastInterfaceSupported()) {
            GTEST_SKIP() << "this platform (a user-mode emulator?) refuses IP_MULTICAST_IF, so no multicast "
                            "endpoint can be made";
        }
    }
};

// ----- failures that need no traffic -------------------------------------------------------------

TEST_F(GroupCastTest, CreateFailuresGiveTheirCodesAndCloseTheSocket) {
    int socket = -7;
    EXPECT_FALSE(NetCore_GroupCast_Create(nullptr, 0, "239.1.2.3", "127.0.0.1", 0, true, AF_INET));
    ExpectFailure(ERROR_NETCORE_GROUPCAST_PARAMENT);
    // a null address text is no address: creation fails at the step it reaches
    EXPECT_FALSE(NetCore_GroupCast_Create(&socket, 0, nullptr, nullptr, 300, true, AF_INET));
    ExpectFailure(ERROR_NETCORE_GROUPCAST_CREATE_TTL);

    // a group text that is not a multicast address, or none, cannot be joined (to get that far,
    // the platform must take the outgoing interface)
    if (dgtest::MulticastInterfaceSupported()) {
        for (const char* lpszGroup : {"10.1.2.3", static_cast<const char*>(nullptr)}) {
            EXPECT_FALSE(NetCore_GroupCast_Create(&socket, 0, lpszGroup, "127.0.0.1", 0, true, AF_INET));
            ExpectFailure(ERROR_NETCORE_GROUPCAST_CREATE_JOIN);
        }
    }
    // an interface address the machine does not have is refused as the outgoing interface,
    // which reports as a bind failure
    EXPECT_FALSE(NetCore_GroupCast_Create(&socket, 0, "239.1.2.3", "192.0.2.77", 0, true, AF_INET));
    ExpectFailure(ERROR_NETCORE_GROUPCAST_CREATE_BIND);
    // IPv6 endpoints end at their bind, whatever the addresses (a time-to-live needs the
    // platform to take the option that carries it)
    const int ttl6 = dgtest::Ipv6Option33Supported() ? 3 : 0;
    for (int ipver : {AF_INET6, 0}) {
        EXPECT_FALSE(NetCore_GroupCast_Create(&socket, 0, "ff15::77", "::1", ttl6, true, ipver));
        ExpectFailure(ERROR_NETCORE_GROUPCAST_CREATE_BIND);
        EXPECT_FALSE(NetCore_GroupCast_Create(&socket, 0, nullptr, nullptr, ttl6, true, ipver));
        ExpectFailure(ERROR_NETCORE_GROUPCAST_CREATE_BIND);
    }
    EXPECT_EQ(-7, socket);  // nothing handed out; the fixture checks nothing stayed open
}

TEST_F(GroupCastTest, ArgumentAndUnknownSocketCodes) {
    int port = 0;
    Fd stranger = nctest::BindUdp(AF_INET, &port);
    char buffer[8];
    int len = sizeof(buffer);
    EXPECT_FALSE(NetCore_GroupCast_Send(stranger.Get(), nullptr, 1));
    ExpectFailure(ERROR_NETCORE_GROUPCAST_PARAMENT);
    EXPECT_FALSE(NetCore_GroupCast_Recv(stranger.Get(), nullptr, &len, nullptr, 0));
    ExpectFailure(ERROR_NETCORE_GROUPCAST_PARAMENT);
    EXPECT_FALSE(NetCore_GroupCast_Recv(stranger.Get(), buffer, nullptr, nullptr, 0));
    ExpectFailure(ERROR_NETCORE_GROUPCAST_PARAMENT);
    EXPECT_FALSE(NetCore_GroupCast_Send(stranger.Get(), "abc", 3));
    ExpectFailure(ERROR_NETCORE_GROUPCAST_NOTFOUND);
    EXPECT_FALSE(NetCore_GroupCast_Recv(stranger.Get(), buffer, &len, nullptr, 0));
    ExpectFailure(ERROR_NETCORE_GROUPCAST_NOTFOUND);
    EXPECT_TRUE(NetCore_GroupCast_Close(stranger.Get()));
    EXPECT_FALSE(ErrorFlag());
}

// ----- joined endpoints, in a private namespace --------------------------------------------------

TEST_F(GroupCastNsTest, TimeToLiveAndLoopOptions) {
    const int port = dgtest::FreeUdpPort(AF_INET);
    Endpoint defaults(port, kNsGroupAddr, kNsLocalAddr, 0, false);
    Endpoint set(port, kNsGroupAddr, kNsLocalAddr, 7, true);
    ASSERT_TRUE(defaults.ok && set.ok);
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(1, IpOption(defaults.socket, IP_MULTICAST_TTL));  // the system's default
    EXPECT_EQ(0, IpOption(defaults.socket, IP_MULTICAST_LOOP));
    EXPECT_EQ(7, IpOption(set.socket, IP_MULTICAST_TTL));
    EXPECT_EQ(1, IpOption(set.socket, IP_MULTICAST_LOOP));
    sockaddr_in bound{};
    socklen_t len = sizeof(bound);
    ASSERT_EQ(0, getsockname(set.socket, reinterpret_cast<sockaddr*>(&bound), &len));
    EXPECT_EQ(htonl(INADDR_ANY), bound.sin_addr.s_addr);
    EXPECT_EQ(port, ntohs(bound.sin_port));
}

TEST_F(GroupCastNsTest, MembersHearTheGroupAndLoopDecidesForTheHost) {
    const int port = dgtest::FreeUdpPort(AF_INET);
    Endpoint looping(port, kNsGroupAddr, kNsLocalAddr, 1, true);
    Endpoint member(port, kNsGroupAddr, kNsLocalAddr, 0, true);
    Endpoint quiet(port, kNsGroupAddr, kNsLocalAddr, 0, false);
    ASSERT_TRUE(looping.ok && member.ok && quiet.ok);
    const std::string from = std::string(kNsLocalAddr) + ":" + std::to_string(port);

    // with loop on, every member on this host, the sender included, gets the datagram
    ASSERT_TRUE(NetCore_GroupCast_Send(looping.socket, "to the group", 12));
    EXPECT_FALSE(ErrorFlag());
    for (int socket : {looping.socket, member.socket, quiet.socket}) {
        Received got = Recv(socket, nctest::kLongestWaitMs);
        ASSERT_TRUE(got.ok);
        EXPECT_EQ("to the group", got.data);
        EXPECT_EQ(from, got.addr);
    }

    // with loop off, no member on this host hears the sender; the next looped send shows the
    // queue held nothing before it
    ASSERT_TRUE(NetCore_GroupCast_Send(quiet.socket, "unheard", 7));
    ASSERT_TRUE(NetCore_GroupCast_Send(member.socket, "heard", 5));
    Received got = Recv(looping.socket, nctest::kLongestWaitMs);
    ASSERT_TRUE(got.ok);
    EXPECT_EQ("heard", got.data);

    // an empty datagram is sent like any other
    ASSERT_TRUE(NetCore_GroupCast_Send(member.socket, "", 0));
    EXPECT_EQ("heard", Recv(member.socket, nctest::kLongestWaitMs).data);
    got = Recv(member.socket, nctest::kLongestWaitMs);
    EXPECT_TRUE(got.ok);
    EXPECT_EQ("", got.data);
}

TEST_F(GroupCastNsTest, RecvTimeOutsAndBlocking) {
    const int port = dgtest::FreeUdpPort(AF_INET);
    Endpoint endpoint(port, kNsGroupAddr, kNsLocalAddr, 0, true);
    ASSERT_TRUE(endpoint.ok);
    Received idle = Recv(endpoint.socket, 0);
    EXPECT_FALSE(idle.ok);
    ExpectFailure(ERROR_NETCORE_SOCKET_SELECT_TIMEOUT);
    EXPECT_EQ("untouched", idle.addr);  // nothing was received, so nothing was written

    ASSERT_TRUE(NetCore_GroupCast_Send(endpoint.socket, "queued", 6));
    Received got = Recv(endpoint.socket, -1);
    ASSERT_TRUE(got.ok);
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ("queued", got.data);
}

TEST_F(GroupCastNsTest, AFailedReceiveStillWritesTheSenderText) {
    const int port = dgtest::FreeUdpPort(AF_INET);
    Endpoint endpoint(port, kNsGroupAddr, kNsLocalAddr, 0, true);
    ASSERT_TRUE(endpoint.ok);
    dgtest::BreakSocket(endpoint.socket);
    Received got = Recv(endpoint.socket, -1);
    EXPECT_FALSE(got.ok);
    ExpectFailure(ERROR_NETCORE_GROUPCAST_RECV_FAILED);
    EXPECT_EQ("0.0.0.0:0", got.addr);
}

TEST_F(GroupCastNsTest, MembershipIsOnTheGivenInterfaceUntilClose) {
    const int port = dgtest::FreeUdpPort(AF_INET);
    Endpoint first(port, kNsGroupAddr, kNsLocalAddr, 0, true);
    ASSERT_TRUE(first.ok);
    int second = -1;
    ASSERT_TRUE(NetCore_GroupCast_Create(&second, port, kNsGroupAddr, kNsLocalAddr, 0, true, AF_INET));
    EXPECT_EQ(2, GroupUsers("nc0", kNsGroupAddr));
    EXPECT_EQ(0, GroupUsers("lo", kNsGroupAddr));

    ASSERT_TRUE(NetCore_GroupCast_Close(second));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(1, GroupUsers("nc0", kNsGroupAddr));
    EXPECT_FALSE(NetCore_GroupCast_Send(second, "x", 1));
    ExpectFailure(ERROR_NETCORE_GROUPCAST_NOTFOUND);
    ASSERT_TRUE(NetCore_GroupCast_Send(first.socket, "still here", 10));
    EXPECT_EQ("still here", Recv(first.socket, nctest::kLongestWaitMs).data);
}

}  // namespace
