// UDP select endpoints through the exported functions, on loopback (127.0.0.1 and ::1).
#include <mutex>
#include <string>
#include <vector>

#include "DatagramTestUtil.h"

namespace {

using dgtest::ExpectFailure;
using dgtest::SendTo;
using nctest::ErrorFlag;
using nctest::Fd;

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

struct Datagram {
    bool ok;
    std::string addr, data;
    int socket;
    void* param;
};

Datagram Pull(void* handle, bool select, int room = 2048) {
    char addr[128] = {};
    std::vector<char> buffer(static_cast<size_t>(room));
    int len = room;
    bool ok = NetCore_UDPSelect_Recv(handle, addr, buffer.data(), &len, select);
    return {ok, addr, ok ? std::string(buffer.data(), static_cast<size_t>(len)) : "", -1, nullptr};
}

// Collects what a receive callback is handed; a set stopHandle is stopped from the first call.
struct Inbox {
    std::mutex lock;
    std::vector<Datagram> got;
    void* stopHandle = nullptr;

    size_t Count() {
        std::lock_guard<std::mutex> guard(lock);
        return got.size();
    }
    Datagram At(size_t i) {
        std::lock_guard<std::mutex> guard(lock);
        return got.at(i);
    }
    static void OnRecv(const char* addr, int socket, const char* msg, int len, void* param) {
        auto* inbox = static_cast<Inbox*>(param);
        std::unique_lock<std::mutex> guard(inbox->lock);
        inbox->got.push_back({true, addr, std::string(msg, static_cast<size_t>(len)), socket, param});
        void* stop = std::exchange(inbox->stopHandle, nullptr);
        guard.unlock();
        if (stop != nullptr) NetCore_UDPSelect_Stop(stop);
    }
};

class UDPSelectTest : public nctest::NetCoreTest {};

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
    EXPECT_TRUE(NetCore_UDPSelect_Stop(nullptr));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_TRUE(NetCore_UDPSelect_Stop(unbound));
    // a busy port: the bind code, and the half-made endpoint is released (the fixture counts)
    int port = 0;
    Fd holder = nctest::BindUdp(AF_INET, &port);
    EXPECT_EQ(nullptr, NetCore_UDPSelect_Start(port, AF_INET));
    ExpectFailure(ERROR_NETCORE_SOCKET_BIND_BIND);
}

TEST_F(UDPSelectTest, PullModeOverIPv4AndIPv6) {
    for (int ipver : {AF_INET, AF_INET6, 0}) {  // any number but AF_INET means IPv6
        SCOPED_TRACE(ipver);
        if (ipver != AF_INET && !nctest::Ipv6Available()) continue;
        const char* loop = ipver == AF_INET ? "127.0.0.1" : "::1";
        int port = 0, peerPort = 0;
        void* receiver = StartBound(ipver, &port);
        void* sender = NetCore_UDPSelect_Start(0, ipver);
        Fd peer = nctest::BindUdp(ipver == AF_INET ? AF_INET : AF_INET6, &peerPort);
        ASSERT_TRUE(receiver && sender);
        EXPECT_FALSE(Pull(receiver, true).ok);  // nothing there: the 100 ms wait gives its code
        ExpectFailure(ERROR_NETCORE_SOCKET_SELECT_TIMEOUT);

        ASSERT_TRUE(NetCore_UDPSelect_Send(sender, "first", 5, loop, port));
        EXPECT_FALSE(ErrorFlag());
        Datagram got = Pull(receiver, true);
        ASSERT_TRUE(got.ok);
        EXPECT_FALSE(ErrorFlag());
        EXPECT_EQ("first", got.data);
        // the IPv6 send may arrive over IPv4 (a mapped sender address): only its port is certain
        EXPECT_EQ(":" + std::to_string(nctest::LocalPort(SocketOf(sender))), got.addr.substr(got.addr.rfind(':')));
        // without the wait it blocks until a datagram is there; a longer one is cut to the room
        ASSERT_TRUE(NetCore_UDPSelect_Send(sender, "0123456789", 10, loop, port));
        got = Pull(receiver, false, 4);
        EXPECT_TRUE(got.ok);
        EXPECT_EQ("0123", got.data);
        // an empty datagram is a receive of 0 bytes
        ASSERT_TRUE(SendTo(peer.Get(), "", loop, port));
        got = Pull(receiver, true);
        EXPECT_TRUE(got.ok);
        EXPECT_EQ("", got.data);
        EXPECT_EQ(std::string(loop) + ":" + std::to_string(peerPort), got.addr);

        dgtest::BreakSocket(SocketOf(receiver));
        EXPECT_FALSE(Pull(receiver, false).ok);
        ExpectFailure(ERROR_NETCORE_UDPSELECT_RECV_FAILED);
        EXPECT_TRUE(NetCore_UDPSelect_Stop(receiver));
        EXPECT_TRUE(NetCore_UDPSelect_Stop(sender));
    }
}

TEST_F(UDPSelectTest, CallbackModeDeliversUntilAnEmptyDatagram) {
    int port = 0, peerPort = 0;
    void* endpoint = StartBound(AF_INET, &port);
    ASSERT_NE(nullptr, endpoint);
    Fd peer = nctest::BindUdp(AF_INET, &peerPort);
    Inbox first, second;
    const int threads = nctest::CountThreads();
    ASSERT_TRUE(NetCore_UDPSelect_RegisterCallBack(endpoint, Inbox::OnRecv, &first));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(threads + 1, nctest::CountThreads());
    EXPECT_FALSE(Pull(endpoint, true).ok);  // the callback has the datagrams
    ExpectFailure(ERROR_NETCORE_UDPSELECT_RECV_CALLMODE);

    std::string big(3000, 'x');
    big[2047] = 'y';
    ASSERT_TRUE(SendTo(peer.Get(), big, "127.0.0.1", port));
    ASSERT_TRUE(SendTo(peer.Get(), "two", "127.0.0.1", port));
    ASSERT_TRUE(nctest::WaitFor([&] { return first.Count() == 2; }));
    EXPECT_EQ(big.substr(0, 2048), first.At(0).data);  // cut to the thread's 2048 bytes
    EXPECT_EQ("two", first.At(1).data);
    EXPECT_EQ("127.0.0.1:" + std::to_string(peerPort), first.At(1).addr);
    EXPECT_EQ(SocketOf(endpoint), first.At(1).socket);
    EXPECT_EQ(&first, first.At(1).param);

    // a second registration hands its callback to the thread already running
    ASSERT_TRUE(NetCore_UDPSelect_RegisterCallBack(endpoint, Inbox::OnRecv, &second));
    EXPECT_EQ(threads + 1, nctest::CountThreads());
    ASSERT_TRUE(SendTo(peer.Get(), "b", "127.0.0.1", port));
    ASSERT_TRUE(nctest::WaitFor([&] { return second.Count() == 1; }));
    EXPECT_EQ("b", second.At(0).data);

    // an empty datagram ends the thread; the endpoint stays in callback mode until switched
    ASSERT_TRUE(SendTo(peer.Get(), "", "127.0.0.1", port));
    ASSERT_TRUE(nctest::WaitFor([&] { return nctest::CountThreads() == threads; }));
    ASSERT_TRUE(SendTo(peer.Get(), "late", "127.0.0.1", port));
    EXPECT_FALSE(Pull(endpoint, true).ok);
    ExpectFailure(ERROR_NETCORE_UDPSELECT_RECV_CALLMODE);
    ASSERT_TRUE(NetCore_UDPSelect_SetMode(endpoint, false));
    EXPECT_EQ("late", Pull(endpoint, true).data);
    // registering again starts a fresh thread
    ASSERT_TRUE(NetCore_UDPSelect_RegisterCallBack(endpoint, Inbox::OnRecv, &first));
    ASSERT_TRUE(SendTo(peer.Get(), "c", "127.0.0.1", port));
    ASSERT_TRUE(nctest::WaitFor([&] { return first.Count() == 3; }));
    EXPECT_EQ("c", first.At(2).data);
    EXPECT_EQ(1u, second.Count());
    EXPECT_TRUE(NetCore_UDPSelect_Stop(endpoint));  // joins the thread: the fixture sees it gone
}

TEST_F(UDPSelectTest, StopFromItsOwnCallbackReleasesTheEndpoint) {
    int port = 0, peerPort = 0;
    Inbox inbox;
    inbox.stopHandle = StartBound(AF_INET, &port);
    ASSERT_NE(nullptr, inbox.stopHandle);
    Fd peer = nctest::BindUdp(AF_INET, &peerPort);
    ASSERT_TRUE(NetCore_UDPSelect_RegisterCallBack(inbox.stopHandle, Inbox::OnRecv, &inbox));
    ASSERT_TRUE(SendTo(peer.Get(), "stop", "127.0.0.1", port));
    // the thread frees the endpoint and closes its socket once the callback has returned; the
    // fixture sees the thread and the socket gone
    ASSERT_TRUE(nctest::WaitFor([&] { return inbox.Count() == 1; }));
}

}  // namespace
