// UDP select endpoints through the exported functions, on loopback (127.0.0.1 and ::1).
#include <mutex>

#include "DatagramTestUtil.h"

namespace {

using namespace dgtest;

// Starts an endpoint on a free port (probed, so retried: another process may take it first).
void* StartBound(int ipver, int* port) {
    for (int attempt = 0; attempt < 20; attempt++) {
        nctest::BindUdp(ipver == AF_INET ? AF_INET : AF_INET6, port);
        if (void* handle = NetCore_UDPSelect_Start(*port, ipver)) return handle;
    }
    return nullptr;
}

int SocketOf(void* handle) {
    int hSocket = -1;
    EXPECT_TRUE(NetCore_UDPSelect_GetSocket(handle, &hSocket));
    return hSocket;
}

// One pulled datagram as "data sender", or "failed".
std::string Pull(void* handle, bool select, int room = 2048) {
    char addr[128] = {};
    std::vector<char> buffer(static_cast<size_t>(room));
    bool ok = NetCore_UDPSelect_Recv(handle, addr, buffer.data(), &room, select);
    return ok ? std::string(buffer.data(), static_cast<size_t>(room)) + " " + addr : "failed";
}

// Collects what a receive callback is handed as "data sender socket" (the inbox is the callback's
// context).
struct Inbox {
    std::mutex lock;
    std::vector<std::string> got;

    std::vector<std::string> Got() {
        std::lock_guard<std::mutex> guard(lock);
        return got;
    }
    static void OnRecv(const char* addr, int socket, const char* msg, int len, void* param) {
        auto* inbox = static_cast<Inbox*>(param);
        std::lock_guard<std::mutex> guard(inbox->lock);
        inbox->got.push_back(std::string(msg, static_cast<size_t>(len)) + " " + addr + " " + std::to_string(socket));
    }
};

using UDPSelectTest = nctest::NetCoreTest;

TEST_F(UDPSelectTest, ArgumentHandleAndStartCodes) {
    void* unbound = NetCore_UDPSelect_Start(0, AF_INET);  // port 0: not bound, so it cannot receive
    ASSERT_NE(nullptr, unbound);
    EXPECT_EQ(0, nctest::LocalPort(SocketOf(unbound)));
    char addr[128], buffer[16];
    int len = sizeof(buffer), hSocket = -1;
    // Recv tests its buffers, and Send its data and address, before their handle
    dgtest::ExpectRowsFail({
        FAILS(NetCore_UDPSelect_Recv(nullptr, addr, nullptr, &len, false), ERROR_NETCORE_UDPSELECT_RECV_PARAMENT),
        FAILS(NetCore_UDPSelect_Recv(nullptr, addr, buffer, nullptr, false), ERROR_NETCORE_UDPSELECT_RECV_PARAMENT),
        FAILS(NetCore_UDPSelect_Recv(nullptr, addr, buffer, &len, false), ERROR_NETCORE_UDPSELECT_RECV_NOTFOUND),
        FAILS(NetCore_UDPSelect_Recv(unbound, addr, buffer, &len, true), ERROR_NETCORE_UDPSELECT_RECV_NOTBIND),
        FAILS(NetCore_UDPSelect_Send(nullptr, nullptr, 1, "127.0.0.1", 9), ERROR_NETCORE_UDPSELECT_SEND_PARAMENT),
        FAILS(NetCore_UDPSelect_Send(nullptr, "x", 1, nullptr, 9), ERROR_NETCORE_UDPSELECT_SEND_PARAMENT),
        FAILS(NetCore_UDPSelect_Send(nullptr, "x", 1, "127.0.0.1", 9), ERROR_NETCORE_UDPSELECT_HANDLE_NOTFOUND),
        FAILS(NetCore_UDPSelect_Send(unbound, "", 0, "127.0.0.1", 9), ERROR_NETCORE_SOCKET_SEND_PARAMENT),
        FAILS(NetCore_UDPSelect_GetSocket(nullptr, &hSocket), ERROR_NETCORE_UDPSELECT_HANDLE_NOTFOUND),
        FAILS(NetCore_UDPSelect_SetMode(nullptr, true), ERROR_NETCORE_UDPSELECT_SETMODE_PARAMENT),
        FAILS(NetCore_UDPSelect_RegisterCallBack(nullptr, Inbox::OnRecv, nullptr),
              ERROR_NETCORE_UDPSELECT_CBSET_PARAMENT),
    });
    EXPECT_TRUE(NetCore_UDPSelect_Stop(nullptr) && !nctest::ErrorFlag());
    // Stop wakes the receive thread blocked on the socket and joins it (the fixture counts)
    ASSERT_TRUE(NetCore_UDPSelect_RegisterCallBack(unbound, Inbox::OnRecv, nullptr));
    EXPECT_TRUE(NetCore_UDPSelect_Stop(unbound));
    // a busy port: the bind code, and the half-made endpoint is released
    int port = 0;
    nctest::Fd holder = nctest::BindUdp(AF_INET, &port);
    EXPECT_EQ(nullptr, NetCore_UDPSelect_Start(port, AF_INET));
    ExpectFailure(ERROR_NETCORE_SOCKET_BIND_BIND);
}

TEST_F(UDPSelectTest, PullModeOverIPv4AndIPv6) {
    for (int ipver : {AF_INET, AF_INET6, 0}) {  // any number but AF_INET means IPv6
        SCOPED_TRACE(ipver);
        if (ipver != AF_INET && !nctest::Ipv6Available()) continue;
        const int family = ipver == AF_INET ? AF_INET : AF_INET6;
        const std::string loop = family == AF_INET ? "127.0.0.1" : "::1";
        int port = 0, peerPort = 0;
        void* receiver = StartBound(ipver, &port);
        nctest::Fd peer = nctest::BindUdp(family, &peerPort);
        ASSERT_NE(nullptr, receiver);
        EXPECT_EQ("failed", Pull(receiver, true));  // nothing there: the 100 ms wait gives its code
        ExpectFailure(ERROR_NETCORE_SOCKET_SELECT_TIMEOUT);
        // the endpoint sends to itself
        ASSERT_TRUE(NetCore_UDPSelect_Send(receiver, "first", 5, loop.c_str(), port));
        std::string got = Pull(receiver, true);
        EXPECT_FALSE(nctest::ErrorFlag());
        // the IPv6 send may arrive over IPv4 (a mapped sender address): only its port is certain
        EXPECT_EQ("first :" + std::to_string(port), got.substr(0, 6) + got.substr(got.rfind(':')));
        // without the wait it blocks until a datagram is there; a longer one is cut to the room
        ASSERT_TRUE(NetCore_UDPSelect_Send(receiver, "0123456789", 10, loop.c_str(), port));
        EXPECT_EQ("0123 ", Pull(receiver, false, 4).substr(0, 5));
        ASSERT_TRUE(SendTo(peer.Get(), "", port, family));  // an empty datagram is a receive of 0 bytes
        EXPECT_EQ(" " + loop + ":" + std::to_string(peerPort), Pull(receiver, true));
        dgtest::BreakSocket(SocketOf(receiver));
        EXPECT_EQ("failed", Pull(receiver, false));
        ExpectFailure(ERROR_NETCORE_UDPSELECT_RECV_FAILED);
        EXPECT_TRUE(NetCore_UDPSelect_Stop(receiver));
    }
}

TEST_F(UDPSelectTest, CallbackModeDeliversUntilAnEmptyDatagramOrAStop) {
    int port = 0, peerPort = 0;
    void* endpoint = StartBound(AF_INET, &port);
    ASSERT_NE(nullptr, endpoint);
    nctest::Fd peer = nctest::BindUdp(AF_INET, &peerPort);
    const std::string from = " 127.0.0.1:" + std::to_string(peerPort);
    const std::string to = from + " " + std::to_string(SocketOf(endpoint));
    Inbox first, second;
    const int threads = nctest::CountThreads();
    ASSERT_TRUE(NetCore_UDPSelect_RegisterCallBack(endpoint, Inbox::OnRecv, &first));
    EXPECT_FALSE(nctest::ErrorFlag());
    EXPECT_EQ("failed", Pull(endpoint, true));  // the callback has the datagrams
    ExpectFailure(ERROR_NETCORE_UDPSELECT_RECV_CALLMODE);
    std::string big(3000, 'x');
    big[2047] = 'y';
    ASSERT_TRUE(SendTo(peer.Get(), big, port) && SendTo(peer.Get(), "two", port));
    ASSERT_TRUE(nctest::WaitFor([&] { return first.Got().size() == 2; }));
    // the thread's room is 2048 bytes
    EXPECT_EQ((std::vector<std::string>{big.substr(0, 2048) + to, "two" + to}), first.Got());

    // a second registration hands its callback to the thread already running
    ASSERT_TRUE(NetCore_UDPSelect_RegisterCallBack(endpoint, Inbox::OnRecv, &second));
    EXPECT_EQ(threads + 1, nctest::CountThreads());
    ASSERT_TRUE(SendTo(peer.Get(), "b", port));
    ASSERT_TRUE(nctest::WaitFor([&] { return second.Got().size() == 1; }));
    EXPECT_EQ(std::vector<std::string>{"b" + to}, second.Got());
    // an empty datagram ends the thread; the endpoint stays in callback mode until switched
    ASSERT_TRUE(SendTo(peer.Get(), "", port));
    ASSERT_TRUE(nctest::WaitFor([&] { return nctest::CountThreads() == threads; }));
    ASSERT_TRUE(SendTo(peer.Get(), "late", port));
    EXPECT_EQ("failed", Pull(endpoint, true));
    ExpectFailure(ERROR_NETCORE_UDPSELECT_RECV_CALLMODE);
    ASSERT_TRUE(NetCore_UDPSelect_SetMode(endpoint, false));
    EXPECT_EQ("late" + from, Pull(endpoint, true));
    // registering again starts a fresh thread; a Stop from inside its callback releases the
    // endpoint once the callback has returned (the fixture sees the thread and the socket go)
    auto fnStop = [](const char*, int, const char*, int, void* param) { NetCore_UDPSelect_Stop(param); };
    ASSERT_TRUE(NetCore_UDPSelect_RegisterCallBack(endpoint, fnStop, endpoint));
    ASSERT_TRUE(SendTo(peer.Get(), "c", port));
    EXPECT_TRUE(nctest::WaitFor([&] { return nctest::CountThreads() == threads; }));
    EXPECT_TRUE(first.Got().size() == 2 && second.Got().size() == 1);  // the later datagrams went elsewhere
}

}  // namespace
