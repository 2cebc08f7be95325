// The socket utilities through the exported functions, on real loopback sockets.
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;
using nctest::ErrorFlag;
using nctest::Fd;

int IntOption(int fd, int level, int option) {
    int value = -1;
    socklen_t len = sizeof(value);
    EXPECT_EQ(0, getsockopt(fd, level, option, &value, &len));
    return value;
}

bool IsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// A descriptor number no socket of the process uses.
int ClosedFd() {
    int fd = dup(0);
    close(fd);
    return fd;
}

void ExpectFailure(unsigned long long code) {
    EXPECT_TRUE(ErrorFlag());
    EXPECT_EQ(code, NetCore_GetLastError(nullptr));
}

class SocketTest : public nctest::NetCoreTest {};

// ----- Create ------------------------------------------------------------------------------------

TEST_F(SocketTest, CreateNeedsAPointer) {
    EXPECT_FALSE(NetCore_Socket_Create(nullptr, true, AF_INET, false));
    ExpectFailure(ERROR_NETCORE_SOCKET_CREATE_PARAMENT);
}

TEST_F(SocketTest, CreatePicksFamilyTypeAndProtocol) {
    struct Case {
        bool tcp;
        int ipver;
        int domain;
    } cases[] = {{true, 2, AF_INET},   {false, 2, AF_INET},   {true, 0, AF_INET6},
                 {true, 10, AF_INET6}, {false, 23, AF_INET6}, {true, -1, AF_INET6}};
    for (const Case& c : cases) {
        for (bool reserved : {false, true}) {
            int fd = -1;
            ASSERT_TRUE(NetCore_Socket_Create(&fd, c.tcp, c.ipver, reserved));
            EXPECT_FALSE(ErrorFlag());
            Fd holder(fd);
            EXPECT_EQ(c.domain, IntOption(fd, SOL_SOCKET, SO_DOMAIN)) << c.ipver;
            EXPECT_EQ(c.tcp ? SOCK_STREAM : SOCK_DGRAM, IntOption(fd, SOL_SOCKET, SO_TYPE));
            EXPECT_EQ(c.tcp ? IPPROTO_TCP : IPPROTO_UDP, IntOption(fd, SOL_SOCKET, SO_PROTOCOL));
        }
    }
}

TEST_F(SocketTest, CreateStoresMinusOneWhenSocketFails) {
    rlimit old{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &old));
    // with no descriptor left, socket() fails
    std::vector<Fd> fill;
    rlimit tight = old;
    tight.rlim_cur = static_cast<rlim_t>(nctest::CountOpenFds() + 4);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &tight));
    for (;;) {
        int fd = dup(0);
        if (fd < 0) break;
        fill.emplace_back(fd);
    }
    int hSocket = 12345;
    bool ok = NetCore_Socket_Create(&hSocket, true, AF_INET, false);
    int sysError = 0;
    unsigned long long code = NetCore_GetLastError(&sysError);
    bool flag = ErrorFlag();
    fill.clear();
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &old));
    EXPECT_FALSE(ok);
    EXPECT_TRUE(flag);
    EXPECT_EQ(ERROR_NETCORE_SOCKET_CREATE_SOCKET, code);
    EXPECT_EQ(EMFILE, sysError);
    EXPECT_EQ(-1, hSocket);
}

// ----- Bind --------------------------------------------------------------------------------------

TEST_F(SocketTest, BindListensOnlyWhenAsked) {
    for (int ipver : {AF_INET, AF_INET6}) {
        if (ipver == AF_INET6 && !nctest::Ipv6Available()) continue;
        int listening = -1, plain = -1;
        ASSERT_TRUE(NetCore_Socket_Create(&listening, true, ipver, false));
        ASSERT_TRUE(NetCore_Socket_Create(&plain, true, ipver, false));
        Fd a(listening), b(plain);
        EXPECT_TRUE(NetCore_Socket_Bind(listening, 0, true, ipver));
        EXPECT_FALSE(ErrorFlag());
        EXPECT_TRUE(NetCore_Socket_Bind(plain, 0, false, ipver));
        EXPECT_EQ(1, IntOption(listening, SOL_SOCKET, SO_ACCEPTCONN));
        EXPECT_EQ(0, IntOption(plain, SOL_SOCKET, SO_ACCEPTCONN));
        EXPECT_GT(nctest::LocalPort(listening), 0);
    }
}

TEST_F(SocketTest, BindOnBusyIpv4PortPrintsErrno) {
    int port = 0;
    Fd busy = nctest::ListenTcp(AF_INET, &port);
    int fd = -1;
    ASSERT_TRUE(NetCore_Socket_Create(&fd, true, AF_INET, false));
    Fd holder(fd);
    testing::internal::CaptureStdout();
    bool ok = NetCore_Socket_Bind(fd, port, true, AF_INET);
    fflush(stdout);
    std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_FALSE(ok);
    ExpectFailure(ERROR_NETCORE_SOCKET_BIND_BIND);
    EXPECT_EQ("NetCore_Socket_Bind:" + std::to_string(EADDRINUSE) + "\n", printed);
}

TEST_F(SocketTest, BindOnBusyIpv6PortPrintsNothing) {
    if (!nctest::Ipv6Available()) GTEST_SKIP() << "no IPv6 loopback on this host";
    int port = 0;
    Fd busy = nctest::ListenTcp(AF_INET6, &port);
    int fd = -1;
    ASSERT_TRUE(NetCore_Socket_Create(&fd, true, AF_INET6, false));
    Fd holder(fd);
    testing::internal::CaptureStdout();
    bool ok = NetCore_Socket_Bind(fd, port, true, AF_INET6);
    fflush(stdout);
    std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_FALSE(ok);
    ExpectFailure(ERROR_NETCORE_SOCKET_BIND_BIND);
    EXPECT_EQ("", printed);
}

// ----- Send --------------------------------------------------------------------------------------

TEST_F(SocketTest, SendRefusesAnEmptyMessage) {
    Fd client, server;
    nctest::TcpPair(AF_INET, &client, &server);
    EXPECT_FALSE(NetCore_Socket_Send(client.Get(), "x", 0, nullptr, 0, 1, AF_INET));
    ExpectFailure(ERROR_NETCORE_SOCKET_SEND_PARAMENT);
    EXPECT_FALSE(NetCore_Socket_Send(client.Get(), "x", -5, nullptr, 0, 1, AF_INET));
    ExpectFailure(ERROR_NETCORE_SOCKET_SEND_PARAMENT);
}

TEST_F(SocketTest, SendDeliversTheWholeMessageToTheConnectedPeer) {
    Fd client, server;
    nctest::TcpPair(AF_INET, &client, &server);
    std::string message(200000, 'a');
    for (size_t i = 0; i < message.size(); i++)
        message[i] = static_cast<char>('a' + i % 26);
    ASSERT_TRUE(NetCore_Socket_SetNoneBlock(client.Get(), true));

    std::string received;
    std::thread reader([&] {
        char buf[65536];
        while (received.size() < message.size()) {
            ssize_t n = recv(server.Get(), buf, sizeof(buf), 0);
            if (n <= 0) break;
            received.append(buf, static_cast<size_t>(n));
        }
    });
    // the non-blocking socket would block part-way: Send retries until all is out
    EXPECT_TRUE(
        NetCore_Socket_Send(client.Get(), message.data(), static_cast<int>(message.size()), nullptr, 0, 5, AF_INET));
    reader.join();
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(message, received);
}

TEST_F(SocketTest, SendToAnIpv4Address) {
    int port = 0;
    Fd receiver = nctest::BindUdp(AF_INET, &port);
    int fd = -1;
    ASSERT_TRUE(NetCore_Socket_Create(&fd, false, AF_INET, false));
    Fd sender(fd);
    EXPECT_TRUE(NetCore_Socket_Send(fd, "datagram", 8, "127.0.0.1", port, 1, AF_INET));
    char buf[64] = {};
    EXPECT_EQ(8, recv(receiver.Get(), buf, sizeof(buf), 0));
    EXPECT_STREQ("datagram", buf);
}

TEST_F(SocketTest, SendToAnIpv6AddressGoesOutWithTheIpv4FamilyField) {
    if (!nctest::Ipv6Available()) GTEST_SKIP() << "no IPv6 loopback on this host";
    // An IPv6 datagram socket handed an address record whose family says AF_INET: Linux reads it
    // as an IPv4 address made of the (zero) flow field, so the datagram reaches the port on the
    // local host over IPv4; a dual-stack receiver sees it.
    int fd = -1;
    ASSERT_TRUE(NetCore_Socket_Create(&fd, false, AF_INET6, false));
    Fd sender(fd);
    int rfd = -1;
    ASSERT_TRUE(NetCore_Socket_Create(&rfd, false, AF_INET6, false));
    Fd receiver(rfd);
    ASSERT_TRUE(NetCore_Socket_Bind(rfd, 0, false, AF_INET6));
    int port = nctest::LocalPort(rfd);
    EXPECT_TRUE(NetCore_Socket_Send(fd, "six", 3, "::1", port, 1, AF_INET6));
    ASSERT_TRUE(NetCore_Socket_IOSelect(rfd, true, 500));
    char buf[16] = {};
    EXPECT_EQ(3, recv(rfd, buf, sizeof(buf), 0));
    EXPECT_STREQ("six", buf);
}

TEST_F(SocketTest, SendToAPeerThatStoppedReadingTimesOutAfterWholeSeconds) {
    Fd client, server;
    nctest::TcpPair(AF_INET, &client, &server);
    ASSERT_TRUE(NetCore_Socket_SetBufferSize(client.Get(), 4096, 4096));
    ASSERT_TRUE(NetCore_Socket_SetBufferSize(server.Get(), 4096, 4096));
    ASSERT_TRUE(NetCore_Socket_SetNoneBlock(client.Get(), true));
    // fill both buffers: the server side never reads
    std::vector<char> chunk(65536, 'z');
    while (send(client.Get(), chunk.data(), chunk.size(), 0) > 0) {
    }
    ASSERT_EQ(EAGAIN, errno);

    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(NetCore_Socket_Send(client.Get(), chunk.data(), 1000, nullptr, 0, 1, AF_INET));
    auto elapsed = std::chrono::steady_clock::now() - start;
    ExpectFailure(ERROR_NETCORE_SOCKET_SEND_TIMEOUT);
    // more than one whole second of the wall clock must have passed
    EXPECT_GE(elapsed, 1s);
}

TEST_F(SocketTest, SendOnAConnectionThePeerClosedFails) {
    Fd client, server;
    nctest::TcpPair(AF_INET, &client, &server);
    linger hard{1, 0};
    ASSERT_EQ(0, setsockopt(server.Get(), SOL_SOCKET, SO_LINGER, &hard, sizeof(hard)));
    server.Reset();  // reset: the next send fails at once
    ASSERT_TRUE(nctest::WaitFor([&] { return NetCore_Socket_IOSelect(client.Get(), true, 10); }));
    EXPECT_FALSE(NetCore_Socket_Send(client.Get(), "late", 4, nullptr, 0, 1, AF_INET));
    ExpectFailure(ERROR_NETCORE_SOCKET_SEND_FAILED);
}

// ----- Recv --------------------------------------------------------------------------------------

TEST_F(SocketTest, RecvReportsEmptyClosedAndFailed) {
    Fd client, server;
    nctest::TcpPair(AF_INET, &client, &server);
    ASSERT_TRUE(NetCore_Socket_SetNoneBlock(server.Get(), true));
    char buf[32] = {};
    int len = sizeof(buf);
    EXPECT_FALSE(NetCore_Socket_Recv(server.Get(), buf, &len));
    ExpectFailure(ERROR_NETCORE_SOCKET_RECV_EMPTY);

    ASSERT_EQ(5, send(client.Get(), "hello", 5, 0));
    ASSERT_TRUE(NetCore_Socket_IOSelect(server.Get(), true, 500));
    EXPECT_TRUE(NetCore_Socket_Recv(server.Get(), buf, &len));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_STREQ("hello", buf);
    EXPECT_EQ(static_cast<int>(sizeof(buf)), len) << "the count is not written back";

    client.Reset();
    ASSERT_TRUE(NetCore_Socket_IOSelect(server.Get(), true, 500));
    EXPECT_FALSE(NetCore_Socket_Recv(server.Get(), buf, &len));
    ExpectFailure(ERROR_NETCORE_SOCKET_RECV_CLOSED);

    EXPECT_FALSE(NetCore_Socket_Recv(ClosedFd(), buf, &len));
    ExpectFailure(ERROR_NETCORE_SOCKET_RECV_FAILED);
    EXPECT_FALSE(NetCore_Socket_Recv(server.Get(), buf, nullptr));
    ExpectFailure(ERROR_NETCORE_SOCKET_RECV_FAILED);
}

// ----- Close and options -------------------------------------------------------------------------

TEST_F(SocketTest, CloseShutsDownAndCloses) {
    Fd client, server;
    nctest::TcpPair(AF_INET, &client, &server);
    int fd = server.Release();
    EXPECT_TRUE(NetCore_Socket_Close(fd));
    EXPECT_FALSE(IsOpen(fd));
    char c;
    EXPECT_EQ(0, recv(client.Get(), &c, 1, 0)) << "the peer sees an orderly end";
    // closing something that is not open still answers true
    EXPECT_TRUE(NetCore_Socket_Close(fd));
    EXPECT_FALSE(ErrorFlag());
}

TEST_F(SocketTest, SetNoneBlockTogglesTheFlag) {
    int fd = -1;
    ASSERT_TRUE(NetCore_Socket_Create(&fd, true, AF_INET, false));
    Fd holder(fd);
    EXPECT_TRUE(NetCore_Socket_SetNoneBlock(fd, true));
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_TRUE(NetCore_Socket_SetNoneBlock(fd, false));
    EXPECT_FALSE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_FALSE(NetCore_Socket_SetNoneBlock(ClosedFd(), true));
    ExpectFailure(ERROR_NETCORE_SOCKET_NONBLOCK_GETFLAG);
}

TEST_F(SocketTest, ReuseAndTimeOutOptions) {
    int fd = -1;
    ASSERT_TRUE(NetCore_Socket_Create(&fd, true, AF_INET, false));
    Fd holder(fd);
    EXPECT_TRUE(NetCore_Socket_SetReAddr(fd));
    EXPECT_NE(0, IntOption(fd, SOL_SOCKET, SO_REUSEADDR));
    EXPECT_TRUE(NetCore_Socket_SetTimedOut(fd, 3));
    for (int option : {SO_SNDTIMEO, SO_RCVTIMEO}) {
        timeval tv{};
        socklen_t len = sizeof(tv);
        ASSERT_EQ(0, getsockopt(fd, SOL_SOCKET, option, &tv, &len));
        EXPECT_EQ(3, tv.tv_sec);
        EXPECT_EQ(0, tv.tv_usec);
    }

    int closed = ClosedFd();
    EXPECT_FALSE(NetCore_Socket_SetReAddr(closed));
    ExpectFailure(ERROR_NETCORE_SOCKET_REUSEADDR);
    EXPECT_FALSE(NetCore_Socket_SetTimedOut(closed, 3));
    ExpectFailure(ERROR_NETCORE_SOCKET_TIMEOUT_SEND);
}

TEST_F(SocketTest, KeepAliveSetsTheFixedTimingInOrder) {
    for (bool enable : {true, false}) {
        int fd = -1;
        ASSERT_TRUE(NetCore_Socket_Create(&fd, true, AF_INET, false));
        Fd holder(fd);
        int interval = IntOption(fd, IPPROTO_TCP, TCP_KEEPINTVL);
        bool ok = NetCore_Socket_KeepAlive(fd, enable);
        // Linux refuses the probe count's three-byte option, which ends the call before the
        // interval is set
        EXPECT_FALSE(ok);
        ExpectFailure(ERROR_NETCORE_SOCKET_KEEPALIVE_COUNT);
        EXPECT_EQ(enable ? 1 : 0, IntOption(fd, SOL_SOCKET, SO_KEEPALIVE));
        EXPECT_EQ(10, IntOption(fd, IPPROTO_TCP, TCP_KEEPIDLE));
        EXPECT_EQ(interval, IntOption(fd, IPPROTO_TCP, TCP_KEEPINTVL));
    }
    EXPECT_FALSE(NetCore_Socket_KeepAlive(ClosedFd(), true));
    ExpectFailure(ERROR_NETCORE_SOCKET_KEEPALIVE_ENABLE);
    int udp = -1;
    ASSERT_TRUE(NetCore_Socket_Create(&udp, false, AF_INET, false));
    Fd holder(udp);
    EXPECT_FALSE(NetCore_Socket_KeepAlive(udp, true));
    ExpectFailure(ERROR_NETCORE_SOCKET_KEEPALIVE_IDLE);
}

TEST_F(SocketTest, FastStartPassesOneByteFlags) {
    int fd = -1;
    ASSERT_TRUE(NetCore_Socket_Create(&fd, true, AF_INET, false));
    Fd holder(fd);
    // Linux wants an int for socket-level options, so the first one-byte option is refused
    EXPECT_FALSE(NetCore_Socket_FastStart(fd, true));
    ExpectFailure(ERROR_NETCORE_SOCKET_FASTSTART_FIRST);
    EXPECT_EQ(0, IntOption(fd, SOL_SOCKET, SO_DONTROUTE)) << "the second option is skipped";
}

TEST_F(SocketTest, BufferSizesTakeTheirArgumentsInOppositeOrders) {
    int fd = -1;
    ASSERT_TRUE(NetCore_Socket_Create(&fd, true, AF_INET, false));
    Fd holder(fd);
    int recvBefore = 0, sendBefore = 0;
    EXPECT_TRUE(NetCore_Socket_GetBufferSize(fd, &recvBefore, &sendBefore));
    EXPECT_EQ(IntOption(fd, SOL_SOCKET, SO_RCVBUF), recvBefore);
    EXPECT_EQ(IntOption(fd, SOL_SOCKET, SO_SNDBUF), sendBefore);

    EXPECT_TRUE(NetCore_Socket_SetBufferSize(fd, 0, 0));
    int recvNow = 0, sendNow = 0;
    EXPECT_TRUE(NetCore_Socket_GetBufferSize(fd, &recvNow, &sendNow));
    EXPECT_EQ(recvBefore, recvNow);
    EXPECT_EQ(sendBefore, sendNow);

    // send size first when setting, receive size first when reading (Linux doubles the values)
    EXPECT_TRUE(NetCore_Socket_SetBufferSize(fd, 8192, 16384));
    EXPECT_TRUE(NetCore_Socket_GetBufferSize(fd, &recvNow, &sendNow));
    EXPECT_EQ(2 * 16384, recvNow);
    EXPECT_EQ(2 * 8192, sendNow);

    int only = 0;
    EXPECT_TRUE(NetCore_Socket_GetBufferSize(fd, nullptr, &only));
    EXPECT_EQ(2 * 8192, only);
    EXPECT_TRUE(NetCore_Socket_GetBufferSize(fd, nullptr, nullptr));
    // results of the option calls are not reported
    EXPECT_TRUE(NetCore_Socket_SetBufferSize(ClosedFd(), 4096, 4096));
    EXPECT_FALSE(ErrorFlag());
}

// ----- IOSelect ----------------------------------------------------------------------------------

void ExpectSelectBehaviour(int reader, int writer) {
    EXPECT_FALSE(NetCore_Socket_IOSelect(reader, true, 30));
    ExpectFailure(ERROR_NETCORE_SOCKET_SELECT_TIMEOUT);
    EXPECT_FALSE(NetCore_Socket_IOSelect(reader, true, 0));
    ExpectFailure(ERROR_NETCORE_SOCKET_SELECT_TIMEOUT);

    EXPECT_TRUE(NetCore_Socket_IOSelect(writer, false, 0));
    EXPECT_FALSE(ErrorFlag());
    ASSERT_EQ(1, send(writer, "r", 1, 0));
    EXPECT_TRUE(NetCore_Socket_IOSelect(reader, true, nctest::kLongestWaitMs));
    EXPECT_FALSE(ErrorFlag());

    // a negative time-out is refused by select itself
    EXPECT_FALSE(NetCore_Socket_IOSelect(reader, true, -1));
    ExpectFailure(ERROR_NETCORE_SOCKET_SELECT_FAILED);
    int sysError = 0;
    NetCore_GetLastError(&sysError);
    EXPECT_EQ(EINVAL, sysError);
}

TEST_F(SocketTest, IOSelectWaitsForReadingAndWriting) {
    Fd client, server;
    nctest::TcpPair(AF_INET, &client, &server);
    ExpectSelectBehaviour(server.Get(), client.Get());
    EXPECT_FALSE(NetCore_Socket_IOSelect(-1, true, 10));
    ExpectFailure(ERROR_NETCORE_SOCKET_SELECT_PARAMENT);
    EXPECT_FALSE(NetCore_Socket_IOSelect(ClosedFd(), true, 10));
    ExpectFailure(ERROR_NETCORE_SOCKET_SELECT_FAILED);
}

// From 1000 ms up the microseconds field holds a second or more.
TEST_F(SocketTest, IOSelectWithASecondOrMoreInTheMicrosecondsField) {
    Fd client, server;
    nctest::TcpPair(AF_INET, &client, &server);
    auto start = std::chrono::steady_clock::now();
    bool ok = NetCore_Socket_IOSelect(server.Get(), true, 1100);
    auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_FALSE(ok);
#if defined(__BIONIC__)
    // bionic refuses the time-out before waiting at all
    ExpectFailure(ERROR_NETCORE_SOCKET_SELECT_FAILED);
    EXPECT_LT(elapsed, 1000ms);
#else
    // glibc folds the whole seconds out and waits the full time
    ExpectFailure(ERROR_NETCORE_SOCKET_SELECT_TIMEOUT);
    EXPECT_GE(elapsed, 1100ms);
#endif
}

class HighDescriptor : public SocketTest {
protected:
    void SetUp() override {
        SocketTest::SetUp();
        rlimit limit{};
        ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
        if (limit.rlim_cur < kTarget + 2) {
            if (limit.rlim_max < kTarget + 2) GTEST_SKIP() << "descriptor limit too low";
            limit.rlim_cur = kTarget + 2;
            ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        }
    }
    // moves a descriptor above FD_SETSIZE
    static Fd Lift(Fd fd, int target) {
        int high = fcntl(fd.Get(), F_DUPFD, target);
        EXPECT_GE(high, FD_SETSIZE);
        return Fd(high);
    }
    static constexpr rlim_t kTarget = FD_SETSIZE + 100;
};

TEST_F(HighDescriptor, IOSelectAboveFdSetSizeBehavesLikeBelow) {
    Fd client, server;
    nctest::TcpPair(AF_INET, &client, &server);
    Fd highServer = Lift(std::move(server), kTarget - 50);
    Fd highClient = Lift(std::move(client), kTarget - 40);
    ExpectSelectBehaviour(highServer.Get(), highClient.Get());

    // a hung-up peer makes the socket readable
    char drain[8];
    ASSERT_EQ(1, recv(highServer.Get(), drain, sizeof(drain), 0));
    highClient.Reset();
    EXPECT_TRUE(NetCore_Socket_IOSelect(highServer.Get(), true, nctest::kLongestWaitMs));

    int gone = highServer.Get();
    highServer.Reset();
    EXPECT_FALSE(NetCore_Socket_IOSelect(gone, true, 10));
    ExpectFailure(ERROR_NETCORE_SOCKET_SELECT_FAILED);
    int sysError = 0;
    NetCore_GetLastError(&sysError);
    EXPECT_EQ(EBADF, sysError);
}

TEST_F(HighDescriptor, LongTimeOutAboveFdSetSize) {
    Fd client, server;
    nctest::TcpPair(AF_INET, &client, &server);
    Fd high = Lift(std::move(server), kTarget - 30);
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(NetCore_Socket_IOSelect(high.Get(), true, 1100));
    auto elapsed = std::chrono::steady_clock::now() - start;
#if defined(__BIONIC__)
    // bionic refuses the time-out before waiting at all
    ExpectFailure(ERROR_NETCORE_SOCKET_SELECT_FAILED);
    EXPECT_LT(elapsed, 1000ms);
#else
    ExpectFailure(ERROR_NETCORE_SOCKET_SELECT_TIMEOUT);
    EXPECT_GE(elapsed, 1100ms);
#endif
}

TEST_F(HighDescriptor, SendAboveFdSetSize) {
    int port = 0;
    Fd receiver = nctest::BindUdp(AF_INET, &port);
    int fd = -1;
    ASSERT_TRUE(NetCore_Socket_Create(&fd, false, AF_INET, false));
    Fd high = Lift(Fd(fd), kTarget - 20);
    EXPECT_TRUE(NetCore_Socket_IOSelect(high.Get(), false, 100));
    EXPECT_TRUE(NetCore_Socket_Send(high.Get(), "hi", 2, "127.0.0.1", port, 1, AF_INET));
    char buf[4] = {};
    EXPECT_EQ(2, recv(receiver.Get(), buf, sizeof(buf), 0));
}

}  // namespace
