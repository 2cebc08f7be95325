// The select() TCP server through its exported functions, with real clients on loopback.
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "TCPServerTestUtil.h"

extern char** environ;

namespace {

using nctest::ErrorFlag;
using nctest::Fd;
using nctest::WaitFor;
using tcptest::AddrText;
using tcptest::ExpectFailure;
using tcptest::ReadSome;
using tcptest::Recorder;
using tcptest::SendText;

constexpr int kSelectTimeOut = 50;

bool GetList(char*** list, int* count) {
    return NetCore_TCPSelect_GetList(list, count);
}

int ClientCount() {
    int count = 0;
    return NetCore_TCPSelect_GetList(nullptr, &count) ? count : 0;
}

struct Pulled {
    bool ok;
    std::string addr;
    int len;
    unsigned long type;
};

// ReadIOEvent with an address filter and a type mask.
Pulled Pull(const std::string& prefix, unsigned long mask, char* buffer = nullptr) {
    char addr[128] = {};
    snprintf(addr, sizeof(addr), "%s", prefix.c_str());
    char scratch[16];
    int len = -1;
    unsigned long type = mask;
    bool ok = NetCore_TCPSelect_ReadIOEvent(addr, buffer != nullptr ? buffer : scratch, &len, &type);
    return {ok, addr, len, type};
}

class TCPSelectTest : public nctest::NetCoreTest {
protected:
    void TearDown() override {
        NetCore_TCPSelect_Stop(true);
        NetCore_TCPSelect_RegisterCallBack(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
        clients.clear();
        NetCoreTest::TearDown();
    }
    void UseCallbacks() {
        ASSERT_TRUE(
            NetCore_TCPSelect_RegisterCallBack(Recorder::Login, Recorder::Recv, Recorder::Leave, &rec, &rec, &rec));
    }
    int Start(int family = AF_INET, bool keepAlive = false) {
        return tcptest::StartOnFreePort(
            family, [&](int port) { return NetCore_TCPSelect_Start(port, kSelectTimeOut, keepAlive, family); });
    }
    // Connects a client and waits until the server has it in its list.
    int Connect(int family, int port) {
        int before = ClientCount();
        clients.push_back(nctest::ConnectTcp(family, port));
        EXPECT_TRUE(WaitFor([&] { return ClientCount() == before + 1; }));
        return clients.back().Get();
    }

    Recorder rec;
    std::vector<Fd> clients;
};

TEST_F(TCPSelectTest, CallbacksNameTheClientAndFlowCountsBothWays) {
    UseCallbacks();
    int port = Start();
    int fd = Connect(AF_INET, port);
    std::string addr = AddrText(fd);
    ASSERT_TRUE(rec.WaitCount(rec.logins, 1));
    auto logins = rec.Copy(rec.logins);
    EXPECT_EQ(addr, logins[0].addr);
    EXPECT_GT(logins[0].socket, 0);

    SendText(fd, "hello");
    ASSERT_TRUE(rec.WaitCount(rec.recvs, 1));
    EXPECT_EQ("hello", rec.Copy(rec.recvs)[0].data);
    EXPECT_EQ(addr, rec.Copy(rec.recvs)[0].addr);
    ASSERT_TRUE(NetCore_TCPSelect_Send(addr.c_str(), "abc", 3));
    EXPECT_EQ("abc", ReadSome(fd));

    unsigned long long up = 0, down = 0;
    ASSERT_TRUE(NetCore_TCPSelect_GetFlow(&up, &down));
    EXPECT_EQ(3u, up);
    EXPECT_EQ(5u, down);
    EXPECT_EQ(std::vector<std::string>{addr}, tcptest::TakeList(GetList));

    // the peer leaves: leave callback, then the close thread removes it
    clients.clear();
    ASSERT_TRUE(rec.WaitCount(rec.leaves, 1));
    EXPECT_EQ(addr, rec.Copy(rec.leaves)[0].addr);
    EXPECT_EQ(logins[0].socket, rec.Copy(rec.leaves)[0].socket);
    EXPECT_TRUE(WaitFor([] { return ClientCount() == 0; }));

    // Stop(false) keeps the counters, Stop(true) clears them
    EXPECT_TRUE(NetCore_TCPSelect_Stop(false));
    ASSERT_TRUE(NetCore_TCPSelect_GetFlow(&up, &down));
    EXPECT_EQ(5u, down);
    EXPECT_TRUE(NetCore_TCPSelect_Stop(true));
    ASSERT_TRUE(NetCore_TCPSelect_GetFlow(&up, &down));
    EXPECT_EQ(0u, up + down);
}

TEST_F(TCPSelectTest, ArgumentAndStateFailures) {
    int count = 0;
    unsigned long long flow = 0;
    EXPECT_FALSE(NetCore_TCPSelect_GetFlow(&flow, nullptr));
    ExpectFailure(ERROR_NETCORE_TCPSELECT_GETFLOW_PARAMENT);
    EXPECT_FALSE(NetCore_TCPSelect_GetList(nullptr, nullptr));
    ExpectFailure(ERROR_NETCORE_TCPSELECT_GETLIST_PARAMENT);
    EXPECT_FALSE(NetCore_TCPSelect_GetList(nullptr, &count));
    ExpectFailure(ERROR_NETCORE_TCPSELECT_GETLIST_EMPTY);
    // a null address is an unknown one
    for (const char* lpszAddr : {"127.0.0.1:1", static_cast<const char*>(nullptr)}) {
        EXPECT_FALSE(NetCore_TCPSelect_Send(lpszAddr, "x", 1));
        ExpectFailure(ERROR_NETCORE_TCPSELECT_SEND_NOTFOUND);
        EXPECT_TRUE(NetCore_TCPSelect_RemoveClient(lpszAddr));
    }

    int busyPort = 0;
    Fd busy = nctest::ListenTcp(AF_INET, &busyPort);
    EXPECT_FALSE(NetCore_TCPSelect_Start(busyPort, kSelectTimeOut, false, AF_INET));
    ExpectFailure(ERROR_NETCORE_SOCKET_BIND_BIND);

    int port = Start();
    EXPECT_FALSE(NetCore_TCPSelect_Start(port + 1, kSelectTimeOut, false, AF_INET));
    ExpectFailure(ERROR_NETCORE_TCPSELECT_START_ISRUN);
}

TEST_F(TCPSelectTest, EventQueueWithoutCallbacks) {
    char address[64] = {}, buffer[16];
    int len = 0;
    unsigned long type = 0;
    EXPECT_FALSE(NetCore_TCPSelect_ReadIOEvent(nullptr, buffer, &len, &type));
    ExpectFailure(ERROR_NETCORE_TCPSELECT_READIOEVENT_PARAMENT);
    EXPECT_FALSE(NetCore_TCPSelect_ReadIOEvent(address, buffer, &len, nullptr));
    ExpectFailure(ERROR_NETCORE_TCPSELECT_READIOEVENT_PARAMENT);
    EXPECT_FALSE(Pull("", 0).ok);
    ExpectFailure(ERROR_NETCORE_TCPSELECT_READIOEVENT_EMPTY);

    int port = Start();
    int fd = Connect(AF_INET, port);
    std::string addr = AddrText(fd);
    SendText(fd, "abc");
    ASSERT_TRUE(WaitFor([] {
        unsigned long long up, down;
        NetCore_TCPSelect_GetFlow(&up, &down);
        return down == 3;
    }));
    clients.clear();
    ASSERT_TRUE(WaitFor([] { return ClientCount() == 0; }));
    // queued now: arrival, data, departure

    // a departure mask skips the arrival and the data
    Pulled left = Pull("", 0x10);
    ASSERT_TRUE(left.ok);
    EXPECT_EQ(addr, left.addr);
    EXPECT_EQ(0x10u, left.type);
    EXPECT_EQ(-1, left.len) << "only a data event writes a length";

    // an address filter is a prefix: one character short still matches
    EXPECT_FALSE(Pull("10.0.0.1", 0).ok);
    ExpectFailure(ERROR_NETCORE_TCPSELECT_READIOEVENT_NOTFOUND);
    EXPECT_FALSE(Pull("", 0x10).ok);
    ExpectFailure(ERROR_NETCORE_TCPSELECT_READIOEVENT_NOTFOUND);
    // the data event: its length, but the buffer is left as it was
    memset(buffer, 'Z', sizeof(buffer));
    Pulled data = Pull(addr.substr(0, addr.size() - 1), 0x100, buffer);
    ASSERT_TRUE(data.ok);
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(addr, data.addr) << "the whole address is written back";
    EXPECT_EQ(3, data.len);
    EXPECT_EQ(0x100u, data.type);
    EXPECT_EQ(std::string(sizeof(buffer), 'Z'), std::string(buffer, sizeof(buffer)));

    // mask 0 takes the head: the arrival
    Pulled head = Pull("", 0);
    ASSERT_TRUE(head.ok);
    EXPECT_EQ(0x01u, head.type);
    EXPECT_EQ(addr, head.addr);
    EXPECT_FALSE(Pull("", 0).ok);
    ExpectFailure(ERROR_NETCORE_TCPSELECT_READIOEVENT_EMPTY);

    // with a callback installed the queue is not read
    ASSERT_TRUE(NetCore_TCPSelect_RegisterCallBack(nullptr, nullptr, Recorder::Leave, nullptr, nullptr, &rec));
    EXPECT_FALSE(Pull("", 0).ok);
    ExpectFailure(ERROR_NETCORE_TCPSELECT_READIOEVENT_CALLBACK);
}

TEST_F(TCPSelectTest, RemoveClientAndStopEndClientsWithoutDepartureReports) {
    UseCallbacks();
    int port = Start();
    int first = Connect(AF_INET, port);
    int second = Connect(AF_INET, port);
    EXPECT_TRUE(NetCore_TCPSelect_RemoveClient(AddrText(first).c_str()));
    EXPECT_EQ(1, ClientCount());
    EXPECT_EQ("", ReadSome(first));

    EXPECT_TRUE(NetCore_TCPSelect_Stop(true));
    EXPECT_EQ("", ReadSome(second));
    EXPECT_EQ(0, ClientCount());
    EXPECT_EQ(0u, rec.Count(rec.leaves));

    // a second start works and serves new clients
    int port2 = Start();
    int third = Connect(AF_INET, port2);
    SendText(third, "again");
    ASSERT_TRUE(rec.WaitCount(rec.recvs, 1));
    EXPECT_EQ(AddrText(third), rec.Copy(rec.recvs)[0].addr);
}

// Callbacks that call back into the server: an echo, a client removing itself, and a Stop while
// clients are leaving and the close thread is removing them.
TEST_F(TCPSelectTest, CallbacksMayCallBackIntoTheServer) {
    rec.onRecv = [](Recorder*, const char* addr, const char* data, int len) {
        if (std::string(data, static_cast<size_t>(len)) == "bye") {
            NetCore_TCPSelect_RemoveClient(addr);
        } else {
            NetCore_TCPSelect_Send(addr, data, len);
        }
    };
    UseCallbacks();
    int port = Start();
    int fd = Connect(AF_INET, port);
    SendText(fd, "echo me");
    EXPECT_EQ("echo me", ReadSome(fd));
    SendText(fd, "bye");
    EXPECT_EQ("", ReadSome(fd));
    EXPECT_TRUE(WaitFor([] { return ClientCount() == 0; }));
    EXPECT_EQ(0u, rec.Count(rec.leaves));

    for (int i = 0; i < 20; i++)
        Connect(AF_INET, port);
    clients.clear();
    EXPECT_TRUE(NetCore_TCPSelect_Stop(true));
    EXPECT_EQ(0, ClientCount());
}

TEST_F(TCPSelectTest, ServesIPv6ClientsWithKeepAlive) {
    if (!nctest::Ipv6Available()) GTEST_SKIP() << "no IPv6 loopback on this host";
    static int keepAlive = -1;
    ASSERT_TRUE(NetCore_TCPSelect_RegisterCallBack(
        Recorder::Login,
        [](const char* addr, int socket, const char* data, int len, void* ctx) {
            socklen_t optLen = sizeof(keepAlive);
            getsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &keepAlive, &optLen);
            Recorder::Recv(addr, socket, data, len, ctx);
        },
        Recorder::Leave, &rec, &rec, &rec));
    int port = Start(AF_INET6, true);
    int fd = Connect(AF_INET6, port);
    std::string addr = AddrText(fd);
    EXPECT_EQ(0u, addr.rfind("::1:", 0)) << addr;
    EXPECT_EQ(addr, rec.Copy(rec.logins)[0].addr);
    SendText(fd, "v6");
    ASSERT_TRUE(rec.WaitCount(rec.recvs, 1));
    EXPECT_EQ(1, keepAlive) << "keep-alive is switched on for every client";
    ASSERT_TRUE(NetCore_TCPSelect_Send(addr.c_str(), "six", 3));
    EXPECT_EQ("six", ReadSome(fd));
}

// Leaving the process with both servers running and clients connected: the global objects'
// destructors stop every thread (a sanitizer would report a leaked thread, a hang times out).
TEST(TCPServerUnload, ExitWithBothServersRunningEndsCleanly) {
    if (getenv("NCTEST_TCPSERVER_UNLOAD_CHILD") != nullptr) {
        Recorder* rec = new Recorder;  // outlives the servers' last callbacks
        ASSERT_TRUE(NetCore_TCPXPoll_RegisterCallBack(Recorder::Login, Recorder::Recv, Recorder::Leave, rec, rec, rec));
        int pollPort =
            tcptest::StartOnFreePort(AF_INET, [](int port) { return NetCore_TCPXPoll_Start(port, 100, AF_INET); });
        int selectPort = tcptest::StartOnFreePort(
            AF_INET, [](int port) { return NetCore_TCPSelect_Start(port, kSelectTimeOut, false, AF_INET); });
        for (int i = 0; i < 3; i++) {
            nctest::ConnectTcp(AF_INET, pollPort).Release();
            nctest::ConnectTcp(AF_INET, selectPort).Release();
        }
        ASSERT_TRUE(rec->WaitCount(rec->logins, 3));
        ASSERT_TRUE(WaitFor([] { return ClientCount() == 3; }));
        return;  // exit with everything running
    }
    char self[4096] = {};
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    ASSERT_GT(n, 0);
    std::string filter = "--gtest_filter=TCPServerUnload.ExitWithBothServersRunningEndsCleanly";
    char* argv[] = {self, filter.data(), nullptr};
    std::vector<char*> env;
    std::string marker = "NCTEST_TCPSERVER_UNLOAD_CHILD=1";
    for (char** e = environ; *e != nullptr; e++)
        env.push_back(*e);
    env.push_back(marker.data());
    env.push_back(nullptr);
    pid_t child = 0;
    if (posix_spawn(&child, self, nullptr, nullptr, argv, env.data()) != 0) {
        GTEST_SKIP() << "cannot start a copy of the test program here";
    }
    int status = 0;
    bool ended = WaitFor([&] { return waitpid(child, &status, WNOHANG) == child; }, std::chrono::seconds(60));
    if (!ended) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    ASSERT_TRUE(ended) << "the process did not end: a server thread kept it alive";
    ASSERT_TRUE(WIFEXITED(status));
    // 127: the copy could not be executed (an emulated target without binfmt support)
    if (WEXITSTATUS(status) == 127) GTEST_SKIP() << "cannot execute a copy of the test program here";
    EXPECT_EQ(0, WEXITSTATUS(status));
}

}  // namespace
