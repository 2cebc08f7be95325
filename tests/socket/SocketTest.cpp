// The socket utilities through the exported functions, on real loopback sockets.
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <fstream>
#include <thread>

#include "Ombrelt_NetCore.h"
#include "TestSupport.h"
#include "socket/NetCore_Socket.h"

namespace {

using nctest::Fd;
using Clock = std::chrono::steady_clock;

const auto IntOption = [](int fd, int level, int name, int value = -1) {
    socklen_t len = sizeof(value);
    return getsockopt(fd, level, name, &value, &len), value;
};
// A descriptor number nothing of the process uses.
const auto ClosedFd = [](int fd = dup(0)) { return close(fd), fd; };
const auto NewSocket = [](bool tcp, int ipver = AF_INET) {
    int fd = -1;
    return NetCore_Socket_Create(&fd, tcp, ipver, tcp), Fd(fd);
};

#define EXPECT_CODE(call, code) nctest::ExpectCode(call, code, #call)

class SocketTest : public nctest::NetCoreTest {};

TEST_F(SocketTest, CreateAndBind) {
    EXPECT_CODE(NetCore_Socket_Create(nullptr, true, AF_INET, false), ERROR_NETCORE_SOCKET_CREATE_PARAMENT);
    for (int ipver : {AF_INET, AF_INET6, 0})
        for (bool tcp : {true, false}) {
            Fd fd = NewSocket(tcp, ipver);
            EXPECT_TRUE(IntOption(fd.Get(), SOL_SOCKET, SO_DOMAIN) == (ipver == AF_INET ? AF_INET : AF_INET6) &&
                        IntOption(fd.Get(), SOL_SOCKET, SO_PROTOCOL) == (tcp ? IPPROTO_TCP : IPPROTO_UDP));
        }
    // bound with and without listening (a datagram socket cannot listen), then once more on the
    // taken port (the failure is printed); a datagram sent to the one not listening
    Fd tcp = NewSocket(true), plain = NewSocket(false), late = NewSocket(true), sender = NewSocket(false);
    EXPECT_CODE(NetCore_Socket_Bind(tcp.Get(), 0, true, AF_INET), 0);
    EXPECT_CODE(NetCore_Socket_Bind(plain.Get(), 0, false, AF_INET), 0);
    EXPECT_EQ(1, IntOption(tcp.Get(), SOL_SOCKET, SO_ACCEPTCONN));
    EXPECT_CODE(
        NetCore_Socket_Send(sender.Get(), "datagram", 8, "127.0.0.1", nctest::LocalPort(plain.Get()), 1, AF_INET), 0);
    char buf[16];
    EXPECT_TRUE(NetCore_Socket_IOSelect(plain.Get(), true, 999) && recv(plain.Get(), buf, sizeof(buf), 0) == 8);
    testing::internal::CaptureStdout();
    EXPECT_CODE(NetCore_Socket_Bind(late.Get(), nctest::LocalPort(tcp.Get()), true, AF_INET),
                ERROR_NETCORE_SOCKET_BIND_BIND);
    EXPECT_EQ("NetCore_Socket_Bind:" + std::to_string(EADDRINUSE) + "\n", testing::internal::GetCapturedStdout());
}

// The peer does not read while Send runs: the sender's small buffer makes every pass partial, and
// each pass must go on from where the last one stopped.
TEST_F(SocketTest, SendContinuesAfterPartialWritesAndFailsWithItsCodes) {
    Fd client, server;
    nctest::TcpPair(AF_INET, &client, &server);
    const int c = client.Get();
    ASSERT_TRUE(NetCore_Socket_SetBufferSize(c, 4096, 0) && NetCore_Socket_SetBufferSize(server.Get(), 0, 1 << 20));
    ASSERT_TRUE(NetCore_Socket_SetNoneBlock(c, true));
    std::string message(100000, 0), received;
    for (size_t i = 0; i < message.size(); i++)
        message[i] = static_cast<char>(i * 7 + i / 251);
    EXPECT_CODE(NetCore_Socket_Send(c, message.data(), static_cast<int>(message.size()), nullptr, 0, 1, AF_INET), 0);
    char buf[65536];
    for (ssize_t n = 0;
         NetCore_Socket_IOSelect(server.Get(), true, 200) && (n = recv(server.Get(), buf, sizeof(buf), 0)) > 0;)
        received.append(buf, static_cast<size_t>(n));
    EXPECT_TRUE(received == message) << received.size() << " bytes received, " << message.size() << " sent";
    EXPECT_CODE(NetCore_Socket_Send(c, "x", 0, nullptr, 0, 1, AF_INET), ERROR_NETCORE_SOCKET_SEND_PARAMENT);
    EXPECT_CODE(NetCore_Socket_Send(c, "x", -5, nullptr, 0, 1, AF_INET), ERROR_NETCORE_SOCKET_SEND_PARAMENT);
    // Both buffers full: the send fails once more than the time-out's whole seconds have passed.
    // Full means no room for 200 ms: on a loaded machine data still in flight may free the
    // sender's buffer some tens of milliseconds after its last write.
    while (NetCore_Socket_IOSelect(c, false, 200))
        send(c, buf, sizeof(buf), 0);
    auto start = Clock::now();
    EXPECT_CODE(NetCore_Socket_Send(c, buf, sizeof(buf), nullptr, 0, 1, AF_INET), ERROR_NETCORE_SOCKET_SEND_TIMEOUT);
    EXPECT_GE(Clock::now() - start, std::chrono::seconds(1));
    linger hard{1, 0};
    ASSERT_EQ(0, setsockopt(server.Get(), SOL_SOCKET, SO_LINGER, &hard, sizeof(hard)));
    server.Reset();
    ASSERT_TRUE(nctest::WaitFor([&] { return NetCore_Socket_IOSelect(c, true, 10); }));
    EXPECT_CODE(NetCore_Socket_Send(c, "late", 4, nullptr, 0, 1, AF_INET), ERROR_NETCORE_SOCKET_SEND_FAILED);
}

TEST_F(SocketTest, Options) {
    Fd tcp = NewSocket(true), udp = NewSocket(false);
    const int s = tcp.Get(), closed = ClosedFd();
    timeval tv{};
    socklen_t len = sizeof(tv);
    EXPECT_CODE(NetCore_Socket_SetNoneBlock(s, true) && (fcntl(s, F_GETFL) & O_NONBLOCK), 0);
    EXPECT_CODE(NetCore_Socket_SetNoneBlock(s, false) && !(fcntl(s, F_GETFL) & O_NONBLOCK), 0);
    EXPECT_CODE(NetCore_Socket_SetReAddr(s) && IntOption(s, SOL_SOCKET, SO_REUSEADDR), 0);
    EXPECT_CODE(CNetCore_Socket().NetCore_Socket_SetRePort(s) && IntOption(s, SOL_SOCKET, SO_REUSEPORT), 0);
    EXPECT_CODE(NetCore_Socket_SetTimedOut(s, 3) && !getsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, &len), 0);
    EXPECT_TRUE(tv.tv_sec == 3 && tv.tv_usec == 0);
    // Linux refuses the probe count's three-byte option (once the idle time is set), a TCP
    // option on a UDP socket, and one-byte socket-level flags
    EXPECT_CODE(NetCore_Socket_KeepAlive(s, true), ERROR_NETCORE_SOCKET_KEEPALIVE_COUNT);
    EXPECT_TRUE(IntOption(s, SOL_SOCKET, SO_KEEPALIVE) == 1 && IntOption(s, IPPROTO_TCP, TCP_KEEPIDLE) == 10);
    EXPECT_CODE(NetCore_Socket_KeepAlive(s, false), ERROR_NETCORE_SOCKET_KEEPALIVE_COUNT);
    EXPECT_EQ(0, IntOption(s, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_CODE(NetCore_Socket_KeepAlive(udp.Get(), true), ERROR_NETCORE_SOCKET_KEEPALIVE_IDLE);
    EXPECT_CODE(NetCore_Socket_FastStart(s, true), ERROR_NETCORE_SOCKET_FASTSTART_FIRST);
    EXPECT_CODE(NetCore_Socket_SetNoneBlock(closed, true), ERROR_NETCORE_SOCKET_NONBLOCK_GETFLAG);
    EXPECT_CODE(NetCore_Socket_SetReAddr(closed), ERROR_NETCORE_SOCKET_REUSEADDR);
    EXPECT_CODE(NetCore_Socket_SetTimedOut(closed, 3), ERROR_NETCORE_SOCKET_TIMEOUT_SEND);
    EXPECT_CODE(NetCore_Socket_KeepAlive(closed, true), ERROR_NETCORE_SOCKET_KEEPALIVE_ENABLE);
    // sizes below 1 are left alone, option results are not reported; Linux doubles the sizes
    int sizes[2] = {-1, -1}, recvSize = IntOption(s, SOL_SOCKET, SO_RCVBUF);
    EXPECT_CODE(NetCore_Socket_SetBufferSize(closed, 4096, 4096) && NetCore_Socket_SetBufferSize(s, 0, 0), 0);
    EXPECT_CODE(NetCore_Socket_GetBufferSize(s, &sizes[0], nullptr) && sizes[0] == recvSize, 0);
    EXPECT_TRUE(NetCore_Socket_SetBufferSize(s, 8192, 16384) && NetCore_Socket_GetBufferSize(s, &sizes[0], &sizes[1]));
    EXPECT_TRUE(sizes[0] == 2 * 16384 && sizes[1] == 2 * 8192);
}

// Readiness waits below and above FD_SETSIZE (where an fd_set cannot hold the descriptor) must
// answer alike: a time-out lasts at least as asked, data arriving mid-wait ends it, a peer shut
// down by Close makes the socket readable, a closed descriptor fails with EBADF. Receive and Close
// run on the same sockets.
TEST_F(SocketTest, IOSelectRecvAndCloseBelowAndAboveFdSetSize) {
    constexpr int kHigh = FD_SETSIZE + 50;
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    if (limit.rlim_max < kHigh + 10) GTEST_SKIP() << "descriptor limit too low";
    if (limit.rlim_cur < kHigh + 10) limit.rlim_cur = kHigh + 10;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    // the same open file under a number above FD_SETSIZE
    auto lift = [&](Fd* fd) { fd->Reset(fcntl(fd->Get(), F_DUPFD, kHigh)); };
    char buf[32] = {};
    int len = sizeof(buf), sysError = 0;
    EXPECT_CODE(NetCore_Socket_IOSelect(-1, true, 10), ERROR_NETCORE_SOCKET_SELECT_PARAMENT);
    EXPECT_CODE(NetCore_Socket_Recv(ClosedFd(), buf, &len), ERROR_NETCORE_SOCKET_RECV_FAILED);
    EXPECT_CODE(NetCore_Socket_Recv(0, buf, nullptr), ERROR_NETCORE_SOCKET_RECV_FAILED);
    for (bool high : {false, true}) {
        Fd client, server;
        nctest::TcpPair(AF_INET, &client, &server);
        if (high) lift(&client), lift(&server);
        const int reader = server.Get(), writer = client.Get();
        ASSERT_TRUE(NetCore_Socket_SetNoneBlock(reader, true));
        EXPECT_CODE(NetCore_Socket_Recv(reader, buf, &len), ERROR_NETCORE_SOCKET_RECV_EMPTY);
        // above FD_SETSIZE glibc folds whole seconds out of the microseconds field, bionic refuses them
#if defined(__BIONIC__)
        const int waitMs = high ? nctest::kLongestWaitMs : 20;
#else
        const int waitMs = high ? 1100 : 20;
#endif
        auto start = Clock::now();
        EXPECT_CODE(NetCore_Socket_IOSelect(reader, true, waitMs), ERROR_NETCORE_SOCKET_SELECT_TIMEOUT);
        EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(waitMs));
        EXPECT_CODE(NetCore_Socket_IOSelect(writer, false, 0), 0);
        // the peer sends once this thread sleeps in the wait
        std::ifstream stat("/proc/self/task/" + std::to_string(syscall(SYS_gettid)) + "/stat");
        std::thread peer([&] {
            nctest::WaitFor([&] {
                std::string tid, name, state;
                return stat.seekg(0) >> tid >> name >> state, state == "S";
            });
            send(writer, "r", 1, 0);
        });
        EXPECT_CODE(NetCore_Socket_IOSelect(reader, true, nctest::kLongestWaitMs), 0);
        peer.join();
        EXPECT_CODE(NetCore_Socket_Recv(reader, buf, &len), 0);
        EXPECT_TRUE(buf[0] == 'r' && len == sizeof(buf)) << "the count is not written back";
        // select itself refuses a negative time-out
        EXPECT_CODE(NetCore_Socket_IOSelect(reader, true, -1), ERROR_NETCORE_SOCKET_SELECT_FAILED);
        EXPECT_EQ(EINVAL, (NetCore_GetLastError(&sysError), sysError));
        // Close shuts the connection down: the peer and a duplicate of the descriptor see the end
        Fd copy(dup(writer));
        EXPECT_CODE(NetCore_Socket_Close(client.Release()), 0);
        for (int fd : {reader, copy.Get()}) {
            EXPECT_CODE(NetCore_Socket_IOSelect(fd, true, nctest::kLongestWaitMs), 0);
            EXPECT_CODE(NetCore_Socket_Recv(fd, buf, &len), ERROR_NETCORE_SOCKET_RECV_CLOSED);
        }
        server.Reset();
        EXPECT_CODE(NetCore_Socket_IOSelect(reader, true, 10), ERROR_NETCORE_SOCKET_SELECT_FAILED);
        EXPECT_EQ(EBADF, (NetCore_GetLastError(&sysError), sysError));
    }
    // a pipe's read end whose writer is gone reports only a hang-up: select does not count that
    // as writable and waits out the whole time-out
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    close(ends[1]);
    Fd reader(ends[0]);
    lift(&reader);
    auto start = Clock::now();
    EXPECT_CODE(NetCore_Socket_IOSelect(reader.Get(), false, nctest::kLongestWaitMs),
                ERROR_NETCORE_SOCKET_SELECT_TIMEOUT);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(nctest::kLongestWaitMs));
}

}  // namespace
