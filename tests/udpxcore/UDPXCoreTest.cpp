// The UDP epoll server through its handle functions, with real UDP peers on loopback.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Ombrelt_NetCore.h"
#include "TestSupport.h"
#include "udpxcore/NetCore_UDPXCore.h"

namespace {

using namespace std::chrono_literals;
using nctest::ErrorFlag;
using nctest::Fd;
using nctest::WaitFor;

struct Datagram {
    std::string addr;
    int socket;
    std::string data;
    int len;
};

// Collects what the receive callback is handed.
struct Inbox {
    std::mutex lock;
    std::vector<Datagram> items;
    static void Callback(const char* lpszAddr, int hSocket, const char* lpszMsg, int nLen, void* lParam) {
        auto* inbox = static_cast<Inbox*>(lParam);
        std::lock_guard<std::mutex> guard(inbox->lock);
        inbox->items.push_back({lpszAddr, hSocket, lpszMsg ? std::string(lpszMsg, nLen > 0 ? nLen : 0) : "", nLen});
    }
    size_t Count() {
        std::lock_guard<std::mutex> guard(lock);
        return items.size();
    }
    Datagram At(size_t i) {
        std::lock_guard<std::mutex> guard(lock);
        return items.at(i);
    }
};

void ExpectFailure(unsigned long long code) {
    EXPECT_TRUE(ErrorFlag());
    EXPECT_EQ(code, NetCore_GetLastError(nullptr));
}

sockaddr_storage Loopback(int family, int port, socklen_t* len) {
    sockaddr_storage addr{};
    if (family == AF_INET) {
        auto* in = reinterpret_cast<sockaddr_in*>(&addr);
        in->sin_family = AF_INET;
        in->sin_port = htons(static_cast<uint16_t>(port));
        in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        *len = sizeof(sockaddr_in);
    } else {
        auto* in6 = reinterpret_cast<sockaddr_in6*>(&addr);
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(static_cast<uint16_t>(port));
        in6->sin6_addr = in6addr_loopback;
        *len = sizeof(sockaddr_in6);
    }
    return addr;
}

void SendTo(int fd, int family, int port, const std::string& data) {
    socklen_t len = 0;
    sockaddr_storage addr = Loopback(family, port, &len);
    ASSERT_EQ(static_cast<ssize_t>(data.size()),
              sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&addr), len));
}

// A started server with a registered inbox.
class UDPXCore : public nctest::NetCoreTest {
protected:
    void Start(int nThreads, int nIPVer = AF_INET) {
        xhToken = NetCore_UDPXCore_StartEx(0, nThreads, 5, nIPVer);
        ASSERT_NE(nullptr, xhToken) << std::hex << NetCore_GetLastError(nullptr);
        ASSERT_TRUE(NetCore_UDPXCore_RegisterCallBackEx(xhToken, Inbox::Callback, &inbox));
        ASSERT_TRUE(NetCore_UDPXCore_GetSocketEx(xhToken, &hServer));
        nPort = nctest::LocalPort(hServer);
    }
    void TearDown() override {
        if (xhToken != nullptr) {
            EXPECT_TRUE(NetCore_UDPXCore_DestroyEx(xhToken, true));
        }
        nctest::NetCoreTest::TearDown();
    }
    void* xhToken = nullptr;
    int hServer = -1;
    int nPort = 0;
    Inbox inbox;
};

TEST_F(UDPXCore, DeliversTheSenderTextAndTheBoundSocket) {
    Start(2);
    int clientPort = 0;
    Fd client = nctest::BindUdp(AF_INET, &clientPort);
    SendTo(client.Get(), AF_INET, nPort, "hello");
    ASSERT_TRUE(WaitFor([&] { return inbox.Count() == 1; }));
    Datagram d = inbox.At(0);
    EXPECT_EQ("127.0.0.1:" + std::to_string(clientPort), d.addr);
    EXPECT_EQ(hServer, d.socket);
    EXPECT_EQ("hello", d.data);
    EXPECT_EQ(5, d.len);

    // a long datagram is cut to the receive buffer
    SendTo(client.Get(), AF_INET, nPort, std::string(3000, 'x'));
    ASSERT_TRUE(WaitFor([&] { return inbox.Count() == 2; }));
    EXPECT_EQ(2048, inbox.At(1).len);

    unsigned long long sendBytes = 1, recvBytes = 0, recvPackets = 0;
    EXPECT_TRUE(NetCore_UDPXCore_GetFlowEx(xhToken, &sendBytes, &recvBytes, nullptr, &recvPackets));
    EXPECT_EQ(0u, sendBytes);
    EXPECT_EQ(5u + 2048u, recvBytes);
    EXPECT_EQ(2u, recvPackets);
    unsigned long long timeRecv = 0, timeSend = 1;
    EXPECT_TRUE(NetCore_UDPXCore_GetTimeEx(xhToken, &timeRecv, &timeSend));
    EXPECT_GT(timeRecv, 0u);
    EXPECT_EQ(0u, timeSend);
}

TEST_F(UDPXCore, SendGoesToAnAddressTextAndCountsOnlySuccess) {
    Start(1);
    int peerPort = 0;
    Fd peer = nctest::BindUdp(AF_INET, &peerPort);
    std::string target = "127.0.0.1:" + std::to_string(peerPort);
    EXPECT_TRUE(NetCore_UDPXCore_SendEx(xhToken, target.c_str(), "reply", 5));
    char buf[16] = {};
    ASSERT_TRUE(NetCore_Socket_IOSelect(peer.Get(), true, 500));
    EXPECT_EQ(5, recv(peer.Get(), buf, sizeof(buf), 0));
    EXPECT_STREQ("reply", buf);

    // port 0 is refused by the kernel: nothing is counted
    EXPECT_FALSE(NetCore_UDPXCore_SendEx(xhToken, "127.0.0.1:0", "lost", 4));
    ExpectFailure(ERROR_NETCORE_SOCKET_SEND_FAILED);
    EXPECT_FALSE(NetCore_UDPXCore_SendEx(xhToken, nullptr, "x", 1));
    ExpectFailure(ERROR_NETCORE_UDPXCORE_SENDMSG_PARAMENT);

    unsigned long long sendBytes = 0, recvBytes = 0, sendPackets = 0, recvPackets = 0;
    EXPECT_TRUE(NetCore_UDPXCore_GetFlowEx(xhToken, &sendBytes, &recvBytes, &sendPackets, &recvPackets));
    EXPECT_EQ(5u, sendBytes);
    EXPECT_EQ(1u, sendPackets);
    unsigned long long timeRecv = 1, timeSend = 0;
    EXPECT_TRUE(NetCore_UDPXCore_GetTimeEx(xhToken, &timeRecv, &timeSend));
    EXPECT_EQ(0u, timeRecv);
    EXPECT_GT(timeSend, 0u);
}

TEST_F(UDPXCore, OutputsAreChecked) {
    Start(1);
    unsigned long long a = 0, b = 0, c = 0, d = 0;
    EXPECT_FALSE(NetCore_UDPXCore_GetFlowEx(xhToken, nullptr, &b, &c, &d));
    ExpectFailure(ERROR_NETCORE_UDPXCORE_GETFLOW_PARAMENT);
    EXPECT_FALSE(NetCore_UDPXCore_GetTimeEx(xhToken, &a, nullptr));
    ExpectFailure(ERROR_NETCORE_UDPXCORE_GETTIME_PARAMENT);
    EXPECT_FALSE(NetCore_UDPXCore_GetAverageFlowEx(xhToken, &a, &b, &c, nullptr, true));
    ExpectFailure(ERROR_NETCORE_UDPXCORE_AVERAGE_PARAMENT);
    EXPECT_FALSE(NetCore_UDPXCore_RegisterCallBackEx(xhToken, nullptr, nullptr));
    ExpectFailure(ERROR_NETCORE_UDPXCORE_CBSET_PARAMENT);
    // right after the start the whole-life averages divide by zero elapsed time: all 0
    EXPECT_TRUE(NetCore_UDPXCore_GetAverageFlowEx(xhToken, &a, &b, &c, &d, false));
    EXPECT_EQ(0u, a + b + c + d);
}

TEST_F(UDPXCore, NullHandles) {
    int hSocket = 0;
    unsigned long long a = 0, b = 0, c = 0, d = 0;
    bool results[] = {
        NetCore_UDPXCore_GetSocketEx(nullptr, &hSocket),
        NetCore_UDPXCore_DestroyEx(nullptr, true),
        NetCore_UDPXCore_SendEx(nullptr, "127.0.0.1:1", "x", 1),
        NetCore_UDPXCore_GetFlowEx(nullptr, &a, &b, &c, &d),
        NetCore_UDPXCore_GetTimeEx(nullptr, &a, &b),
        NetCore_UDPXCore_GetAverageFlowEx(nullptr, &a, &b, &c, &d, true),
        NetCore_UDPXCore_RegisterCallBackEx(nullptr, Inbox::Callback, nullptr),
    };
    for (bool bOk : results)
        EXPECT_FALSE(bOk);
    ExpectFailure(ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
}

TEST_F(UDPXCore, StartOnABusyPortFailsWithTheBindCodeAndLeavesNothing) {
    int port = 0;
    Fd busy = nctest::BindUdp(AF_INET, &port);
    testing::internal::CaptureStdout();
    void* xhBusy = NetCore_UDPXCore_StartEx(port, 2, 5, AF_INET);
    fflush(stdout);
    std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(nullptr, xhBusy);
    ExpectFailure(ERROR_NETCORE_SOCKET_BIND_BIND);
    EXPECT_EQ("NetCore_Socket_Bind:" + std::to_string(EADDRINUSE) + "\n", printed);
}

TEST_F(UDPXCore, SeveralThreadsDeliverABurstOnceEach) {
    Start(4);
    int clientPort = 0;
    Fd client = nctest::BindUdp(AF_INET, &clientPort);
    constexpr int kTotal = 2000;
    constexpr int kWindow = 64;  // keeps the socket buffer from overflowing
    for (int i = 0; i < kTotal; i++) {
        if (i >= kWindow) {
            ASSERT_TRUE(WaitFor([&] { return inbox.Count() + kWindow > static_cast<size_t>(i); }));
        }
        SendTo(client.Get(), AF_INET, nPort, std::to_string(i));
    }
    ASSERT_TRUE(WaitFor([&] { return inbox.Count() >= kTotal; }));
    std::set<std::string> seen;
    for (size_t i = 0; i < inbox.Count(); i++)
        seen.insert(inbox.At(i).data);
    EXPECT_EQ(static_cast<size_t>(kTotal), inbox.Count()) << "nothing duplicated";
    EXPECT_EQ(static_cast<size_t>(kTotal), seen.size()) << "nothing lost";
}

TEST_F(UDPXCore, ZeroThreadsMeansOnePerHardwareThread) {
    int before = nctest::CountThreads();
    Start(0);
    int expected = static_cast<int>(std::thread::hardware_concurrency());
    EXPECT_TRUE(WaitFor([&] { return nctest::CountThreads() - before >= expected; }));
    EXPECT_EQ(expected, nctest::CountThreads() - before);
}

TEST_F(UDPXCore, Ipv6Loopback) {
    if (!nctest::Ipv6Available()) GTEST_SKIP() << "no IPv6 loopback on this host";
    Start(2, AF_INET6);
    int clientPort = 0;
    Fd client = nctest::BindUdp(AF_INET6, &clientPort);
    SendTo(client.Get(), AF_INET6, nPort, "six");
    ASSERT_TRUE(WaitFor([&] { return inbox.Count() == 1; }));
    EXPECT_EQ("::1:" + std::to_string(clientPort), inbox.At(0).addr);
    EXPECT_EQ("six", inbox.At(0).data);
}

// Destroy's flag is visible to callers of the class itself.
TEST_F(UDPXCore, DestroyClearsOrKeepsTheCounters) {
    for (bool bClear : {false, true}) {
        CNetCore_UDPXCore server;
        Inbox local;
        ASSERT_TRUE(server.NetCore_UDPXCore_Start(0, 1, 5, AF_INET));
        ASSERT_TRUE(server.NetCore_UDPXCore_RegisterCallBack(Inbox::Callback, &local));
        int hSocket = -1;
        server.NetCore_UDPXCore_GetSocket(&hSocket);
        int clientPort = 0;
        Fd client = nctest::BindUdp(AF_INET, &clientPort);
        SendTo(client.Get(), AF_INET, nctest::LocalPort(hSocket), "count me");
        ASSERT_TRUE(WaitFor([&] { return local.Count() == 1; }));
        std::string target = "127.0.0.1:" + std::to_string(clientPort);
        ASSERT_TRUE(server.NetCore_UDPXCore_SendMsg(target.c_str(), "back", 4));
        ASSERT_TRUE(server.NetCore_UDPXCore_Destroy(bClear));

        unsigned long long sendBytes = 0, recvBytes = 0, sendPackets = 0, recvPackets = 0, timeRecv = 0, timeSend = 0;
        server.NetCore_UDPXCore_GetFlow(&sendBytes, &recvBytes, &sendPackets, &recvPackets);
        server.NetCore_UDPXCore_GetTime(&timeRecv, &timeSend);
        if (bClear) {
            EXPECT_EQ(0u, sendBytes + recvBytes + sendPackets + recvPackets + timeRecv + timeSend);
        } else {
            EXPECT_EQ(4u, sendBytes);
            EXPECT_EQ(8u, recvBytes);
            EXPECT_EQ(1u, sendPackets);
            EXPECT_EQ(1u, recvPackets);
            EXPECT_GT(timeRecv, 0u);
            EXPECT_GT(timeSend, 0u);
        }
    }
}

}  // namespace
