// The UDP epoll server through its exported handle functions (and its exported class, where only
// an object that outlives Destroy shows what Destroy keeps), with real UDP peers on loopback.
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "../../src/udpxcore/NetCore_UDPXCore.h"
#include "Ombrelt_BaseLib.h"
#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace {

using nctest::ErrorFlag;
using nctest::WaitFor;
using ULL = unsigned long long;
using V = std::vector<ULL>;

// A UDP peer on a free loopback port, connected to nPort; its address goes to pStr_Addr.
nctest::Fd Peer(int nPort, std::string* pStr_Addr) {
    int nOwn = 0;
    nctest::Fd fd = nctest::BindUdp(AF_INET, &nOwn);
    sockaddr_in st_Addr{AF_INET, htons(static_cast<uint16_t>(nPort)), {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_EQ(0, connect(fd.Get(), reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr)));
    timeval st_Time{3, 0};
    setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &st_Time, sizeof(st_Time));
    *pStr_Addr = "127.0.0.1:" + std::to_string(nOwn);
    return fd;
}

void Send(const nctest::Fd& fd, const std::string& strData) {
    ASSERT_EQ(static_cast<ssize_t>(strData.size()), send(fd.Get(), strData.data(), strData.size(), 0));
}

std::string RecvOne(const nctest::Fd& fd) {
    char tszBuffer[4096];
    ssize_t nLen = recv(fd.Get(), tszBuffer, sizeof(tszBuffer), 0);
    return nLen < 0 ? "(nothing)" : std::string(tszBuffer, static_cast<size_t>(nLen));
}

class UDPXCoreTest : public nctest::NetCoreTest {
protected:
    void TearDown() override {
        EXPECT_TRUE(m_server == nullptr || NetCore_UDPXCore_DestroyEx(m_server, true));
        m_peer.Reset();
        nctest::NetCoreTest::TearDown();
    }
    // Records every delivery as "address socket length data". With m_bEcho it answers each
    // datagram from the receive thread; armed with m_nDestroy 1, the first callback destroys the
    // server (returning once every other receive thread has ended) and the others do nothing.
    static void OnRecv(const char* lpszAddr, int hSocket, const char* lpszData, int nLen, void* lParam) {
        auto* self = static_cast<UDPXCoreTest*>(lParam);
        int nArmed = 1;
        if (self->m_nDestroy.compare_exchange_strong(nArmed, 2)) {
            EXPECT_TRUE(NetCore_UDPXCore_DestroyEx(self->m_server, true));
            self->m_nDestroy = 3;  // the fixture may go at once: nothing of it is touched after this
            return;
        }
        if (self->m_nDestroy >= 2) return;
        EXPECT_TRUE(!self->m_bEcho || nLen <= 0 || NetCore_UDPXCore_SendEx(self->m_server, lpszAddr, lpszData, nLen));
        std::lock_guard<std::mutex> st_Lock(self->m_lock);
        self->m_got.push_back(std::string(lpszAddr) + " " + std::to_string(hSocket) + " " + std::to_string(nLen) + " " +
                              (nLen > 0 ? std::string(lpszData, static_cast<size_t>(nLen)) : ""));
        self->m_thread = std::this_thread::get_id();
        self->m_nGot++;
    }
    // Starts a server on a free port and connects an IPv4 peer to it.
    void Start(int nThreads, int nIPVer = AF_INET, bool bRegister = true, int nTimeFlow = 60) {
        m_server = NetCore_UDPXCore_StartEx(0, nThreads, nTimeFlow, nIPVer);
        m_nStarted = BaseLib_OperatorTime_GetTickCount64();
        ASSERT_NE(nullptr, m_server);
        ASSERT_TRUE(!bRegister || NetCore_UDPXCore_RegisterCallBackEx(m_server, &OnRecv, this));
        ASSERT_TRUE(NetCore_UDPXCore_GetSocketEx(m_server, &m_socket));
        m_port = nctest::LocalPort(m_socket);
        m_peer = Peer(m_port, &m_to);
    }
    std::vector<std::string> Got(size_t nCount) {
        EXPECT_TRUE(WaitFor([&] { return m_nGot >= nCount; })) << m_nGot;
        std::lock_guard<std::mutex> st_Lock(m_lock);
        return m_got;
    }
    // send bytes, receive bytes, send packets, receive packets; receive and send time; the four
    // averages over the interval
    V Flow() {
        V v(10, 99);
        EXPECT_TRUE(NetCore_UDPXCore_GetFlowEx(m_server, &v[0], &v[1], &v[2], &v[3]));
        EXPECT_TRUE(NetCore_UDPXCore_GetTimeEx(m_server, &v[4], &v[5]));
        EXPECT_TRUE(NetCore_UDPXCore_GetAverageFlowEx(m_server, &v[6], &v[7], &v[8], &v[9], false));
        return v;
    }

    void* m_server = nullptr;
    int m_socket = -1, m_port = 0;
    nctest::Fd m_peer;
    std::string m_to;
    std::atomic<bool> m_bEcho{false};
    std::atomic<int> m_nDestroy{0};
    std::atomic<size_t> m_nGot{0};
    ULL m_nStarted = 0;
    std::mutex m_lock;
    std::vector<std::string> m_got;
    std::thread::id m_thread;
};

TEST_F(UDPXCoreTest, ReceivesCutsCountsAveragesRepliesStopsAtAnEmptyDatagramAndDeliversABurstOnce) {
    Start(4, AF_INET, false);
    ULL nBefore = BaseLib_OperatorTime_GetTickCount64();
    Send(m_peer, std::string(600, 'e'));  // no callback yet: counted and dropped
    ASSERT_TRUE(WaitFor([&] { return Flow()[3] == 1; }));
    EXPECT_FAILS(NetCore_UDPXCore_RegisterCallBackEx(m_server, nullptr, this), ERROR_NETCORE_UDPXCORE_CBSET_PARAMENT);
    ASSERT_TRUE(NetCore_UDPXCore_RegisterCallBackEx(m_server, &OnRecv, this));
    Send(m_peer, "hello");
    Send(m_peer, std::string(2048, 'a') + std::string(952, 'b'));
    const std::string strFrom = m_to + " " + std::to_string(m_socket) + " ";
    EXPECT_EQ((std::vector<std::string>{strFrom + "5 hello", strFrom + "2048 " + std::string(2048, 'a')}), Got(2));
    EXPECT_NE(std::this_thread::get_id(), m_thread);
    // The first datagram closed an interval at once (it starts at tick 0) and no later one closes
    // within the test: each total less its snapshot over the 60 s interval; the third figure
    // starts from the receive packet total.
    V v = Flow();
    EXPECT_EQ((V{0, 2653, 0, 3, v[4], 0, 0, 2653 - 600 / 60, 3, 3}), v);
    EXPECT_TRUE(v[4] >= nBefore && v[4] <= BaseLib_OperatorTime_GetTickCount64()) << v[4];

    m_bEcho = true;
    nBefore = BaseLib_OperatorTime_GetTickCount64();
    Send(m_peer, "ping");
    EXPECT_EQ("ping", RecvOne(m_peer));
    // the reply can overtake the callback's own bookkeeping after its send
    ASSERT_TRUE(WaitFor([&] { return Flow()[2] == 1; }));
    v = Flow();
    EXPECT_TRUE(v[0] == 4 && v[5] >= nBefore && v[5] <= BaseLib_OperatorTime_GetTickCount64()) << v[0] << " " << v[5];
    m_bEcho = false;

    // The empty datagram ends the drain: what queued behind it comes with a later arrival.
    Send(m_peer, "");
    Send(m_peer, "after");
    size_t nNext = 0;
    ASSERT_TRUE(WaitFor([&] {
        Send(m_peer, "next");
        return ++nNext && m_nGot >= 5;
    }));
    // every datagram sent but the empty one is counted, all of them but the first delivered
    EXPECT_TRUE(WaitFor([&] { return Flow()[3] == 5 + nNext && m_nGot == 4 + nNext; }));
    std::vector<std::string> got = Got(5);
    for (size_t i = 3; i < got.size(); i++)
        EXPECT_EQ(strFrom + (i == 3 ? "5 after" : "4 next"), got[i]);
    // whole-life averages are the totals over (ms since start x 1000): below 1 once that passes them
    ASSERT_TRUE(WaitFor([&] { return BaseLib_OperatorTime_GetTickCount64() - m_nStarted > Flow()[1] / 1000 + 1; }));
    ULL w[4] = {9, 9, 9, 9};
    EXPECT_TRUE(NetCore_UDPXCore_GetAverageFlowEx(m_server, &w[0], &w[1], &w[2], &w[3], true));
    EXPECT_EQ((V{0, 0, 0, 0}), V(w, w + 4));

    // At most a window in flight, so the socket's buffer never overflows and any missing datagram
    // is the server's fault.
    const size_t nFirst = m_nGot;
    for (size_t i = 0; i < 1000; i++) {
        while (nFirst + i > m_nGot + 64)
            std::this_thread::yield();
        Send(m_peer, std::to_string(i));
    }
    got = Got(nFirst + 1000);
    EXPECT_EQ(1000u, std::set<std::string>(got.begin() + nFirst, got.end()).size()) << "duplicates";

    // The handle is the server object, which outlives Destroy: without clearing it keeps every
    // total and time; with clearing every total, time, interval length and snapshot is gone.
    auto* pClass_Server = static_cast<CNetCore_UDPXCore*>(m_server);
    v = Flow();
    ASSERT_TRUE(pClass_Server->NetCore_UDPXCore_Destroy(false));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(v, Flow());
    EXPECT_TRUE(NetCore_UDPXCore_GetSocketEx(m_server, &m_socket));
    EXPECT_EQ(-1, m_socket);
    ASSERT_TRUE(pClass_Server->NetCore_UDPXCore_Destroy(true));
    EXPECT_EQ(V(10, 0), Flow());
}

TEST_F(UDPXCoreTest, ArgumentsHandlesAndABusyPortFailWithTheirCodesAndDestroyReleasesThreadsAndPort) {
    int nThreads = nctest::CountThreads();
    Start(0, AF_INET, true, 0);  // one receive thread per hardware thread, no averaging interval
    EXPECT_EQ(nThreads + static_cast<int>(std::max(1u, std::thread::hardware_concurrency())), nctest::CountThreads());
    ULL a = 0, b = 0, c = 0, d = 0;
    int fd = 0;
    void* s = m_server;
    const char* to = m_to.c_str();
    EXPECT_FAILS(NetCore_UDPXCore_SendEx(s, nullptr, "x", 1), ERROR_NETCORE_UDPXCORE_SENDMSG_PARAMENT);
    EXPECT_FAILS(NetCore_UDPXCore_SendEx(s, to, nullptr, 1), ERROR_NETCORE_UDPXCORE_SENDMSG_PARAMENT);
    EXPECT_FAILS(NetCore_UDPXCore_SendEx(s, to, "x", 0), ERROR_NETCORE_SOCKET_SEND_PARAMENT);
    // no colon: no port, which the platform refuses
    EXPECT_FAILS(NetCore_UDPXCore_SendEx(s, "127.0.0.1", "x", 1), ERROR_NETCORE_SOCKET_SEND_FAILED);
    EXPECT_FAILS(NetCore_UDPXCore_GetFlowEx(s, nullptr, &b, &c, &d), ERROR_NETCORE_UDPXCORE_GETFLOW_PARAMENT);
    EXPECT_FAILS(NetCore_UDPXCore_GetTimeEx(s, nullptr, &b), ERROR_NETCORE_UDPXCORE_GETTIME_PARAMENT);
    for (int i = 0; i < 4; i++) {
        ULL* p[4] = {&a, &b, &c, &d};
        p[i] = nullptr;
        EXPECT_FAILS(NetCore_UDPXCore_GetAverageFlowEx(s, p[0], p[1], p[2], p[3], i % 2 == 0),
                     ERROR_NETCORE_UDPXCORE_AVERAGE_PARAMENT);
    }
    EXPECT_FAILS(NetCore_UDPXCore_GetSocketEx(nullptr, &fd), ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    EXPECT_FAILS(NetCore_UDPXCore_SendEx(nullptr, to, "x", 1), ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    EXPECT_FAILS(NetCore_UDPXCore_GetFlowEx(nullptr, &a, &b, &c, &d), ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    EXPECT_FAILS(NetCore_UDPXCore_GetTimeEx(nullptr, &a, &b), ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    EXPECT_FAILS(NetCore_UDPXCore_GetAverageFlowEx(nullptr, &a, &b, &c, &d, true), ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    EXPECT_FAILS(NetCore_UDPXCore_RegisterCallBackEx(nullptr, &OnRecv, this), ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    EXPECT_FAILS(NetCore_UDPXCore_DestroyEx(nullptr, true), ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    ASSERT_TRUE(NetCore_UDPXCore_SendEx(s, to, "x", 1));
    V v = Flow();  // failed sends are not counted; without an interval the averages are the totals
    EXPECT_EQ((V{1, 0, 1, 0, 0, v[5], 1, 0, 0, 0}), v);
    EXPECT_TRUE(NetCore_UDPXCore_GetFlowEx(s, &a, &b, nullptr, nullptr)) << "the packet totals are optional";
    EXPECT_TRUE(NetCore_UDPXCore_DestroyEx(m_server, false));
    EXPECT_FALSE(ErrorFlag());
    // a joined thread leaves /proc a little later under qemu-user
    EXPECT_TRUE(WaitFor([&] { return nctest::CountThreads() == nThreads; }));
    EXPECT_NE(nullptr, m_server = NetCore_UDPXCore_StartEx(m_port, 1, 60, AF_INET)) << "the port is free again";

    for (int nFamily : {AF_INET, AF_INET6}) {
        if (nFamily == AF_INET6 && !nctest::Ipv6Available()) continue;
        int nPort = 0;
        nctest::Fd busy = nctest::BindUdp(nFamily, &nPort);  // no address reuse: the port stays taken
        testing::internal::CaptureStdout();
        void* server = NetCore_UDPXCore_StartEx(nPort, 2, 60, nFamily);
        fflush(stdout);
        std::string strPrinted = testing::internal::GetCapturedStdout();
        EXPECT_FAILS(server != nullptr, ERROR_NETCORE_SOCKET_BIND_BIND);
        // only the IPv4 bind prints its errno
        EXPECT_EQ(nFamily == AF_INET ? "NetCore_Socket_Bind:" + std::to_string(EADDRINUSE) + "\n" : "", strPrinted);
    }
}

TEST_F(UDPXCoreTest, Ipv6ServerNamesPeersUnbracketedAndRepliesByText) {
    if (!nctest::Ipv6Available()) GTEST_SKIP() << "no IPv6 loopback on this host";
    Start(2, AF_INET6);
    // a dual-stack server: it also hears IPv4 peers, named as mapped addresses
    // unbound, so that it also hears the reply, which goes out as an IPv4 datagram
    nctest::Fd six(socket(AF_INET6, SOCK_DGRAM, 0));
    sockaddr_in6 st_Addr{AF_INET6, htons(static_cast<uint16_t>(m_port)), 0, in6addr_loopback, 0};
    ASSERT_EQ(3, sendto(six.Get(), "six", 3, 0, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr)));
    Got(1);
    Send(m_peer, "four");
    std::vector<std::string> got = Got(2);
    const std::string strSix = "::1:" + std::to_string(nctest::LocalPort(six.Get()));
    EXPECT_EQ(strSix + " " + std::to_string(m_socket) + " 3 six", got[0]);
    EXPECT_EQ("::ffff:" + m_to + " " + std::to_string(m_socket) + " 4 four", got[1]);
    ASSERT_TRUE(NetCore_UDPXCore_SendEx(m_server, strSix.c_str(), "back", 4));
    timeval st_Time{3, 0};
    setsockopt(six.Get(), SOL_SOCKET, SO_RCVTIMEO, &st_Time, sizeof(st_Time));
    EXPECT_EQ("back", RecvOne(six));
}

TEST_F(UDPXCoreTest, CallbackMayDestroyItsOwnServer) {
    Start(2);
    m_nDestroy = 1;
    // several queued datagrams: the draining thread must stop after the one that destroyed it; once
    // the server is gone the connected peer's later sends may be refused
    for (int i = 0; i < 5; i++)
        (void)send(m_peer.Get(), "bye", 3, 0);
    ASSERT_TRUE(WaitFor([&] { return m_nDestroy == 3; }));
    m_server = nullptr;  // the fixture waits for the detached receive thread to end
}

}  // namespace
