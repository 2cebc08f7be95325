// The socket utilities through the exported functions, on real loopback sockets.
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Ombrelt_NetCore.h"
#include "TestSupport.h"
#include "socket/NetCore_Socket.h"

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

// A descriptor number nothing of the process uses.
int ClosedFd() {
    int fd = dup(0);
    close(fd);
    return fd;
}

Fd NewSocket(bool tcp, int ipver = AF_INET) {
    int fd = -1;
    EXPECT_TRUE(NetCore_Socket_Create(&fd, tcp, ipver, false));
    return Fd(fd);
}

// The call's result, then the error flag and code it left (0 when the flag is clear).
void Expect(bool ok, unsigned long long code, const char* what) {
    EXPECT_EQ(code == 0, ok) << what;
    EXPECT_EQ(code != 0, ErrorFlag()) << what;
    if (code != 0) {
        EXPECT_EQ(code, NetCore_GetLastError(nullptr)) << what;
    }
}

int SysError() {
    int sysError = 0;
    NetCore_GetLastError(&sysError);
    return sysError;
}

class SocketTest : public nctest::NetCoreTest {};

TEST_F(SocketTest, CreatePicksFamilyTypeAndProtocol) {
    Expect(NetCore_Socket_Create(nullptr, true, AF_INET, false), ERROR_NETCORE_SOCKET_CREATE_PARAMENT, "null");
    for (int ipver : {2, 0, 10, 23, -1}) {
        for (bool tcp : {true, false}) {
            int fd = -1;
            ASSERT_TRUE(NetCore_Socket_Create(&fd, tcp, ipver, tcp));
            Fd holder(fd);
            EXPECT_EQ(ipver == 2 ? AF_INET : AF_INET6, IntOption(fd, SOL_SOCKET, SO_DOMAIN)) << ipver;
            EXPECT_EQ(tcp ? IPPROTO_TCP : IPPROTO_UDP, IntOption(fd, SOL_SOCKET, SO_PROTOCOL));
        }
    }
    // with no descriptor number left below the limit, socket() fails and -1 is stored
    rlimit old{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &old));
    rlimit tight = old;
    tight.rlim_cur = static_cast<rlim_t>(ClosedFd());
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &tight));
    int fd = 12345;
    bool ok = NetCore_Socket_Create(&fd, true, AF_INET, false);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &old));
    Expect(ok, ERROR_NETCORE_SOCKET_CREATE_SOCKET, "no descriptor left");
    EXPECT_EQ(EMFILE, SysError());
    EXPECT_EQ(-1, fd);
}

TEST_F(SocketTest, BindListensWhenAskedAndPrintsIpv4FailuresOnly) {
    for (int ipver : {AF_INET, AF_INET6}) {
        if (ipver == AF_INET6 && !nctest::Ipv6Available()) continue;
        Fd listening = NewSocket(true, ipver), plain = NewSocket(true, ipver), late = NewSocket(true, ipver);
        Expect(NetCore_Socket_Bind(listening.Get(), 0, true, ipver), 0, "listen");
        Expect(NetCore_Socket_Bind(plain.Get(), 0, false, ipver), 0, "no listen");
        EXPECT_EQ(1, IntOption(listening.Get(), SOL_SOCKET, SO_ACCEPTCONN));
        EXPECT_EQ(0, IntOption(plain.Get(), SOL_SOCKET, SO_ACCEPTCONN));
        testing::internal::CaptureStdout();
        bool ok = NetCore_Socket_Bind(late.Get(), nctest::LocalPort(listening.Get()), true, ipver);
        fflush(stdout);
        std::string printed = testing::internal::GetCapturedStdout();
        Expect(ok, ERROR_NETCORE_SOCKET_BIND_BIND, "busy port");
        EXPECT_EQ(ipver == AF_INET ? "NetCore_Socket_Bind:" + std::to_string(EADDRINUSE) + "\n" : "", printed);
    }
}

// The peer does not read while Send runs: the sender's small buffer makes every pass partial, and
// each pass must go on from where the last one stopped.
TEST_F(SocketTest, SendContinuesAfterPartialWritesAndFailsWithItsCodes) {
    Fd client, server;
    nctest::TcpPair(AF_INET, &client, &server);
    ASSERT_TRUE(NetCore_Socket_SetBufferSize(client.Get(), 4096, 0));
    ASSERT_TRUE(NetCore_Socket_SetBufferSize(server.Get(), 0, 1 << 20));
    ASSERT_TRUE(NetCore_Socket_SetNoneBlock(client.Get(), true));
    std::string message(100000, 0);
    for (size_t i = 0; i < message.size(); i++)
        message[i] = static_cast<char>(i * 7 + i / 251);
    Expect(NetCore_Socket_Send(client.Get(), message.data(), static_cast<int>(message.size()), nullptr, 0, 1, AF_INET),
           0, "large send");
    std::string received;
    char buf[65536];
    while (NetCore_Socket_IOSelect(server.Get(), true, 200)) {
        ssize_t n = recv(server.Get(), buf, sizeof(buf), 0);
        if (n <= 0) break;
        received.append(buf, static_cast<size_t>(n));
    }
    EXPECT_TRUE(received == message) << received.size() << " bytes received, " << message.size() << " sent";

    Expect(NetCore_Socket_Send(client.Get(), "x", 0, nullptr, 0, 1, AF_INET), ERROR_NETCORE_SOCKET_SEND_PARAMENT, "0");
    Expect(NetCore_Socket_Send(client.Get(), "x", -5, nullptr, 0, 1, AF_INET), ERROR_NETCORE_SOCKET_SEND_PARAMENT,
           "-5");
    // both buffers full: the send fails once more than the time-out's whole seconds have passed
    while (NetCore_Socket_IOSelect(client.Get(), false, 50))
        send(client.Get(), buf, sizeof(buf), 0);
    auto start = std::chrono::steady_clock::now();
    Expect(NetCore_Socket_Send(client.Get(), buf, sizeof(buf), nullptr, 0, 1, AF_INET),
           ERROR_NETCORE_SOCKET_SEND_TIMEOUT, "peer not reading");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);
    linger hard{1, 0};
    ASSERT_EQ(0, setsockopt(server.Get(), SOL_SOCKET, SO_LINGER, &hard, sizeof(hard)));
    server.Reset();
    ASSERT_TRUE(nctest::WaitFor([&] { return NetCore_Socket_IOSelect(client.Get(), true, 10); }));
    Expect(NetCore_Socket_Send(client.Get(), "late", 4, nullptr, 0, 1, AF_INET), ERROR_NETCORE_SOCKET_SEND_FAILED,
           "reset");
}

// The IPv6 form fills an address whose family field says AF_INET: Linux reads it as an IPv4
// address made of the (zero) flow field, which reaches a dual-stack receiver on this host.
TEST_F(SocketTest, SendToAnAddress) {
    for (int ipver : {AF_INET, AF_INET6}) {
        if (ipver == AF_INET6 && !nctest::Ipv6Available()) continue;
        Fd sender = NewSocket(false, ipver), receiver = NewSocket(false, ipver);
        ASSERT_TRUE(NetCore_Socket_Bind(receiver.Get(), 0, false, ipver));
        const char* to = ipver == AF_INET ? "127.0.0.1" : "::1";
        Expect(NetCore_Socket_Send(sender.Get(), "datagram", 8, to, nctest::LocalPort(receiver.Get()), 1, ipver), 0,
               to);
        ASSERT_TRUE(NetCore_Socket_IOSelect(receiver.Get(), true, nctest::kLongestWaitMs));
        char buf[16] = {};
        EXPECT_EQ(8, recv(receiver.Get(), buf, sizeof(buf), 0));
        EXPECT_STREQ("datagram", buf);
    }
}

TEST_F(SocketTest, RecvAndClose) {
    Fd client, server;
    nctest::TcpPair(AF_INET, &client, &server);
    ASSERT_TRUE(NetCore_Socket_SetNoneBlock(server.Get(), true));
    char buf[32] = {};
    int len = sizeof(buf);
    Expect(NetCore_Socket_Recv(server.Get(), buf, &len), ERROR_NETCORE_SOCKET_RECV_EMPTY, "empty");
    ASSERT_EQ(5, send(client.Get(), "hello", 5, 0));
    ASSERT_TRUE(NetCore_Socket_IOSelect(server.Get(), true, nctest::kLongestWaitMs));
    Expect(NetCore_Socket_Recv(server.Get(), buf, &len), 0, "data");
    EXPECT_STREQ("hello", buf);
    EXPECT_EQ(static_cast<int>(sizeof(buf)), len) << "the count is not written back";
    Expect(NetCore_Socket_Recv(ClosedFd(), buf, &len), ERROR_NETCORE_SOCKET_RECV_FAILED, "not open");
    Expect(NetCore_Socket_Recv(server.Get(), buf, nullptr), ERROR_NETCORE_SOCKET_RECV_FAILED, "no length");

    // Close shuts the connection down: a duplicate of the descriptor and the peer both see the end
    Fd copy(dup(server.Get()));
    Expect(NetCore_Socket_Close(server.Release()), 0, "close");
    for (int fd : {copy.Get(), client.Get()}) {
        EXPECT_TRUE(NetCore_Socket_IOSelect(fd, true, nctest::kLongestWaitMs));
        Expect(NetCore_Socket_Recv(fd, buf, &len), ERROR_NETCORE_SOCKET_RECV_CLOSED, "after close");
    }
    Expect(NetCore_Socket_Close(ClosedFd()), 0, "close of nothing");
}

double Seconds(int fd, int option) {
    timeval tv{};
    socklen_t len = sizeof(tv);
    getsockopt(fd, SOL_SOCKET, option, &tv, &len);
    return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
}

// Receive then send size, each read on its own.
std::pair<int, int> Sizes(int fd) {
    int recvSize = -1, sendSize = -1;
    EXPECT_TRUE(NetCore_Socket_GetBufferSize(fd, &recvSize, nullptr) &&
                NetCore_Socket_GetBufferSize(fd, nullptr, &sendSize));
    return {recvSize, sendSize};
}

TEST_F(SocketTest, Options) {
    Fd tcp = NewSocket(true), udp = NewSocket(false);
    const int s = tcp.Get(), closed = ClosedFd();
    const std::pair<int, int> sizes{IntOption(s, SOL_SOCKET, SO_RCVBUF), IntOption(s, SOL_SOCKET, SO_SNDBUF)};
    const struct {
        std::function<bool()> call;
        unsigned long long code;
        std::function<bool()> after;
    } rows[] = {
        {[&] { return NetCore_Socket_SetNoneBlock(s, true); }, 0,
         [&] { return (fcntl(s, F_GETFL) & O_NONBLOCK) != 0; }},
        {[&] { return NetCore_Socket_SetNoneBlock(s, false); }, 0,
         [&] { return (fcntl(s, F_GETFL) & O_NONBLOCK) == 0; }},
        {[&] { return NetCore_Socket_SetReAddr(s); }, 0, [&] { return IntOption(s, SOL_SOCKET, SO_REUSEADDR) != 0; }},
        {[&] { return CNetCore_Socket().NetCore_Socket_SetRePort(s); }, 0,
         [&] { return IntOption(s, SOL_SOCKET, SO_REUSEPORT) != 0; }},
        {[&] { return NetCore_Socket_SetTimedOut(s, 3); }, 0,
         [&] { return Seconds(s, SO_SNDTIMEO) == 3.0 && Seconds(s, SO_RCVTIMEO) == 3.0; }},
        // Linux refuses the probe count's three-byte option (once the idle time is set), a TCP
        // option on a UDP socket, and one-byte socket-level flags
        {[&] { return NetCore_Socket_KeepAlive(s, true); }, ERROR_NETCORE_SOCKET_KEEPALIVE_COUNT,
         [&] { return IntOption(s, SOL_SOCKET, SO_KEEPALIVE) == 1 && IntOption(s, IPPROTO_TCP, TCP_KEEPIDLE) == 10; }},
        {[&] { return NetCore_Socket_KeepAlive(s, false); }, ERROR_NETCORE_SOCKET_KEEPALIVE_COUNT,
         [&] { return IntOption(s, SOL_SOCKET, SO_KEEPALIVE) == 0; }},
        {[&] { return NetCore_Socket_KeepAlive(udp.Get(), true); }, ERROR_NETCORE_SOCKET_KEEPALIVE_IDLE, nullptr},
        {[&] { return NetCore_Socket_FastStart(s, true); }, ERROR_NETCORE_SOCKET_FASTSTART_FIRST, nullptr},
        {[&] { return NetCore_Socket_SetNoneBlock(closed, true); }, ERROR_NETCORE_SOCKET_NONBLOCK_GETFLAG, nullptr},
        {[&] { return NetCore_Socket_SetReAddr(closed); }, ERROR_NETCORE_SOCKET_REUSEADDR, nullptr},
        {[&] { return NetCore_Socket_SetTimedOut(closed, 3); }, ERROR_NETCORE_SOCKET_TIMEOUT_SEND, nullptr},
        {[&] { return NetCore_Socket_KeepAlive(closed, true); }, ERROR_NETCORE_SOCKET_KEEPALIVE_ENABLE, nullptr},
        // sizes below 1 are left alone, option results are not reported; Linux doubles the sizes
        {[&] { return NetCore_Socket_SetBufferSize(closed, 4096, 4096); }, 0, nullptr},
        {[&] { return NetCore_Socket_SetBufferSize(s, 0, 0); }, 0, [&] { return Sizes(s) == sizes; }},
        {[&] { return NetCore_Socket_SetBufferSize(s, 8192, 16384); }, 0,
         [&] { return Sizes(s) == std::make_pair(2 * 16384, 2 * 8192); }},
    };
    for (const auto& row : rows) {
        Expect(row.call(), row.code, std::to_string(&row - rows).c_str());
        EXPECT_TRUE(row.after == nullptr || row.after()) << "row " << &row - rows;
    }
}

bool Sleeping(pid_t tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    size_t end = text.rfind(')');
    return end != std::string::npos && end + 2 < text.size() && text[end + 2] == 'S';
}

// Readiness waits below and above FD_SETSIZE (where an fd_set cannot hold the descriptor) must
// answer alike: a time-out lasts at least as asked, and data arriving mid-wait ends it.
void ExpectSelectBehaviour(int reader, int writer, int waitMs) {
    Expect(NetCore_Socket_IOSelect(reader, true, 0), ERROR_NETCORE_SOCKET_SELECT_TIMEOUT, "no wait");
    auto start = std::chrono::steady_clock::now();
    Expect(NetCore_Socket_IOSelect(reader, true, waitMs), ERROR_NETCORE_SOCKET_SELECT_TIMEOUT, "wait");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(waitMs));
    Expect(NetCore_Socket_IOSelect(writer, false, 0), 0, "writable");
    const pid_t waiter = static_cast<pid_t>(syscall(SYS_gettid));
    std::thread peer([&] {
        nctest::WaitFor([&] { return Sleeping(waiter); });
        ASSERT_EQ(1, send(writer, "r", 1, 0));
    });
    Expect(NetCore_Socket_IOSelect(reader, true, nctest::kLongestWaitMs), 0, "data arriving");
    peer.join();
    // select itself refuses a negative time-out
    Expect(NetCore_Socket_IOSelect(reader, true, -1), ERROR_NETCORE_SOCKET_SELECT_FAILED, "negative");
    EXPECT_EQ(EINVAL, SysError());
}

class IOSelect : public SocketTest {
protected:
    void SetUp() override {
        SocketTest::SetUp();
        rlimit limit{};
        ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
        if (limit.rlim_cur < kHigh + 10) {
            if (limit.rlim_max < kHigh + 10) GTEST_SKIP() << "descriptor limit too low";
            limit.rlim_cur = kHigh + 10;
            ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        }
    }
    // the same open file under a number above FD_SETSIZE
    static Fd Lift(Fd fd) { return Fd(fcntl(fd.Get(), F_DUPFD, kHigh)); }
    static constexpr rlim_t kHigh = FD_SETSIZE + 50;
};

TEST_F(IOSelect, BelowFdSetSize) {
    Fd client, server;
    nctest::TcpPair(AF_INET, &client, &server);
    ExpectSelectBehaviour(server.Get(), client.Get(), 20);
    Expect(NetCore_Socket_IOSelect(-1, true, 10), ERROR_NETCORE_SOCKET_SELECT_PARAMENT, "-1");
    Expect(NetCore_Socket_IOSelect(ClosedFd(), true, 10), ERROR_NETCORE_SOCKET_SELECT_FAILED, "not open");
}

TEST_F(IOSelect, AboveFdSetSize) {
    Fd client, server;
    nctest::TcpPair(AF_INET, &client, &server);
    Fd highServer = Lift(std::move(server)), highClient = Lift(std::move(client));
    ASSERT_GE(highServer.Get(), FD_SETSIZE);
    ExpectSelectBehaviour(highServer.Get(), highClient.Get(), nctest::kLongestWaitMs);
    // a hung-up peer makes the socket readable; a closed descriptor fails with EBADF
    char drain[8];
    ASSERT_EQ(1, recv(highServer.Get(), drain, sizeof(drain), 0));
    highClient.Reset();
    Expect(NetCore_Socket_IOSelect(highServer.Get(), true, nctest::kLongestWaitMs), 0, "hung up");
    int gone = highServer.Get();
    highServer.Reset();
    Expect(NetCore_Socket_IOSelect(gone, true, 10), ERROR_NETCORE_SOCKET_SELECT_FAILED, "closed");
    EXPECT_EQ(EBADF, SysError());
}

// A pipe's read end whose writer is gone reports only a hang-up: select does not count that as
// writable and waits out the whole time-out.
TEST_F(IOSelect, HangUpWhileWaitingToWriteAboveFdSetSize) {
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    Fd writer(ends[1]), reader = Lift(Fd(ends[0]));
    writer.Reset();
    auto start = std::chrono::steady_clock::now();
    Expect(NetCore_Socket_IOSelect(reader.Get(), false, nctest::kLongestWaitMs), ERROR_NETCORE_SOCKET_SELECT_TIMEOUT,
           "hang-up only");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(nctest::kLongestWaitMs));
}

// From 1000 ms on the microseconds field holds a second or more.
TEST_F(IOSelect, ASecondOrMoreInTheMicrosecondsFieldAboveFdSetSize) {
    Fd client, server;
    nctest::TcpPair(AF_INET, &client, &server);
    Fd high = Lift(std::move(server));
    auto start = std::chrono::steady_clock::now();
    bool ok = NetCore_Socket_IOSelect(high.Get(), true, 1100);
#if defined(__BIONIC__)
    Expect(ok, ERROR_NETCORE_SOCKET_SELECT_FAILED, "bionic refuses it");
#else
    Expect(ok, ERROR_NETCORE_SOCKET_SELECT_TIMEOUT, "glibc folds the seconds out");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1100ms);
#endif
}

}  // namespace
