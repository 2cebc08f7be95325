// Broadcast and multicast endpoints through the exported functions. Only the namespace case
// broadcasts or joins a group; the other stays on loopback.
#include "DatagramTestUtil.h"

namespace {

using namespace dgtest;
using nctest::ErrorFlag;

// Receives with NetCore_BroadCast_Recv or NetCore_GroupCast_Recv, which take the same arguments:
// "data sender" on success, "failed sender" otherwise (the sender text as the call left it).
std::string Recv(bool (*fpRecv)(int, char*, int*, char*, int), int hSocket, int nTimeout) {
    char buffer[64] = {}, addr[128] = "untouched";
    int len = sizeof(buffer);
    bool ok = fpRecv(hSocket, buffer, &len, addr, nTimeout);
    return (ok ? std::string(buffer, static_cast<size_t>(len)) : "failed") + " " + addr;
}

using CastTest = nctest::NetCoreTest;
using CastNsTest = dgtest::NamespaceTest;

TEST_F(CastTest, CodesAndUnicastOnLoopback) {
    int hSocket = -7, peerPort = 0;
    char buffer[8];
    int room = sizeof(buffer);
    nctest::Fd stranger = nctest::BindUdp(AF_INET, &peerPort);
    auto fnGroup = [&](int* phSocket, const char* group, const char* local, int ttl, int ipver) {
        return [=] { return NetCore_GroupCast_Create(phSocket, 0, group, local, ttl, true, ipver); };
    };
    dgtest::Rows rows = {
        FAILS(NetCore_BroadCast_Create(nullptr, 0, nullptr), ERROR_NETCORE_BROADCAST_PARAMENT),
        // no interface has this address; the fixture checks the socket was closed
        FAILS(NetCore_BroadCast_Create(&hSocket, 0, "192.0.2.77"), ERROR_NETCORE_BROADCAST_CREATE_BIND),
        FAILS(NetCore_BroadCast_Send(stranger.Get(), "abc", 3), ERROR_NETCORE_BROADCAST_NOTFOUND),
        FAILS(NetCore_BroadCast_Recv(stranger.Get(), buffer, &room, nullptr, 0), ERROR_NETCORE_BROADCAST_NOTFOUND),
        {fnGroup(nullptr, "239.1.2.3", "127.0.0.1", 0, AF_INET), ERROR_NETCORE_GROUPCAST_PARAMENT},
        {fnGroup(&hSocket, nullptr, nullptr, 300, AF_INET), ERROR_NETCORE_GROUPCAST_CREATE_TTL},
        // a refused outgoing interface reports as a bind failure
        {fnGroup(&hSocket, "239.1.2.3", "192.0.2.77", 0, AF_INET), ERROR_NETCORE_GROUPCAST_CREATE_BIND},
        // IPv6 endpoints (any number but AF_INET) end at their bind, whatever the addresses
        {fnGroup(&hSocket, "ff15::77", "::1", 0, AF_INET6), ERROR_NETCORE_GROUPCAST_CREATE_BIND},
        {fnGroup(&hSocket, nullptr, nullptr, 0, 0), ERROR_NETCORE_GROUPCAST_CREATE_BIND},
        FAILS(NetCore_GroupCast_Send(stranger.Get(), nullptr, 1), ERROR_NETCORE_GROUPCAST_PARAMENT),
        FAILS(NetCore_GroupCast_Recv(stranger.Get(), nullptr, &room, nullptr, 0), ERROR_NETCORE_GROUPCAST_PARAMENT),
        FAILS(NetCore_GroupCast_Recv(stranger.Get(), buffer, nullptr, nullptr, 0), ERROR_NETCORE_GROUPCAST_PARAMENT),
        FAILS(NetCore_GroupCast_Send(stranger.Get(), "abc", 3), ERROR_NETCORE_GROUPCAST_NOTFOUND),
        FAILS(NetCore_GroupCast_Recv(stranger.Get(), buffer, &room, nullptr, 0), ERROR_NETCORE_GROUPCAST_NOTFOUND),
    };
    // a group that is not a multicast address, or none, cannot be joined; to get that far the
    // platform must take the outgoing interface, which a user-mode emulator may not
    if (dgtest::MulticastInterfaceSupported()) {
        rows.push_back({fnGroup(&hSocket, "10.1.2.3", "127.0.0.1", 0, AF_INET), ERROR_NETCORE_GROUPCAST_CREATE_JOIN});
        rows.push_back({fnGroup(&hSocket, nullptr, "127.0.0.1", 0, AF_INET), ERROR_NETCORE_GROUPCAST_CREATE_JOIN});
    }
    dgtest::ExpectRowsFail(rows);
    EXPECT_EQ(-7, hSocket);  // nothing handed out; the fixture checks nothing stayed open
    EXPECT_TRUE(NetCore_BroadCast_Close(stranger.Get()) && NetCore_GroupCast_Close(stranger.Get()));  // not ours
    EXPECT_FALSE(ErrorFlag());

    ASSERT_TRUE(NetCore_BroadCast_Create(&hSocket, 0, "127.0.0.1"));
    EXPECT_FALSE(ErrorFlag());
    dgtest::ExpectRowsFail({
        FAILS(NetCore_BroadCast_Recv(hSocket, buffer, &room, nullptr, 0), ERROR_NETCORE_SOCKET_SELECT_TIMEOUT),
        FAILS(NetCore_BroadCast_Recv(hSocket, nullptr, &room, nullptr, 0), ERROR_NETCORE_BROADCAST_PARAMENT),
        FAILS(NetCore_BroadCast_Recv(hSocket, buffer, nullptr, nullptr, 0), ERROR_NETCORE_BROADCAST_PARAMENT),
        FAILS(NetCore_BroadCast_Send(hSocket, nullptr, 4), ERROR_NETCORE_BROADCAST_PARAMENT),
        FAILS(NetCore_BroadCast_Send(hSocket, "abc", 0), ERROR_NETCORE_BROADCAST_PARAMENT),
    });
    // a unicast datagram, with and without the wait; success leaves the flag set, code untouched
    const int port = nctest::LocalPort(hSocket);
    ASSERT_TRUE(dgtest::SendTo(stranger.Get(), "ping", port) && dgtest::SendTo(stranger.Get(), "pong", port));
    for (int nTimeout : {nctest::kLongestWaitMs, -1}) {
        EXPECT_EQ((nTimeout < 0 ? "pong" : "ping") + (" 127.0.0.1:" + std::to_string(peerPort)),
                  Recv(NetCore_BroadCast_Recv, hSocket, nTimeout));
        ExpectFailure(ERROR_NETCORE_BROADCAST_PARAMENT);
    }
    // a socket that never turns writable gives the wait's code, and its receive fails
    dgtest::BreakSocket(hSocket);
    dgtest::ExpectRowsFail({
        FAILS(NetCore_BroadCast_Send(hSocket, "abc", 3), ERROR_NETCORE_SOCKET_SELECT_TIMEOUT),
        FAILS(NetCore_BroadCast_Recv(hSocket, buffer, &room, nullptr, -1), ERROR_NETCORE_BROADCAST_RECV_FAILED),
    });
    EXPECT_TRUE(NetCore_BroadCast_Close(hSocket));
    EXPECT_FALSE(NetCore_BroadCast_Send(hSocket, "abc", 3));  // closed: unknown
    ExpectFailure(ERROR_NETCORE_BROADCAST_NOTFOUND);
}

TEST_F(CastNsTest, BroadcastAndGroupReachEveryListenerOnTheHost) {
    const std::string from = std::string(" ") + kNsLocalAddr + ":" + std::to_string(kNsPort);
    int hSender = -1, hListener = -1;
    ASSERT_TRUE(NetCore_BroadCast_Create(&hSender, kNsPort, nullptr));
    ASSERT_TRUE(NetCore_BroadCast_Create(&hListener, kNsPort, nullptr));  // the port is shared
    ASSERT_TRUE(NetCore_BroadCast_Send(hSender, "x", 1));                 // one byte is the shortest message
    EXPECT_FALSE(ErrorFlag());
    for (int hSocket : {hListener, hSender})
        EXPECT_EQ("x" + from, Recv(NetCore_BroadCast_Recv, hSocket, nctest::kLongestWaitMs));
    EXPECT_TRUE(NetCore_BroadCast_Close(hSender) && NetCore_BroadCast_Close(hListener));

    if (!dgtest::MulticastInterfaceSupported()) GTEST_SKIP() << "the outgoing multicast interface is refused here";
    int hLooping = -1, hMember = -1, hQuiet = -1, nTTL = 0;
    socklen_t len = sizeof(nTTL);
    ASSERT_TRUE(NetCore_GroupCast_Create(&hLooping, kNsPort, dgtest::kNsGroupAddr, kNsLocalAddr, 7, true, AF_INET));
    ASSERT_TRUE(NetCore_GroupCast_Create(&hMember, kNsPort, dgtest::kNsGroupAddr, kNsLocalAddr, 0, true, AF_INET));
    ASSERT_TRUE(NetCore_GroupCast_Create(&hQuiet, kNsPort, dgtest::kNsGroupAddr, kNsLocalAddr, 0, false, AF_INET));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_TRUE(getsockopt(hLooping, IPPROTO_IP, IP_MULTICAST_TTL, &nTTL, &len) == 0 && nTTL == 7) << nTTL;
    EXPECT_EQ("failed untouched", Recv(NetCore_GroupCast_Recv, hLooping, 0));  // nothing came, nothing written
    ExpectFailure(ERROR_NETCORE_SOCKET_SELECT_TIMEOUT);
    // with loop on, every member on this host, the sender included, gets the datagram
    ASSERT_TRUE(NetCore_GroupCast_Send(hLooping, "to the group", 12));
    EXPECT_FALSE(ErrorFlag());
    for (int hSocket : {hLooping, hMember, hQuiet}) {
        EXPECT_EQ("to the group" + from, Recv(NetCore_GroupCast_Recv, hSocket, nctest::kLongestWaitMs));
        EXPECT_FALSE(ErrorFlag());
    }
    // with loop off no member here hears it: the next looped datagram is the first one queued
    ASSERT_TRUE(NetCore_GroupCast_Send(hQuiet, "unheard", 7));
    ASSERT_TRUE(NetCore_GroupCast_Send(hMember, "", 0));  // an empty datagram is sent like any other
    EXPECT_EQ(from, Recv(NetCore_GroupCast_Recv, hLooping, -1));
    ASSERT_TRUE(NetCore_GroupCast_Close(hMember));
    EXPECT_FALSE(NetCore_GroupCast_Send(hMember, "x", 1));
    ExpectFailure(ERROR_NETCORE_GROUPCAST_NOTFOUND);
    // a failed receive still writes the (zero) sender text
    dgtest::BreakSocket(hQuiet);
    EXPECT_EQ("failed 0.0.0.0:0", Recv(NetCore_GroupCast_Recv, hQuiet, -1));
    ExpectFailure(ERROR_NETCORE_GROUPCAST_RECV_FAILED);
    EXPECT_TRUE(NetCore_GroupCast_Close(hQuiet) && NetCore_GroupCast_Close(hLooping));
}

}  // namespace
