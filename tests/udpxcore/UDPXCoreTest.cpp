// The UDP epoll server through its exported handle functions, with real UDP peers on loopback.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Ombrelt_BaseLib.h"
#include "Ombrelt_NetCore.h"
#include "TestSupport.h"
#include "UDPXCoreHelpers.h"

namespace {

using namespace std::chrono_literals;
using nctest::ErrorFlag;
using nctest::Fd;
using udpxtest::Recorder;

void ExpectFailure(unsigned long long code) {
    EXPECT_TRUE(ErrorFlag());
    EXPECT_EQ(code, NetCore_GetLastError(nullptr));
}

struct Flow {
    unsigned long long sendBytes = 0, recvBytes = 0, sendPackets = 0, recvPackets = 0;
};

class UDPXCoreTest : public nctest::NetCoreTest {
protected:
    void TearDown() override {
        if (m_server != nullptr) {
            EXPECT_TRUE(NetCore_UDPXCore_DestroyEx(m_server, true));
        }
        m_server = nullptr;
        nctest::NetCoreTest::TearDown();
    }

    // Starts a server on a free port with the recorder registered; returns its port.
    int Start(int threads = 1, int ipver = AF_INET, int timeFlow = 60) {
        m_server = NetCore_UDPXCore_StartEx(0, threads, timeFlow, ipver);
        EXPECT_NE(nullptr, m_server);
        if (m_server == nullptr) return -1;
        EXPECT_FALSE(ErrorFlag());
        EXPECT_TRUE(NetCore_UDPXCore_RegisterCallBackEx(m_server, &Recorder::OnRecv, &m_recorder));
        EXPECT_TRUE(NetCore_UDPXCore_GetSocketEx(m_server, &m_socket));
        return nctest::LocalPort(m_socket);
    }

    Flow GetFlow() {
        Flow f;
        EXPECT_TRUE(NetCore_UDPXCore_GetFlowEx(m_server, &f.sendBytes, &f.recvBytes, &f.sendPackets, &f.recvPackets));
        return f;
    }

    void* m_server = nullptr;
    int m_socket = -1;
    Recorder m_recorder;
};

// ----- Receiving ---------------------------------------------------------------------------------

TEST_F(UDPXCoreTest, DatagramReachesTheCallbackWithSenderTextAndBoundSocket) {
    int port = Start(2);
    int clientPort = 0;
    Fd client = nctest::BindUdp(AF_INET, &clientPort);
    ASSERT_TRUE(udpxtest::SendTo(client.Get(), AF_INET, port, "hello"));
    ASSERT_TRUE(m_recorder.WaitCount(1));

    auto got = m_recorder.Got();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ("127.0.0.1:" + std::to_string(clientPort), got[0].addr);
    EXPECT_EQ(m_socket, got[0].socket);
    EXPECT_EQ("hello", got[0].data);
    EXPECT_EQ(5, got[0].len);
    EXPECT_NE(std::this_thread::get_id(), got[0].thread);

    Flow f = GetFlow();
    EXPECT_EQ(1u, f.recvPackets);
    EXPECT_EQ(5u, f.recvBytes);
    EXPECT_EQ(0u, f.sendPackets);
}

TEST_F(UDPXCoreTest, LongDatagramIsCutTo2048Bytes) {
    int port = Start();
    int clientPort = 0;
    Fd client = nctest::BindUdp(AF_INET, &clientPort);
    std::string big(3000, '\0');
    for (size_t i = 0; i < big.size(); i++)
        big[i] = static_cast<char>('A' + i % 23);
    ASSERT_TRUE(udpxtest::SendTo(client.Get(), AF_INET, port, big));
    ASSERT_TRUE(m_recorder.WaitCount(1));
    auto got = m_recorder.Got();
    EXPECT_EQ(2048, got[0].len);
    EXPECT_EQ(big.substr(0, 2048), got[0].data);
    EXPECT_EQ(2048u, GetFlow().recvBytes);
}

TEST_F(UDPXCoreTest, EmptyDatagramIsNotDeliveredAndNothingBehindItIsLost) {
    int port = Start(1);
    int clientPort = 0;
    Fd client = nctest::BindUdp(AF_INET, &clientPort);
    sockaddr_storage addr;
    socklen_t len = udpxtest::Loopback(AF_INET, port, &addr);
    ASSERT_EQ(0, sendto(client.Get(), "", 0, 0, reinterpret_cast<sockaddr*>(&addr), len));
    ASSERT_TRUE(udpxtest::SendTo(client.Get(), AF_INET, port, "after"));
    // The empty datagram ends the drain: what queued behind it comes with a later arrival (one
    // queued together with it waits as well).
    ASSERT_TRUE(nctest::WaitFor([&] {
        udpxtest::SendTo(client.Get(), AF_INET, port, "next");
        return m_recorder.Count() >= 2;
    }));
    // the empty datagram is neither counted nor delivered
    EXPECT_TRUE(nctest::WaitFor([&] { return GetFlow().recvPackets == m_recorder.Count(); }));
    auto got = m_recorder.Got();
    EXPECT_EQ("after", got[0].data);
    for (size_t i = 1; i < got.size(); i++)
        EXPECT_EQ("next", got[i].data);
}

TEST_F(UDPXCoreTest, DatagramsBeforeRegistrationAreCountedNotDelivered) {
    m_server = NetCore_UDPXCore_StartEx(0, 1, 60, AF_INET);
    ASSERT_NE(nullptr, m_server);
    ASSERT_TRUE(NetCore_UDPXCore_GetSocketEx(m_server, &m_socket));
    int port = nctest::LocalPort(m_socket);
    int clientPort = 0;
    Fd client = nctest::BindUdp(AF_INET, &clientPort);
    ASSERT_TRUE(udpxtest::SendTo(client.Get(), AF_INET, port, "early"));
    ASSERT_TRUE(nctest::WaitFor([&] { return GetFlow().recvPackets == 1; }));

    EXPECT_FALSE(NetCore_UDPXCore_RegisterCallBackEx(m_server, nullptr, &m_recorder));
    ExpectFailure(ERROR_NETCORE_UDPXCORE_CBSET_PARAMENT);
    ASSERT_TRUE(NetCore_UDPXCore_RegisterCallBackEx(m_server, &Recorder::OnRecv, &m_recorder));
    ASSERT_TRUE(udpxtest::SendTo(client.Get(), AF_INET, port, "late"));
    ASSERT_TRUE(m_recorder.WaitCount(1));
    auto got = m_recorder.Got();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ("late", got[0].data);
}

TEST_F(UDPXCoreTest, SeveralReceiveThreadsDeliverABurstExactlyOnce) {
    int port = Start(4);
    constexpr int kSenders = 4;
    constexpr int kPerSender = 500;
    // Each sender keeps at most a window in flight, so the socket's buffer never overflows and
    // any missing datagram is the server's fault.
    std::atomic<int> sent{0};
    std::vector<std::thread> senders;
    for (int s = 0; s < kSenders; s++) {
        senders.emplace_back([&, s] {
            int p = 0;
            Fd fd = nctest::BindUdp(AF_INET, &p);
            for (int i = 0; i < kPerSender; i++) {
                while (sent.load() - static_cast<int>(m_recorder.Count()) > 64)
                    std::this_thread::yield();
                std::string payload = std::to_string(s) + "/" + std::to_string(i);
                ASSERT_TRUE(udpxtest::SendTo(fd.Get(), AF_INET, port, payload));
                sent++;
            }
        });
    }
    for (auto& t : senders)
        t.join();
    ASSERT_TRUE(m_recorder.WaitCount(kSenders * kPerSender, 10s));
    // nothing more trickles in
    std::this_thread::sleep_for(50ms);

    auto got = m_recorder.Got();
    EXPECT_EQ(static_cast<size_t>(kSenders * kPerSender), got.size());
    std::set<std::string> unique;
    for (const auto& d : got) {
        EXPECT_TRUE(unique.insert(d.data).second) << "delivered twice: " << d.data;
        EXPECT_EQ(m_socket, d.socket);
    }
    for (int s = 0; s < kSenders; s++)
        for (int i = 0; i < kPerSender; i++)
            EXPECT_EQ(1u, unique.count(std::to_string(s) + "/" + std::to_string(i)));
    Flow f = GetFlow();
    EXPECT_EQ(static_cast<unsigned long long>(kSenders * kPerSender), f.recvPackets);
}

TEST_F(UDPXCoreTest, ZeroThreadsMeansOnePerHardwareThread) {
    unsigned hw = std::thread::hardware_concurrency();
    if (hw == 0) GTEST_SKIP() << "the hardware thread count is unknown here";
    int before = nctest::CountThreads();
    Start(0);
    EXPECT_EQ(before + static_cast<int>(hw), nctest::CountThreads());
}

// ----- IPv6 --------------------------------------------------------------------------------------

TEST_F(UDPXCoreTest, Ipv6ServerNamesPeersUnbracketedAndRepliesByText) {
    if (!nctest::Ipv6Available()) GTEST_SKIP() << "no IPv6 loopback on this host";
    int port = Start(2, AF_INET6);
    // A dual-stack peer: replies from an IPv6 server reach the local port over IPv4.
    int client = socket(AF_INET6, SOCK_DGRAM, 0);
    Fd holder(client);
    sockaddr_in6 any{};
    any.sin6_family = AF_INET6;
    any.sin6_addr = in6addr_any;
    ASSERT_EQ(0, bind(client, reinterpret_cast<sockaddr*>(&any), sizeof(any)));
    int clientPort = nctest::LocalPort(client);

    ASSERT_TRUE(udpxtest::SendTo(client, AF_INET6, port, "six"));
    int v4Port = 0;
    Fd v4 = nctest::BindUdp(AF_INET, &v4Port);
    ASSERT_TRUE(m_recorder.WaitCount(1));
    ASSERT_TRUE(udpxtest::SendTo(v4.Get(), AF_INET, port, "four"));
    ASSERT_TRUE(m_recorder.WaitCount(2));
    auto got = m_recorder.Got();
    EXPECT_EQ("::1:" + std::to_string(clientPort), got[0].addr);
    EXPECT_EQ("::ffff:127.0.0.1:" + std::to_string(v4Port), got[1].addr);

    ASSERT_TRUE(NetCore_UDPXCore_SendEx(m_server, got[0].addr.c_str(), "back", 4));
    EXPECT_EQ("back", udpxtest::RecvOne(client));
    EXPECT_EQ(1u, GetFlow().sendPackets);
}

// ----- Sending -----------------------------------------------------------------------------------

TEST_F(UDPXCoreTest, SendByAddressTextCountsOnlySuccessfulSends) {
    Start();
    int peerPort = 0;
    Fd peer = nctest::BindUdp(AF_INET, &peerPort);
    std::string to = "127.0.0.1:" + std::to_string(peerPort);

    EXPECT_FALSE(NetCore_UDPXCore_SendEx(m_server, nullptr, "x", 1));
    ExpectFailure(ERROR_NETCORE_UDPXCORE_SENDMSG_PARAMENT);
    EXPECT_FALSE(NetCore_UDPXCore_SendEx(m_server, to.c_str(), nullptr, 1));
    ExpectFailure(ERROR_NETCORE_UDPXCORE_SENDMSG_PARAMENT);
    EXPECT_FALSE(NetCore_UDPXCore_SendEx(m_server, to.c_str(), "x", 0));
    ExpectFailure(ERROR_NETCORE_SOCKET_SEND_PARAMENT);
    // no colon: no port, which the platform refuses
    EXPECT_FALSE(NetCore_UDPXCore_SendEx(m_server, "127.0.0.1", "x", 1));
    ExpectFailure(ERROR_NETCORE_SOCKET_SEND_FAILED);
    unsigned long long timeRecv = 1, timeSend = 1;
    ASSERT_TRUE(NetCore_UDPXCore_GetTimeEx(m_server, &timeRecv, &timeSend));
    EXPECT_EQ(0u, timeSend);
    EXPECT_EQ(0u, GetFlow().sendPackets);

    unsigned long long before = BaseLib_OperatorTime_GetTickCount64();
    ASSERT_TRUE(NetCore_UDPXCore_SendEx(m_server, to.c_str(), "reply", 5));
    EXPECT_FALSE(ErrorFlag());
    unsigned long long after = BaseLib_OperatorTime_GetTickCount64();
    std::string from;
    EXPECT_EQ("reply", udpxtest::RecvOne(peer.Get(), 3000, &from));
    EXPECT_EQ("127.0.0.1", from);

    Flow f = GetFlow();
    EXPECT_EQ(1u, f.sendPackets);
    EXPECT_EQ(5u, f.sendBytes);
    ASSERT_TRUE(NetCore_UDPXCore_GetTimeEx(m_server, &timeRecv, &timeSend));
    EXPECT_GE(timeSend, before);
    EXPECT_LE(timeSend, after);
    EXPECT_EQ(0u, timeRecv);
}

TEST_F(UDPXCoreTest, EchoThroughTheCallback) {
    // The way callers use it: answer each datagram from the receive thread.
    struct Echo {
        void* server;
        std::atomic<int> replies{0};
        static void OnRecv(const char* addr, int, const char* data, int len, void* ctx) {
            auto* self = static_cast<Echo*>(ctx);
            if (len > 0 && NetCore_UDPXCore_SendEx(self->server, addr, data, len)) self->replies++;
        }
    } echo;
    m_server = NetCore_UDPXCore_StartEx(0, 2, 60, AF_INET);
    ASSERT_NE(nullptr, m_server);
    echo.server = m_server;
    ASSERT_TRUE(NetCore_UDPXCore_RegisterCallBackEx(m_server, &Echo::OnRecv, &echo));
    ASSERT_TRUE(NetCore_UDPXCore_GetSocketEx(m_server, &m_socket));
    int port = nctest::LocalPort(m_socket);
    int clientPort = 0;
    Fd client = nctest::BindUdp(AF_INET, &clientPort);
    for (int i = 0; i < 20; i++) {
        std::string msg = "ping " + std::to_string(i);
        ASSERT_TRUE(udpxtest::SendTo(client.Get(), AF_INET, port, msg));
        EXPECT_EQ(msg, udpxtest::RecvOne(client.Get()));
    }
    // the reply can overtake the callback's own bookkeeping after its send
    EXPECT_TRUE(nctest::WaitFor([&] { return echo.replies.load() == 20; }));
    Flow f = GetFlow();
    EXPECT_EQ(20u, f.sendPackets);
    EXPECT_EQ(f.recvBytes, f.sendBytes);
    // the callback's context lives in this frame: stop the server before it goes
    EXPECT_TRUE(NetCore_UDPXCore_DestroyEx(m_server, true));
    m_server = nullptr;
}

// ----- Flow and time -----------------------------------------------------------------------------

TEST_F(UDPXCoreTest, FlowTotalsAndTheirRequiredOutputs) {
    int port = Start();
    int clientPort = 0;
    Fd client = nctest::BindUdp(AF_INET, &clientPort);
    ASSERT_TRUE(udpxtest::SendTo(client.Get(), AF_INET, port, std::string(100, 'f')));
    ASSERT_TRUE(udpxtest::SendTo(client.Get(), AF_INET, port, std::string(20, 'f')));
    ASSERT_TRUE(m_recorder.WaitCount(2));

    unsigned long long sendBytes = 7, recvBytes = 7;
    EXPECT_TRUE(NetCore_UDPXCore_GetFlowEx(m_server, &sendBytes, &recvBytes, nullptr, nullptr));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(0u, sendBytes);
    EXPECT_EQ(120u, recvBytes);

    unsigned long long any = 0;
    EXPECT_FALSE(NetCore_UDPXCore_GetFlowEx(m_server, nullptr, &any, &any, &any));
    ExpectFailure(ERROR_NETCORE_UDPXCORE_GETFLOW_PARAMENT);
    EXPECT_FALSE(NetCore_UDPXCore_GetFlowEx(m_server, &any, nullptr, &any, &any));
    ExpectFailure(ERROR_NETCORE_UDPXCORE_GETFLOW_PARAMENT);
    EXPECT_FALSE(NetCore_UDPXCore_GetTimeEx(m_server, nullptr, &any));
    ExpectFailure(ERROR_NETCORE_UDPXCORE_GETTIME_PARAMENT);
    EXPECT_FALSE(NetCore_UDPXCore_GetTimeEx(m_server, &any, nullptr));
    ExpectFailure(ERROR_NETCORE_UDPXCORE_GETTIME_PARAMENT);
    for (int i = 0; i < 4; i++) {
        unsigned long long out[4];
        unsigned long long* p[4] = {&out[0], &out[1], &out[2], &out[3]};
        p[i] = nullptr;
        EXPECT_FALSE(NetCore_UDPXCore_GetAverageFlowEx(m_server, p[0], p[1], p[2], p[3], i % 2 == 0));
        ExpectFailure(ERROR_NETCORE_UDPXCORE_AVERAGE_PARAMENT);
    }
}

TEST_F(UDPXCoreTest, TimeOfTheLastDatagram) {
    int port = Start();
    int clientPort = 0;
    Fd client = nctest::BindUdp(AF_INET, &clientPort);
    unsigned long long before = BaseLib_OperatorTime_GetTickCount64();
    ASSERT_TRUE(udpxtest::SendTo(client.Get(), AF_INET, port, "t"));
    ASSERT_TRUE(m_recorder.WaitCount(1));
    unsigned long long after = BaseLib_OperatorTime_GetTickCount64();
    unsigned long long timeRecv = 0, timeSend = 1;
    ASSERT_TRUE(NetCore_UDPXCore_GetTimeEx(m_server, &timeRecv, &timeSend));
    EXPECT_GE(timeRecv, before);
    EXPECT_LE(timeRecv, after);
    EXPECT_EQ(0u, timeSend);
}

TEST_F(UDPXCoreTest, AverageFlowKeepsItsIntervalArithmetic) {
    // With a 60-second interval the first datagram and the first send close an interval at once
    // (the interval starts at tick 0) and no later one closes within the test.
    int port = Start(1, AF_INET, 60);
    int peerPort = 0;
    Fd peer = nctest::BindUdp(AF_INET, &peerPort);
    ASSERT_TRUE(udpxtest::SendTo(peer.Get(), AF_INET, port, std::string(600, 'a')));
    ASSERT_TRUE(m_recorder.WaitCount(1));
    for (int i = 0; i < 3; i++)
        ASSERT_TRUE(udpxtest::SendTo(peer.Get(), AF_INET, port, std::string(100, 'b')));
    ASSERT_TRUE(m_recorder.WaitCount(4));
    std::string to = "127.0.0.1:" + std::to_string(peerPort);
    ASSERT_TRUE(NetCore_UDPXCore_SendEx(m_server, to.c_str(), std::string(120, 'c').c_str(), 120));
    ASSERT_TRUE(NetCore_UDPXCore_SendEx(m_server, to.c_str(), std::string(30, 'd').c_str(), 30));

    unsigned long long sb = 0, rb = 0, sp = 0, rp = 0;
    ASSERT_TRUE(NetCore_UDPXCore_GetAverageFlowEx(m_server, &sb, &rb, &sp, &rp, false));
    EXPECT_EQ(150u - 120u / 60u, sb);
    EXPECT_EQ(900u - 600u / 60u, rb);
    EXPECT_EQ(4u - 1u / 60u, sp);  // from the receive packet total, not the 2 sends
    EXPECT_EQ(4u - 1u / 60u, rp);

    // whole: each total over (milliseconds since start x 1000), far below 1 here
    ASSERT_TRUE(NetCore_UDPXCore_GetAverageFlowEx(m_server, &sb, &rb, &sp, &rp, true));
    EXPECT_EQ(0u, sb);
    EXPECT_EQ(0u, rb);
    EXPECT_EQ(0u, sp);
    EXPECT_EQ(0u, rp);
}

TEST_F(UDPXCoreTest, AverageFlowWithoutAnIntervalIsTheTotals) {
    int port = Start(1, AF_INET, 0);
    int peerPort = 0;
    Fd peer = nctest::BindUdp(AF_INET, &peerPort);
    for (int i = 0; i < 3; i++)
        ASSERT_TRUE(udpxtest::SendTo(peer.Get(), AF_INET, port, std::string(10, 'z')));
    ASSERT_TRUE(m_recorder.WaitCount(3));
    std::string to = "127.0.0.1:" + std::to_string(peerPort);
    ASSERT_TRUE(NetCore_UDPXCore_SendEx(m_server, to.c_str(), "12345", 5));
    unsigned long long sb = 0, rb = 0, sp = 0, rp = 0;
    ASSERT_TRUE(NetCore_UDPXCore_GetAverageFlowEx(m_server, &sb, &rb, &sp, &rp, false));
    EXPECT_EQ(5u, sb);
    EXPECT_EQ(30u, rb);
    EXPECT_EQ(3u, sp);
    EXPECT_EQ(3u, rp);
}

// ----- Start, destroy and handles ----------------------------------------------------------------

TEST_F(UDPXCoreTest, NullHandleIsRefusedEverywhere) {
    unsigned long long a = 0, b = 0, c = 0, d = 0;
    int fd = 0;
    EXPECT_FALSE(NetCore_UDPXCore_GetSocketEx(nullptr, &fd));
    ExpectFailure(ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    nctest::ResetErrorState();
    EXPECT_FALSE(NetCore_UDPXCore_SendEx(nullptr, "127.0.0.1:9", "x", 1));
    ExpectFailure(ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    nctest::ResetErrorState();
    EXPECT_FALSE(NetCore_UDPXCore_GetFlowEx(nullptr, &a, &b, &c, &d));
    ExpectFailure(ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    nctest::ResetErrorState();
    EXPECT_FALSE(NetCore_UDPXCore_GetTimeEx(nullptr, &a, &b));
    ExpectFailure(ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    nctest::ResetErrorState();
    EXPECT_FALSE(NetCore_UDPXCore_GetAverageFlowEx(nullptr, &a, &b, &c, &d, true));
    ExpectFailure(ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    nctest::ResetErrorState();
    EXPECT_FALSE(NetCore_UDPXCore_RegisterCallBackEx(nullptr, &Recorder::OnRecv, nullptr));
    ExpectFailure(ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    nctest::ResetErrorState();
    EXPECT_FALSE(NetCore_UDPXCore_DestroyEx(nullptr, true));
    ExpectFailure(ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
}

TEST_F(UDPXCoreTest, StartOnABusyIpv4PortFailsWithTheBindCode) {
    int port = 0;
    Fd busy = nctest::BindUdp(AF_INET, &port);  // no address reuse: the port stays taken
    testing::internal::CaptureStdout();
    void* server = NetCore_UDPXCore_StartEx(port, 2, 60, AF_INET);
    fflush(stdout);
    std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(nullptr, server);
    ExpectFailure(ERROR_NETCORE_SOCKET_BIND_BIND);
    EXPECT_EQ("NetCore_Socket_Bind:" + std::to_string(EADDRINUSE) + "\n", printed);
    // the fixture checks that the failed start left no socket, epoll or pipe open
}

TEST_F(UDPXCoreTest, StartOnABusyIpv6PortPrintsNothing) {
    if (!nctest::Ipv6Available()) GTEST_SKIP() << "no IPv6 loopback on this host";
    int port = 0;
    Fd busy = nctest::BindUdp(AF_INET6, &port);
    testing::internal::CaptureStdout();
    void* server = NetCore_UDPXCore_StartEx(port, 1, 60, AF_INET6);
    fflush(stdout);
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ(nullptr, server);
    ExpectFailure(ERROR_NETCORE_SOCKET_BIND_BIND);
}

TEST_F(UDPXCoreTest, DestroyReleasesThePortAndEveryThread) {
    int threadsBefore = nctest::CountThreads();
    int port = Start(3);
    EXPECT_EQ(threadsBefore + 3, nctest::CountThreads());
    ASSERT_TRUE(NetCore_UDPXCore_DestroyEx(m_server, false));
    EXPECT_FALSE(ErrorFlag());
    m_server = nullptr;
    // a joined thread leaves /proc a little later under qemu-user
    EXPECT_TRUE(nctest::WaitFor([&] { return nctest::CountThreads() == threadsBefore; }));
    // the same port can be served again at once
    void* again = NetCore_UDPXCore_StartEx(port, 1, 60, AF_INET);
    ASSERT_NE(nullptr, again);
    EXPECT_TRUE(NetCore_UDPXCore_DestroyEx(again, true));
}

TEST_F(UDPXCoreTest, CallbackMayDestroyItsOwnServer) {
    struct SelfDestroy {
        void* server = nullptr;
        std::atomic<int> calls{0};
        std::atomic<bool> destroying{false};
        std::atomic<bool> done{false};
        static void OnRecv(const char*, int, const char*, int, void* ctx) {
            auto* self = static_cast<SelfDestroy*>(ctx);
            self->calls++;
            if (!self->destroying.exchange(true)) {
                // returns once every other receive thread has ended
                bool ok = NetCore_UDPXCore_DestroyEx(self->server, true);
                EXPECT_TRUE(ok);
                self->done = true;  // the last touch of the context
            }
        }
    } ctx;
    ctx.server = NetCore_UDPXCore_StartEx(0, 2, 60, AF_INET);
    ASSERT_NE(nullptr, ctx.server);
    ASSERT_TRUE(NetCore_UDPXCore_RegisterCallBackEx(ctx.server, &SelfDestroy::OnRecv, &ctx));
    int fd = -1;
    ASSERT_TRUE(NetCore_UDPXCore_GetSocketEx(ctx.server, &fd));
    int port = nctest::LocalPort(fd);
    int clientPort = 0;
    Fd client = nctest::BindUdp(AF_INET, &clientPort);
    // several queued datagrams: the draining thread must stop after the one that destroyed it
    for (int i = 0; i < 5; i++)
        ASSERT_TRUE(udpxtest::SendTo(client.Get(), AF_INET, port, "bye"));
    ASSERT_TRUE(nctest::WaitFor([&] { return ctx.done.load(); }));
    EXPECT_GE(ctx.calls.load(), 1);
    // the fixture waits for the detached receive thread to end and checks nothing is left open
}

}  // namespace
