// The poll() TCP server through its exported functions, with real clients on loopback.
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TCPServerTestUtil.h"

namespace {

using nctest::ErrorFlag;
using nctest::Fd;
using nctest::WaitFor;
using tcptest::AddrText;
using tcptest::ExpectFailure;
using tcptest::ReadSome;
using tcptest::Recorder;
using tcptest::SendText;

bool GetList(char*** list, int* count) {
    return NetCore_TCPXPoll_GetList(list, count);
}

int ClientCount() {
    int count = 0;
    return NetCore_TCPXPoll_GetList(nullptr, &count) ? count : 0;
}

// A leave callback that records through a Recorder and holds the leave of each client named in
// Hold() until all of them have arrived (or 5 s pass). While a group's thread is held there, it
// has not yet read what made it take the client for departed, so a message that two groups poll
// is seen by both before either reads it.
struct LeaveGate {
    explicit LeaveGate(Recorder* recorder) : rec(recorder) {}
    void Hold(std::set<std::string> addrs) {
        std::lock_guard<std::mutex> guard(lock);
        held = std::move(addrs);
        arrived = 0;
    }
    static void Leave(const char* addr, int socket, void* ctx) {
        auto* self = static_cast<LeaveGate*>(ctx);
        Recorder::Leave(addr, socket, self->rec);
        std::unique_lock<std::mutex> guard(self->lock);
        if (self->held.count(addr) == 0) return;
        self->arrived++;
        self->allArrived.notify_all();
        self->allArrived.wait_for(guard, std::chrono::seconds(5),
                                  [self] { return self->arrived == self->held.size(); });
    }

    Recorder* rec;
    std::mutex lock;
    std::condition_variable allArrived;
    std::set<std::string> held;  // guarded by lock
    size_t arrived = 0;          // guarded by lock
};

class TCPXPollTest : public nctest::NetCoreTest {
protected:
    void SetUp() override {
        NetCoreTest::SetUp();
        ASSERT_TRUE(
            NetCore_TCPXPoll_RegisterCallBack(Recorder::Login, Recorder::Recv, Recorder::Leave, &rec, &rec, &rec));
    }
    void TearDown() override {
        // the server is one global object: every test ends with it stopped and without clients
        clients.clear();
        EXPECT_TRUE(WaitFor([] { return ClientCount() == 0; })) << "clients left in the server";
        NetCore_TCPXPoll_Stop(true);
        NetCoreTest::TearDown();
    }
    int Start(int maxClient, int family = AF_INET) {
        return tcptest::StartOnFreePort(family,
                                        [&](int port) { return NetCore_TCPXPoll_Start(port, maxClient, family); });
    }
    // Connects a client and waits until the server has admitted it.
    int Connect(int family, int port) {
        size_t before = rec.Count(rec.logins);
        clients.push_back(nctest::ConnectTcp(family, port));
        EXPECT_TRUE(rec.WaitCount(rec.logins, before + 1));
        return clients.back().Get();
    }
    void Disconnect(size_t index) {
        size_t before = rec.Count(rec.leaves);
        clients[index].Reset();
        EXPECT_TRUE(rec.WaitCount(rec.leaves, before + 1));
    }

    Recorder rec;
    LeaveGate gate{&rec};  // outlives TearDown, where the server may still call it
    std::vector<Fd> clients;
};

TEST_F(TCPXPollTest, LoginReceiveSendAndLeaveNameTheClientByAddress) {
    int port = Start(100);
    int fd = Connect(AF_INET, port);
    std::string addr = AddrText(fd);
    EXPECT_EQ(0u, addr.rfind("127.0.0.1:", 0));

    auto logins = rec.Copy(rec.logins);
    ASSERT_EQ(1u, logins.size());
    EXPECT_EQ(addr, logins[0].addr);
    int serverSocket = logins[0].socket;
    EXPECT_GT(serverSocket, 0);

    SendText(fd, "hello");
    ASSERT_TRUE(rec.WaitCount(rec.recvs, 1));
    auto recvs = rec.Copy(rec.recvs);
    EXPECT_EQ(addr, recvs[0].addr);
    EXPECT_EQ(serverSocket, recvs[0].socket);
    EXPECT_EQ("hello", recvs[0].data);

    ASSERT_TRUE(NetCore_TCPXPoll_Send(addr.c_str(), "world!", 6));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ("world!", ReadSome(fd));

    // sent and received bytes are both counted in the second counter
    unsigned long long up = 99, down = 0;
    EXPECT_TRUE(NetCore_TCPXPoll_GetNetFlow(&up, &down));
    EXPECT_EQ(0u, up);
    EXPECT_EQ(11u, down);

    EXPECT_EQ(std::vector<std::string>{addr}, tcptest::TakeList(GetList));

    Disconnect(0);
    auto leaves = rec.Copy(rec.leaves);
    ASSERT_EQ(1u, leaves.size());
    EXPECT_EQ(addr, leaves[0].addr);
    EXPECT_EQ(serverSocket, leaves[0].socket);
    EXPECT_TRUE(WaitFor([] { return ClientCount() == 0; }));
    EXPECT_FALSE(NetCore_TCPXPoll_Send(addr.c_str(), "x", 1));
    ExpectFailure(ERROR_NETCORE_TCPXPOLL_SEND_NOTFOUND);

    // Stop(false) keeps the counters, Stop(true) clears them
    EXPECT_TRUE(NetCore_TCPXPoll_Stop(false));
    EXPECT_TRUE(NetCore_TCPXPoll_GetNetFlow(&up, &down));
    EXPECT_EQ(11u, down);
    Start(100);
    EXPECT_TRUE(NetCore_TCPXPoll_Stop(true));
    EXPECT_TRUE(NetCore_TCPXPoll_GetNetFlow(&up, &down));
    EXPECT_EQ(0u, down);
}

TEST_F(TCPXPollTest, AdmitsOneClientMoreThanTheLimitAndRefusesWithSocketZero) {
    // a limit of 1 admits two clients: the test is strictly greater-than
    int port = Start(1);
    Connect(AF_INET, port);
    Connect(AF_INET, port);
    EXPECT_EQ(2, ClientCount());

    clients.push_back(nctest::ConnectTcp(AF_INET, port));
    int refused = clients.back().Get();
    ASSERT_TRUE(rec.WaitCount(rec.logins, 3));
    auto logins = rec.Copy(rec.logins);
    EXPECT_EQ(AddrText(refused), logins[2].addr);
    EXPECT_EQ(0, logins[2].socket);
    EXPECT_EQ("", ReadSome(refused)) << "the refused connection is closed";
    EXPECT_EQ(2, ClientCount());
}

TEST_F(TCPXPollTest, ArgumentAndStateFailures) {
    EXPECT_FALSE(
        NetCore_TCPXPoll_RegisterCallBack(nullptr, Recorder::Recv, Recorder::Leave, nullptr, nullptr, nullptr));
    ExpectFailure(ERROR_NETCORE_TCPXPOLL_REGISTERCALLBACK_PARAMENT);
    // a null context keeps the one registered before: the callbacks below still see &rec
    EXPECT_TRUE(
        NetCore_TCPXPoll_RegisterCallBack(Recorder::Login, Recorder::Recv, Recorder::Leave, nullptr, nullptr, nullptr));
    EXPECT_FALSE(ErrorFlag());

    int count = -1;
    EXPECT_FALSE(NetCore_TCPXPoll_GetList(nullptr, nullptr));
    ExpectFailure(ERROR_NETCORE_TCPSELECT_GETLIST_PARAMENT);
    EXPECT_FALSE(NetCore_TCPXPoll_GetList(nullptr, &count));
    ExpectFailure(ERROR_NETCORE_TCPSELECT_GETLIST_EMPTY);
    // a null address is an unknown one
    for (const char* lpszAddr : {"127.0.0.1:1", static_cast<const char*>(nullptr)}) {
        EXPECT_FALSE(NetCore_TCPXPoll_Send(lpszAddr, "x", 1));
        ExpectFailure(ERROR_NETCORE_TCPXPOLL_SEND_NOTFOUND);
        EXPECT_TRUE(NetCore_TCPXPoll_Close(lpszAddr));
    }
    // a null output is skipped, the other still filled
    unsigned long long nFlow = 0;
    EXPECT_TRUE(NetCore_TCPXPoll_GetNetFlow(nullptr, &nFlow));
    EXPECT_TRUE(NetCore_TCPXPoll_GetNetFlow(&nFlow, nullptr));
    EXPECT_TRUE(NetCore_TCPXPoll_Stop(true)) << "stopping a stopped server";

    // a busy port: the bind's code
    int busyPort = 0;
    Fd busy = nctest::ListenTcp(AF_INET, &busyPort);
    EXPECT_FALSE(NetCore_TCPXPoll_Start(busyPort, 10, AF_INET));
    ExpectFailure(ERROR_NETCORE_SOCKET_BIND_BIND);

    int port = Start(10);
    EXPECT_FALSE(NetCore_TCPXPoll_Start(port + 1, 10, AF_INET));
    ExpectFailure(ERROR_NETCORE_TCPXPOLL_START_ISRUN);

    Connect(AF_INET, port);
    EXPECT_EQ(1u, rec.Count(rec.logins)) << "the login callback still has its context";
    EXPECT_TRUE(NetCore_TCPXPoll_GetList(nullptr, &count));
    EXPECT_EQ(1, count);
}

TEST_F(TCPXPollTest, CloseByTheApplicationReportsNoLeave) {
    int port = Start(10);
    int fd = Connect(AF_INET, port);
    std::string addr = AddrText(fd);
    EXPECT_TRUE(NetCore_TCPXPoll_Close(addr.c_str()));
    EXPECT_EQ("", ReadSome(fd)) << "the client sees its connection closed";
    EXPECT_EQ(0, ClientCount());
    // a second client is served normally afterwards
    int other = Connect(AF_INET, port);
    SendText(other, "ping");
    ASSERT_TRUE(rec.WaitCount(rec.recvs, 1));
    EXPECT_EQ(0u, rec.Count(rec.leaves));
    Disconnect(1);
    EXPECT_EQ(1u, rec.Count(rec.leaves));
}

// One poll result covers the first entries of a group: an idle client ahead of the one with data
// is taken for departed.
TEST_F(TCPXPollTest, AnIdleClientAheadOfABusyOneInItsGroupIsTakenForDeparted) {
    int port = Start(10);
    int idle = Connect(AF_INET, port);
    int busy = Connect(AF_INET, port);
    SendText(busy, "data");
    ASSERT_TRUE(rec.WaitCount(rec.recvs, 1));
    std::vector<std::string> expected{"login " + AddrText(idle), "login " + AddrText(busy), "leave " + AddrText(idle),
                                      "recv " + AddrText(busy)};
    {
        std::lock_guard<std::mutex> guard(rec.lock);
        EXPECT_EQ(expected, rec.order);
    }
    EXPECT_EQ("", ReadSome(idle));
    EXPECT_EQ(std::vector<std::string>{AddrText(busy)}, tcptest::TakeList(GetList));
}

// 65 clients share the first group (the 65th is served too); the 66th founds a second group; a
// client arriving while both groups have room joins both and is still reported once.
TEST_F(TCPXPollTest, GroupsHoldSixtyFiveClientsAndANewcomerJoinsEveryGroupWithRoom) {
    int port = Start(1000);
    const int threadsBefore = nctest::CountThreads();
    for (int i = 0; i < 66; i++)
        Connect(AF_INET, port);
    EXPECT_EQ(66, ClientCount());
    EXPECT_TRUE(WaitFor([&] { return nctest::CountThreads() == threadsBefore + 2; })) << "one receive thread per group";

    // the client of the second group is read at once, nobody leaves
    SendText(clients[65].Get(), "second group");
    ASSERT_TRUE(rec.WaitCount(rec.recvs, 1));
    EXPECT_EQ(AddrText(clients[65].Get()), rec.Copy(rec.recvs)[0].addr);
    EXPECT_EQ(0u, rec.Count(rec.leaves));

    // the 65th record of the first group is polled: its data arrives, once the 64 idle clients
    // ahead of it have been taken for departed
    SendText(clients[64].Get(), "sixty-fifth");
    ASSERT_TRUE(rec.WaitCount(rec.recvs, 2));
    EXPECT_EQ("sixty-fifth", rec.Copy(rec.recvs)[1].data);
    EXPECT_EQ(64u, rec.Count(rec.leaves));
    EXPECT_EQ(2, ClientCount());

    // both groups have room now: the newcomer joins both, and its first message pushes out the
    // idle client of each. Whichever group reads the message first takes it, so each group's
    // thread is held in its idle client's leave until the other has polled the message too.
    gate.Hold({AddrText(clients[64].Get()), AddrText(clients[65].Get())});
    ASSERT_TRUE(
        NetCore_TCPXPoll_RegisterCallBack(Recorder::Login, Recorder::Recv, LeaveGate::Leave, &rec, &rec, &gate));
    int newcomer = Connect(AF_INET, port);
    SendText(newcomer, "both");
    ASSERT_TRUE(rec.WaitCount(rec.recvs, 3));
    ASSERT_TRUE(rec.WaitCount(rec.leaves, 66));
    EXPECT_EQ(std::vector<std::string>{AddrText(newcomer)}, tcptest::TakeList(GetList));
    ASSERT_TRUE(NetCore_TCPXPoll_Send(AddrText(newcomer).c_str(), "ok", 2));
    EXPECT_EQ("ok", ReadSome(newcomer));
    SendText(newcomer, "again");
    ASSERT_TRUE(rec.WaitCount(rec.recvs, 4));
    clients.back().Reset();
    ASSERT_TRUE(rec.WaitCount(rec.leaves, 67));
    EXPECT_TRUE(WaitFor([] { return ClientCount() == 0; }));
    // every message once, the newcomer's departure once
    auto recvs = rec.Copy(rec.recvs);
    EXPECT_EQ(4u, recvs.size());
    EXPECT_EQ("again", recvs.back().data);
    auto leaves = rec.Copy(rec.leaves);
    EXPECT_EQ(1, std::count_if(leaves.begin(), leaves.end(),
                               [&](const tcptest::Event& e) { return e.addr == recvs.back().addr; }));
}

// A client that does not read holds up only the Send to it: others still log in, and Close ends
// the blocked send.
TEST_F(TCPXPollTest, ASendBlockedOnAClientThatDoesNotReadHoldsUpNobodyElse) {
    int port = Start(10);
    int stuck = Connect(AF_INET, port);
    std::string addr = AddrText(stuck);
    std::vector<char> big(64 << 20, 'x');
    std::atomic<int> sent{-1};
    std::thread sender([&] { sent = NetCore_TCPXPoll_Send(addr.c_str(), big.data(), static_cast<int>(big.size())); });
    EXPECT_TRUE(WaitFor([&] {
        int queued = 0;
        return ioctl(stuck, FIONREAD, &queued) == 0 && queued > 0;
    }));
    Connect(AF_INET, port);
    EXPECT_EQ(2, ClientCount());
    EXPECT_EQ(-1, sent.load()) << "the send is still blocked";
    EXPECT_TRUE(NetCore_TCPXPoll_Close(addr.c_str()));
    sender.join();
    EXPECT_EQ(0, sent.load());
}

// Stop, then Close of the remaining clients: each group's pipe and thread go with its last
// client, without a further Stop or Start.
TEST_F(TCPXPollTest, CloseAfterStopReleasesEveryGroup) {
    const int fdsBefore = nctest::CountOpenFds();
    const int threadsBefore = nctest::CountThreads();
    int port = Start(1000);
    for (int i = 0; i < 66; i++)
        Connect(AF_INET, port);
    EXPECT_TRUE(NetCore_TCPXPoll_Stop(false));
    for (const std::string& addr : tcptest::TakeList(GetList))
        EXPECT_TRUE(NetCore_TCPXPoll_Close(addr.c_str()));
    EXPECT_TRUE(WaitFor([&] {
        return nctest::CountThreads() == threadsBefore && nctest::CountOpenFds() == fdsBefore + 66;
    })) << nctest::CountThreads() - threadsBefore
        << " threads, " << nctest::CountOpenFds() - fdsBefore - 66 << " descriptors left";
}

TEST_F(TCPXPollTest, ServesIPv6Clients) {
    if (!nctest::Ipv6Available()) GTEST_SKIP() << "no IPv6 loopback on this host";
    int port = Start(10, AF_INET6);
    int fd = Connect(AF_INET6, port);
    std::string addr = AddrText(fd);
    EXPECT_EQ(0u, addr.rfind("::1:", 0)) << addr;
    EXPECT_EQ(addr, rec.Copy(rec.logins)[0].addr);
    SendText(fd, "v6");
    ASSERT_TRUE(rec.WaitCount(rec.recvs, 1));
    ASSERT_TRUE(NetCore_TCPXPoll_Send(addr.c_str(), "six", 3));
    EXPECT_EQ("six", ReadSome(fd));
    Disconnect(0);
}

TEST_F(TCPXPollTest, StopLeavesClientsServedAndASecondStartAcceptsAgain) {
    int port = Start(10);
    int fd = Connect(AF_INET, port);
    EXPECT_TRUE(NetCore_TCPXPoll_Stop(false));
    // no longer accepting
    Fd refused(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_NE(0, connect(refused.Get(), reinterpret_cast<sockaddr*>(&to), sizeof(to)));
    EXPECT_EQ(1, ClientCount()) << "Stop does not touch the clients";

    // after a second start the old client is still served and new ones are admitted
    int port2 = Start(10);
    SendText(fd, "old");
    ASSERT_TRUE(rec.WaitCount(rec.recvs, 1));
    EXPECT_EQ(AddrText(fd), rec.Copy(rec.recvs)[0].addr);
    int fd2 = Connect(AF_INET, port2);
    ASSERT_TRUE(NetCore_TCPXPoll_Send(AddrText(fd2).c_str(), "new", 3));
    EXPECT_EQ("new", ReadSome(fd2));
    // in group order, so that no idle client is left ahead of a departing one
    Disconnect(0);
    Disconnect(1);
}

}  // namespace
