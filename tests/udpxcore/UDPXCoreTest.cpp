// The UDP epoll server through its exported handle functions (and its exported class, where only
// an object that outlives Destroy shows what Destroy keeps), with real UDP peers on loopback.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "../../src/udpxcore/NetCore_UDPXCore.h"
#include "Ombrelt_BaseLib.h"
#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace {

using nctest::ErrorFlag;
using nctest::Fd;
using nctest::WaitFor;
using ULL = unsigned long long;

void ExpectFailure(bool bResult, ULL nCode) {
    EXPECT_FALSE(bResult);
    EXPECT_TRUE(ErrorFlag());
    EXPECT_EQ(nCode, NetCore_GetLastError(nullptr)) << std::hex << nCode;
}

struct Delivery {
    std::string addr, data;
    int socket, len;
    std::thread::id thread;
};

// Sends one datagram to a loopback port.
bool SendTo(int hFd, int nPort, const std::string& strData) {
    sockaddr_in st_Addr{};
    st_Addr.sin_family = AF_INET;
    st_Addr.sin_port = htons(static_cast<uint16_t>(nPort));
    st_Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return sendto(hFd, strData.data(), strData.size(), 0, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr)) ==
           static_cast<ssize_t>(strData.size());
}

std::string RecvOne(int hFd) {
    timeval st_Time{3, 0};
    setsockopt(hFd, SOL_SOCKET, SO_RCVTIMEO, &st_Time, sizeof(st_Time));
    char tszBuffer[4096];
    ssize_t nLen = recv(hFd, tszBuffer, sizeof(tszBuffer), 0);
    return nLen < 0 ? "(nothing)" : std::string(tszBuffer, static_cast<size_t>(nLen));
}

class UDPXCoreTest : public nctest::NetCoreTest {
protected:
    void TearDown() override {
        EXPECT_TRUE(m_server == nullptr || NetCore_UDPXCore_DestroyEx(m_server, true));
        m_peer.Reset();
        nctest::NetCoreTest::TearDown();
    }
    // Records every delivery; with m_bEcho it answers each datagram from the receive thread.
    static void OnRecv(const char* lpszAddr, int hSocket, const char* lpszData, int nLen, void* lParam) {
        auto* self = static_cast<UDPXCoreTest*>(lParam);
        EXPECT_TRUE(!self->m_bEcho || nLen <= 0 || NetCore_UDPXCore_SendEx(self->m_server, lpszAddr, lpszData, nLen));
        std::lock_guard<std::mutex> st_Lock(self->m_lock);
        self->m_got.push_back({lpszAddr, nLen > 0 ? std::string(lpszData, static_cast<size_t>(nLen)) : "", hSocket,
                               nLen, std::this_thread::get_id()});
    }
    // Starts a server on a free port and opens a peer on a free IPv4 port.
    void Start(int nThreads = 1, int nIPVer = AF_INET, int nTimeFlow = 60, bool bRegister = true) {
        m_server = NetCore_UDPXCore_StartEx(0, nThreads, nTimeFlow, nIPVer);
        ASSERT_NE(nullptr, m_server);
        EXPECT_FALSE(ErrorFlag());
        ASSERT_TRUE(!bRegister || NetCore_UDPXCore_RegisterCallBackEx(m_server, &OnRecv, this));
        ASSERT_TRUE(NetCore_UDPXCore_GetSocketEx(m_server, &m_socket));
        m_port = nctest::LocalPort(m_socket);
        m_peer = nctest::BindUdp(AF_INET, &m_peerPort);
        m_to = "127.0.0.1:" + std::to_string(m_peerPort);
    }
    void Send(const std::string& strData) { ASSERT_TRUE(SendTo(m_peer.Get(), m_port, strData)); }
    std::vector<Delivery> WaitGot(size_t nCount) {
        EXPECT_TRUE(WaitFor([&] { return Deliveries().size() >= nCount; })) << Deliveries().size();
        return Deliveries();
    }
    std::vector<Delivery> Deliveries() {
        std::lock_guard<std::mutex> st_Lock(m_lock);
        return m_got;
    }
    // send bytes, receive bytes, send packets, receive packets; then receive and send time
    std::vector<ULL> Flow() {
        std::vector<ULL> v(6, 99);
        EXPECT_TRUE(NetCore_UDPXCore_GetFlowEx(m_server, &v[0], &v[1], &v[2], &v[3]));
        EXPECT_TRUE(NetCore_UDPXCore_GetTimeEx(m_server, &v[4], &v[5]));
        return v;
    }

    void* m_server = nullptr;
    int m_socket = -1, m_port = 0, m_peerPort = 0;
    Fd m_peer;
    std::string m_to;
    std::atomic<bool> m_bEcho{false};
    std::mutex m_lock;
    std::vector<Delivery> m_got;
};

TEST_F(UDPXCoreTest, ReceivesWithSenderAndSocketCutsLongOnesAndNeverDeliversEmptyOnes) {
    Start(2, AF_INET, 60, false);
    Send("early");  // no callback yet: counted and dropped
    ASSERT_TRUE(WaitFor([&] { return Flow()[3] == 1; }));
    ExpectFailure(NetCore_UDPXCore_RegisterCallBackEx(m_server, nullptr, this), ERROR_NETCORE_UDPXCORE_CBSET_PARAMENT);
    ASSERT_TRUE(NetCore_UDPXCore_RegisterCallBackEx(m_server, &OnRecv, this));

    ULL nBefore = BaseLib_OperatorTime_GetTickCount64();
    std::string strBig(3000, 'x');
    for (size_t i = 0; i < strBig.size(); i++)
        strBig[i] = static_cast<char>('A' + i % 23);
    Send("hello");
    Send(strBig);
    std::vector<Delivery> got = WaitGot(2);
    ULL nAfter = BaseLib_OperatorTime_GetTickCount64();
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(m_to, got[0].addr);
    EXPECT_EQ(m_socket, got[0].socket);
    EXPECT_EQ("hello", got[0].data);
    EXPECT_EQ(5, got[0].len);
    EXPECT_NE(std::this_thread::get_id(), got[0].thread);
    EXPECT_EQ(2048, got[1].len);
    EXPECT_EQ(strBig.substr(0, 2048), got[1].data);
    std::vector<ULL> v = Flow();
    EXPECT_EQ((std::vector<ULL>{0, 5 + 5 + 2048, 0, 3}), std::vector<ULL>(v.begin(), v.begin() + 4));
    EXPECT_GE(v[4], nBefore);
    EXPECT_LE(v[4], nAfter);
    EXPECT_EQ(0u, v[5]);

    // The empty datagram ends the drain: what queued behind it comes with a later arrival.
    Send("");
    Send("after");
    ASSERT_TRUE(WaitFor([&] {
        Send("next");
        return Deliveries().size() >= 4;
    }));
    got = Deliveries();
    EXPECT_EQ("after", got[2].data);
    for (size_t i = 3; i < got.size(); i++)
        EXPECT_EQ("next", got[i].data);
    EXPECT_TRUE(WaitFor([&] { return Flow()[3] == Deliveries().size() + 1; })) << "the empty one is not counted";
}

TEST_F(UDPXCoreTest, ArgumentsAndHandlesAreCheckedWithTheirCodes) {
    Start();
    ULL a = 0, b = 0, c = 0, d = 0;
    int fd = 0;
    void* s = m_server;
    const std::vector<std::pair<std::function<bool()>, ULL>> rows = {
        {[&] { return NetCore_UDPXCore_SendEx(s, nullptr, "x", 1); }, ERROR_NETCORE_UDPXCORE_SENDMSG_PARAMENT},
        {[&] { return NetCore_UDPXCore_SendEx(s, m_to.c_str(), nullptr, 1); }, ERROR_NETCORE_UDPXCORE_SENDMSG_PARAMENT},
        {[&] { return NetCore_UDPXCore_SendEx(s, m_to.c_str(), "x", 0); }, ERROR_NETCORE_SOCKET_SEND_PARAMENT},
        // no colon: no port, which the platform refuses
        {[&] { return NetCore_UDPXCore_SendEx(s, "127.0.0.1", "x", 1); }, ERROR_NETCORE_SOCKET_SEND_FAILED},
        {[&] { return NetCore_UDPXCore_GetFlowEx(s, nullptr, &b, &c, &d); }, ERROR_NETCORE_UDPXCORE_GETFLOW_PARAMENT},
        {[&] { return NetCore_UDPXCore_GetFlowEx(s, &a, nullptr, &c, &d); }, ERROR_NETCORE_UDPXCORE_GETFLOW_PARAMENT},
        {[&] { return NetCore_UDPXCore_GetTimeEx(s, nullptr, &b); }, ERROR_NETCORE_UDPXCORE_GETTIME_PARAMENT},
        {[&] { return NetCore_UDPXCore_GetTimeEx(s, &a, nullptr); }, ERROR_NETCORE_UDPXCORE_GETTIME_PARAMENT},
        {[&] { return NetCore_UDPXCore_GetAverageFlowEx(s, nullptr, &b, &c, &d, true); },
         ERROR_NETCORE_UDPXCORE_AVERAGE_PARAMENT},
        {[&] { return NetCore_UDPXCore_GetAverageFlowEx(s, &a, nullptr, &c, &d, false); },
         ERROR_NETCORE_UDPXCORE_AVERAGE_PARAMENT},
        {[&] { return NetCore_UDPXCore_GetAverageFlowEx(s, &a, &b, nullptr, &d, true); },
         ERROR_NETCORE_UDPXCORE_AVERAGE_PARAMENT},
        {[&] { return NetCore_UDPXCore_GetAverageFlowEx(s, &a, &b, &c, nullptr, false); },
         ERROR_NETCORE_UDPXCORE_AVERAGE_PARAMENT},
        {[&] { return NetCore_UDPXCore_GetSocketEx(nullptr, &fd); }, ERROR_NETCORE_UDPXCORE_HANDLE_NULL},
        {[&] { return NetCore_UDPXCore_SendEx(nullptr, m_to.c_str(), "x", 1); }, ERROR_NETCORE_UDPXCORE_HANDLE_NULL},
        {[&] { return NetCore_UDPXCore_GetFlowEx(nullptr, &a, &b, &c, &d); }, ERROR_NETCORE_UDPXCORE_HANDLE_NULL},
        {[&] { return NetCore_UDPXCore_GetTimeEx(nullptr, &a, &b); }, ERROR_NETCORE_UDPXCORE_HANDLE_NULL},
        {[&] { return NetCore_UDPXCore_GetAverageFlowEx(nullptr, &a, &b, &c, &d, true); },
         ERROR_NETCORE_UDPXCORE_HANDLE_NULL},
        {[&] { return NetCore_UDPXCore_RegisterCallBackEx(nullptr, &OnRecv, this); },
         ERROR_NETCORE_UDPXCORE_HANDLE_NULL},
        {[&] { return NetCore_UDPXCore_DestroyEx(nullptr, true); }, ERROR_NETCORE_UDPXCORE_HANDLE_NULL},
    };
    for (size_t i = 0; i < rows.size(); i++) {
        SCOPED_TRACE(i);
        nctest::ResetErrorState();
        ExpectFailure(rows[i].first(), rows[i].second);
    }
    EXPECT_EQ((std::vector<ULL>{0, 0, 0, 0, 0, 0}), Flow()) << "failed sends are not counted";
    // the packet totals are optional
    EXPECT_TRUE(NetCore_UDPXCore_GetFlowEx(s, &a, &b, nullptr, nullptr));
    EXPECT_FALSE(ErrorFlag());
}

TEST_F(UDPXCoreTest, RepliesFromTheCallbackAreSentCountedAndTimed) {
    Start(2);
    m_bEcho = true;
    ULL nBefore = BaseLib_OperatorTime_GetTickCount64();
    for (int i = 0; i < 10; i++) {
        std::string strMsg = "ping " + std::to_string(i);
        Send(strMsg);
        EXPECT_EQ(strMsg, RecvOne(m_peer.Get()));
    }
    // the reply can overtake the callback's own bookkeeping after its send
    ASSERT_TRUE(WaitFor([&] { return Flow()[2] == 10; }));
    ULL nAfter = BaseLib_OperatorTime_GetTickCount64();
    std::vector<ULL> v = Flow();
    EXPECT_EQ(v[0], v[1]);
    EXPECT_EQ(60u, v[0]);
    EXPECT_EQ(10u, v[3]);
    EXPECT_GE(v[5], nBefore);
    EXPECT_LE(v[5], nAfter);
    // the callback's context is this fixture: stop the server before it goes
    EXPECT_TRUE(NetCore_UDPXCore_DestroyEx(m_server, true));
    EXPECT_FALSE(ErrorFlag());
    m_server = nullptr;
}

TEST_F(UDPXCoreTest, AverageFlowKeepsItsIntervalArithmetic) {
    // With a 60-second interval the first datagram and the first send close an interval at once
    // (the interval starts at tick 0) and no later one closes within the test.
    for (int nTimeFlow : {60, 0}) {
        SCOPED_TRACE(nTimeFlow);
        Start(1, AF_INET, nTimeFlow);
        Send(std::string(600, 'a'));
        WaitGot(1);
        for (int i = 0; i < 3; i++)
            Send(std::string(100, 'b'));
        WaitGot(4);
        ASSERT_TRUE(NetCore_UDPXCore_SendEx(m_server, m_to.c_str(), std::string(120, 'c').c_str(), 120));
        ASSERT_TRUE(NetCore_UDPXCore_SendEx(m_server, m_to.c_str(), std::string(30, 'd').c_str(), 30));
        ULL v[4] = {9, 9, 9, 9};
        ASSERT_TRUE(NetCore_UDPXCore_GetAverageFlowEx(m_server, &v[0], &v[1], &v[2], &v[3], false));
        // each total less its snapshot over the interval; the third figure starts from the
        // receive packet total, not from the 2 sends
        std::vector<ULL> expected = {150 - 120 / 60, 900 - 600 / 60, 4, 4};
        if (nTimeFlow == 0) expected = {150, 900, 4, 4};
        EXPECT_EQ(expected, std::vector<ULL>(v, v + 4));
        // whole: each total over (milliseconds since start x 1000), far below 1 here
        ASSERT_TRUE(NetCore_UDPXCore_GetAverageFlowEx(m_server, &v[0], &v[1], &v[2], &v[3], true));
        EXPECT_EQ((std::vector<ULL>{0, 0, 0, 0}), std::vector<ULL>(v, v + 4));
        EXPECT_TRUE(NetCore_UDPXCore_DestroyEx(m_server, true));
        m_server = nullptr;
        std::lock_guard<std::mutex> st_Lock(m_lock);
        m_got.clear();
    }
}

TEST_F(UDPXCoreTest, Ipv6ServerNamesPeersUnbracketedAndRepliesByText) {
    if (!nctest::Ipv6Available()) GTEST_SKIP() << "no IPv6 loopback on this host";
    Start(2, AF_INET6);
    // a dual-stack peer: the server also hears IPv4 peers, named as mapped addresses
    Fd six(socket(AF_INET6, SOCK_DGRAM, 0));
    sockaddr_in6 st_Addr{};
    st_Addr.sin6_family = AF_INET6;
    st_Addr.sin6_port = htons(static_cast<uint16_t>(m_port));
    st_Addr.sin6_addr = in6addr_loopback;
    ASSERT_EQ(3, sendto(six.Get(), "six", 3, 0, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr)));
    WaitGot(1);
    Send("four");
    std::vector<Delivery> got = WaitGot(2);
    EXPECT_EQ("::1:" + std::to_string(nctest::LocalPort(six.Get())), got[0].addr);
    EXPECT_EQ("::ffff:" + m_to, got[1].addr);
    ASSERT_TRUE(NetCore_UDPXCore_SendEx(m_server, got[0].addr.c_str(), "back", 4));
    EXPECT_EQ("back", RecvOne(six.Get()));
}

TEST_F(UDPXCoreTest, StartOnABusyPortFailsWithTheBindCodeAndLeavesNothing) {
    for (int nFamily : {AF_INET, AF_INET6}) {
        if (nFamily == AF_INET6 && !nctest::Ipv6Available()) continue;
        int nPort = 0;
        Fd busy = nctest::BindUdp(nFamily, &nPort);  // no address reuse: the port stays taken
        testing::internal::CaptureStdout();
        void* server = NetCore_UDPXCore_StartEx(nPort, 2, 60, nFamily);
        fflush(stdout);
        std::string strPrinted = testing::internal::GetCapturedStdout();
        EXPECT_EQ(nullptr, server);
        ExpectFailure(false, ERROR_NETCORE_SOCKET_BIND_BIND);
        // only the IPv4 bind prints its errno
        EXPECT_EQ(nFamily == AF_INET ? "NetCore_Socket_Bind:" + std::to_string(EADDRINUSE) + "\n" : "", strPrinted);
    }
}

TEST_F(UDPXCoreTest, ZeroThreadsMeansOnePerHardwareThreadAndDestroyReleasesThemAndThePort) {
    int nBefore = nctest::CountThreads();
    Start(0);
    EXPECT_EQ(nBefore + static_cast<int>(std::max(1u, std::thread::hardware_concurrency())), nctest::CountThreads());
    ASSERT_TRUE(NetCore_UDPXCore_DestroyEx(m_server, false));
    EXPECT_FALSE(ErrorFlag());
    m_server = nullptr;
    // a joined thread leaves /proc a little later under qemu-user
    EXPECT_TRUE(WaitFor([&] { return nctest::CountThreads() == nBefore; }));
    void* again = NetCore_UDPXCore_StartEx(m_port, 1, 60, AF_INET);
    ASSERT_NE(nullptr, again);
    EXPECT_TRUE(NetCore_UDPXCore_DestroyEx(again, true));
}

TEST_F(UDPXCoreTest, SeveralReceiveThreadsDeliverABurstExactlyOnce) {
    Start(4);
    constexpr int kCount = 1000;
    // At most a window in flight, so the socket's buffer never overflows and any missing datagram
    // is the server's fault.
    for (int i = 0; i < kCount; i++) {
        while (i - static_cast<int>(Deliveries().size()) > 64)
            std::this_thread::yield();
        Send(std::to_string(i));
    }
    std::set<std::string> unique;
    for (const auto& d : WaitGot(kCount))
        EXPECT_TRUE(unique.insert(d.data).second) << "delivered twice: " << d.data;
    EXPECT_EQ(static_cast<size_t>(kCount), unique.size());
    EXPECT_EQ(static_cast<ULL>(kCount), Flow()[3]);
}

TEST_F(UDPXCoreTest, CallbackMayDestroyItsOwnServer) {
    struct SelfDestroy {
        void* server = nullptr;
        std::atomic<bool> destroying{false}, done{false};
        static void OnRecv(const char*, int, const char*, int, void* lParam) {
            auto* self = static_cast<SelfDestroy*>(lParam);
            if (self->destroying.exchange(true)) return;
            // returns once every other receive thread has ended
            EXPECT_TRUE(NetCore_UDPXCore_DestroyEx(self->server, true));
            self->done = true;  // the last touch of the context
        }
    } ctx;
    Start(2, AF_INET, 60, false);
    ctx.server = m_server;
    m_server = nullptr;
    ASSERT_TRUE(NetCore_UDPXCore_RegisterCallBackEx(ctx.server, &SelfDestroy::OnRecv, &ctx));
    // several queued datagrams: the draining thread must stop after the one that destroyed it
    for (int i = 0; i < 5; i++)
        Send("bye");
    ASSERT_TRUE(WaitFor([&] { return ctx.done.load(); }));
    // the fixture waits for the detached receive thread to end and checks nothing is left open
}

// Only an object that outlives Destroy shows what Destroy keeps and what it clears.
TEST_F(UDPXCoreTest, ClassDestroyKeepsOrClearsTotalsAndTimes) {
    CNetCore_UDPXCore server;
    Fd peer = nctest::BindUdp(AF_INET, &m_peerPort);
    ASSERT_TRUE(server.NetCore_UDPXCore_Start(0, 2, 60, AF_INET));
    ASSERT_TRUE(server.NetCore_UDPXCore_RegisterCallBack(&OnRecv, this));
    ASSERT_TRUE(server.NetCore_UDPXCore_GetSocket(&m_socket));
    ASSERT_TRUE(SendTo(peer.Get(), nctest::LocalPort(m_socket), "one"));
    ASSERT_TRUE(SendTo(peer.Get(), nctest::LocalPort(m_socket), "two!"));
    WaitGot(2);
    ASSERT_TRUE(server.NetCore_UDPXCore_SendMsg(("127.0.0.1:" + std::to_string(m_peerPort)).c_str(), "answer", 6));
    ASSERT_EQ("answer", RecvOne(peer.Get()));
    auto Read = [&] {
        std::vector<ULL> v(10, 99);
        EXPECT_TRUE(server.NetCore_UDPXCore_GetFlow(&v[0], &v[1], &v[2], &v[3]));
        EXPECT_TRUE(server.NetCore_UDPXCore_GetTime(&v[4], &v[5]));
        EXPECT_TRUE(server.NetCore_UDPXCore_GetAverageFlow(&v[6], &v[7], &v[8], &v[9], false));
        return v;
    };
    std::vector<ULL> before = Read();
    ASSERT_TRUE(server.NetCore_UDPXCore_Destroy(false));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(before, Read());
    EXPECT_EQ((std::vector<ULL>{6, 7, 1, 2}), std::vector<ULL>(before.begin(), before.begin() + 4));
    EXPECT_GT(before[4] * before[5], 0u);
    EXPECT_TRUE(server.NetCore_UDPXCore_GetSocket(&m_socket));
    EXPECT_EQ(-1, m_socket);

    ASSERT_TRUE(server.NetCore_UDPXCore_Destroy(true));
    // every total, time, interval length and snapshot is gone: the averages are the zero totals
    EXPECT_EQ(std::vector<ULL>(10, 0), Read());
    ULL whole[4] = {1, 1, 1, 1};
    EXPECT_TRUE(server.NetCore_UDPXCore_GetAverageFlow(&whole[0], &whole[1], &whole[2], &whole[3], true));
    EXPECT_EQ(std::vector<ULL>(4, 0), std::vector<ULL>(whole, whole + 4));
    peer.Reset();
}

}  // namespace
